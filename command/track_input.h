// Tracking box from the object tracker's shared-memory device.
#pragma once

#include <cstdint>

// Polls the tracking device; 1 while tracking is on, else 0.
uint32_t track_poll();

// Rebuilds the region-of-interest window mask from the image size and the region rectangle.
void track_set_roi(uint16_t width, uint16_t height, uint16_t x, uint16_t y, uint16_t w, uint16_t h);
