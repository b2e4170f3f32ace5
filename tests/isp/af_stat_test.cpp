// Statistics frame decoding and the per-window values and grids derived from it, on hand-computed
// block grids.
#include "isp/af_stat.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

#include "isp/highlight.h"
#include "isp/isp_inputs.h"
#include "isp/isp_link.h"
#include "tests/isp/stat_frame.h"

namespace {

using isptest::Field;
using isptest::StatFrame;

uint8_t g_preset = 3;
const IspInputs kInputs = {[] { return uint16_t{0}; }, [] { return g_preset; }};

class AfStatTest : public ::testing::Test {
  protected:
    void SetUp() override {
        isp_link_reset_for_testing();
        highlight_reset_for_testing();
        af_stat_clear_blocks();
        g_preset = 3;
        isp_set_inputs_for_testing(&kInputs);
    }
    void TearDown() override { isp_set_inputs_for_testing(nullptr); }

    static std::array<uint32_t, 225> grid(StatGrid g) {
        std::array<uint32_t, 225> out{};
        af_stat_copy_grid(g, out.data());
        return out;
    }
};

TEST_F(AfStatTest, EachArrayComesFromItsOwnOffsetAndFilterSumsSkipTheFirstRowAndColumn) {
    // A distinct value in every field of every block; header and tail words full of ones.
    StatFrame f;
    for (int k = 0; k < 6; ++k)
        for (int i = 0; i < 225; ++i)
            f.set(static_cast<Field>(k), i / 15, i % 15, static_cast<uint32_t>(1000 * k + i));
    for (std::size_t w : {0, 1, 2, 1353, 1375})
        f.raw_word(w, 0xFFFFFFFF);
    af_stat_fetch_from(f.data(), 1);
    for (uint32_t i = 0; i < 225; ++i) {
        const AfStatWindow& b = af_stat_blocks()[i];
        // The ISP's filter sums need the block above and to the left: none on row and column 0.
        const uint32_t edge = (i < 15 || i % 15 == 0) ? 0 : 1;
        const uint32_t got[6] = {b.luma, b.fir_v, b.fir_h, b.iir1, b.iir2, b.highlight};
        for (uint32_t k = 0; k < 6; ++k)
            EXPECT_EQ(got[k], (1000 * k + i) * (k == 0 || k == 5 ? 1 : edge)) << i << " " << k;
    }
}

TEST_F(AfStatTest, ModeZeroOnlyRefreshesTheCentreSharpnessEntry) {
    af_stat_fetch_from(StatFrame().fill(Field::kFirV, 600).fill(Field::kIir1, 400).data(), 1);
    const auto sharp_before = grid(StatGrid::kSharpV);
    // Centre 3 x 3 of rows/columns 7..9, one block at its far corner: (8 x 1500 + 2400) / 9.
    StatFrame b = StatFrame().fill(Field::kFirV, 2000).fill(Field::kIir1, 1000);
    af_stat_fetch_from(b.fill(Field::kLuma, 9).sharp(9, 9, 2400).data(), 0);
    EXPECT_EQ(get_window_sharpness(0), 1600u);
    EXPECT_EQ(get_window_sharpness(6), 500u);
    EXPECT_EQ(grid(StatGrid::kSharpV), sharp_before);
    EXPECT_EQ(af_stat_blocks()[100].luma, 9u) << "the block table follows every fetch";
}

TEST_F(AfStatTest, WindowValuesAndOutOfRangeIndexReadsLastWindow) {
    // Every block of window z holds sharpness 100 (z + 1) and IIR2 10 (z + 1).
    StatFrame f;
    for (int i = 0; i < 225; ++i) {
        const uint32_t z = static_cast<uint32_t>(i / 45 * 5 + i % 15 / 3);
        f.sharp(i / 15, i % 15, 100 * (z + 1)).set(Field::kIir2, i / 15, i % 15, 10 * (z + 1));
    }
    af_stat_fetch_from(f.data(), 2);
    EXPECT_EQ(get_window_sharpness(24), 2500u);  // rows/columns 12..14, 2500 in every block
    EXPECT_EQ(get_window_sharpness(30), 2500u);
    EXPECT_EQ(get_window_iir2(7), 80u);
    EXPECT_EQ(get_window_iir2(255), 250u);
    // Window 2 (rows 0..2, columns 6..8): row 0 has no filter sums, so 6 blocks of 300 over 9.
    EXPECT_EQ(get_window_sharpness(2), 200u);
    // An unknown mode converts the frame but leaves the window tables alone.
    af_stat_fetch_from(StatFrame().data(), 3);
    EXPECT_EQ(get_window_sharpness(24), 2500u);
    EXPECT_EQ(af_stat_blocks()[224].fir_v, 0u);
}

TEST_F(AfStatTest, CentreWindowIsWeightedThreeByThreeOnlyUnderTheBlockPreset) {
    StatFrame f;
    for (int i = 0; i < 16; ++i)
        f.sharp(6 + i / 4, 6 + i % 4, i == 0 ? 800 : 400);  // rows/columns 6..9
    const uint32_t block3 = (800u + 8 * 400) / 9, plain4 = (800u + 15 * 400) / 16;
    for (uint8_t p : {3, 1, 0}) {
        g_preset = p;
        af_stat_fetch_from(f.data(), p == 0 ? 2 : 1);
        EXPECT_EQ(get_window_sharpness(12), p == 3 ? block3 : plain4) << "preset " << int(p);
    }
}

TEST_F(AfStatTest, GridsKindsAndFilterTableExportUseWrappingThirtyTwoBitArithmetic) {
    StatFrame f;
    f.set(Field::kFirV, 3, 4, 0xFFFFFFFF).set(Field::kIir1, 3, 4, 3);  // the sum wraps to 2
    f.set(Field::kFirH, 3, 4, 7).set(Field::kIir2, 3, 4, 10);
    f.set(Field::kLuma, 3, 4, 1023).set(Field::kHighlight, 3, 4, 950);
    af_stat_fetch_from(f.data(), 2);
    const int i = 3 * 15 + 4;
    const std::pair<StatGrid, uint32_t> grids[] = {
        {StatGrid::kSharpV, 1 + 50}, {StatGrid::kSharpH, 8},  // no offset on the secondary one
        {StatGrid::kLuma, 1023},     {StatGrid::kHighlight, 950}, {StatGrid::kFirV, 0xFFFFFFFF},
        {StatGrid::kIir1, 3},        {StatGrid::kFirH, 7},        {StatGrid::kIir2, 10},
    };
    for (const auto& [g, v] : grids)
        EXPECT_EQ(grid(g)[i], v) << "grid " << static_cast<int>(g);
    EXPECT_EQ(grid(StatGrid::kSharpV)[0], 50u);

    // The kinds are computed from the block table: iir1, fir_v, iir2, fir_h, the two sums halved
    // (each + 50), and the brightness. Unknown kinds leave the output alone.
    af_stat_fetch_from(f.data(), 0);
    const uint32_t kinds[7] = {53, 49, 60, 57, 51, 58, 1023};
    for (uint32_t kind = 0; kind < 9; ++kind) {
        std::array<uint32_t, 225> out;
        out.fill(0xDEADBEEF);
        af_stat_grid_by_kind(out.data(), kind == 8 ? 0xFFFFFFFF : kind);
        EXPECT_EQ(out[i], kind < 7 ? kinds[kind] : 0xDEADBEEF) << "kind " << kind;
        EXPECT_EQ(out[0], kind < 6 ? 50 : kind == 6 ? 0 : 0xDEADBEEF) << "kind " << kind;
    }

    // Export: five words per block at r x 75 + c x 5, the filter sums + 1, then the brightness;
    // every word is written.
    std::array<uint32_t, kFilterTableWords> t;
    t.fill(0xDEADBEEF);
    af_stat_export_filter_table(t.data());
    EXPECT_EQ(std::vector<uint32_t>(t.begin() + 3 * 75 + 4 * 5, t.begin() + 3 * 75 + 5 * 5),
              (std::vector<uint32_t>{4, 0, 11, 8, 1023}));
    EXPECT_EQ(std::vector<uint32_t>(t.begin(), t.begin() + 5),
              (std::vector<uint32_t>{1, 1, 1, 1, 0}));
    EXPECT_EQ(std::count(t.begin(), t.end(), 0xDEADBEEF), 0);
}

TEST_F(AfStatTest, WindowSharpnessCopyOffsetsOnlyValuesBelowTwentyThousand) {
    StatFrame f;
    for (int i = 0; i < 18; ++i)
        f.sharp(3 + i / 6, 3 + i % 6, i % 6 < 3 ? 19999 : 20000);  // windows 6 and 7
    af_stat_fetch_from(f.data(), 1);
    std::array<uint32_t, 25> out{};
    af_stat_copy_window_sharpness(out.data());
    EXPECT_EQ((std::vector<uint32_t>{out[6], out[7], out[24]}),
              (std::vector<uint32_t>{20049, 20000, 50}));
}

}  // namespace
