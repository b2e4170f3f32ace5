// Highlight masks and the window and block-range statistics, on hand-computed grids. (The dark
// scene without widening needs an exposure read: it is in the link tests.)
#include "isp/highlight.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <set>
#include <utility>

#include "base/frame_pacing.h"
#include "isp/af_stat.h"
#include "isp/isp_inputs.h"
#include "isp/isp_link.h"
#include "tests/isp/stat_frame.h"

namespace {

using isptest::Field;
using isptest::StatFrame;
using Blocks = std::set<std::pair<int, int>>;

const IspInputs kInputs = {[] { return uint16_t{0}; }, [] { return uint8_t{3}; }};

Blocks blocks_of(void (*copy)(uint8_t*)) {
    std::array<uint8_t, 225> m{};
    copy(m.data());
    Blocks s;
    for (int i = 0; i < 225; ++i)
        if (m[i] != 0)
            s.insert({i / 15, i % 15});
    return s;
}

class HighlightTest : public ::testing::Test {
  protected:
    void SetUp() override {
        isp_link_reset_for_testing();
        highlight_reset_for_testing();
        af_stat_clear_blocks();
        frame_pacing_reset_for_testing();
        isp_set_inputs_for_testing(&kInputs);
    }
    void TearDown() override {
        highlight_reset_for_testing();
        frame_pacing_reset_for_testing();
        isp_set_inputs_for_testing(nullptr);
    }
    void fetch(const StatFrame& f, uint8_t mode = 1) { af_stat_fetch_from(f.data(), mode); }
    static Blocks live_mask() { return blocks_of(copy_live_highlight_mask); }
    static Blocks latched_mask() { return blocks_of(copy_latched_highlight_mask); }
    static Blocks latched_core() { return blocks_of(copy_latched_highlight_core); }
    static StatFrame uniform(uint32_t sharpness) {
        StatFrame f;
        for (int i = 0; i < 225; ++i)
            f.sharp(i / 15, i % 15, sharpness);
        return f;
    }
};

TEST_F(HighlightTest, LiveMaskWidensEachLightByItsEdgeNeighboursInsideTheGrid) {
    fetch(StatFrame().set(Field::kHighlight, 0, 0, 901));
    EXPECT_EQ(live_mask(), (Blocks{{0, 0}, {0, 1}, {1, 0}}));
    fetch(StatFrame().set(Field::kHighlight, 7, 7, 5000).set(Field::kHighlight, 14, 9, 900));
    EXPECT_EQ(live_mask(), (Blocks{{7, 7}, {6, 7}, {8, 7}, {7, 6}, {7, 8}})) << "900 is no light";
    fetch(StatFrame().set(Field::kHighlight, 14, 14, 901).set(Field::kHighlight, 0, 8, 901));
    EXPECT_EQ(live_mask(), (Blocks{{14, 14}, {13, 14}, {14, 13}, {0, 8}, {0, 7}, {0, 9}, {1, 8}}));
}

TEST_F(HighlightTest, LatchedMasksFollowOnlyWhileArmed) {
    const StatFrame f = StatFrame().set(Field::kHighlight, 7, 7, 5000);
    fetch(f);
    EXPECT_EQ(latched_mask().size() + latched_core().size(), 0u);

    highlight_arm_update();
    fetch(f, 0);  // every mode computes the masks
    EXPECT_EQ(latched_core(), (Blocks{{7, 7}}));
    EXPECT_EQ(latched_mask(), live_mask());

    highlight_disarm_update();
    fetch(StatFrame().set(Field::kHighlight, 2, 2, 5000));
    EXPECT_EQ(latched_core(), (Blocks{{7, 7}}));
    EXPECT_EQ(latched_mask().size(), 5u) << "the latched marks stay until the next armed fetch";
    EXPECT_EQ(live_mask().count({2, 2}), 1u);

    highlight_latch_core_from_mask();
    EXPECT_EQ(latched_core(), latched_mask());
    highlight_clear_latched();
    EXPECT_EQ(latched_mask().size() + latched_core().size(), 0u);
}

TEST_F(HighlightTest, AveragesLeaveOutLatchedBlocks) {
    StatFrame f = uniform(1000).fill(Field::kIir2, 600);
    f.set(Field::kHighlight, 7, 7, 20000);
    f.sharp(6, 6, 3000);  // diagonal to the light: outside its widened mark
    highlight_arm_update();
    fetch(f);
    EXPECT_EQ(plain_sharpness_average(7, 8, 7, 8), 0u) << "every block masked";
    EXPECT_EQ(window_iir2_average(7, 8, 6, 9), 0u);
    EXPECT_EQ(window_iir2_average(6, 7, 6, 9), 600u);
    // Window 12 without the five-block cross: (3000 + 3 x 1000) / 4.
    EXPECT_EQ(plain_sharpness_average(6, 9, 6, 9), 1500u);
    EXPECT_EQ(get_window_sharpness(12), 1500u);
    EXPECT_EQ(get_window_iir2(12), 600u);
    highlight_clear_latched();
    EXPECT_EQ(plain_sharpness_average(6, 9, 6, 9), (3000u + 8 * 1000) / 9);
}

TEST_F(HighlightTest, InnerWindowsAreWeightedAndBorderWindowsOnlyDuringATrackingRegionSearch) {
    fetch(uniform(300).sharp(4, 4, 900).sharp(1, 1, 900));
    std::array<uint8_t, 225> w{};  // all zero: nothing of the zone
    highlight_set_block_weights(w.data());
    // Inner window 6 (rows/columns 3..5): no weight at all, count 0, the sum 0 stands.
    EXPECT_EQ(weighted_window_sharpness(3, 6, 3, 6), 0u);
    // Border window 0 counts each block once, even with zero weights; only its four blocks off
    // row and column 0 have filter sums: (900 + 3 x 300) / 9.
    EXPECT_EQ(weighted_window_sharpness(0, 3, 0, 3), 200u);

    w.fill(1);
    w[4 * 15 + 4] = 2;
    std::array<uint32_t, 25> table{};
    weighted_window_sharpness_table(table.data());
    EXPECT_EQ(table[6], (2u * 900 + 8 * 300) / 10);
    EXPECT_EQ(table[0], 200u);

    // Tracking on alone is not enough; with the box result 2 the border windows are weighted too.
    w.fill(0);
    set_tracking_on(1);
    EXPECT_EQ(weighted_window_sharpness(0, 3, 0, 3), 200u);
    highlight_set_box_result(2);
    EXPECT_EQ(highlight_tracking_search_active(), 1);
    EXPECT_EQ(weighted_window_sharpness(0, 3, 0, 3), 0u);
    set_tracking_on(0);
    EXPECT_EQ(highlight_tracking_search_active(), 0);
    highlight_set_block_weights(nullptr);  // back to one per block
    EXPECT_EQ(weighted_window_sharpness(3, 6, 3, 6), (900u + 8 * 300) / 9);
}

TEST_F(HighlightTest, BlockCountersWrapAtEightBitsAndResultsAreCapped) {
    StatFrame f;
    for (int r = 3; r < 6; ++r)
        for (int c = 3; c < 6; ++c)
            f.sharp(r, c, 100);
    fetch(f.set(Field::kIir2, 7, 7, 0xFFFFFFFF));
    std::array<uint8_t, 225> w{};
    w.fill(255);
    highlight_set_block_weights(w.data());
    // Count 9 x 255 = 2295 wraps to 247.
    EXPECT_EQ(weighted_window_sharpness(3, 6, 3, 6), 229500u / 247);
    // Eight weights of 32 wrap the count to exactly 0: the sum is not divided.
    w.fill(32);
    w[5 * 15 + 5] = 0;
    EXPECT_EQ(weighted_window_sharpness(3, 6, 3, 6), 8u * 32 * 100);
    EXPECT_EQ(window_iir2_average(7, 8, 7, 8), kAverageCap);
    // Bounds past the grid are clipped, not read beyond it.
    EXPECT_EQ(plain_sharpness_average(3, 200, 3, 6), (9u * 100) / 36);
}

TEST_F(HighlightTest, LumaDeviationIsTheIntegerStandardDeviationOfQuarterLuma) {
    // Window 0 flat; window 1 a checkerboard of four 400s and five 0s (quarter luma 100 and 0):
    // mean 44, s = 5 x 44^2 + 4 x 56^2 = 22224, s / 9 = 2469, isqrt = 49.
    StatFrame f;
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 6; ++c)
            f.set(Field::kLuma, r, c, (c < 3 || (r + c) % 2 == 0) ? 400 : 0);
    fetch(f);
    EXPECT_EQ(window_luma_deviation(0, 0), 0u);
    EXPECT_EQ(window_luma_deviation(0, 1), 49u);
    EXPECT_EQ(get_window_luma_deviation(1), 49u);

