#include "store/offsets.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "base/dbgout.h"
#include "store/atomic_file.h"
#include "store/ini_value.h"
#include "store/lens_data.h"

namespace {

constexpr uint8_t kVersion[3] = {20, 4, 27};
constexpr int kVersionReadMax = 30;
// Longest key line: the longest key, a blank, three digits and the newline.
constexpr int kKeyLineMax = 32;

OffsetValues g_offsets;

const char* key_for_index(uint8_t index) {
    switch (index) {
        case kOffsetFocus:
            return "FOCUS_OFFSET =";
        case kOffsetZoom:
            return "ZOOM_OFFSET =";
        case kOffsetIris:
            return "IRIS_OFFSET =";
        case kOffsetBias:
            return "BIAS_OFFSET =";
        case kOffsetHallVersion:
            return "HALL_VERSION =";
        case kOffsetZoom2:
            return "ZOOM2_OFFSET =";
        default:
            return nullptr;
    }
}

int format_version(char* out, std::size_t size) {
    if (kVersion[2] <= 9)
        return std::snprintf(out, size, "AF: [%d.%d.%d%d]", kVersion[0], kVersion[1], 0,
                             kVersion[2]);
    return std::snprintf(out, size, "AF: [%d.%d.%d]", kVersion[0], kVersion[1], kVersion[2]);
}

}  // namespace

int version_write() {
    char text[32];
    const int n = format_version(text, sizeof text);
    return atomic_file_write(kVersionFilePath, text, static_cast<std::size_t>(n)) == kAtomicOk ? 0
                                                                                               : -1;
}

int version_check() {
    char text[kVersionReadMax + 1];
    std::memset(text, 0, sizeof text);
    if (text_file_read(kVersionFilePath, text, kVersionReadMax) != 0)
        return -1;
    const char* p = std::strstr(text, "AF: [");
    if (p == nullptr)
        return 0;
    p += 5;
    // Three numbers separated by dots, each read like atoi (the closing bracket is ignored), so
    // "20.4.07" matches as well.
    for (int i = 0; i < 3; ++i) {
        if (std::strtol(p, nullptr, 10) != kVersion[i])
            return 0;
        if (i < 2) {
            p = std::strchr(p, '.');
            if (p == nullptr)
                return 0;
            ++p;
        }
    }
    return 1;
}

int offset_load() {
    char text[kOffsetFileMax + 1];
    std::memset(text, 0, sizeof text);
    if (offset_file_read(text, kOffsetFileMax) != 0)
        return -1;

    uint32_t v = ini_get_value(text, "FOCUS_OFFSET =", 2);
    g_offsets.focus_backlash = static_cast<uint8_t>(v < 31 ? v : 2);
    v = ini_get_value(text, "ZOOM_OFFSET =", 1);
    g_offsets.zoom_backlash = static_cast<uint8_t>(v < 21 ? v : 1);
    v = ini_get_value(text, "IRIS_OFFSET =", 176);
    g_offsets.iris_offset = static_cast<uint8_t>(v >= 64 && v <= 240 ? v : 176);
    v = ini_get_value(text, "BIAS_OFFSET =", 64);
    g_offsets.bias_offset = static_cast<uint8_t>(v >= 32 && v <= 96 ? v : 64);
    g_offsets.curve_form = ini_get_value(text, "CURVE_OFFSET =", 0) == 1 ? 1 : 0;
    v = ini_get_value(text, "ZOOM_GAIN =", 204);
    g_offsets.zoom_gain = static_cast<uint8_t>(v < 256 ? v : 204);
    v = ini_get_value(text, "FOCUS_GAIN =", 204);
    g_offsets.focus_gain = static_cast<uint8_t>(v < 256 ? v : 204);
    g_offsets.iris_drive = static_cast<uint16_t>(ini_get_value(text, "IRIS_DRIVE =", 49139));
    g_offsets.hall_version = static_cast<uint16_t>(ini_get_value(text, "HALL_VERSION =", 0));
    return 0;
}

void offset_save(uint8_t index, uint8_t value) {
    const char* key = key_for_index(index);
    if (key == nullptr)
        return;
    char line[kKeyLineMax];
    const int line_len = std::snprintf(line, sizeof line, "%s %d\n", key, value);

    char old_text[kOffsetFileMax + 1];
    std::memset(old_text, 0, sizeof old_text);
    if (offset_file_read(old_text, kOffsetFileMax) != 0) {
        offset_file_write(line, static_cast<uint16_t>(line_len));
        return;
    }

    char new_text[kOffsetFileMax + kKeyLineMax + 2];
    std::size_t n = 0;
    const char* hit = std::strstr(old_text, key);
    if (hit != nullptr) {
        // Everything before the key's line, then everything after it without empty lines; the
        // key's new line goes to the end, so a key never appears twice.
        n = static_cast<std::size_t>(hit - old_text);
        std::memcpy(new_text, old_text, n);
        const char* rest = std::strchr(hit, '\n');
        if (rest != nullptr) {
            for (++rest; *rest != '\0'; ++rest) {
                if (*rest == '\n' && (n == 0 || new_text[n - 1] == '\n'))
                    continue;
                new_text[n++] = *rest;
            }
        }
    } else {
        n = std::strlen(old_text);
        std::memcpy(new_text, old_text, n);
    }
    // A last line without its newline would otherwise swallow the key line.
    if (n > 0 && new_text[n - 1] != '\n')
        new_text[n++] = '\n';
    std::memcpy(new_text + n, line, static_cast<std::size_t>(line_len));
    n += static_cast<std::size_t>(line_len);

    // Only kOffsetFileMax bytes are ever read back, and the saved key sits at the end: a longer
    // file would silently lose exactly this key. Keep the old file instead.
    if (n > kOffsetFileMax) {
        dbg_err(__FILE__, __func__, __LINE__, "af_data.dat would exceed %d bytes, %s not saved\n",
                kOffsetFileMax, key);
        return;
    }
    offset_file_write(new_text, static_cast<uint16_t>(n));
}

void offset_save_by_key(const char* key, int32_t value) {
    if (key == nullptr)
        return;
    for (uint8_t index :
         {kOffsetFocus, kOffsetZoom, kOffsetIris, kOffsetBias, kOffsetHallVersion, kOffsetZoom2}) {
        if (std::strcmp(key, key_for_index(index)) == 0) {
            offset_save(index, static_cast<uint8_t>(value));
            return;
        }
    }
}

const OffsetValues& offset_values() {
    return g_offsets;
}
uint8_t offset_curve_form() {
    return g_offsets.curve_form;
}
uint16_t offset_iris_drive() {
    return g_offsets.iris_drive;
}
uint16_t offset_hall_version() {
    return g_offsets.hall_version;
}
