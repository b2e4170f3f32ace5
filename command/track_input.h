// Tracking box from the object tracker's shared-memory device.
#pragma once

#include <cstdint>

// Polls the tracking device; 1 while tracking is on, else 0.
uint32_t track_poll();
