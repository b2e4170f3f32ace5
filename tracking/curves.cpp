#include "tracking/curves.h"

#include <cstdio>
#include <cstring>

#include "base/dbgout.h"
#include "data/lens_tables.h"
#include "lens_api/lc898201.h"
#include "lens_api/lens_position.h"
#include "store/lens_data.h"
#include "tracking/distance_table.h"

namespace {

constexpr uint16_t kMarkerRefPoint = 0xAA55;  // only step 0 measured
constexpr uint16_t kMarkerFull = 0xAA44;      // every step measured
// Base value assumed when the unit has no curve file.
constexpr uint16_t kNoFileReference = 6000;
// Units calibrated in half steps store values below this; they are doubled on load.
constexpr uint16_t kHalfStepLimit = 4500;
// The lower search bound is where an object nearer than the nearest table distance would focus.
constexpr uint16_t kNearestDistance = 20;

struct CurveState {
    uint16_t base[kCurvePoints] = {};
    uint16_t lower[kCurvePoints] = {};
    uint16_t upper[kCurvePoints] = {};
    uint16_t anchor_zoom = 0;
    uint16_t anchor_focus = 0;
};

CurveState g_curve;

// Zoom step and the position within it; zoom positions past the last sample hold its value.
void split_zoom(uint16_t z, uint16_t& s, uint16_t& f) {
    s = z / 32;
    f = z % 32;
    if (s >= kCurvePoints - 1) {
        s = kCurvePoints - 1;
        f = 0;
    }
}

uint16_t doubled(uint16_t v) {
    return static_cast<uint16_t>((v % 32768u) * 2u);
}

// Packed calibration byte in the reference-point file: high byte and low byte add up to 255.
bool packed_valid(uint16_t v) {
    return ((v >> 8) & 0xFF) + (v & 0xFF) == 255;
}

void log_curve() {
    // 209 values of at most 6 characters, 14 line breaks.
    char text[kCurvePoints * 6 + 32];
    std::size_t n = 0;
    for (int s = 0; s < kCurvePoints; ++s) {
        n += static_cast<std::size_t>(
            std::snprintf(text + n, sizeof text - n, "%4d,", g_curve.base[s]));
        if ((s + 1) % 16 == 0)
            text[n++] = '\n';
    }
    text[n++] = '\n';
    text[n] = '\0';
    traceout("%s", text);
}

}  // namespace

uint16_t curve_focus_at(uint8_t c, uint16_t z) {
    uint16_t s = 0;
    uint16_t f = 0;
    split_zoom(z, s, f);
    const uint16_t* R = g_curve.base;
    if (c == 0) {
        if (f == 0)
            return R[s];
        if (R[s + 1] > R[s]) {
            const uint32_t step = (static_cast<uint32_t>(f) * (R[s + 1] - R[s])) & 0xFFFFu;
            return static_cast<uint16_t>(R[s] + (step + 16) / 32);
        }
        const uint32_t step = (static_cast<uint32_t>(f) * (R[s] - R[s + 1])) & 0xFFFFu;
        return static_cast<uint16_t>(R[s] - step / 32);
    }
    if (c > kFarCurveCount)
        c = kFarCurveCount;
    const uint16_t* O = afdata::kFarCurveOffsets[c - 1];
    if (f == 0)
        return static_cast<uint16_t>(R[s] + O[s]);
    const uint32_t fmax = lens_get_focus_max();
    uint32_t a = static_cast<uint32_t>(R[s]) + O[s];
    uint32_t b = static_cast<uint32_t>(R[s + 1]) + O[s + 1];
    if (a > fmax)
        a = fmax;
    if (b > fmax)
        b = fmax;
    const uint32_t d = b > a ? b - a : a - b;
    const uint32_t t = ((f * d) & 0xFFFFu) / 32;
    if (b <= a)
        return static_cast<uint16_t>(R[s] - t + O[s]);
    return static_cast<uint16_t>(R[s] + t + O[s]);
}

void curve_anchor(uint8_t mode) {
    if (mode == 0) {
        g_curve.anchor_zoom = 0;
        g_curve.anchor_focus = g_curve.base[0];
    } else if (mode == 1 && lens_get_zoom_pos() < 200) {
        g_curve.anchor_zoom = lens_get_zoom_pos();
        g_curve.anchor_focus = lens_get_focus_pos();
    }
}

uint16_t curve_get_anchor_zoom() {
    return g_curve.anchor_zoom;
}
uint16_t curve_get_anchor_focus() {
    return g_curve.anchor_focus;
}

