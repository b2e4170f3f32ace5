#include "tracking/zoom_track.h"

#include "base/af_status.h"
#include "base/command_state.h"
#include "base/frame_pacing.h"
#include "isp/highlight.h"
#include "lens_api/lens_position.h"
#include "tracking/curves.h"

#include <atomic>

namespace {

constexpr uint8_t kLastCurve = 51;
constexpr uint16_t kFocusLimit = 6120;
// Below this zoom position the curves lie so close together that tracking simply follows one
// mid-distance curve.
constexpr uint16_t kWideZoom = 2556;
constexpr uint8_t kWideCurve = 13;
constexpr uint8_t kMaxZoomSteps = 80;
// The focus can follow at most this many steps per frame (the move limit of lens_move).
constexpr uint32_t kMaxFocusFollow = 81;

// One probe: the three centre sharpness measures.
struct Probe {
    uint32_t m[3];
};

enum Slot { kLower = 0, kCurrent = 1, kUpper = 2 };

struct TrackState {
    uint8_t last_dir = 0;
    std::atomic<uint8_t> active{0};
    uint8_t current = 0;
    uint8_t start = 0;
    uint8_t move = 0;
    uint8_t span_down = 0;
    uint8_t span_up = 0;
    uint8_t probe_state = 0;
    uint8_t narrowing = 0;
    std::atomic<int8_t> trim{0};
    Probe probe[3] = {};
};

TrackState g_track;

uint32_t absdiff(uint32_t a, uint32_t b) {
    return a > b ? a - b : b - a;
}

// x beats y when it is more than 1/64 larger.
bool beats(uint32_t x, uint32_t y) {
    return static_cast<uint64_t>(x) > static_cast<uint64_t>(y) * 65 / 64;
}
bool above(uint32_t x, uint32_t y, uint32_t num, uint32_t den) {
    return static_cast<uint64_t>(x) > static_cast<uint64_t>(y) * num / den;
}

uint16_t trimmed_focus() {
    int32_t f = static_cast<int32_t>(lens_get_focus_pos()) + g_track.trim;
    if (f < 0)
        f = 0;
    if (f > kFocusLimit)
        f = kFocusLimit;
    return static_cast<uint16_t>(f);
}

Probe read_measures() {
    return Probe{
        {centre_sharpness_by_range(0), centre_sharpness_by_range(1), centre_sharpness_by_range(2)}};
}

// The curve through the (trimmed) focus position at zoom z. The scan takes big strides through
// curves far from the focus and single steps near it.
uint8_t find_curve(uint16_t z, uint16_t f) {
    const uint32_t base = curve_focus_at(0, z);
    if (f <= base)
        return 0;
    const uint32_t range = absdiff(curve_focus_at(kLastCurve, z), base);
    uint8_t best = 0;
    uint32_t best_d = 0xFFFFFFFFu;
    uint32_t i = 0;
    while (i <= 50) {
        const uint32_t d = absdiff(curve_focus_at(static_cast<uint8_t>(i), z), f);
        if (d == 0) {
            best = static_cast<uint8_t>(i);
            break;
        }
        if (d <= best_d) {
            best_d = d;
            best = static_cast<uint8_t>(i);
        }
        if (range >= 8 * d) {
            i += 1;
        } else if (range >= 4 * d) {
            i += 2;
        } else if (range >= 2 * d) {
            i += 5;
        } else {
            i += 10;
        }
    }
    return best;
}

void set_up(uint16_t z) {
    if (z < 200) {
        g_track.trim = static_cast<int8_t>(curve_focus_at(0, curve_get_anchor_zoom()) -
                                           curve_get_anchor_focus());
    }
    uint8_t best = find_curve(z, trimmed_focus());
    g_track.active = 1;
    const Probe now = read_measures();
    for (Probe& p : g_track.probe)
        p = now;
    g_track.probe_state = 0;
    if (z < kWideZoom)
        best = kWideCurve;
    g_track.span_down = best < 5 ? best : 5;
    g_track.span_up = best > 46 ? static_cast<uint8_t>(kLastCurve - best) : 5;
    g_track.current = g_track.start = g_track.move = best;
    set_centre_range_state(0);
}

// At high zoom the curves fan out and a probe one curve away already defocuses visibly, so the
// probing spans shrink as the zoom approaches the tele end.
void limit_spans(uint16_t z) {
    uint8_t limit = 255;
    if (z > 4476 && z < 4986) {
        limit = 4;
    } else if (z > 4986 && z < 5372) {
        limit = 3;
    } else if (z > 5372 && z < 5682) {
        limit = 2;
    } else if (z > 5682 && z < 5938) {
        limit = 1;
    } else if (z > 5938) {
        limit = 0;
    }
    if (g_track.span_down > limit)
        g_track.span_down = limit;
    if (g_track.span_up > limit)
        g_track.span_up = limit;
    if (g_track.span_down > g_track.current)
        g_track.span_down = g_track.current;
    if (g_track.current + g_track.span_up > 50) {
        g_track.span_up = static_cast<uint8_t>(kLastCurve - g_track.current);
    }
}

void dec(uint8_t& v) {
    if (v > 0)
        --v;
}

// Probe state 0: the lower, current and upper probes are all measured; decide where to go.
// Returns the move curve (signed: a span may take it below 0, which is clamped by the caller).
int32_t decide(uint16_t z, uint32_t a, uint32_t b, uint32_t c) {
    TrackState& t = g_track;
    if (t.span_up == 0 && t.span_down != 0) {
        if (beats(a, b) && beats(a, c)) {
            t.current = static_cast<uint8_t>(t.current - t.span_down);
            t.span_up = t.span_down;
            t.probe_state = 8;
            return t.current;
        }
        t.probe_state = 1;
        if (a < static_cast<uint64_t>(b) * 65 / 64 && a < static_cast<uint64_t>(c) * 65 / 64) {
            dec(t.span_down);
        }
        return t.current;
    }
    if (t.span_up != 0 && t.span_down == 0) {
        if (beats(c, b) && beats(c, a)) {
            t.current = static_cast<uint8_t>(t.current + t.span_up);
            t.span_down = t.span_up;
            t.probe_state = 8;
            return t.current;
        }
        t.probe_state = 1;
        if (beats(a, c) && beats(b, c)) {
            dec(t.span_up);
            return t.current + t.span_up;
        }
        return t.current;
    }
    if (above(b, a, 9, 8) && above(b, c, 9, 8)) {
        // The current curve is clearly the sharpest.
        if (z > 3746) {
            dec(t.span_down);
            dec(t.span_up);
        }
        t.narrowing = 0;
        t.probe_state = 1;
        return t.current + t.span_up;
    }
    if (beats(a, b) && beats(b, c)) {
        t.current = static_cast<uint8_t>(t.current - t.span_down);
        if (t.span_down > t.current)
            t.span_down = t.current;
        t.narrowing = 0;
        t.probe_state = 8;
        return t.current;
    }
    if (beats(c, b) && beats(b, a)) {
        t.current = static_cast<uint8_t>(t.current + t.span_up);
        t.narrowing = 0;
        t.probe_state = 8;
        return t.current;
    }
    if (z > 3746 && b > a && b > c) {
        // Current sharpest but not clearly: narrow the spans on the second such result.
        if (t.narrowing) {
            t.narrowing = 0;
            if (z > 4986) {
                dec(t.span_down);
                dec(t.span_up);
            }
        } else {
            t.narrowing = 1;
        }
    } else {
        t.narrowing = 0;
    }
    t.probe_state = 1;
    if (t.span_up + t.span_down > 0) {
        if (above(b, c, 17, 16) && a > c) {
            dec(t.current);
            if (t.span_down > t.current)
                t.span_down = t.current;
            return t.current + t.span_up;
        }
        if (above(b, a, 17, 16) && c > a) {
            if (t.current < kLastCurve)
                ++t.current;
            if (t.current + t.span_up > 50)
                t.span_up = static_cast<uint8_t>(kLastCurve - t.current);
        }
    }
    return t.current + t.span_up;
}

void probe(uint16_t z) {
    TrackState& t = g_track;
    uint8_t crs = get_centre_range_state();
    if (t.probe_state == 0 && crs < 3 && centre_sharpness_by_range(crs + 3) < 400) {
        set_centre_range_state(++crs);
    }

    // The lens shows a probe two processed frames after it was commanded (one at high rates),
    // so each slot is filled from the frame that shows its curve.
    const Probe now = read_measures();
    const uint8_t s = t.probe_state;
    if (get_high_rate()) {
        if (s == 3)
            t.probe[kLower] = now;
        if (s == 2)
            t.probe[kCurrent] = now;
        if (s == 1)
            t.probe[kUpper] = now;
    } else {
        if (s == 0)
            t.probe[kLower] = now;
        if (s == 3)
            t.probe[kCurrent] = now;
        if (s == 2)
            t.probe[kUpper] = now;
    }

    int32_t move = t.move;
    switch (s) {
        case 0: {
            // A centre too dark for the smallest range falls back to a wider one.
            int k = 0;
            if (t.probe[kLower].m[0] < 200) {
                if (t.probe[kLower].m[1] >= 201) {
                    k = 1;
                } else if (t.probe[kLower].m[2] > 200) {
                    k = 2;
                }
            }
            limit_spans(z);
            move = decide(z, t.probe[kLower].m[k], t.probe[kCurrent].m[k], t.probe[kUpper].m[k]);
            break;
        }
        case 1:
            move = t.current;
            t.probe_state = 2;
            break;
        case 2:
            move = static_cast<int32_t>(t.current) - t.span_down;
            t.probe_state = 3;
            break;
        case 3:
        case 4:
            move = t.current;
            t.probe_state = 0;
            break;
        case 5:
            t.probe_state = 0;
            break;
        case 8:
            move = t.current + t.span_up;
            t.probe_state = 1;
            break;
        default:
            break;
    }
    if (move < 0)
        move = 0;
    if (move > kLastCurve)
        move = kLastCurve;
    t.move = static_cast<uint8_t>(move);
    if (command_autofocus_mode() == 0)
        t.move = t.start;
}

}  // namespace

