// Block peak map: per block, where its sharpness peaked during the sweep, or on which side of the
// lens its peak must lie.
//
// In daylight a block's peak is taken only when it stands clearly above both neighbours of a
// five-frame window. In low light the noise floor rises and lamps, flat walls and dark corners
// give sharpness curves that mean nothing, so only blocks that have shown real horizontal detail
// (the bright mask) are judged, only while the lens sweeps steadily one way, and a block that has
// not peaked yet is still told which way its peak lies from the shape of its last frames. Those
// "peak lies below" blocks are what the region checks build a subject from.
#include <cstring>

#include "af/af_seams.h"
#include "af/af_state.h"
#include "af/block_regions.h"
#include "af/focus_zone.h"
#include "isp/af_stat.h"

PeakMapState g_peakMap;

namespace {

// A block's peak must stand this far above the floor to count.
constexpr uint32_t kMinPeak = 800;
// Below this a trend is noise.
constexpr uint32_t kMinTrend = 300;
// Horizontal detail that makes a block trustworthy in low light.
constexpr uint32_t kBright = 800;

struct Curve {
    uint32_t f[5];  // newest first
    uint32_t p[5];
};

Curve curve_of(int b) {
    Curve c{};
    for (int k = 0; k < 5; ++k) {
        c.f[k] = g_focusValue.gridHist[k][b];
        c.p[k] = g_focusValue.posHist[k];
    }
    return c;
}

bool window_excluded(int r, int c) {
    return is_highlight_window((r / 3) * 5 + c / 3);
}

bool positions_monotonic() {
    const uint16_t* p = g_focusValue.posHist;
    return (p[0] > p[1] && p[1] > p[2] && p[2] > p[3] && p[3] > p[4]) ||
           (p[0] < p[1] && p[1] < p[2] && p[2] < p[3] && p[3] < p[4]);
}

// x exceeds y by more than x * num / den (both sides of the comparison in integers).
inline bool above(uint32_t x, uint32_t y, uint32_t num, uint32_t den) {
    return x > y && x - y > y * num / den;
}

// The trend shapes of the last five frames. Rising shapes say the block gets sharper the way the
// lens is going; falling ones that it got sharper behind it. Each needs its significance (the
// gain over the oldest frame of the shape) at `den` (64 for marking, 128 for spreading).
bool r5(const uint32_t* f) {
    return f[0] > f[1] && f[1] > f[2] && f[2] > f[3] && f[3] > f[4];
}
bool f5(const uint32_t* f) {
    return f[0] < f[1] && f[1] < f[2] && f[2] < f[3] && f[3] < f[4];
}
bool r4(const uint32_t* f, uint32_t den) {
    return f[1] > f[2] && f[2] > f[3] && f[3] > f[4] && above(f[1], f[4], 5, den);
}
bool f4(const uint32_t* f, uint32_t den) {
    return f[1] < f[2] && f[2] < f[3] && f[3] < f[4] && above(f[4], f[1], 5, den);
}
bool r5a(const uint32_t* f, uint32_t den) {
    return f[0] > f[1] && f[0] > f[2] && f[2] > f[3] && f[3] > f[4] && above(f[0], f[4], 5, den);
}
bool f5a(const uint32_t* f, uint32_t den) {
    return f[0] < f[1] && f[0] < f[2] && f[2] < f[3] && f[3] < f[4] && above(f[4], f[0], 5, den);
}
bool r5b(const uint32_t* f, uint32_t den) {
    return f[0] > f[1] && f[1] > f[2] && f[1] > f[3] && f[3] > f[4] && above(f[0], f[4], 5, den);
}
bool f5b(const uint32_t* f, uint32_t den) {
    return f[0] < f[1] && f[1] < f[2] && f[1] < f[3] && f[3] < f[4] && above(f[4], f[0], 5, den);
}

void set_entry(BlockPeak& e, uint32_t state, uint32_t position, uint32_t value) {
    e.state = state;
    e.position = position;
    e.value = value;
}

// Still rising where the lens is now: the peak lies further the way the lens moves.
void rising(BlockPeak& e, const Curve& c) {
    set_entry(e, c.p[0] <= c.p[4] ? kPeakBelow : kPeakAbove, c.p[0], c.f[0]);
}

// Sharper behind the lens: the peak lies back where it came from (kept where it was first said).
void falling(BlockPeak& e, const Curve& c) {
    if (c.p[0] <= c.p[4]) {
        if (e.state != kPeakAbove)
            set_entry(e, kPeakAbove, c.p[4], c.f[4]);
    } else if (e.state != kPeakBelow) {
        set_entry(e, kPeakBelow, c.p[4], c.f[4]);
    }
}

void normal_light_update() {
    // With the point-light zone flag set (the scene has detail outside its lights) only the
    // middle of the picture is judged; otherwise nearly all of it.
    const int lo = g_seams.pointLightZone ? 4 : 1;
    const int hi = g_seams.pointLightZone ? 12 : 14;
    for (int r = lo; r < hi; ++r)
        for (int c = lo; c < hi; ++c) {
            const int b = r * kGridCols + c;
            BlockPeak& e = g_peakMap.map[b];
            if (window_excluded(r, c)) {
                e = BlockPeak{};
                continue;
            }
            const Curve k = curve_of(b);
            const uint32_t* f = k.f;
            if (!(f[2] > f[1] && f[1] > f[0] && f[2] > f[3] && f[3] > f[4]))
                continue;
            if (f[2] < kMinPeak)
                e = BlockPeak{};
            else if (f[2] - f[0] > f[2] / 32 || f[2] - f[4] > f[2] / 32)
                set_entry(e, kPeakFound, k.p[2], f[2]);
        }
}

void judge_low_light_block(int b) {
    BlockPeak& e = g_peakMap.map[b];
    const Curve k = curve_of(b);
    const uint32_t* f = k.f;
    if (f[2] > f[1] && f[1] > f[0] && f[2] > f[3] && f[3] > f[4]) {
        if (f[2] < kMinPeak) {
            if (e.state == kPeakFound)
                e.state = kPeakNone;
        } else if (f[2] - f[0] > f[2] / 32 && f[2] - f[4] > f[2] / 32 && k.p[0] > k.p[1]) {
            set_entry(e, kPeakFound, k.p[2], f[2]);
        }
        g_peakMap.done[b] = 1;
        return;
    }
    if (e.state == kPeakFound || f[0] <= kMinTrend)
        return;
    if (r5(f)) {
        rising(e, k);
    } else if (f5(f)) {
        falling(e, k);
    } else if (r4(f, 64)) {
        set_entry(e, k.p[0] <= k.p[4] ? kPeakBelow : kPeakAbove, k.p[1], f[1]);
    } else if (f4(f, 64)) {
        falling(e, k);
    } else if (r5a(f, 64) || r5b(f, 64)) {
        rising(e, k);
    } else if (f5a(f, 64) || f5b(f, 64)) {
        falling(e, k);
    } else if (f[0] > f[1] && f[1] > f[2] && f[2] > f[3] && above(f[0], f[3], 5, 64)) {
        rising(e, k);
    } else if (f[0] < f[1] && f[1] < f[2] && f[2] < f[3] && above(f[3], f[0], 5, 64)) {
        if (k.p[0] <= k.p[4] && e.state != kPeakAbove)
            set_entry(e, kPeakAbove, k.p[3], f[3]);
        else if (k.p[0] > k.p[4] && e.state != kPeakBelow)
            set_entry(e, kPeakBelow, k.p[3], f[3]);
    }
}

void low_light_update() {
    if (af_low_light() == 0)
        return;
    const BlockSearchWindow& w = g_blockSearchWindow;
    uint32_t h[kGridBlocks];
    af_stat_copy_grid(StatGrid::kSharpH, h);
    for (int r = w.firstRow; r < w.endRow; ++r)
        for (int c = w.firstCol; c < w.endCol; ++c) {
            const int b = r * kGridCols + c;
            if (g_peakMap.bright[b] == 0 && h[b] > kBright)
                g_peakMap.bright[b] = 1;
        }
    // Block curves say something about the side of their peak only while the lens moved one way
    // over all five frames; after a turn nothing but the bright mask changes.
    if (!positions_monotonic())
        return;
    for (int r = w.firstRow; r < w.endRow; ++r)
        for (int c = w.firstCol; c < w.endCol; ++c) {
            const int b = r * kGridCols + c;
            if (window_excluded(r, c) || g_peakMap.done[b] == 1 || g_peakMap.bright[b] == 0 ||
                g_focusValue.gridHist[0][b] <= 49)
                continue;
            judge_low_light_block(b);
        }
    // A subject's edge blocks often trail its middle by a frame: a neighbour of a "peak below"
    // block that leans the same way joins it.
    uint8_t scratch[kGridBlocks] = {};
    for (int r = w.firstRow; r < w.endRow; ++r)
        for (int c = w.firstCol; c < w.endCol; ++c)
            if (g_peakMap.map[r * kGridCols + c].state == kPeakBelow)
                scratch[r * kGridCols + c] = 1;
    static constexpr int kDr[4] = {-1, 1, 0, 0};
    static constexpr int kDc[4] = {0, 0, -1, 1};
    for (int r = w.firstRow; r < w.endRow; ++r)
        for (int c = w.firstCol; c < w.endCol; ++c) {
            if (g_peakMap.map[r * kGridCols + c].state != kPeakBelow)
                continue;
            for (int d = 0; d < 4; ++d) {
                const int nr = r + kDr[d];
                const int nc = c + kDc[d];
                if (nr < 0 || nr >= kGridRows || nc < 0 || nc >= kGridCols)
                    continue;
                const int nb = nr * kGridCols + nc;
                if (g_peakMap.map[nb].state == kPeakNone)
                    scratch[nb] =
                        neighbour_points_small(static_cast<uint8_t>(nr), static_cast<uint8_t>(nc));
            }
        }
    for (int r = w.firstRow; r < w.endRow; ++r)
        for (int c = w.firstCol; c < w.endCol; ++c) {
            const int b = r * kGridCols + c;
            if (g_peakMap.map[b].state == kPeakNone && scratch[b] == 1)
                g_peakMap.map[b].state = kPeakBelow;
        }
}

}  // namespace

