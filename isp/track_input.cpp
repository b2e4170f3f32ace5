#include "isp/track_input.h"

#include <cstdlib>
#include <cstring>
#include <mutex>

#include "base/af_status.h"
#include "base/dbgout.h"
#include "isp/highlight.h"
#include "isp/shm_record.h"

namespace {

// A new box whose width is within this of the last accepted one is the same object at the same
// size: refocusing on it would only hunt.
constexpr uint32_t kSameWidth = 27;
// One statistics block in the tracker's coordinate space.
constexpr uint32_t kBlockW = 43;
constexpr uint32_t kBlockH = 25;
// The sensor is mounted mirrored: the tracker's boxes come in mirrored left to right.
constexpr uint8_t kMirror = 1;
constexpr uint8_t kFlip = 0;

ShmRecord g_record(kTrackDevice, kTrackRecordSize);

struct TrackInput {
    uint32_t onFlag = 0;
    uint32_t last[5] = {};
    uint32_t lastWidth = 0;
};
TrackInput g_track;

struct RoiState {
    std::mutex lock;
    uint8_t windows[kWindowCount] = {};
    uint8_t changed = 0;
};
RoiState g_roi;

uint32_t abs_diff(uint32_t a, uint32_t b) {
    return a > b ? a - b : b - a;
}

// Marks the blocks of rows r0..r1 and columns c0..c1 not lit by highlights; returns how many.
int fill_region(TrackRegion* region, uint32_t r0, uint32_t r1, uint32_t c0, uint32_t c1) {
    uint8_t lit[kGridBlocks];
    copy_live_highlight_mask(lit);
    std::memset(region->mask, 0, sizeof region->mask);
    int count = 0;
    for (uint32_t r = r0; r <= r1; ++r) {
        for (uint32_t c = c0; c <= c1; ++c) {
            const uint32_t b = r * kGridCols + c;
            if (lit[b] == 0) {
                region->mask[b] = 1;
                ++count;
            }
        }
    }
    return count;
}

}  // namespace

uint32_t track_poll() {
    if (!g_record.map())
        return 0;
    uint32_t w[5];
    g_record.read_words(w, 5);
    if (w[0] != 0 && w[0] != 3) {
        if (g_track.onFlag == 0) {
            traceout("%s: track_on, Mirror/Flip: %d/%d\n", dbg_timestamp(), kMirror, kFlip);
            g_track.onFlag = 1;
            std::memset(g_track.last, 0, sizeof g_track.last);
        }
        return 1;
    }
    if (g_track.onFlag == 1) {
        traceout("%s: track_close\n", dbg_timestamp());
        g_track.onFlag = 0;
    }
    return 0;
}

