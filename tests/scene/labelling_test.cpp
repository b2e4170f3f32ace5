// Run-based labelling and the shape refinement on crafted masks.
#include "scene/labelling.h"

#include <gtest/gtest.h>

#include <vector>

#include "tests/scene/scene_fixture.h"

namespace {

using scenetest::paint;
using scenetest::U8Grid;

struct Labelled {
    int32_t largest;
    ComponentSet set;
};

Labelled label(const U8Grid& mask, int32_t connectivity = 8) {
    static RunStorage storage;
    Labelled out{0, {}};
    storage.clear();
    out.largest = label_components(mask.data(), 15, 15, connectivity, storage, out.set);
    return out;
}

std::vector<std::pair<int, int>> cells_of(const Component& c) {
    std::vector<std::pair<int, int>> v;
    for (uint32_t k = 0; k < c.n; ++k)
        v.emplace_back(c.cells[k][0], c.cells[k][1]);
    return v;
}

TEST(SceneLabelling, EmptyAndFullMasks) {
    Labelled empty = label(U8Grid{});
    EXPECT_EQ(empty.largest, 0);
    EXPECT_EQ(empty.set.count, 0u);

    U8Grid full{};
    paint(full, 0, 14, 0, 14, 1);
    Labelled l = label(full);
    refine_component_shapes(l.set, 15, 15);
    ASSERT_EQ(l.set.count, 1u);
    EXPECT_EQ(l.largest, 225);
    EXPECT_EQ(l.set.components[0].label, 1u);
    EXPECT_EQ(l.set.components[0].n, 225u);
    EXPECT_EQ(l.set.components[0].centreRow, 7);
    EXPECT_EQ(l.set.components[0].centreCol, 7);
}

TEST(SceneLabelling, DiagonalNeighboursJoinOnlyWithEightConnectivity) {
    U8Grid mask{};
    mask[3 * 15 + 3] = 1;
    mask[4 * 15 + 4] = 1;
    Labelled eight = label(mask, 8), four = label(mask, 4);
    EXPECT_EQ(eight.set.count, 1u);
    EXPECT_EQ(eight.largest, 2);
    EXPECT_EQ(four.set.count, 2u);
    EXPECT_EQ(four.largest, 1);
    // Both are specks for the refinement.
    refine_component_shapes(eight.set, 15, 15);
    refine_component_shapes(four.set, 15, 15);
    EXPECT_EQ(eight.set.count, 0u);
    EXPECT_EQ(four.set.count, 0u);
    EXPECT_EQ(eight.set.labels[3 * 15 + 3], 0);
}

TEST(SceneLabelling, RunsMergeThroughLaterRowsAndLabelsFollowRasterOrder) {
    U8Grid mask{};
    // A "U": two arms whose runs only meet in the bottom row, then a separate block to the
    // right whose first run starts in an earlier row than the U's.
    paint(mask, 5, 8, 2, 2, 1);
    paint(mask, 5, 8, 6, 6, 1);
    paint(mask, 9, 9, 2, 6, 1);
    paint(mask, 3, 4, 10, 12, 1);
    Labelled l = label(mask);
    ASSERT_EQ(l.set.count, 2u);
    EXPECT_EQ(l.set.labels[3 * 15 + 10], 1) << "first run in raster order";
    EXPECT_EQ(l.set.labels[5 * 15 + 2], 2);
    EXPECT_EQ(l.set.labels[5 * 15 + 6], 2) << "the arms are one component";
    EXPECT_EQ(l.set.components[1].n, 13u);
    // Cells come in raster order.
    const auto u = cells_of(l.set.components[1]);
    EXPECT_EQ(u.front(), std::make_pair(5, 2));
    EXPECT_EQ(u[1], std::make_pair(5, 6));
    EXPECT_EQ(u.back(), std::make_pair(9, 6));
}

TEST(SceneLabelling, ComponentsOnTheGridBorder) {
    U8Grid mask{};
    paint(mask, 14, 14, 0, 14, 1);  // bottom row
    paint(mask, 0, 12, 14, 14, 1);  // right column, not touching the bottom row
    paint(mask, 0, 0, 0, 2, 1);     // top-left corner
    Labelled l = label(mask);
    ASSERT_EQ(l.set.count, 3u) << "(12,14) and (14,*) are two rows apart";
    l = label([&] {
        U8Grid m = mask;
        m[13 * 15 + 14] = 1;
        return m;
    }());
    ASSERT_EQ(l.set.count, 2u);
    EXPECT_EQ(l.largest, 29);
}

TEST(SceneLabelling, RefinementClosesRingsAndCShapes) {
    U8Grid ring{};
    paint(ring, 4, 8, 4, 8, 1);
    paint(ring, 5, 7, 5, 7, 0);
    Labelled l = label(ring);
    refine_component_shapes(l.set, 15, 15);
    ASSERT_EQ(l.set.count, 1u);
    EXPECT_EQ(l.set.components[0].n, 25u);
    EXPECT_EQ(l.set.labels[6 * 15 + 6], 1);
    // The 16 labelled cells come first; the filled ones are appended after them.
    const auto cells = cells_of(l.set.components[0]);
    EXPECT_EQ(cells[15], std::make_pair(8, 8));
    EXPECT_EQ(cells[16], std::make_pair(5, 5));

    // A "C" open to the right: rows close nothing, the columns between the arms close it.
    U8Grid c{};
    paint(c, 3, 3, 3, 8, 1);
    paint(c, 4, 6, 3, 3, 1);
    paint(c, 7, 7, 3, 8, 1);
    l = label(c);
    refine_component_shapes(l.set, 15, 15);
    ASSERT_EQ(l.set.count, 1u);
    EXPECT_EQ(l.set.labels[5 * 15 + 8], 1);
    EXPECT_EQ(l.set.components[0].n, 30u);
}

TEST(SceneLabelling, RefinementOrdersBySizeAndLeavesOtherComponentsAlone) {
    U8Grid mask{};
    paint(mask, 0, 0, 0, 4, 1);      // 5 blocks, label 1
    paint(mask, 5, 7, 5, 7, 1);      // 9 blocks, label 2
    paint(mask, 10, 10, 10, 11, 1);  // speck
    Labelled l = label(mask);
    refine_component_shapes(l.set, 15, 15);
    ASSERT_EQ(l.set.count, 2u);
    EXPECT_EQ(l.set.components[0].n, 9u);
    EXPECT_EQ(l.set.components[0].label, 2u);
    EXPECT_EQ(l.set.components[0].centreRow, 6);
    EXPECT_EQ(l.set.components[1].n, 5u);
    EXPECT_EQ(l.set.components[1].centreCol, 2);
    EXPECT_EQ(l.set.components[2].label, 0u) << "the speck moved behind";
    EXPECT_EQ(l.set.labels[10 * 15 + 10], 0);

    // A block between two arms that already belongs to another component is not claimed.
    U8Grid nested{};
    paint(nested, 2, 2, 2, 8, 1);
    paint(nested, 2, 6, 2, 2, 1);
    paint(nested, 2, 6, 8, 8, 1);
    paint(nested, 6, 6, 2, 8, 1);
    paint(nested, 4, 4, 4, 6, 1);
    l = label(nested);
    refine_component_shapes(l.set, 15, 15);
    ASSERT_EQ(l.set.count, 2u);
    EXPECT_EQ(l.set.labels[4 * 15 + 5], 2) << "the inner bar keeps its label";
    EXPECT_EQ(l.set.labels[5 * 15 + 5], 1) << "background inside the frame is filled";
}

TEST(SceneLabelling, ThirtyTwoComponentsLeaveTheSetEmpty) {
    U8Grid mask{};
    int placed = 0;
    for (int r = 0; r < 15 && placed < 32; r += 2)
        for (int c = 0; c < 15 && placed < 32; c += 2, ++placed)
            mask[r * 15 + c] = 1;
    Labelled l = label(mask);
    EXPECT_EQ(l.largest, 0);
    EXPECT_EQ(l.set.count, 0u);
    EXPECT_EQ(l.set.labels[0], 0);

    mask[6 * 15 + 14] = 0;  // the last one placed: 31 remain
    l = label(mask);
    EXPECT_EQ(l.set.count, 31u);
}

TEST(SceneLabellingDeathTest, UnknownConnectivityEndsTheProcess) {
    U8Grid mask{};
    EXPECT_EXIT(label(mask, 6), ::testing::ExitedWithCode(255), "");
}

}  // namespace