    // Lights are left out by the latched core, not by the widened mask: a light in the middle of
    // window 1 leaves four 100s and four 0s, deviation exactly 50. A window of nothing but lights
    // has no texture value.
    f.set(Field::kLuma, 1, 4, 4000).set(Field::kHighlight, 1, 4, 5000);
    for (int i = 0; i < 9; ++i)
        f.set(Field::kHighlight, i / 3, i % 3, 5000);
    highlight_arm_update();
    fetch(f);
    EXPECT_EQ(window_luma_deviation(0, 1), 50u);
    EXPECT_EQ(window_luma_deviation(0, 0), 0u);
}

TEST_F(HighlightTest, HighlightDepthsAndCountsPerWindow) {
    StatFrame f;
    f.set(Field::kHighlight, 3, 3, 1000).set(Field::kHighlight, 5, 5, 3000);
    f.set(Field::kHighlight, 4, 4, 5000).set(Field::kHighlight, 0, 0, 5000);
    f.set(Field::kHighlight, 12, 12, 8000);
    highlight_arm_update();
    fetch(f);
    // Window 6 core blocks: 19000, 17000 and 15000 below saturation.
    EXPECT_EQ(window_highlight_depth(3, 6, 3, 6), 17000u);
    EXPECT_EQ(get_window_highlight_depth(6), 17000u);
    EXPECT_EQ(window_highlight_depth(9, 12, 9, 12), 0u);
    // The centre depth reads the widened live mask over rows/columns 4..12: (4,4) 15000, (5,5)
    // 17000, (12,12) 12000, and 20000 for each of their six marks inside the range.
    EXPECT_EQ(centre_highlight_depth(), (15000u + 17000 + 12000 + 6 * 20000) / 9);
    EXPECT_EQ(get_centre_highlight_depth(), centre_highlight_depth());
    // Window 6 holds the three lights and the marks around them (many), window 0 its corner
    // light (three is not many); window 200 reads as window 24.
    for (auto [zr, zc, count, many] : {std::tuple{1, 1, 7, 1}, {0, 0, 3, 0}, {40, 40, 3, 0}}) {
        EXPECT_EQ(live_highlight_count(zr, zc), count);
        EXPECT_EQ(window_has_many_highlights(zr, zc), many);
        EXPECT_EQ(latched_highlight_count(zr == 40 ? 200 : zr * 5 + zc), count);
    }
}

