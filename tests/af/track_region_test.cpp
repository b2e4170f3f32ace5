// Tracking-region focus: a tracker box that starts a search, the region that becomes its zone
// (and the map it logs), what a box without a region does, the bounds the wobble reads and the
// restart-reason history. The tracker is the shared-memory record in a sandbox.
#include <sys/stat.h>

#include <cstdio>
#include <string>

#include "base/command_state.h"
#include "isp/track_input.h"
#include "platform/paths.h"
#include "tests/af/af_rules_fixture.h"
#include "tracking/zoom_track.h"

namespace {

using testsupport::capture_stdout;

class TrackRegionTest : public afrules::AfRulesTest {
  protected:
    void SetUp() override {
        AfRulesTest::SetUp();
        platform::set_file_root(root_.path().c_str());
        ::mkdir(root_.host("/dev").c_str(), 0755);
        track_input_reset();
        zoom_track_reset_for_testing();
        command_set_autofocus_mode(1);
        command_set_ezoom(0);
        set_window_preset(3);
        g_blockPath = 1;
        g_presetFlag = 1;
        afrules::raw_frame(1500, {}).fetch();
    }
    void TearDown() override {
        track_input_reset();
        set_tracking_on(0);
        platform::set_file_root(nullptr);
        zoom_track_reset_for_testing();
        command_set_autofocus_mode(0);
        AfRulesTest::TearDown();
    }
    void publish(uint32_t state, uint32_t x1, uint32_t y1, uint32_t x2, uint32_t y2) {
        const uint32_t w[5] = {state, x1, y1, x2, y2};
        FILE* f = std::fopen(root_.host(kTrackDevice).c_str(), "w+b");
        ASSERT_NE(f, nullptr);
        std::fwrite(w, 4, 5, f);
        std::fclose(f);
    }
    // One AF frame as the frame loop runs it: the tracker polled, the slow divider in force.
    static std::string frame() {
        return capture_stdout([] {
            set_tracking_on(track_poll());
            af_set_slow_divider(true);
            AfFrame();
        });
    }
    // From start-up to a focused picture (the search is cut short: only the trigger matters).
    static void focused() {
        for (int i = 0; i < 3 && g_afState != 1; ++i)
            frame();
        ASSERT_EQ(g_afState, 1u);
        g_afState = 2;
        frame();
        ASSERT_EQ(g_afState, 2u);
    }
    // Frames until the new search has started.
    static std::string until_search() {
        std::string log;
        for (int i = 0; i < 4 && g_afState != 1; ++i)
            log += frame();
        return log;
    }
};

TEST_F(TrackRegionTest, ABoxStartsASearchWhoseZoneIsTheBoxsBlocks) {
    publish(1, 0, 0, 0, 0);  // tracking on, no box yet: nothing to act on
    focused();
    // Mirrored on the sensor: x 100..300 becomes 340..540, blocks rows 2..8, columns 8..12.
    publish(1, 100, 50, 300, 200);
    const std::string log = frame() + until_search();
    ASSERT_EQ(g_afState, 1u) << "the box stopped the watch and a new search began";
    EXPECT_EQ(g_seams.triggerKind, 2);
    EXPECT_EQ(tracking_region_search_active(), 1);
    EXPECT_EQ(highlight_tracking_search_active(), 1) << "border windows weighted by the zone";
    for (int b = 0; b < kGridBlocks; ++b) {
        const int r = b / kGridCols, c = b % kGridCols;
        EXPECT_EQ(g_focusZone.blockMask[b], r >= 2 && r <= 8 && c >= 8 && c <= 12 ? 1 : 0) << b;
    }
    EXPECT_EQ(selected(), (std::vector<int>{2, 3, 4, 7, 8, 9, 12, 13, 14}));
    uint8_t r0, r1, c0, c1;
    tracking_region_bounds(&r0, &r1, &c0, &c1);
    EXPECT_EQ((std::vector<int>{r0, r1, c0, c1}), (std::vector<int>{2, 8, 8, 12}));
    // The map shows column 14 first: the picture as the tracker sees it.
    const std::string off = "-   ", on = "o   ";
    const std::string row2 =
        off + off + on + on + on + on + on + off + off + off + off + off + off + off + off + "\n";
    const std::string row0 = [&] {
        std::string s;
        for (int c = 0; c < kGridCols; ++c)
            s += off;
        return s + "\n";
    }();
    EXPECT_NE(log.find("跟踪聚焦设置的区域: \n" + row0 + row0 + row2), std::string::npos) << log;

    // Focused again: the region is done with and the bounds are back at their defaults.
    g_afState = 2;
    frame();
    EXPECT_EQ(g_seams.triggerKind, 0);
    EXPECT_EQ(tracking_region_search_active(), 0);
    tracking_region_bounds(&r0, &r1, &c0, &c1);
    EXPECT_EQ((std::vector<int>{r0, r1, c0, c1}), (std::vector<int>{3, 11, 4, 10}));
    publish(1, 100, 50, 300, 200);
    frame();
    EXPECT_EQ(g_afState, 2u) << "the same box again is nothing new";
}

TEST_F(TrackRegionTest, WithoutARegionTheOrdinaryZoneRulesApply) {
    publish(1, 0, 0, 0, 0);
    focused();
    const std::vector<int> ordinary = selected();
    // Three blocks: too small, the centre 7 x 7 stands in, but as a trigger without a region.
    publish(1, 300, 150, 340, 170);
    const std::string log = frame() + until_search();
    ASSERT_EQ(g_afState, 1u);
    EXPECT_EQ(g_seams.triggerKind, 1);
    EXPECT_EQ(tracking_region_search_active(), 0);
    EXPECT_EQ(log.find("跟踪聚焦设置的区域"), std::string::npos);
    EXPECT_EQ(selected(), ordinary);
    for (int b = 0; b < kGridBlocks; ++b)
        ASSERT_EQ(g_focusZone.blockMask[b], 1) << b;
}

TEST_F(TrackRegionTest, BoundsClampNegativeFirstsAndTheReasonHistoryStartsNeutral) {
    SetTrackBounds(-2, 5, -1, 4);
    uint8_t r0, r1, c0, c1;
    tracking_region_bounds(&r0, &r1, &c0, &c1);
    EXPECT_EQ((std::vector<int>{r0, r1, c0, c1}), (std::vector<int>{0, 4, 0, 3}));
    PushRestartReason(2);
    PushRestartReason(2);
    EXPECT_FALSE(AllReasonsTwo()) << "two motion-hint restarts after start-up are not three";
    PushRestartReason(2);
    EXPECT_TRUE(AllReasonsTwo());
}

}  // namespace