uint8_t zoom_track_step(uint8_t direction, uint8_t speed, uint8_t fallback) {
    const uint16_t z = lens_get_zoom_pos();
    const uint16_t zmax = lens_get_zoom_max();
    const uint16_t zmin = lens_get_zoom_min();
    const uint8_t dir = direction == 1 ? 1 : 0;

    if (direction != g_track.last_dir) {
        g_track.last_dir = direction;
        if (z != zmax)
            return 0;
    }
    g_zoomMotionMarker = 1;
    g_zoomTrackedSinceZone = 1;
    if ((dir == 1 && z == zmax) || (dir == 0 && z == zmin))
        return 0;
    g_refocusRequest = 1;

    if (g_track.active == 0)
        set_up(z);

    uint32_t steps = speed <= 8 ? zoom_speed_steps(speed, fallback) : 60;
    if (steps > kMaxZoomSteps)
        steps = kMaxZoomSteps;

    probe(z);

    // Reduce the zoom step until the focus can follow within one move.
    const uint16_t f = trimmed_focus();
    if (dir == 1) {
        const uint32_t room = z < zmax ? zmax - z : 0;
        if (steps > room)
            steps = room;
    } else {
        const uint32_t room = z > zmin ? z - zmin : 0;
        if (steps > room)
            steps = room;
    }
    uint32_t target = 0;
    for (;;) {
        const uint16_t at = static_cast<uint16_t>(dir == 1 ? z + steps : z - steps);
        target = curve_focus_at(g_track.move, at);
        if (absdiff(target, f) < kMaxFocusFollow || steps < 2)
            break;
        --steps;
    }
    const uint32_t need = absdiff(target, f);
    const uint8_t focus_dir = dir == 1 ? (target > f ? 1 : 0) : (target >= f ? 1 : 0);
    lens_move(dir, static_cast<uint8_t>(steps), focus_dir,
              static_cast<uint8_t>(need > 255 ? 255 : need));

    g_lastAfPos = lens_get_focus_pos();
    return 1;
}

void zoom_track_clear_active() {
    g_track.active = 0;
}
uint8_t zoom_track_is_active() {
    return g_track.active;
}
int8_t zoom_track_get_trim() {
    return g_track.trim;
}
uint8_t zoom_track_current_curve() {
    return g_track.current;
}
uint8_t zoom_track_move_curve() {
    return g_track.move;
}
uint8_t zoom_track_start_curve() {
    return g_track.start;
}

void zoom_track_reset_for_testing() {
    g_track.last_dir = 0;
    g_track.active = 0;
    g_track.current = g_track.start = g_track.move = 0;
    g_track.span_down = g_track.span_up = 0;
    g_track.probe_state = 0;
    g_track.narrowing = 0;
    g_track.trim = 0;
    for (Probe& p : g_track.probe)
        p = Probe{};
}
