#include "store/lens_data.h"

#include <sys/stat.h>

#include <bit>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/dbgout.h"
#include "platform/clock.h"
#include "platform/paths.h"
#include "store/atomic_file.h"

// The files are little-endian u16 arrays written and read in one piece, which is the memory
// layout of the board (AArch64 little-endian) and of the desktop simulation.
static_assert(std::endian::native == std::endian::little, "lens data files are little-endian");

namespace {

// Flash writes right after a long motor sequence have been seen to fail on the board; the pause
// lets the supply settle before the page program.
constexpr uint32_t kCurveWritePauseUs = 80000;
constexpr int kIrisReadMax = 200;

uint16_t g_lensParam[kLensParamEntries];

// The binary files are arrays of little-endian u16, decoded and encoded byte by byte so that
// the files mean the same on any host.
constexpr int kMaxU16Entries = 512;

// Reads up to n u16 entries; returns how many complete entries were read, -1 if missing.
int read_u16_file(const char* abs_path, uint16_t* buffer, int n) {
    platform::Path p(abs_path);
    FILE* f = std::fopen(p.c_str(), "rb");
    if (f == nullptr)
        return -1;
    if (n > kMaxU16Entries)
        n = kMaxU16Entries;
    uint8_t bytes[2 * kMaxU16Entries];
    const std::size_t got = std::fread(bytes, 2, static_cast<std::size_t>(n), f);
    std::fclose(f);
    for (std::size_t i = 0; i < got; ++i)
        buffer[i] = static_cast<uint16_t>(bytes[2 * i] | (bytes[2 * i + 1] << 8));
    return static_cast<int>(got);
}

// Writes n u16 entries little-endian through the atomic save.
int write_u16_file(const char* abs_path, const uint16_t* buffer, int n) {
    if (n > kMaxU16Entries)
        n = kMaxU16Entries;
    uint8_t bytes[2 * kMaxU16Entries];
    for (int i = 0; i < n; ++i) {
        bytes[2 * i] = static_cast<uint8_t>(buffer[i] & 0xFF);
        bytes[2 * i + 1] = static_cast<uint8_t>(buffer[i] >> 8);
    }
    return atomic_file_write(abs_path, bytes, static_cast<std::size_t>(n) * 2);
}

int read_text_file(const char* abs_path, char* buffer, uint16_t size) {
    platform::Path p(abs_path);
    FILE* f = std::fopen(p.c_str(), "r");
    if (f == nullptr) {
        if (size > 0)
            buffer[0] = '\0';
        return -1;
    }
    const std::size_t got = std::fread(buffer, 1, size, f);
    (void)got;
    std::fclose(f);
    return 0;
}

// The data directory must exist before a save; created world-writable as the camera's other
// software writes there too.
bool ensure_data_dir() {
    platform::Path dir("/data");
    struct stat st;
    if (stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
        return true;
    return mkdir(dir.c_str(), 0777) == 0;
}

}  // namespace

void curve_file_read(uint16_t* buffer, int n) {
    if (buffer == nullptr || n <= 0)
        return;
    if (read_u16_file(kCurveFilePath, buffer, n) < n)
        buffer[n - 1] = 0;
}

int curve_file_write(const uint16_t* buffer, int n) {
    if (!ensure_data_dir()) {
        dbg_line("Can't make /data!!");
        return 0;
    }
    platform::sleep_us(kCurveWritePauseUs);
    const int rc = write_u16_file(kCurveFilePath, buffer, n);
    if (rc == kAtomicOpenFailed) {
        dbg_line("curve.dat Open Fail!");
        return 0;
    }
    if (rc != kAtomicOk) {
        dbg_line("Flash Save Fail!");
        return 0;
    }
    return 1;
}

int lens_param_read(uint16_t* buffer, int n) {
    if (buffer == nullptr || n <= 0)
        return 0;
    if (read_u16_file(kLensParamPath, buffer, n) < n) {
        buffer[n - 1] = 0;
        return 0;
    }
    return 1;
}

int lens_param_write(uint16_t* buffer, int n) {
    if (buffer == nullptr || n <= 0)
        return 0;
    buffer[n - 1] = kLensParamValid;
    const int rc = write_u16_file(kLensParamPath, buffer, n);
    if (rc == kAtomicOpenFailed) {
        dbg_line("lens_parameter.dat Open Fail!");
        return 0;
    }
    if (rc != kAtomicOk) {
        dbg_line("lens_parameter.dat Save Fail!");
        return 0;
    }
    return 1;
}

uint16_t lens_param_get(uint8_t index) {
    return index < kLensParamEntries ? g_lensParam[index] : 0;
}

void lens_param_set(uint8_t index, uint16_t value) {
    if (index < kLensParamEntries)
        g_lensParam[index] = value;
}

void lens_param_load() {
    lens_param_read(g_lensParam, kLensParamEntries);
}

int lens_param_save() {
    return lens_param_write(g_lensParam, kLensParamEntries);
}

int iris_file_write(const uint16_t* values, uint8_t count) {
    // 13 lines of at most 6 characters; 8 per value is ample for any count.
    char text[256 * 8];
    std::size_t len = 0;
    for (uint8_t i = 0; i < count; ++i)
        len += static_cast<std::size_t>(
            std::snprintf(text + len, sizeof text - len, "%d\n", static_cast<int>(values[i])));
    return atomic_file_write(kIrisFilePath, text, len) == kAtomicOk ? 0 : -1;
}

void iris_file_read(uint16_t* values, uint8_t count) {
    char text[kIrisReadMax + 1];
    std::memset(text, 0, sizeof text);
    if (read_text_file(kIrisFilePath, text, kIrisReadMax) != 0 || count == 0)
        return;
    const char* p = text;
    values[0] = static_cast<uint16_t>(std::strtol(p, nullptr, 10));
    for (uint8_t i = 1; i < count; ++i) {
        p = std::strchr(p, '\n');
        if (p == nullptr || p[1] == '\0')
            return;
        ++p;
        values[i] = static_cast<uint16_t>(std::strtol(p, nullptr, 10));
    }
}

int offset_file_read(char* buffer, uint16_t size) {
    return read_text_file(kOffsetFilePath, buffer, size);
}

int offset_file_write(const char* text, uint16_t length) {
    return atomic_file_write(kOffsetFilePath, text, length) == kAtomicOk ? 0 : -1;
}

int pin_file_read(char* buffer, uint16_t size) {
    return read_text_file(kPinFilePath, buffer, size);
}

int text_file_read(const char* abs_path, char* buffer, uint16_t size) {
    return read_text_file(abs_path, buffer, size);
}

int marker_present() {
    platform::Path p(kMarkerFilePath);
    FILE* f = std::fopen(p.c_str(), "r");
    if (f == nullptr)
        return 0;
    std::fclose(f);
    return 1;
}