void curve_rebuild_from_reference() {
    const int32_t offset = static_cast<int32_t>(g_curve.base[0]) - kCurveReferenceFocus;
    const uint32_t fmax = lens_get_focus_max();
    for (int s = 1; s < kCurvePoints; ++s) {
        const int32_t shape = afdata::kDefaultCurveShape[s];
        if (offset < 0) {
            g_curve.base[s] = -offset <= shape ? static_cast<uint16_t>(shape + offset) : 0;
        } else {
            uint32_t v = static_cast<uint32_t>(shape + offset);
            g_curve.base[s] = static_cast<uint16_t>(v > fmax ? fmax : v);
        }
    }
}

void curve_rebuild_bounds() {
    const uint32_t fmax = lens_get_focus_max();
    for (int s = 0; s < kCurvePoints; ++s) {
        g_curve.lower[s] = expected_focus_at(kNearestDistance, static_cast<uint16_t>(32 * s));
        const uint32_t o50 = afdata::kFarCurveOffsets[kFarCurveCount - 1][s];
        uint32_t margin = o50 < 100 ? 100 : (o50 > 300 ? 300 : o50);
        uint32_t up = g_curve.base[s] + o50 + margin / 2;
        g_curve.upper[s] = static_cast<uint16_t>(up >= fmax ? fmax : up);
    }
}

namespace {

// The base curve from the record in g_curve.base, whose form the marker gives: the
// reference-point form rebuilt from its entry 0, anything but the two forms as no file at all.
// Units calibrated in half steps are doubled after the anchor has been taken and the curve logged.
void build_base_curve(uint16_t marker) {
    uint16_t* R = g_curve.base;
    if (marker == kMarkerRefPoint) {
        if (R[0] < kHalfStepLimit)
            R[0] = doubled(R[0]);
        curve_rebuild_from_reference();
    } else if (marker != kMarkerFull) {
        traceout("Curve File is not exist \n");
        // Within the focus range, like every point built from it: a lens whose range ends below
        // the no-file reference has its top there.
        const uint32_t fmax = lens_get_focus_max();
        R[0] = static_cast<uint16_t>(fmax < kNoFileReference ? fmax : kNoFileReference);
        curve_rebuild_from_reference();
    }
    curve_anchor(0);
    log_curve();
    if (R[0] < kHalfStepLimit) {
        for (int s = 0; s < kCurvePoints - 1; ++s)
            R[s] = doubled(R[s]);
    }
}

// The first point of the base curve beyond the focus range, or -1.
int first_point_beyond_range() {
    const uint32_t fmax = lens_get_focus_max();
    for (int s = 0; s < kCurvePoints - 1; ++s)
        if (g_curve.base[s] > fmax)
            return s;
    return -1;
}

}  // namespace

int curve_load() {
    uint16_t* R = g_curve.base;
    curve_file_read(R, kCurvePoints);
    const uint16_t marker = R[kCurvePoints - 1];
    const uint16_t hall_offset = R[1];
    const uint16_t hall_bias = R[2];
    build_base_curve(marker);
    // A curve that leaves the focus range cannot come from a calibration of this lens (flash
    // corruption, another unit's file, a half-step reference so small that it is doubled twice):
    // its points would become tracking targets and search bounds, so the file is not used at all,
    // nor the Hall values it carries.
    if (const int s = first_point_beyond_range(); s >= 0) {
        traceout("curve.dat: point %d (%u) beyond the focus range %u, file not used \n", s,
                 static_cast<unsigned>(R[s]), static_cast<unsigned>(lens_get_focus_max()));
        build_base_curve(0);
    } else if (marker == kMarkerRefPoint) {
        if (packed_valid(hall_offset))
            lc_set_iris_offset(static_cast<uint8_t>(hall_offset >> 8));
        if (packed_valid(hall_bias))
            lc_set_bias_offset(static_cast<uint8_t>(hall_bias >> 8));
    }
    curve_rebuild_bounds();
    return 1;
}

uint16_t curve_get_lower_bound(uint16_t s) {
    return g_curve.lower[s < kCurvePoints ? s : kCurvePoints - 1];
}
uint16_t curve_get_upper_bound(uint16_t s) {
    return g_curve.upper[s < kCurvePoints ? s : kCurvePoints - 1];
}

void curve_set_bounds(uint16_t s, uint16_t lower, uint16_t upper) {
    if (s >= kCurvePoints)
        return;
    g_curve.lower[s] = lower;
    g_curve.upper[s] = upper;
}

uint16_t curve_get_point(uint16_t s) {
    return g_curve.base[s < kCurvePoints ? s : kCurvePoints - 1];
}
void curve_set_point(uint16_t s, uint16_t focus) {
    if (s < kCurvePoints)
        g_curve.base[s] = focus;
}
