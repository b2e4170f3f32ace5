// Version file and calibration-offset file.
//
// /dev/af_version_file carries the daemon's version for the camera's control software; it is
// checked at start-up and rewritten when it differs. /data/af_data.dat carries the per-unit
// calibration results as "KEY = value" lines: motor backlash, the LC898201 Hall offset and bias,
// drive gains and flags. Keys are looked up with ini_get_value; a value outside its accepted range
// gives the key's default.
#pragma once

#include <cstdint>

inline constexpr const char* kVersionFilePath = "/dev/af_version_file";
// Only this much of the offset file is read, and a save never makes it longer.
inline constexpr uint16_t kOffsetFileMax = 200;

// Key numbers of offset_save.
enum OffsetKey : uint8_t {
    kOffsetFocus = 0,        // "FOCUS_OFFSET =", focus backlash
    kOffsetZoom = 1,         // "ZOOM_OFFSET =", zoom backlash
    kOffsetIris = 2,         // "IRIS_OFFSET =", LC898201 Hall offset
    kOffsetBias = 3,         // "BIAS_OFFSET =", LC898201 Hall bias
    kOffsetHallVersion = 4,  // "HALL_VERSION =", 1 after a successful Hall calibration
    kOffsetZoom2 = 8,        // "ZOOM2_OFFSET =", written only
};

// Writes "AF: [20.4.27]". 0 written, -1 not opened.
int version_write();
// 1 the file holds this version, 0 another or none, -1 not opened.
int version_check();

// Applies every key of the offset file that is present; a missing file changes nothing.
void offset_load();
// Rewrites the line of one key (moved to the end of the file); other indices change nothing. A
// save that would make the file longer than is ever read back is refused with a message.
void offset_save(uint8_t index, uint8_t value);

// The same by key text ("IRIS_OFFSET ="); keys without a number change nothing. For callers
// that name the key, as the frame loop's Hall calibration does.
void offset_save_by_key(const char* key, int32_t value);

// Settings read by offset_load that belong to modules without a file of their own.
uint8_t offset_curve_form();     // "CURVE_OFFSET =": 1 when the value is 1, else 0
uint16_t offset_iris_drive();    // "IRIS_DRIVE =", kept only
uint16_t offset_hall_version();  // "HALL_VERSION =", kept only
