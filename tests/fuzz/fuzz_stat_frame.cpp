// Statistics frame decoding: an arbitrary reply (padded or cut to the frame size) goes through
// every fetch mode, the mask update and every value derived from the block table. The last bytes
// beyond the frame choose the block ranges, window indexes and kinds the callers would pass.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "isp/af_stat.h"
#include "isp/highlight.h"

namespace {

struct Cursor {
    const uint8_t* p;
    std::size_t n;
    uint8_t next() {
        if (n == 0)
            return 0;
        --n;
        return *p++;
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    static uint8_t frame[kAfStatFrameSize];
    const std::size_t take = size < sizeof frame ? size : sizeof frame;
    std::memset(frame, 0, sizeof frame);
    std::memcpy(frame, data, take);
    Cursor k{data + take, size - take};

    static uint8_t weights[kGridBlocks];
    for (int i = 0; i < kGridBlocks; ++i)
        weights[i] = frame[kAfStatFrameSize - 1 - i];  // the unused tail doubles as weights
    highlight_set_block_weights((k.next() & 1) ? weights : nullptr);
    highlight_set_box_result(k.next() & 3);
    if (k.next() & 1)
        highlight_arm_update();
    else
        highlight_disarm_update();

    for (uint8_t mode = 0; mode < 4; ++mode)
        af_stat_fetch_from(frame, mode);

    volatile uint32_t sink = 0;
    for (int i = 0; i < 4; ++i) {
        const uint8_t r0 = k.next(), r1 = k.next(), c0 = k.next(), c1 = k.next();
        sink = sink + plain_sharpness_average(r0, r1, c0, c1) +
               weighted_window_sharpness(r0, r1, c0, c1) + window_iir2_average(r0, r1, c0, c1) +
               window_highlight_depth(r0, r1, c0, c1);
        const uint8_t zr = k.next(), zc = k.next(), z = k.next();
        sink = sink + window_luma_deviation(zr, zc) + live_highlight_count(zr, zc) +
               window_has_many_highlights(zr, zc) + latched_highlight_count(z) +
               get_window_sharpness(z) + get_window_iir2(z) + get_window_highlight_depth(z) +
               get_window_luma_deviation(z);
        set_centre_range_state(k.next());
        sink = sink + centre_sharpness_by_range(k.next());
    }
    sink = sink + centre_highlight_depth() + get_centre_highlight_depth();

    static uint32_t grid[kGridBlocks];
    static uint32_t table[kFilterTableWords];
    static uint32_t windows[kWindowCount];
    static uint8_t selection[kGridBlocks];
    for (uint32_t kind = 0; kind < 8; ++kind)
        af_stat_grid_by_kind(grid, kind);
    for (uint8_t g = 0; g < 8; ++g)
        af_stat_copy_grid(static_cast<StatGrid>(g), grid);
    af_stat_export_filter_table(table);
    af_stat_copy_window_sharpness(windows);
    weighted_window_sharpness_table(windows);
    std::memcpy(selection, frame + kAfStatLumaOffset, sizeof selection);
    window_averages_of(grid, selection, windows);
    sink = sink + window_average_of(k.next(), k.next(), grid);
    highlight_latch_core_from_mask();
    highlight_clear_latched();
    (void)sink;
    return 0;
}
