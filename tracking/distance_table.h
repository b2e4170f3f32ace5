// Object distance to focus position. The lens data gives, for 36 object distances and every zoom
// step of 32, the focus offset of that distance relative to the reference distance (1000 mm) on
// whose curve the base focus curve lies. The expected focus position of a distance is the base
// focus curve plus that offset plus the lens calibration offset.
#pragma once

#include <cstdint>

// A distance value meaning "no distance known".
inline constexpr uint16_t kDistanceUnknown = 8192;

// Focus offset of distance d at the current zoom position (interpolated along zoom).
int16_t focus_offset(uint16_t d);
// The same at zoom step zoom / 32, without interpolation along zoom.
int16_t focus_offset_at(uint16_t d, uint16_t zoom);
// Focus position distance d needs at the current zoom position; 0 when it would be negative.
uint16_t expected_focus(uint16_t d);
// The same at the given zoom position, with focus_offset_at.
uint16_t expected_focus_at(uint16_t d, uint16_t zoom);

// Lens calibration offset (signed, -15..15 once learned) added to every expected position.
int8_t get_calibration_offset();
void set_calibration_offset(int8_t offset);
