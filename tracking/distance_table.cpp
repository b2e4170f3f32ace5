#include "tracking/distance_table.h"

#include "data/lens_tables.h"
#include "lens_api/lens_position.h"
#include "tracking/curves.h"

namespace {

constexpr int kLastRow = afdata::kDistanceRows - 1;  // key 30, the nearest distance

volatile int8_t g_calibrationOffset = 0;

// Row of the smallest key above d: scanning from the nearest distance outwards. Row 0
// (100000 mm) is above every u16 distance.
int row_above(uint16_t d) {
    for (int i = kLastRow; i > 0; --i) {
        if (afdata::kDistanceTable[i].key > d)
            return i;
    }
    return 0;
}

// A row's value at zoom z, interpolated along zoom in 16-bit arithmetic.
int16_t row_value(int row, uint16_t z) {
    const uint16_t s =
        z / 32 < afdata::kDistanceColumns - 1 ? z / 32 : afdata::kDistanceColumns - 2;
    const int32_t f = z / 32 < afdata::kDistanceColumns - 1 ? z % 32 : 0;
    const int16_t* T = afdata::kDistanceTable[row].offset;
    return static_cast<int16_t>(T[s] + (T[s + 1] - T[s]) * f / 32);
}

int16_t row_entry(int row, uint16_t zoom) {
    uint16_t s = zoom / 32;
    if (s >= afdata::kDistanceColumns)
        s = afdata::kDistanceColumns - 1;
    return afdata::kDistanceTable[row].offset[s];
}

// Base focus curve at zoom z, interpolated along zoom (16-bit arithmetic).
int32_t base_at(uint16_t z) {
    uint16_t s = z / 32;
    int32_t f = z % 32;
    if (s >= kCurvePoints - 1) {
        s = kCurvePoints - 1;
        f = 0;
    }
    const int32_t b0 = curve_get_point(s);
    const int32_t b1 = f != 0 ? curve_get_point(static_cast<uint16_t>(s + 1)) : b0;
    return static_cast<int16_t>(b0 + (b1 - b0) * f / 32);
}

uint16_t clamp_position(int32_t p) {
    const int16_t v = static_cast<int16_t>(p);
    return v < 0 ? 0 : static_cast<uint16_t>(v);
}

}  // namespace

int16_t focus_offset(uint16_t d) {
    const uint16_t z = lens_get_zoom_pos();
    const int i = row_above(d);
    if (i == kLastRow)
        return row_value(kLastRow, z);
    const int32_t a = row_value(i, z);
    const int32_t b = row_value(i + 1, z);
    const int32_t k_hi = static_cast<int32_t>(afdata::kDistanceTable[i].key);
    const int32_t k_lo = static_cast<int32_t>(afdata::kDistanceTable[i + 1].key);
    return static_cast<int16_t>(b + (a - b) * (static_cast<int32_t>(d) - k_lo) / (k_hi - k_lo));
}

int16_t focus_offset_at(uint16_t d, uint16_t zoom) {
    const int i = row_above(d);
    if (i == kLastRow)
        return row_entry(kLastRow, zoom);
    const int32_t a = row_entry(i, zoom);
    const int32_t b = row_entry(i + 1, zoom);
    const int32_t k_hi = static_cast<int32_t>(afdata::kDistanceTable[i].key);
    const int32_t k_lo = static_cast<int32_t>(afdata::kDistanceTable[i + 1].key);
    return static_cast<int16_t>(a - (a - b) * (k_hi - static_cast<int32_t>(d)) / (k_hi - k_lo));
}

uint16_t expected_focus(uint16_t d) {
    const uint16_t z = lens_get_zoom_pos();
    return clamp_position(base_at(z) + focus_offset(d) + g_calibrationOffset);
}

uint16_t expected_focus_at(uint16_t d, uint16_t zoom) {
    return clamp_position(base_at(zoom) + focus_offset_at(d, zoom) + g_calibrationOffset);
}

int8_t get_calibration_offset() {
    return g_calibrationOffset;
}
void set_calibration_offset(int8_t offset) {
    g_calibrationOffset = offset;
}
