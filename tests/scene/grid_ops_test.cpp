// Grid operations and the reference smoothing: counting widths, bounds and in-place filtering.
#include "scene/grid_ops.h"

#include <gtest/gtest.h>

#include "tests/scene/scene_fixture.h"

namespace {

using scenetest::paint;
using scenetest::U32Grid;
using scenetest::U8Grid;
using SceneSmoothing = scenetest::SceneFixture;

TEST(SceneGridOps, IsolatedBlocksAreDroppedAndTheBorderIsLeftAlone) {
    U8Grid in{}, out{};
    in[7 * 15 + 7] = 1;        // alone
    paint(in, 2, 2, 2, 4, 1);  // a run of three
    in[0] = 1;                 // border block, no neighbour: never judged
    out = in;
    EXPECT_EQ(remove_isolated_blocks(in.data(), out.data()), 4u);
    EXPECT_EQ(out[7 * 15 + 7], 0);
    EXPECT_EQ(out[0], 1);
    EXPECT_EQ(out[2 * 15 + 3], 1);
}

TEST(SceneGridOps, CountersKeepTheirWidthsAndBounds) {
    uint8_t bytes[300];
    for (uint8_t& b : bytes)
        b = 1;
    EXPECT_EQ(count_set(bytes, 300), 44);  // 300 modulo 256

    U8Grid mask{};
    paint(mask, 0, 14, 0, 14, 1);
    EXPECT_EQ(count_set_grid(mask.data()), 225);
    EXPECT_EQ(count_set_window(mask.data(), 4, 4, 12, 12), 64) << "upper bounds excluded";
    EXPECT_EQ(count_set_window(mask.data(), 5, 5, 5, 9), 0);
}

TEST(SceneGridOps, MeansOverWindowsAndCellLists) {
    U32Grid g{};
    paint(g, 0, 14, 0, 14, 10u);
    paint(g, 3, 3, 0, 14, 40u);
    EXPECT_EQ(window_mean(g.data(), 2, 0, 3, 0), 25u) << "bounds inclusive";
    EXPECT_EQ(window_mean(g.data(), 3, 0, 2, 0), 0u) << "empty window";
    paint(g, 0, 0, 0, 1, 0xFFFFFFF0u);
    EXPECT_EQ(window_mean(g.data(), 0, 0, 0, 1), 0xFFFFFFF0u) << "sums in 64 bits";

    CellList cells;
    EXPECT_EQ(masked_mean(g.data(), cells), 0u);
    cells.add(3, 3);
    cells.add(4, 4);
    cells.add(3, 3);  // listed twice, counted once
    EXPECT_EQ(masked_mean(g.data(), cells), 25u);
}

TEST(SceneGridOps, MajorityFilterFollowsAStrictMajorityOfTheNeighbours) {
    float specks[kGridBlocks] = {};
    specks[7 * 15 + 7] = 1.0f;  // a lone +1 among zeros goes
    majority_filter(specks);
    EXPECT_EQ(specks[7 * 15 + 7], 0.0f);

    float field[kGridBlocks];
    for (float& v : field)
        v = -1.0f;
    field[7 * 15 + 7] = 0.0f;  // a hole in a uniform field is filled
    majority_filter(field);
    EXPECT_EQ(field[7 * 15 + 7], -1.0f);

    float tie[kGridBlocks] = {};
    tie[0] = 1.0f;  // corner: one +1, one -1 and one 0 around it
    tie[1] = 1.0f;
    tie[15] = -1.0f;
    majority_filter(tie);
    EXPECT_EQ(tie[0], 1.0f) << "no strict majority: unchanged";
}

TEST(SceneGridOps, StablePairAgreesWithinFourPercent) {
    const uint32_t b[4] = {100, 200, 300, 400};
    const uint32_t near[4] = {103, 194, 309, 388};  // 3 % each
    const uint32_t far[4] = {105, 190, 315, 380};   // 5 % each
    EXPECT_EQ(stable_pair(near, b, 4), 1);
    EXPECT_EQ(stable_pair(far, b, 4), 0);
}

TEST_F(SceneSmoothing, BlendsAndTruncates) {
    SceneAnalyzer& a = g_sceneAnalyzer;
    U32Grid first = scenetest::flat(1000), next = scenetest::flat(2000);
    first[1] = 1001;
    smooth_reference(a, first.data(), first.data(), 1);
    EXPECT_EQ(a.smoothSharp[0], 1000u);
    smooth_reference(a, next.data(), next.data(), 0);
    EXPECT_EQ(a.smoothSharp[0], 1600u);
    EXPECT_EQ(a.smoothSharp[1], 1600u) << "1600.4 truncated";
    EXPECT_EQ(a.smoothLuma[1], 1600u);
}

}  // namespace
