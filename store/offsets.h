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

// The offset file's settings as last loaded, each already limited to its accepted range (a value
// outside it, or a missing key, gives the key's default). The lens modules apply them
// (lens_load_offsets); the store only keeps the file.
struct OffsetValues {
    uint8_t focus_backlash = 2;   // "FOCUS_OFFSET =", 0..30
    uint8_t zoom_backlash = 1;    // "ZOOM_OFFSET =", 0..20
    uint8_t iris_offset = 176;    // "IRIS_OFFSET =", 64..240
    uint8_t bias_offset = 64;     // "BIAS_OFFSET =", 32..96
    uint8_t zoom_gain = 204;      // "ZOOM_GAIN =", 0..255
    uint8_t focus_gain = 204;     // "FOCUS_GAIN =", 0..255
    uint8_t curve_form = 0;       // "CURVE_OFFSET =": 1 when the value is 1, else 0
    uint16_t iris_drive = 49139;  // "IRIS_DRIVE =", kept only
    uint16_t hall_version = 0;    // "HALL_VERSION =", kept only
};

// Reads the offset file into the record: 0 read, -1 missing (the record is left as it was).
int offset_load();
const OffsetValues& offset_values();
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