TEST_F(HighlightTest, WindowAveragesOfCallerValues) {
    std::array<uint32_t, 225> v;
    v.fill(1000);
    v[4 * 15 + 4] = 1900;
    v[14 * 15 + 14] = 30000;
    fetch(StatFrame());
    std::array<uint8_t, 225> w{};
    w.fill(1);
    w[4 * 15 + 4] = w[14 * 15 + 14] = 0;
    highlight_set_block_weights(w.data());
    EXPECT_EQ(window_average_of(1, 1, v.data()), 1000u + 50);  // weight 0 drops the 1900
    // Border window 24 counts each block once, whatever its weight: (8 x 1000 + 30000) / 9, + 50.
    EXPECT_EQ(window_average_of(4, 4, v.data()), 4272u);
    v.fill(25000);
    EXPECT_EQ(window_average_of(0, 0, v.data()), 25000u) << "no offset at 20000 and above";

    std::array<uint8_t, 225> sel{};
    for (int i = 0; i < 225; ++i)
        v[i] = static_cast<uint32_t>(i);
    sel[0] = sel[1] = sel[16] = sel[224] = 1;  // window 0: blocks 0, 1, 16
    std::array<uint32_t, 25> out{};
    window_averages_of(v.data(), sel.data(), out.data());
    EXPECT_EQ(out[0], (0u + 1 + 16) / 3 + 50);
    EXPECT_EQ(out[24], 224u + 50);
    EXPECT_EQ(out[12], 50u) << "nothing selected";
}

TEST_F(HighlightTest, CentreSharpnessRangesGrowFromTheCentreBlock) {
    // Distinct values per ring around (7, 7) make every range's average unique.
    StatFrame f;
    for (int r = 0; r < 15; ++r) {
        for (int c = 0; c < 15; ++c)
            f.sharp(r, c, 1000u * (std::max(std::abs(r - 7), std::abs(c - 7)) + 1));
    }
    fetch(f);
    const uint32_t single = 1000, column3 = (1000u + 2 * 2000) / 3,
                   square3 = (1000u + 8 * 2000) / 9, square5 = (1000u + 8 * 2000 + 16 * 3000) / 25,
                   square7 = (1000u + 8 * 2000 + 16 * 3000 + 24 * 4000) / 49;
    const uint32_t by_size[] = {square5, square7, single, column3, square3, square7};
    for (uint8_t s = 1; s <= 6; ++s)
        EXPECT_EQ(centre_sharpness_by_range(s), by_size[s - 1]) << "size " << int(s);
    EXPECT_EQ(centre_sharpness_by_range(255), square7);
    const uint32_t by_state[] = {single, column3, square3, square5, square5};
    for (uint8_t s = 0; s < 5; ++s) {
        set_centre_range_state(s);
        EXPECT_EQ(get_centre_range_state(), s);
        EXPECT_EQ(centre_sharpness_by_range(0), by_state[s]) << "state " << int(s);
    }
}

}  // namespace
