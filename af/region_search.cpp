// Region search (search phase 8): after the lens was driven close to a subject (a distance
// shortcut or a tracker trigger), dither around that position, find the blocks that peak inside
// the small range, narrow the region to them and climb until the region's sharpness peaks.
//
// A round is three captures of the block grid at three lens positions one step s apart. The
// probe round looks both ways from where the lens stands; a climbing round keeps walking one way
// and grows its step while the region keeps getting sharper. The captures lag the moves by the
// statistics latency, so they are taken L frames earlier at high frame rates. The search ends
// focused on a clear peak or a repeated flat top, and hands back to an ordinary search when the
// region shows no usable sharpness or loses it.
#include <cstring>

#include "af/af_seams.h"
#include "af/af_state.h"
#include "af/block_regions.h"
#include "af/distance_assist.h"
#include "af/focus_zone.h"
#include "af/track_region.h"
#include "base/frame_pacing.h"
#include "isp/af_stat.h"
#include "isp/highlight.h"
#include "isp/isp_link.h"
#include "lens_api/lens_position.h"
#include "platform/clock.h"

RegionSearchState g_regionSearch;

namespace {

// Region means below this are too dim to decide anything.
constexpr uint32_t kUsable = 1200;

RegionSearchState& S = g_regionSearch;

inline uint32_t absdiff(uint32_t a, uint32_t b) {
    return a > b ? a - b : b - a;
}

// x (> y) is clearly above y: by more than 1/32 of x or by more than 100.
bool clearly_above(uint32_t x, uint32_t y) {
    if (x <= y)
        return false;
    return !(x - y <= x / 32 && x - y < 101);
}

void move_down(uint32_t steps) {
    lens_move(0, 0, 0, static_cast<uint8_t>(steps));
}
void move_up(uint32_t steps) {
    lens_move(0, 0, 1, static_cast<uint8_t>(steps));
}

void capture(uint32_t* grid) {
    af_stat_copy_grid(StatGrid::kSharpV, grid);
}

bool near_subject() {
    const uint16_t z = af_zoom();
    const uint16_t d = g_seams.currentDistance;
    return (z > 500 && d < 201) || (z > 3200 && d < 301) || (z > 4000 && d < 401) ||
           (z > 4300 && d < 501) || (z > 4600 && d < 601);
}

// The windows the region covers: inner windows with few latched lights whose other blocks are
// mostly in the region. The region loses its latched blocks on the way.
bool windows_from_region(uint8_t windows[kWindowCount]) {
    uint8_t latched[kGridBlocks];
    copy_latched_highlight_mask(latched);
    std::memset(windows, 0, kWindowCount);
    bool any = false;
    for (int wr = 1; wr <= 3; ++wr)
        for (int wc = 1; wc <= 3; ++wc) {
            int excluded = 0;
            int members = 0;
            for (int r = wr * 3; r < wr * 3 + 3; ++r)
                for (int c = wc * 3; c < wc * 3 + 3; ++c) {
                    const int b = r * kGridCols + c;
                    if (latched[b] != 0) {
                        S.R[b] = 0;
                        ++excluded;
                    } else if (S.R[b] != 0) {
                        ++members;
                    }
                }
            if (excluded < 3 && members > 5) {
                windows[wr * 5 + wc] = 1;
                any = true;
            }
        }
    return any;
}

void zone_from_region() {
    uint8_t windows[kWindowCount];
    if (windows_from_region(windows)) {
        g_focusZone.set_windows(windows);
        g_focusZone.copy_block_mask_in(S.R);
    } else {
        SelectSearchZone();
    }
}

void finish_focused() {
    g_search.hitLower = g_search.hitUpper = 0;
    g_afState = 2;
}

// Four flat tops within the stability limit of each other: the lens is at the region's peak.
void flat_top_check() {
    std::memmove(&S.ring[1], &S.ring[0], 4 * sizeof S.ring[0]);
    S.ring[0] = af_focus();
    if (S.ringCount < 4)
        ++S.ringCount;
    if (S.ringCount < 4)
        return;
    uint16_t lo = S.ring[0];
    uint16_t hi = S.ring[0];
    for (int k = 1; k < 4; ++k) {
        lo = S.ring[k] < lo ? S.ring[k] : lo;
        hi = S.ring[k] > hi ? S.ring[k] : hi;
    }
    if (hi - lo <= S.stabilityLimit)
        finish_focused();
}

uint32_t start_phase() {
    return StartPhaseIsCoarse() ? 1 : 3;
}

// Back to an ordinary search over a fresh zone.
void hand_back(uint32_t level) {
    g_focusZone.reset_block_mask();
    g_focusZone.clear_window_mask();
    SelectSearchZone();
    SnapshotReference();
    g_afState = 1;
    g_search.searchDir = S.savedDir;
    if ((g_seams.currentDistance != kDistanceUnknown &&
         g_seams.currentDistance > g_seams.distanceAtLastFocus) ||
        level / 2 < S.prevLevel)
        g_search.searchDir = 2;
    g_search.searchPhase = start_phase();
}

void round_end(uint32_t a, uint32_t b, uint32_t c) {
    const uint32_t level = a + b + c - 150;
    // Also after a round that finished focused: a region that went dark, or whose level fell by
    // a third, was not the subject.
    if (a < kUsable && b < kUsable && c < kUsable) {
        hand_back(level);
    } else if (level / 2 < S.prevLevel) {
        if (S.retries > 0)
            --S.retries;
        if (S.retries > 0) {
            g_focusZone.reset_block_mask();
            g_focusZone.clear_window_mask();
            SelectSearchZone();
            SnapshotReference();
            g_afState = 1;
            g_search.searchPhase = 8;
            region_search(0);  // the fresh search still compares with this round's level
        } else {
            hand_back(level);
        }
    }
    std::memcpy(S.prevR, S.R, sizeof S.R);
    S.prevLevel = level / 3;
    S.frame = 0;
}

void probe_frame() {
    const uint8_t L = S.latency;
    const uint8_t s = S.step;
    if (S.frame == 1)
        move_down(s);
    else if (S.frame == 2 || S.frame == 3)
        move_up(s);
    if (S.frame == 3 - L)
        capture(S.A);
    if (S.frame == 4 - L)
        capture(S.B);
    if (S.frame != 5 - L)
        return;
    capture(S.C);
    const uint32_t a = region_mean(S.R, S.A);
    const uint32_t b = region_mean(S.R, S.B);
    const uint32_t c = region_mean(S.R, S.C);
    if (a > b && b > c) {
        move_down(2u * s);
        S.sub = 1;
    } else if (c > b && b > a) {
        S.sub = 2;
    } else if (b > a && b > c && b > kUsable) {
        if (clearly_above(b, a) && b - c <= 99) {
            S.sub = 2;
        } else if (clearly_above(b, c) && b - a <= 99) {
            move_down(2u * s);
            S.sub = 1;
        } else {
            move_down(s);
            if (!clearly_above(b, a) && !clearly_above(b, c)) {
                flat_top_check();
            } else if (S.step == S.minStep) {
                if (++S.failure >= 2)
                    finish_focused();
            }
            if (S.step > S.minStep)
                --S.step;
        }
    } else {
        move_down(s);
        if (++S.noDecision > 3) {
            g_search.searchPhase = S.savedPhase;
            g_search.searchDir = S.savedDir;
        }
    }
    round_end(a, b, c);
}

// A climbing round, up (sub-state 2) or down (1). The grids are kept in position order (A
// lowest), so a climb down captures C first.
void climb_frame() {
    const bool up = S.sub == 2;
    const uint8_t L = S.latency;
    const uint8_t s = S.step;
    if (S.frame == 1 || S.frame == 2)
        up ? move_up(s) : move_down(s);
    uint32_t* first = up ? S.A : S.C;
    uint32_t* last = up ? S.C : S.A;
    if (S.frame == 2 - L)
        capture(first);
    if (S.frame == 3 - L)
        capture(S.B);
    if (S.frame != 4 - L)
        return;
    capture(last);
    const uint16_t f = af_focus();
    if (up) {
        S.PA = static_cast<uint16_t>(f - 2 * s);
        S.PB = static_cast<uint16_t>(f - s);
        S.PC = f;
    } else {
        S.PA = f;
        S.PB = static_cast<uint16_t>(f + s);
        S.PC = static_cast<uint16_t>(f + 2 * s);
    }
    classify_region_blocks();
    build_region_mask();
    const uint32_t a = region_mean(S.R, S.A);
    const uint32_t b = region_mean(S.R, S.B);
    const uint32_t c = region_mean(S.R, S.C);
    // Trail: where the round started; lead: where the lens is now.
    const uint32_t trail = up ? a : c;
    const uint32_t lead = up ? c : a;
    auto back = [&](uint32_t steps) { up ? move_down(steps) : move_up(steps); };
    const uint8_t other = up ? 1 : 2;
    const uint8_t lowest = up ? 1 : S.minStep;
    if (trail > b && b > lead && lead > kUsable) {
        // Passed the peak.
        back(2u * s);
        if ((S.prevSub == 0 || S.prevSub == other) && s == 1) {
            if (std::memcmp(S.R, S.prevR, sizeof S.R) == 0 && clearly_above(trail, lead)) {
                finish_focused();
            } else {
                flat_top_check();
                S.sub = 0;
            }
        } else {
            if (S.step > lowest)
                --S.step;
            S.sub = other;
        }
    } else if (lead > b && b > trail && lead > kUsable) {
        if (S.step < S.maxStep)
            ++S.step;
    } else if (b > trail && b > lead && b > kUsable) {
        if (clearly_above(b, trail) && b - lead <= 99) {
            if (S.step < S.maxStep)
                ++S.step;
        } else {
            back(s);
            if (S.step > 1)
                --S.step;
            S.sub = 0;
            S.failure = 0;
        }
    } else {
        back(s);
        S.sub = 0;
        S.failure = -1;
    }
    S.noDecision = 0;
    S.prevSub = up ? 2 : 1;
    const int mine = up ? 1 : 0;
    if (S.sub == (up ? 2 : 1) && ++S.climbs[mine] >= 3 && g_afState != 2) {
        // Three rounds the same way: the subject is further off than a dither reaches. Hand the
        // region to an ordinary search in that direction.
        zone_from_region();
        SnapshotReference();
        g_afState = 1;
        g_search.searchDir = up ? 2 : 1;
        if (distance_assist_active() && absdiff(expected_focus_now(), af_focus()) > 4)
            g_search.searchPhase = 1;
        else
            g_search.searchPhase = start_phase();
        S.climbs[mine] = 0;
    }
    S.climbs[1 - mine] = 0;
    round_end(a, b, c);
}

}  // namespace

