// Statistics frame decoding and the per-window values and grids derived from it, on hand-computed
// block grids.
#include "isp/af_stat.h"

#include <gtest/gtest.h>

#include <array>

#include "isp/highlight.h"
#include "isp/isp_inputs.h"
#include "isp/isp_link.h"
#include "tests/isp/stat_frame.h"

namespace {

using isptest::Field;
using isptest::StatFrame;

uint8_t g_preset = 3;
uint16_t zoom_zero() {
    return 0;
}
uint8_t preset() {
    return g_preset;
}
const IspInputs kInputs = {zoom_zero, preset};

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

TEST_F(AfStatTest, FilterSumsOfFirstRowAndColumnStayZeroWhileLumaAndHighlightAreCopied) {
    StatFrame f;
    f.fill(Field::kFirV, 1000).fill(Field::kFirH, 1000).fill(Field::kIir1, 1000);
    f.fill(Field::kIir2, 1000);
    for (int i = 0; i < 225; ++i) {
        f.set(Field::kLuma, i / 15, i % 15, 10 + i);
        f.set(Field::kHighlight, i / 15, i % 15, 3 * i);
    }
    af_stat_fetch_from(f.data(), 1);
    const AfStatWindow* b = af_stat_blocks();
    for (int r = 0; r < 15; ++r) {
        for (int c = 0; c < 15; ++c) {
            const AfStatWindow& w = b[r * 15 + c];
            const uint32_t expect = (r == 0 || c == 0) ? 0 : 1000;
            EXPECT_EQ(w.fir_v, expect) << r << "," << c;
            EXPECT_EQ(w.iir1, expect);
            EXPECT_EQ(w.fir_h, expect);
            EXPECT_EQ(w.iir2, expect);
            EXPECT_EQ(w.luma, static_cast<uint32_t>(10 + r * 15 + c));
            EXPECT_EQ(w.highlight, static_cast<uint32_t>(3 * (r * 15 + c)));
        }
    }
}

TEST_F(AfStatTest, ArraysAreReadFromTheirOwnOffsetsAndHeaderAndTailAreIgnored) {
    StatFrame f;
    f.set(Field::kLuma, 4, 5, 11).set(Field::kFirV, 4, 5, 22).set(Field::kFirH, 4, 5, 33);
    f.set(Field::kIir1, 4, 5, 44).set(Field::kIir2, 4, 5, 55).set(Field::kHighlight, 4, 5, 66);
    f.raw_word(0, 0xFFFFFFFF).raw_word(1, 0xFFFFFFFF).raw_word(2, 0xFFFFFFFF);
    for (std::size_t w = 1353; w < 1376; ++w)
        f.raw_word(w, 0xABCDEF01);
    af_stat_fetch_from(f.data(), 2);
    const AfStatWindow& b = af_stat_blocks()[4 * 15 + 5];
    EXPECT_EQ(b.luma, 11u);
    EXPECT_EQ(b.fir_v, 22u);
    EXPECT_EQ(b.fir_h, 33u);
    EXPECT_EQ(b.iir1, 44u);
    EXPECT_EQ(b.iir2, 55u);
    EXPECT_EQ(b.highlight, 66u);
    EXPECT_EQ(af_stat_blocks()[0].luma, 0u);
    EXPECT_EQ(af_stat_blocks()[224].highlight, 0u);
}

TEST_F(AfStatTest, ModeZeroOnlyRefreshesTheCentreSharpnessEntry) {
    StatFrame a;
    a.fill(Field::kFirV, 600).fill(Field::kIir1, 400).fill(Field::kIir2, 300);
    a.fill(Field::kLuma, 512);
    af_stat_fetch_from(a.data(), 1);
    const auto sharp_before = grid(StatGrid::kSharpV);
    const auto luma_before = grid(StatGrid::kLuma);
    EXPECT_EQ(get_window_sharpness(0), 2000u / 9);  // row/column 0 blocks have no filter sums
    EXPECT_EQ(get_window_sharpness(6), 500u);

    StatFrame b;
    b.fill(Field::kFirV, 2000).fill(Field::kIir1, 1000).fill(Field::kIir2, 77);
    b.fill(Field::kLuma, 9);
    b.sharp(8, 8, 2400);  // centre 3 x 3 of rows/columns 7..9: (8 x 1500 + 2400) / 9 = 1600
    af_stat_fetch_from(b.data(), 0);
    EXPECT_EQ(get_window_sharpness(0), 1600u);
    EXPECT_EQ(get_window_sharpness(6), 500u);
    EXPECT_EQ(get_window_iir2(6), 300u);
    EXPECT_EQ(grid(StatGrid::kSharpV), sharp_before);
    EXPECT_EQ(grid(StatGrid::kLuma), luma_before);
    // The block table itself follows every fetch.
    EXPECT_EQ(af_stat_blocks()[100].luma, 9u);
}

TEST_F(AfStatTest, WindowValuesOfModesOneAndTwoAgreeAndOutOfRangeIndexReadsLastWindow) {
    StatFrame f;
    for (int r = 0; r < 15; ++r)
        for (int c = 0; c < 15; ++c)
            f.sharp(r, c, static_cast<uint32_t>(100 * (r / 3 * 5 + c / 3) + 100));
    f.fill(Field::kIir2, 40);
    af_stat_fetch_from(f.data(), 1);
    std::array<uint32_t, 25> m1{};
    for (uint8_t z = 0; z < 25; ++z)
        m1[z] = get_window_sharpness(z);
    af_stat_fetch_from(f.data(), 2);
    for (uint8_t z = 0; z < 25; ++z)
        EXPECT_EQ(get_window_sharpness(z), m1[z]);
    // Window 24 (rows/columns 12..14) holds 2500 in every block.
    EXPECT_EQ(get_window_sharpness(24), 2500u);
    EXPECT_EQ(get_window_sharpness(30), 2500u);
    EXPECT_EQ(get_window_iir2(255), 40u);
    // Window 2 (rows 0..2, columns 6..8): row 0 has no filter sums, so 6 blocks of 300 over 9.
    EXPECT_EQ(get_window_sharpness(2), 200u);
    // An unknown mode converts the frame but leaves the window tables alone.
    StatFrame g;
    af_stat_fetch_from(g.data(), 3);
    EXPECT_EQ(get_window_sharpness(24), 2500u);
    EXPECT_EQ(af_stat_blocks()[224].fir_v, 0u);
}

TEST_F(AfStatTest, CentreWindowIsWeightedThreeByThreeOnlyUnderTheBlockPreset) {
    StatFrame f;
    for (int r = 6; r <= 9; ++r)
        for (int c = 6; c <= 9; ++c)
            f.sharp(r, c, 400);
    f.sharp(6, 6, 800);
    af_stat_fetch_from(f.data(), 1);
    EXPECT_EQ(get_window_sharpness(12), (800u + 8 * 400) / 9);  // 444
    g_preset = 1;
    af_stat_fetch_from(f.data(), 1);
    EXPECT_EQ(get_window_sharpness(12), (800u + 15 * 400) / 16);  // 425
    g_preset = 0;
    af_stat_fetch_from(f.data(), 2);
    EXPECT_EQ(get_window_sharpness(12), 425u);
}

TEST_F(AfStatTest, BlockGridsUseWrappingThirtyTwoBitArithmetic) {
    StatFrame f;
    f.set(Field::kFirV, 3, 4, 0xFFFFFFFF).set(Field::kIir1, 3, 4, 3);  // sum wraps to 2
    f.set(Field::kFirH, 3, 4, 7).set(Field::kIir2, 3, 4, 10);
    f.set(Field::kLuma, 3, 4, 1023).set(Field::kHighlight, 3, 4, 950);
    f.sharp(5, 5, 1234).set(Field::kFirH, 5, 5, 101).set(Field::kIir2, 5, 5, 0);
    af_stat_fetch_from(f.data(), 2);
    const int i = 3 * 15 + 4;
    EXPECT_EQ(grid(StatGrid::kSharpV)[i], 1u + 50);
    EXPECT_EQ(grid(StatGrid::kSharpH)[i], 8u);  // no offset on the secondary sharpness
    EXPECT_EQ(grid(StatGrid::kLuma)[i], 1023u);
    EXPECT_EQ(grid(StatGrid::kHighlight)[i], 950u);
    EXPECT_EQ(grid(StatGrid::kFirV)[i], 0xFFFFFFFFu);
    EXPECT_EQ(grid(StatGrid::kIir1)[i], 3u);
    EXPECT_EQ(grid(StatGrid::kFirH)[i], 7u);
    EXPECT_EQ(grid(StatGrid::kIir2)[i], 10u);
    EXPECT_EQ(grid(StatGrid::kSharpV)[5 * 15 + 5], 1284u);
    EXPECT_EQ(grid(StatGrid::kSharpH)[5 * 15 + 5], 50u);
    EXPECT_EQ(grid(StatGrid::kSharpV)[0], 50u);
}

TEST_F(AfStatTest, GridByKindComputesEachKindAndIgnoresUnknownKinds) {
    StatFrame f;
    f.set(Field::kIir1, 2, 2, 100).set(Field::kFirV, 2, 2, 301).set(Field::kIir2, 2, 2, 40);
    f.set(Field::kFirH, 2, 2, 61).set(Field::kLuma, 2, 2, 700);
    af_stat_fetch_from(f.data(), 0);  // the kinds read the block table, whatever the mode
    const int i = 2 * 15 + 2;
    const uint32_t expect[7] = {150, 351, 90, 111, 250, 100, 700};
    for (uint32_t kind = 0; kind < 7; ++kind) {
        std::array<uint32_t, 225> out{};
        af_stat_grid_by_kind(out.data(), kind);
        EXPECT_EQ(out[i], expect[kind]) << "kind " << kind;
        EXPECT_EQ(out[0], kind == 6 ? 0u : 50u);
    }
    std::array<uint32_t, 225> untouched;
    untouched.fill(0xDEAD);
    af_stat_grid_by_kind(untouched.data(), 7);
    af_stat_grid_by_kind(untouched.data(), 0xFFFFFFFF);
    for (uint32_t v : untouched)
        EXPECT_EQ(v, 0xDEADu);
}

TEST_F(AfStatTest, FilterTableExportPlacesFiveWordsPerBlock) {
    StatFrame f;
    f.set(Field::kIir1, 2, 3, 10).set(Field::kFirV, 2, 3, 20).set(Field::kIir2, 2, 3, 30);
    f.set(Field::kFirH, 2, 3, 40).set(Field::kLuma, 2, 3, 50).set(Field::kLuma, 14, 14, 9);
    af_stat_fetch_from(f.data(), 1);
    std::array<uint32_t, kFilterTableWords> t;
    t.fill(0xFFFFFFFF);
    af_stat_export_filter_table(t.data());
    const int at = 2 * 75 + 3 * 5;
    EXPECT_EQ(t[at + 0], 11u);
    EXPECT_EQ(t[at + 1], 21u);
    EXPECT_EQ(t[at + 2], 31u);
    EXPECT_EQ(t[at + 3], 41u);
    EXPECT_EQ(t[at + 4], 50u);
    EXPECT_EQ(t[14 * 75 + 14 * 5 + 4], 9u);
    // Blocks without filter sums export 1, and no word is left from before.
    EXPECT_EQ(t[0], 1u);
    EXPECT_EQ(t[4], 0u);
    for (uint32_t v : t)
        EXPECT_NE(v, 0xFFFFFFFFu);
}

TEST_F(AfStatTest, WindowSharpnessCopyOffsetsOnlyValuesBelowTwentyThousand) {
    StatFrame f;
    for (int r = 3; r < 6; ++r)
        for (int c = 3; c < 6; ++c)
            f.sharp(r, c, 19999);  // window 6
    for (int r = 3; r < 6; ++r)
        for (int c = 6; c < 9; ++c)
            f.sharp(r, c, 20000);  // window 7
    af_stat_fetch_from(f.data(), 1);
    std::array<uint32_t, 25> out{};
    af_stat_copy_window_sharpness(out.data());
    EXPECT_EQ(out[6], 20049u);
    EXPECT_EQ(out[7], 20000u);
    EXPECT_EQ(out[24], 50u);
}

}  // namespace
