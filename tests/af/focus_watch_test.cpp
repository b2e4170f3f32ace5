// The focused watch: how long it lets the picture settle, when it takes the reference, which
// path decides and what a restart it asks for leaves behind, the wobble's lens moves and block
// counts, and what it keeps for the next search (focused range, luma change, wide-end trim). The
// scene analysis is replaced by fakes whose answers each test sets, so only the watch's own rules
// are under test.
#include <cstring>
#include <vector>

#include "af/focus_watch.h"
#include "af/highlight_scene.h"
#include "base/frame_pacing.h"
#include "isp/isp_link.h"
#include "tests/af/af_rules_fixture.h"
#include "tracking/curves.h"

namespace {

using afrules::StatFrame;

struct Fakes {
    int frame = 0;  // focused frames fed so far
    int captureFrame = 0, captures = 0, steps = 0, checks = 0;
    uint32_t stepAnswer = 0, checkAnswer = 1;
    bool refresh = false;
    FocusReference ref;
};
Fakes g_fakes;

void fake_capture(const FocusReference& r) {
    ++g_fakes.captures;
    g_fakes.captureFrame = g_fakes.frame;
    g_fakes.ref = r;
}
uint32_t fake_step(SceneResult&, const SceneInput&) {
    ++g_fakes.steps;
    g_sceneContext.refreshReport = g_fakes.refresh ? 1 : 0;
    return g_fakes.stepAnswer;
}
uint32_t fake_check(const FocusReference&) {
    ++g_fakes.checks;
    return g_fakes.checkAnswer;
}

// Every window at `v`; textured: the blocks of each window alternate in brightness, so no window
// is low-texture.
StatFrame picture(uint32_t v, bool textured = true) {
    StatFrame f;
    f.all(v);
    if (textured)
        for (int z = 0; z < 25; ++z)
            for (int d = 0; d < 9; d += 2)
                f.luma(z, d, 1400);
    return f;
}

// The watch fetches the statistics of the link's last frame again when its settle period begins:
// the frame a test shows is put where the link keeps it.
void show(const StatFrame& f) {
    std::memcpy(const_cast<uint8_t*>(isp_stat_frame()), f.bytes.data(), kAfStatFrameSize);
    af_stat_fetch(1);
}

class FocusWatchTest : public afrules::AfRulesTest {
  protected:
    void SetUp() override {
        AfRulesTest::SetUp();
        g_fakes = Fakes{};
        watch_set_scene_hooks_for_testing({fake_capture, fake_step, fake_check});
        g_zoneType = 2;
        show(picture(3000));
        SnapshotReference();
        g_afState = 2;
        g_search.searchPhase = 3;
    }
    void TearDown() override {
        watch_set_scene_hooks_for_testing({});
        g_zoneType = 2;
        set_tracking_on(0);
        frame_pacing_reset_for_testing();
        AfRulesTest::TearDown();
    }
    // A new focus: the watch from its first frame, the fakes cleared.
    static void refocused() {
        watch_state_reset();
        g_afState = 2;
        g_fakes = Fakes{};
    }
    static void feed(const StatFrame& f, int n = 1) {
        for (int i = 0; i < n && g_afState == 2; ++i) {
            show(f);
            ++g_fakes.frame;
            FocusWatch(1);
        }
    }
    // Focus position after each of n wobble stages, relative to the start, and the last result.
    static std::vector<int> wobble(int n, uint32_t* result) {
        const int p0 = lens_get_focus_pos();
        std::vector<int> at;
        for (int i = 0; i < n; ++i) {
            *result = WobbleCheck(0);
            at.push_back(lens_get_focus_pos() - p0);
        }
        return at;
    }
};

TEST_F(FocusWatchTest, SettlesByZoneTypeAndFrameRateAndTakesTheReferenceOnWatchFrameFive) {
    struct Case {
        uint8_t zone;
        bool high;
        int decides;
    } cases[] = {{1, false, 7}, {2, false, 9}, {3, false, 13},
                 {1, true, 13}, {2, true, 17}, {3, true, 21}};
    select_only({12, 13});
    for (const Case& c : cases) {
        refocused();
        g_zoneType = c.zone;
        set_high_rate(c.high);
        g_focusZone.blockMask[afrules::block_of(12, 1, 1)] = 0;
        g_focusZone.blockMask[afrules::block_of(6, 0, 0)] = 1;  // outside the selection
        while (g_fakes.steps == 0 && g_fakes.frame < 40)
            feed(picture(3000));
        EXPECT_EQ(g_fakes.frame, c.decides)
            << "zone type " << int(c.zone) << (c.high ? " at 60 fps" : " at 30 fps");
        EXPECT_EQ(g_fakes.captures, 1);
        EXPECT_EQ(g_fakes.captureFrame, 6);
    }
    // The subject is the zone's blocks inside the selected windows; the watch then measures all.
    int blocks = 0;
    for (uint8_t b : g_fakes.ref.blockMask)
        blocks += b != 0;
    EXPECT_EQ(blocks, 17);
    EXPECT_EQ(g_fakes.ref.focusPosition, 4000);
    EXPECT_EQ(g_focusZone.blockMask[afrules::block_of(12, 1, 1)], 1);
}

TEST_F(FocusWatchTest, MotionHintFromAFlatPictureThatFellWhileSettlingOrAtTheSettleEnd) {
    struct Case {
        bool textured;
        uint32_t reason;
        uint8_t atSettle;
        uint32_t frameFive;  // the value on watch frame 5 (3000 before)
        uint8_t hint;
    } cases[] = {{false, 0, 0, 2000, 1}, {false, 2, 0, 2000, 0}, {true, 0, 0, 2000, 0},
                 {false, 0, 0, 2500, 0}, {true, 0, 1, 3000, 1},  {false, 0, 1, 3000, 0}};
    for (const Case& c : cases) {
        watch_state_reset();
        g_search.restartReason = c.reason;
        g_watch.hintAtSettle = c.atSettle;
        feed(picture(3000, c.textured), 5);
        feed(picture(c.frameFive, c.textured));
        feed(picture(3000, c.textured), 2);
        EXPECT_EQ(g_watch.motionHint, c.hint) << c.textured << c.reason << c.frameFive;
    }
}

TEST_F(FocusWatchTest, SceneDecisionRestartsWithReasonOneUnlessTheTrackerHoldsTheSubject) {
    struct Case {
        uint32_t answer;
        bool refresh, recheck, tracking;
        uint8_t state;
        uint32_t cause;
    } cases[] = {{1, false, false, false, 2, 0},
                 {2, false, false, false, 0, 0},
                 {2, true, false, false, 0, 2},
                 {0, false, true, false, 0, 0},
                 {2, false, false, true, 2, 0}};
    for (const Case& c : cases) {
        refocused();
        g_fakes.stepAnswer = c.answer;
        g_fakes.refresh = c.refresh;
        g_watch.recheck = c.recheck;
        set_tracking_on(c.tracking);
        feed(picture(3000), 12);
        EXPECT_EQ(g_afState, c.state) << c.answer << c.refresh << c.recheck << c.tracking;
        EXPECT_EQ(g_search.refocusCause, c.cause);
        EXPECT_EQ(g_fakes.steps, c.recheck ? 0 : c.state == 0 ? 1 : 4);
        if (c.state == 0) {
            EXPECT_EQ(g_search.restartReason, 1u);
            EXPECT_EQ(g_watch.hintAtSettle, 1);
            EXPECT_EQ(g_watch.recheck, 0);
        }
    }
}

TEST_F(FocusWatchTest, MotionHintPathSkipsOneFrameThenChecksTheFocusItself) {
    g_watch.motionHint = 1;
    feed(picture(3000), 9);
    EXPECT_EQ(g_fakes.checks, 0) << "the first hint frame still shows the motion";
    feed(picture(3000), 2);
    EXPECT_EQ(g_fakes.checks, 1);
    EXPECT_EQ(g_watch.motionHint, 0) << "still in focus: back to the scene decision";
    EXPECT_EQ(g_fakes.steps, 1);
    EXPECT_EQ(g_afState, 2);
    // Out of focus, or a tracker on (which wobbles, and a picture that does not change with the
    // lens does not peak): a restart that does not ask for the hint again, even with the tracker.
    for (bool tracking : {false, true}) {
        refocused();
        g_fakes.checkAnswer = 2;
        set_tracking_on(tracking);
        g_watch.motionHint = 1;
        feed(picture(3000), 20);
        EXPECT_EQ(g_afState, 0);
        EXPECT_EQ(g_fakes.checks, tracking ? 0 : 1);
        EXPECT_EQ(g_search.restartReason, 2u);
        EXPECT_EQ(g_search.refocusCause, 1u);
        EXPECT_EQ(g_watch.hintAtSettle, 0);
        EXPECT_EQ(lens_get_focus_pos(), 4000);
    }
}

TEST_F(FocusWatchTest, ValueBelowAFifthOfTheReferenceRestartsEvenWhenStillPeaking) {
    for (uint32_t later : {600u, 450u}) {  // the reference windows read 3051
        refocused();
        feed(picture(3000), 6);
        feed(picture(later), 6);  // the scene decision sees nothing; the frame ring fills
        g_watch.motionHint = 1;
        feed(picture(later), 2);
        EXPECT_EQ(g_fakes.checks, 1);
        EXPECT_EQ(g_afState, later < 560 ? 0 : 2) << later;
    }
}

TEST_F(FocusWatchTest, WobbleStagesByZoomEndWhereTheyBegan) {
    struct Case {
        uint16_t zoom;
        std::vector<int> at;  // focus after each stage, from where it began
    } cases[] = {{1087, {1, 0, -1, 0}},
                 // from zoom 1088 a peak a step either side counts; nothing peaks here, so
                 // every stage runs
                 {1088, {2, 1, 0, -1, -2, 0}},
                 {2555, {2, 1, 0, -1, -2, 0}},
                 {2556, {3, 2, 1, 0, -1, -2, -3, 0}},
                 {3000, {3, 2, 1, 0, -1, -2, -3, 0}},
                 {3001, {6, 4, 2, 0, -2, -4, -6, 0}}};
    for (const Case& c : cases) {
        uint32_t r = 9;
        lens_set_positions(c.zoom, 4000);
        EXPECT_EQ(wobble(static_cast<int>(c.at.size()), &r), c.at) << c.zoom;
        EXPECT_EQ(r, 2u) << "a picture that does not change with the lens does not peak";
        EXPECT_EQ(g_watch.wobbleStage, 0);
    }
}

TEST_F(FocusWatchTest, WobbleCountsBlocksThatPeakAtTheFocusPosition) {
    // Blocks of the middle region read `centre` at the focus position and 1000 a step either side.
    auto at = [](int n, uint32_t centre) {
        StatFrame f = picture(1000);
        for (int k = 0; k < n; ++k)
            for (size_t off : {kAfStatFirVOffset, kAfStatIir1Offset})
                f.put(off, (4 + k / 8) * 15 + 4 + k % 8, centre);
        return f;
    };
    struct Case {
        int blocks;
        uint32_t centre;
        uint32_t want;
    } cases[] = {{8, 1100, 1}, {7, 1100, 2}, {8, 1010, 2}, {8, 1050, 1}};
    lens_set_positions(500, 4000);
    for (const Case& c : cases) {
        ASSERT_EQ(WobbleCheck(0), 0u);  // up a step
        show(at(0, 0));
        ASSERT_EQ(WobbleCheck(0), 0u);  // G2 above the focus position
        show(at(c.blocks, c.centre));
        ASSERT_EQ(WobbleCheck(0), 0u);  // G1 at the focus position
        show(at(0, 0));
        EXPECT_EQ(WobbleCheck(0), c.want) << c.blocks << " blocks at " << c.centre;
    }
    // Zoom 1500: enough blocks peaking a step above the focus position end the wobble early, back
    // at the focus position.
    lens_set_positions(1500, 4000);
    uint32_t r = 0;
    for (const StatFrame& f : {at(0, 0), at(0, 0), at(6, 1100), at(0, 0)}) {
        show(f);
        r = WobbleCheck(0);
    }
    EXPECT_EQ(r, 1u);
    EXPECT_EQ(lens_get_focus_pos(), 4000);
}

TEST_F(FocusWatchTest, FirstSettleFrameRecordsTheFocusedRangeAndTheWideEndTrim) {
    curve_anchor(0);
    focused_range_reset();
    for (uint16_t zoom : {150, 250}) {
        g_watch.watchBegun = 0;
        g_watch.watchFrames = 0;
        lens_set_positions(zoom, zoom == 150 ? 4000 : 3900);
        feed(picture(3000));
    }
    EXPECT_EQ(curve_get_anchor_zoom(), 150);
    EXPECT_EQ(curve_get_anchor_focus(), 4000);
    const uint16_t* r = g_watch.focusedRange;
    EXPECT_EQ(r[0], 3900);
    EXPECT_EQ(r[1], 4000);
    EXPECT_EQ(r[2], 3900);
    focused_range_record(3996);  // within 5 of the top: "last" stands for the whole range
    EXPECT_EQ(r[2], 3900);
    watch_state_reset();
    focused_range_reset();
    g_search.searchPhase = 9;
    feed(picture(3000));
    EXPECT_EQ(r[0], lens_get_focus_max());
}

TEST_F(FocusWatchTest, LumaChangeDuringTheSearchCountsInSelectedWindowsOnly) {
    struct Case {
        int blocks;     // blocks of window 12 and 13 whose luma changed
        uint32_t luma;  // their luma at focus (2000 at the search start)
        bool armed, preset;
        uint8_t changed, recheck;
    } cases[] = {{9, 2250, true, false, 1, 1},
                 {9, 1750, true, true, 1, 0},
                 {8, 2250, true, false, 0, 0},
                 {9, 2200, true, false, 0, 0},  // 200 is under a tenth of 2200
                 {9, 2250, false, false, 0, 0}};
    select_only({12, 13});
    for (const Case& c : cases) {
        watch_state_reset();
        g_afState = 2;
        g_watch.lumaCheckArmed = c.armed;
        g_presetFlag = c.preset;
        show(picture(3000, false));
        watch_clear_reference_mask();  // the search starts
        StatFrame f = picture(3000, false);
        for (int k = 0; k < c.blocks; ++k)
            f.luma(k < 5 ? 12 : 13, k % 5, c.luma);
        for (int k = 0; k < 9; ++k)
            f.luma(6, k, 3000);  // not selected
        feed(f);
        EXPECT_EQ(g_watch.changedDuringSearch, c.changed) << c.blocks << " at " << c.luma;
        EXPECT_EQ(g_watch.recheck, c.recheck) << c.blocks << " at " << c.luma;
    }
}

// The next search's start phase reads the grids the watch kept: the one at focus and its last.
TEST_F(FocusWatchTest, RestartStartsCoarseWhenTheSubjectLostSharpnessOrNothingChanged) {
    g_search.startFresh = 0;
    lens_set_positions(3000, 4000);
    g_sceneResult.event = kObjectNon;
    select_only({12});
    auto with = [](int sharper_then, int sharper_now) {
        for (int b = 0; b < kGridBlocks; ++b)
            g_watch.focusGrid[b] = g_watch.laterGrid[b] = 2000;
        for (int k = 0; k < sharper_then + sharper_now; ++k) {
            const int b = (7 + k / 3) * 15 + 7 + k % 3;  // window 12 as the walk sees it
            (k < sharper_then ? g_watch.focusGrid : g_watch.laterGrid)[b] = 3000;
        }
        return StartPhaseIsCoarse();
    };
    EXPECT_TRUE(with(0, 0));
    EXPECT_TRUE(with(6, 2));
    EXPECT_FALSE(with(5, 0));
    EXPECT_FALSE(with(6, 3));
    EXPECT_FALSE(with(0, 4));
}

// A search the scene analysis asks for in a night scene starts on the subject the watch handed it
// as reference, not on whatever is sharp around the middle now.
TEST_F(FocusWatchTest, SceneAskedNightSearchStartsOnTheReferencedSubject) {
    select_only({12, 13});
    refocused();
    while (g_fakes.captures == 0 && g_fakes.frame < 40)
        feed(picture(3000));
    ASSERT_EQ(g_fakes.captures, 1);
    set_low_light(true);
    g_blockPath = 1;
    auto start_zone = [](uint32_t cause) {
        g_pointLight.refocusCause = cause;
        g_focusZone.reset_block_mask();
        PointLightStartZone();
        std::vector<int> blocks;
        for (int b = 0; b < kGridBlocks; ++b)
            if (g_focusZone.blockMask[b] != 0)
                blocks.push_back(b);
        return blocks;
    };
    std::vector<int> subject;
    for (int b = 0; b < kGridBlocks; ++b)
        if (g_fakes.ref.blockMask[b] != 0)
            subject.push_back(b);
    ASSERT_EQ(subject.size(), 18u);
    EXPECT_EQ(start_zone(2), subject);
    EXPECT_EQ(selected(), (std::vector<int>{12, 13}));
    EXPECT_NE(start_zone(1), subject) << "a watch refocus takes the sharp middle blocks";
    g_pointLight.refocusCause = 0;
}

}  // namespace