uint32_t region_mean(const uint8_t* region, const uint32_t* grid) {
    uint32_t sum = 0;
    uint8_t n = 0;  // the member count wraps as the board's 8-bit counter does
    for (int b = 0; b < kGridBlocks; ++b)
        if (region[b] == 1) {
            sum += grid[b];
            ++n;
        }
    return n == 0 ? 50 : sum / n;
}

void classify_region_blocks() {
    const uint8_t c0 = distance_assist_active() ? 3 : 4;
    uint8_t excluded[kGridBlocks];
    copy_latched_highlight_core(excluded);
    for (int b = 0; b < kGridBlocks; ++b) {
        const int r = b / kGridCols;
        const int c = b % kGridCols;
        if (r < 4 || r > 11 || c < c0 || c > 11)
            continue;
        const uint32_t A = S.A[b], B = S.B[b], C = S.C[b];
        if (A < kUsable || B <= 1199 || C <= 1199 || excluded[b] != 0) {
            S.cls[b] = 0;
            continue;
        }
        if (B < A && C < B && A - C > A / 16 && A > kUsable) {
            S.cls[b] = 2;
            S.classPos[b][0] = S.classPos[b][1] = S.PA;
        } else if (A < B && B < C && C - A > C / 16) {
            S.cls[b] = 3;
            S.classPos[b][0] = S.classPos[b][1] = S.PC;
        } else if (A < B && C < B && (B - A > B / 16 || B - C > B / 16)) {
            S.cls[b] = 1;
            S.classPos[b][0] = S.classPos[b][1] = S.PB;
        }
    }
}