uint8_t track_box_update(TrackRegion* region) {
    if (!g_record.map())
        return kBoxNothing;
    uint32_t w[5];
    g_record.read_words(w, 5);
    if (g_zoomChanged == 1 || g_ptChanged == 1) {
        traceout("变倍或者移动云台触发聚焦 g_zoomChanged %d g_ptChanged %d\n", g_zoomChanged,
                 g_ptChanged);
        g_zoomChanged = 0;
        g_ptChanged = 0;
        std::memcpy(g_track.last, w, sizeof w);
        return kBoxDefault;
    }
    if (std::memcmp(g_track.last, w, sizeof w) == 0)
        return kBoxNothing;
    std::memcpy(g_track.last, w, sizeof w);
    traceout("switch: %d %d %d %d %d \n", static_cast<int>(w[0]), static_cast<int>(w[1]),
             static_cast<int>(w[2]), static_cast<int>(w[3]), static_cast<int>(w[4]));
    uint32_t x1 = w[1], y1 = w[2], x2 = w[3], y2 = w[4];
    if ((x1 == 0 && x2 == 0 && y1 == 0 && y2 == 0) || x1 > kTrackSpaceWidth ||
        x2 > kTrackSpaceWidth || y1 > kTrackSpaceHeight || y2 > kTrackSpaceHeight || x1 > x2 ||
        y1 > y2) {
        traceout("跟踪区域异常\n");
        return kBoxDefault;
    }
    const uint32_t d = abs_diff(g_track.lastWidth, x2 - x1);
    if (d < kSameWidth) {
        traceout("跟踪区域差不多，不聚焦,(%d,%d)\n", static_cast<int>(d),
                 static_cast<int>(kSameWidth));
        return kBoxNothing;
    }
    g_track.lastWidth = x2 - x1;
    if (kMirror) {
        const uint32_t a = kTrackSpaceWidth - x2, b = kTrackSpaceWidth - x1;
        x1 = a;
        x2 = b;
    }
    if (kFlip) {
        const uint32_t a = kTrackSpaceHeight - y2, b = kTrackSpaceHeight - y1;
        y1 = a;
        y2 = b;
    }
    uint32_t r0 = y1 / kBlockH, r1 = y2 / kBlockH, c0 = x1 / kBlockW, c1 = x2 / kBlockW;
    // A wide box whose edge cuts a block starts at the next one: the cut block is mostly
    // background.
    if (c1 - c0 > 4 && x1 % kBlockW != 0 && c0 < 13)
        ++c0;
    if (r1 - r0 > 4 && y1 % kBlockH != 0 && r0 < 13)
        ++r0;
    if (r1 > 14)
        r1 = 14;
    if (c1 > 14)
        c1 = 14;
    const int count = fill_region(region, r0, r1, c0, c1);
    if (count > 3) {
        region->rowStart = static_cast<uint8_t>(r0);
        region->rowEnd = static_cast<uint8_t>(r1 + 1);
        region->colStart = static_cast<uint8_t>(c0);
        region->colEnd = static_cast<uint8_t>(c1 + 1);
        return kBoxTracked;
    }
    traceout("跟踪区域大小为%d,小于4块! 恢复为中心7x7 \n", count);
    fill_region(region, 4, 10, 4, 10);
    region->rowStart = 4;
    region->rowEnd = 11;
    region->colStart = 4;
    region->colEnd = 11;
    return kBoxDefault;
}

void track_set_roi(uint16_t width, uint16_t height, uint16_t x, uint16_t y, uint16_t w,
                   uint16_t h) {
    const uint32_t bw = width / 15u, bh = height / 15u;
    uint32_t c0 = bw ? x / bw : 0, c1 = bw ? (static_cast<uint32_t>(x) + w) / bw : 0;
    uint32_t r0 = bh ? y / bh : 0, r1 = bh ? (static_cast<uint32_t>(y) + h) / bh : 0;
    if (c1 > 14)
        c1 = 14;
    if (r1 > 14)
        r1 = 14;
    uint8_t marked[kGridBlocks] = {};
    for (uint32_t r = r0; r <= r1 && r < 15; ++r)
        for (uint32_t c = c0; c <= c1 && c < 15; ++c)
            marked[r * kGridCols + c] = 1;
    uint8_t windows[kWindowCount] = {};
    bool any = false;
    for (int wr = 0; wr < 5; ++wr) {
        for (int wc = 0; wc < 5; ++wc) {
            bool all = true;
            for (int i = 0; i < 9 && all; ++i)
                all = marked[(wr * 3 + i / 3) * kGridCols + wc * 3 + i % 3] != 0;
            if (all) {
                windows[wr * 5 + wc] = 1;
                any = true;
            }
        }
    }
    if (!any)
        windows[12] = 1;
    std::lock_guard<std::mutex> guard(g_roi.lock);
    std::memcpy(g_roi.windows, windows, sizeof windows);
    g_roi.changed = 1;
}

void track_copy_roi_windows(uint8_t out[kWindowCount]) {
    std::lock_guard<std::mutex> guard(g_roi.lock);
    std::memcpy(out, g_roi.windows, kWindowCount);
}

uint8_t track_take_roi_changed() {
    std::lock_guard<std::mutex> guard(g_roi.lock);
    const uint8_t c = g_roi.changed;
    g_roi.changed = 0;
    return c;
}

void track_input_reset() {
    g_record.unmap();
    g_track = TrackInput();
    std::lock_guard<std::mutex> guard(g_roi.lock);
    std::memset(g_roi.windows, 0, sizeof g_roi.windows);
    g_roi.changed = 0;
}
