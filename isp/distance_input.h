// Object distance from a rangefinder beside the lens.
//
// The distance assist of autofocus wants the distance to the subject; nothing in the picture
// statistics gives it. Cameras that carry a rangefinder (laser or radar module) have its driver
// publish each reading in the shared-memory device /dev/sm_distance_info, two little-endian u32:
// valid (0: no echo / no module), distance in millimetres. Polled once per processed frame.
#pragma once

#include <cstdint>

inline constexpr const char* kDistanceDevice = "/dev/sm_distance_info";
inline constexpr int kDistanceRecordSize = 8;
// The autofocus's "no distance known".
inline constexpr uint16_t kDistanceInputNone = 8192;

// The current reading in mm: kDistanceInputNone without a device or a valid reading; readings
// above 65535 mm are 65535 (far beyond where the focus still changes), and a reading of exactly
// 8192 mm is reported as 8193 so that it is not taken for "none". Logs when readings start and
// stop.
uint16_t distance_poll();

// Unmaps the device and forgets the state (tests).
void distance_input_reset();
