// Lens data files under /data.
//
// Everything the lens module remembers across restarts: the zoom-focus reference curve measured by
// calibration, the lens parameter record with the motor bounds, the iris step table, the
// calibration offsets, the GPIO pin file, and a marker file whose presence selects the alternate
// lens set-up. Binary files are arrays of little-endian u16 read and written in one piece; text
// files are short and read whole. Readers never fail hard: a missing or short binary file comes
// back with its last entry (the form marker or validity mark) cleared, so its user falls back to
// defaults. Writers replace files atomically (store/atomic_file), so a power cut leaves the old or
// the new contents.
#pragma once

#include <cstdint>

inline constexpr const char* kCurveFilePath = "/data/curve.dat";
inline constexpr const char* kLensParamPath = "/data/lens_parameter.dat";
inline constexpr const char* kIrisFilePath = "/data/iris_data.dat";
inline constexpr const char* kOffsetFilePath = "/data/af_data.dat";
inline constexpr const char* kMarkerFilePath = "/data/QX-714B";
inline constexpr const char* kPinFilePath = "/data/af_gpio_pin.ini";

inline constexpr int kCurveEntries = 209;
inline constexpr uint16_t kCurveFullForm = 0xAA44;      // all points measured
inline constexpr uint16_t kCurveRefPointForm = 0xAA55;  // only entry 0 measured
inline constexpr int kLensParamEntries = 100;
inline constexpr uint16_t kLensParamValid = 0x55AA;

// Reference curve. After a read, entry n-1 is 0 when the file is missing or shorter than n.
void curve_file_read(uint16_t* buffer, int n);
// 1 written, 0 failed ("Can't make /data!!", "curve.dat Open Fail!", "Flash Save Fail!").
int curve_file_write(const uint16_t* buffer, int n);

// 1 read completely; 0 otherwise, with entry n-1 set to 0.
int lens_param_read(uint16_t* buffer, int n);
// Sets entry n-1 to the validity mark, then writes. 1 written, 0 failed.
int lens_param_write(uint16_t* buffer, int n);
// The in-memory lens parameter record (100 entries).
uint16_t lens_param_get(uint8_t index);
void lens_param_set(uint8_t index, uint16_t value);
void lens_param_load();
int lens_param_save();

// Iris step table, one decimal number per line. 0 written, -1 not opened.
int iris_file_write(const uint16_t* values, uint8_t count);
// Fills values from the file's lines; a missing file or missing lines leave values unchanged.
void iris_file_read(uint16_t* values, uint8_t count);

// Text files: read at most size bytes into a zeroed buffer of size + 1. 0 read; -1 missing (the
// buffer then holds an empty text).
int offset_file_read(char* buffer, uint16_t size);
int offset_file_write(const char* text, uint16_t length);
int pin_file_read(char* buffer, uint16_t size);

// Any short text file (daemon path): read at most size bytes, as above.
int text_file_read(const char* abs_path, char* buffer, uint16_t size);

// 1 if the marker file /data/QX-714B can be opened for reading, else 0.
int marker_present();