uint8_t neighbour_points_small(uint8_t row, uint8_t col) {
    const int b = row * kGridCols + col;
    const Curve k = curve_of(b);
    const uint32_t* f = k.f;
    if (f[0] <= kMinTrend || window_excluded(row, col) || g_peakMap.bright[b] == 0)
        return 0;
    const uint8_t towards_small = k.p[0] < k.p[4] ? 1 : 0;
    const uint8_t towards_large = k.p[0] > k.p[4] ? 1 : 0;
    if ((r5(f) && above(f[0], f[4], 5, 128)) || r4(f, 128) || r5a(f, 128) || r5b(f, 128))
        return towards_small;
    if ((f5(f) && above(f[4], f[0], 5, 128)) || f4(f, 128) || f5a(f, 128) || f5b(f, 128))
        return towards_large;
    return 0;
}

uint8_t peak_map_state(int block) {
    return static_cast<uint8_t>(g_peakMap.map[block].state);
}

void update_peak_map(uint8_t mode) {
    switch (mode) {
        case 0:
            g_peakMap = PeakMapState{};
            break;
        case 1:
            low_light_update();
            break;
        case 2:
            normal_light_update();
            break;
        default:
            break;
    }
}

void block_regions_reset_for_testing() {
    g_peakMap = PeakMapState{};
    g_regionCheck = RegionCheckState{};
    g_regionSearch = RegionSearchState{};
}