void build_region_mask() {
    if (S.wholeZone)
        return;
    const uint8_t c0 = distance_assist_active() ? 3 : 4;
    int k[4] = {};
    for (int r = 4; r <= 11; ++r)
        for (int c = c0; c <= 11; ++c)
            ++k[S.cls[r * kGridCols + c]];
    auto take = [&](auto keep) {
        std::memset(S.R, 0, sizeof S.R);
        for (int r = 4; r <= 11; ++r)
            for (int c = c0; c <= 11; ++c)
                S.R[r * kGridCols + c] = keep(S.cls[r * kGridCols + c]) ? 1 : 0;
    };
    if (k[2] >= 5) {
        take([](uint8_t x) { return x == 2; });
    } else if (k[1] + k[2] < 6) {
        if (k[1] >= 5) {
            take([](uint8_t x) { return x == 1; });
        } else if (k[1] + k[2] + k[3] < 11) {
            std::memset(S.R, 0, sizeof S.R);
            for (int r = 3; r <= 11; ++r)
                for (int c = c0; c <= 11; ++c)
                    S.R[r * kGridCols + c] = 1;
        }
    } else {
        take([](uint8_t x) { return x == 1 || x == 2; });
    }
}

void start_region_search() {
    if (!(af_zoom() > 500 && g_seams.currentDistance < 201) &&
        g_focusValue.posHist[0] > af_focus()) {
        // The lens came down to the subject: the blocks that got sharper on the way are it. A
        // frame's time lets the lens settle so that the statistics show where it stands.
        platform::sleep_us(33000);
        if (Get_ISP_VD() == 0)
            af_stat_fetch(1);
        uint32_t now[kGridBlocks];
        af_stat_grid_by_kind(now, 4);
        uint8_t marks[kGridBlocks] = {};
        int n = 0;
        for (int r = 4; r <= 11; ++r)
            for (int c = 3; c <= 11; ++c) {
                const int b = r * kGridCols + c;
                if (now[b] > g_focusValue.gridHist[0][b]) {
                    marks[b] = 1;
                    ++n;
                }
            }
        if (n < 5) {
            std::memset(marks, 0, sizeof marks);
            for (int r = 4; r <= 11; ++r)
                for (int c = 4; c <= 11; ++c)
                    marks[r * kGridCols + c] = 1;
        }
        g_focusZone.clear_window_mask();
        for (int wr = 1; wr <= 3; ++wr)
            for (int wc = 1; wc <= 3; ++wc)
                for (int b = 0; b < 9; ++b)
                    if (marks[(wr * 3 + b / 3) * kGridCols + wc * 3 + b % 3] != 0)
                        g_focusZone.windowMask[wr * 5 + wc] = 1;
        g_focusZone.copy_block_mask_in(marks);
        return;
    }
    g_focusZone.reset_block_mask();
    SelectSearchZone();
}

