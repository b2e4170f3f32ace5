// Motion objects through the detector's per-frame entry: luma grids in which block rectangles
// appear, grow and move against a still background, and the events that follow.
#include "scene/object_tracker.h"

#include "scene/grid_ops.h"

#include <gtest/gtest.h>

#include "tests/scene/scene_fixture.h"

namespace {

using scenetest::flat;
using scenetest::paint;
using scenetest::U32Grid;

constexpr uint32_t kBackground = 1000;

class SceneObjects : public scenetest::SceneFixture {
  protected:
    void SetUp() override {
        SceneFixture::SetUp();
        for (uint32_t& v : a().refLuma)
            v = kBackground;
        detect_objects(a(), 0, nullptr, nullptr);
    }
    static SceneAnalyzer& a() { return g_sceneAnalyzer; }

    // Sharpness stays low, so the detector judges by brightness.
    uint32_t frame(const U32Grid& luma) {
        const U32Grid sharp = flat(100);
        return detect_objects(a(), 1, sharp.data(), luma.data());
    }
    static U32Grid with_rect(int r0, int r1, int c0, int c1, uint32_t v = 1300) {
        U32Grid g = flat(kBackground);
        paint(g, r0, r1, c0, c1, v);
        return g;
    }
    const TrackedObject& object(int slot) { return a().detector.objects[slot]; }
};

TEST_F(SceneObjects, RelativeChangeModeTakesTheCommonShiftOfThePicture) {
    U32Grid base = flat(110), other = flat(100);
    paint(other, 0, 2, 0, 14, 300u);  // a bright band does not outvote the rest
    EXPECT_FLOAT_EQ(relative_change_mode(base.data(), other.data()), -0.09f);
    // Three changes of 75 blocks each: of equally long runs the largest value wins.
    U32Grid thirds = flat(100);
    paint(thirds, 0, 4, 0, 14, 120u);
    paint(thirds, 10, 14, 0, 14, 80u);
    EXPECT_FLOAT_EQ(relative_change_mode(flat(100).data(), thirds.data()), 0.19f);
}

TEST_F(SceneObjects, StillOrUniformlyBrighteningPicturesHoldNoObject) {
    EXPECT_EQ(frame(with_rect(5, 9, 5, 9)), 0u) << "the first frame fills the whole history";
    EXPECT_EQ(frame(with_rect(5, 9, 5, 9)), 0u);
    U32Grid brighter = with_rect(5, 9, 5, 9);
    for (uint32_t& v : brighter)
        v = v * 11 / 10;
    EXPECT_EQ(frame(brighter), 0u);
    EXPECT_EQ(a().detector.objectCount, 0);
    EXPECT_EQ(a().detectorStatus, kObjectNon);
}

TEST_F(SceneObjects, AChangedRegionBecomesAnObjectThatSettlesInside) {
    frame(flat(kBackground));
    const U32Grid region = with_rect(5, 8, 5, 8, 1200);  // 4 x 4, +20 %
    EXPECT_EQ(frame(region), 16u);
    ASSERT_EQ(a().detector.objectCount, 1);
    EXPECT_EQ(object(0).state, kMotionNone);
    EXPECT_EQ(object(0).age, 1);
    EXPECT_EQ(object(0).n, 16u);
    // Seen again against the frames 2 and 4 back: three frames with the centre inside.
    frame(region);
    frame(region);
    EXPECT_EQ(object(0).age, 3);
    EXPECT_EQ(object(0).state, kMotionInside);
    EXPECT_EQ(a().detectorStatus, kObjectNon);
    EXPECT_EQ(a().outputMask[6 * 15 + 6], 1) << "the inside object is the target";
    EXPECT_EQ(a().targetCentre[0], 7);
}

TEST_F(SceneObjects, TheTargetAmongInsideObjectsIsTheOneNearestRightOfCentre) {
    frame(flat(kBackground));
    U32Grid two = with_rect(5, 9, 4, 6);  // centre (7,5)
    paint(two, 5, 9, 9, 11, 1300u);       // centre (7,10)
    for (int i = 0; i < 3; ++i)
        frame(two);
    ASSERT_EQ(a().detector.objectCount, 2);
    EXPECT_EQ(object(0).centres[0][1], 5);
    EXPECT_EQ(object(1).state, kMotionInside);
    // Measured from (7,8) the right object is nearer (2 against 3); from (7,7) it would not be.
    EXPECT_EQ(a().targetCentre[1], 10);
    EXPECT_EQ(a().outputMask[7 * 15 + 10], 1);
    EXPECT_EQ(a().outputMask[7 * 15 + 5], 0);
}

TEST_F(SceneObjects, AnObjectSteppingInFromTheLeftEdgeIsReportedAsMovedIn) {
    frame(flat(kBackground));
    frame(with_rect(4, 8, 0, 2));
    frame(with_rect(4, 8, 0, 4));
    const uint32_t covered = frame(with_rect(4, 8, 0, 6));
    ASSERT_EQ(a().detector.objectCount, 1);
    EXPECT_EQ(object(0).state, kMotionIn);
    EXPECT_EQ(a().detectorStatus, kObjectIn);
    EXPECT_GT(covered, 0u);
    EXPECT_EQ(a().targetRegion[6 * 15 + 5], 1);
    EXPECT_EQ(a().target.id, 0);
}

TEST_F(SceneObjects, AnObjectThatLeavesToTheBorderIsReportedAsMovedOut) {
    frame(flat(kBackground));
    for (int i = 0; i < 3; ++i)
        frame(with_rect(5, 9, 9, 11));
    ASSERT_EQ(object(0).state, kMotionInside);
    // It steps to the right edge: the change still spans where it was, so it is not yet out.
    frame(with_rect(5, 9, 12, 14));
    EXPECT_EQ(object(0).state, kMotionOut);
    EXPECT_EQ(a().detectorStatus, kObjectNon);
    // It moves at the edge alone: now wholly outside the middle.
    a().snapshot.count = 7;
    EXPECT_EQ(frame(with_rect(5, 9, 12, 14, 1600)), 0u);
    EXPECT_EQ(a().detectorStatus, kObjectOut);
    EXPECT_EQ(a().snapshot.count, 0u) << "the reported snapshot is cleared";
    EXPECT_EQ(count_set_grid(a().outputMask), 0);
    EXPECT_EQ(a().target.centres[0][1], 13);
}

TEST_F(SceneObjects, AnUnmatchedObjectFadesAfterFortyFiveFrames) {
    frame(flat(kBackground));
    const U32Grid person = with_rect(5, 9, 1, 3);
    U32Grid specks = person;  // four 2 x 2 flickers far from it: matching runs, nothing overlaps
    paint(specks, 0, 1, 9, 10, 1500u);
    paint(specks, 0, 1, 12, 13, 1500u);
    paint(specks, 12, 13, 9, 10, 1500u);
    paint(specks, 12, 13, 12, 13, 1500u);
    frame(person);
    frame(specks);
    for (int i = 3; i <= 44; ++i)
        frame(person);
    ASSERT_EQ(a().detector.objectCount, 1) << "after 44 frames";
    EXPECT_EQ(object(0).ttl, 1);
    frame(person);
    EXPECT_EQ(a().detector.objectCount, 0);
    EXPECT_EQ(object(0).valid, 0);
}

TEST(SceneMotionClassification, StatesFollowTheCentrePath) {
    TrackedObject obj;
    obj.valid = 1;
    obj.age = 3;
    auto path = [&](std::initializer_list<std::pair<int, int>> newestFirst) {
        int i = 0;
        for (auto [r, c] : newestFirst) {
            obj.centres[i][0] = static_cast<uint8_t>(r);
            obj.centres[i][1] = static_cast<uint8_t>(c);
            ++i;
        }
    };
    path({{7, 7}, {7, 2}, {7, 1}});
    classify_motion(obj);
    EXPECT_EQ(obj.state, kMotionIn);
    EXPECT_EQ(obj.direction, kDirNone) << "decided only once the state is set";
    path({{7, 12}, {7, 7}, {7, 2}});
    classify_motion(obj);
    EXPECT_EQ(obj.state, kMotionNone) << "a moved-in object that leaves again";
    EXPECT_EQ(obj.direction, kDirCols) << "column spread 10 over the three centres";

    TrackedObject high;
    high.valid = 1;
    high.age = 3;
    high.centres[0][0] = 1;  // rows all outside: nothing to say
    high.centres[0][1] = 7;
    high.centres[1][0] = 1;
    high.centres[2][0] = 2;
    classify_motion(high);
    EXPECT_EQ(high.state, kMotionNone);
    high.centres[0][0] = 4;  // some rows inside: coming in from the top
    classify_motion(high);
    EXPECT_EQ(high.state, kMotionIn);
}

TEST_F(SceneObjects, TrajectoryOfTheTargetCentre) {
    auto classify = [&](std::initializer_list<std::pair<int, int>> centres) {
        a().centreCount = 0;
        for (auto [r, c] : centres)
            push_target_centre(a(), static_cast<uint8_t>(r), static_cast<uint8_t>(c));
        return classify_trajectory(a());
    };
    EXPECT_EQ(classify({{7, 12}, {7, 11}, {7, 10}, {7, 9}, {7, 8}, {7, 7}}), kObjectIn);
    EXPECT_EQ(classify({{7, 7}, {7, 8}, {7, 9}, {7, 10}, {7, 11}, {7, 12}, {7, 13}, {7, 14}}),
              kObjectOut);
    EXPECT_EQ(classify({{7, 7}, {7, 8}, {7, 7}, {6, 8}}), kObjectShake) << "near the centre";
    EXPECT_EQ(classify({{2, 7}, {4, 7}, {6, 7}, {12, 7}, {7, 7}}), kObjectShake)
        << "rows undecided, columns near the centre";

    a().centreCount = 0;
    for (int i = 0; i < 130; ++i)
        push_target_centre(a(), 7, static_cast<uint8_t>(i % 15));
    EXPECT_EQ(a().centreCount, 100);
    EXPECT_EQ(a().centreHistory[0][1], 30 % 15) << "the oldest 30 were dropped";
}

}  // namespace