void region_search(uint8_t run) {
    if (run == 0) {
        const uint16_t z = af_zoom();
        S.sub = S.prevSub = 0;
        S.climbs[0] = S.climbs[1] = 0;
        S.frame = 0;
        std::memset(S.A, 0, sizeof S.A);
        std::memset(S.B, 0, sizeof S.B);
        std::memset(S.C, 0, sizeof S.C);
        S.step = S.minStep = z >= 3746 ? 2 : 1;
        S.failure = 0;
        std::memset(S.ring, 0, sizeof S.ring);
        S.ringCount = 0;
        S.wholeZone = 0;
        if (near_subject()) {
            // So close that the subject fills the zone: follow all of it.
            g_focusZone.reset_block_mask();
            SelectSearchZone();
            S.wholeZone = 1;
        }
        std::memset(S.R, 0, sizeof S.R);
        for (int b = 0; b < kGridBlocks; ++b) {
            const int w = (b / kGridCols / 3) * 5 + (b % kGridCols) / 3;
            if (g_focusZone.windowMask[w] != 0)
                S.R[b] = g_focusZone.blockMask[b];
        }
        std::memcpy(S.prevR, S.R, sizeof S.R);
        std::memset(S.cls, 0, sizeof S.cls);
        std::memset(S.classPos, 0, sizeof S.classPos);
        S.maxStep = z >= 3746 ? 4 : 3;
        S.stabilityLimit = z < 2556 ? 3 : z < 3746 ? 4 : 5;
        S.latency = get_high_rate() ? 1 : 0;
        S.noDecision = 0;
        S.prevLevel = 0;
        return;
    }
    ++S.frame;
    if (S.sub == 0)
        probe_frame();
    else
        climb_frame();
    if (g_afState == 2) {
        zone_from_region();
        g_seams.trackLock = 1;
    }
}

uint8_t ended_by_region_search() {
    // A region search that finishes focused leaves the phase at 8; any later search changes it.
    return g_afState == 2 && g_search.searchPhase == 8 ? 1 : 0;
}

void enter_region_search() {
    // A distance that moves again while the region search runs starts it over, but what it gives
    // back when it hands over stays what the search had when phase 8 began.
    if (g_search.searchPhase != 8) {
        S.savedPhase = g_search.searchPhase;
        S.savedDir = g_search.searchDir;
        S.retries = 2;
    }
    g_search.searchPhase = 8;
    start_region_search();
    region_search(0);
}
