// Distance assist: the tests on distance histories and on the lens against two distances, the
// drive to a distance's position, and where the distance ends or redirects a search (a flat
// scene, a watch that sees the subject moved in depth, the calibration offset a focus teaches).
#include <vector>

#include "base/af_status.h"
#include "platform/clock.h"
#include "tests/af/af_rules_fixture.h"
#include "tracking/distance_table.h"

namespace {

// Records the focus position at every wait of the blocking drive (one wait follows each move).
class DriveClock : public platform::Clock {
  public:
    int wall_time(timeval* tv) override {
        tv->tv_sec = static_cast<time_t>(now_ / 1000000);
        tv->tv_usec = static_cast<suseconds_t>(now_ % 1000000);
        return 0;
    }
    uint64_t monotonic_us() override { return now_; }
    void sleep_us(uint32_t us) override {
        now_ += us;
        stops.push_back(lens_get_focus_pos());
    }
    void on_frame(const afdata::FrameStamp&) override {}
    bool is_virtual() const override { return true; }
    std::vector<uint16_t> stops;

  private:
    uint64_t now_ = 1000000;
};

class DistanceAssistTest : public afrules::AfRulesTest {
  protected:
    void SetUp() override {
        AfRulesTest::SetUp();
        platform::select_clock(&clock_);
    }
    void TearDown() override {
        set_distance_assist_mode(0);
        set_calibration_offset(0);
        platform::select_clock(nullptr);
        AfRulesTest::TearDown();
    }
    // Readings, oldest first.
    static void feed(std::initializer_list<uint16_t> d) {
        for (uint16_t v : d)
            af_distance_input(v);
    }
    static void focus_at(uint16_t p) { lens_set_positions(lens_get_zoom_pos(), p); }
    // The assist on, a rangefinder steadily reading 3 m, a picture with some detail and the search
    // range 300 steps either side of the position 3 m needs; returns that position.
    static uint16_t assisted_subject_at_3m() {
        set_distance_assist_mode(1);
        const uint16_t e = expected_focus(3000);
        g_search.lowerBound = static_cast<uint16_t>(e - 300);
        g_search.upperBound = static_cast<uint16_t>(e + 300);
        feed({3000, 3000, 3000});
        afrules::raw_frame(1500, {}).fetch();
        return e;
    }

    DriveClock clock_;
};

// ---- Tests on the distance history ----

TEST_F(DistanceAssistTest, TrendAndUnknownRunOnTheNewestReadings) {
    feed({900, 880, 860, 840, 820, 800, 780, 760});
    EXPECT_EQ(distance_trend(8), 0) << "8 readings for a trend over 8";
    feed({740});
    EXPECT_EQ(distance_trend(8), 1) << "falling by 20 a frame";
    // Rising readings 8 steps apart: the range of the newest 8 against the quiet-range gates.
    struct Case {
        uint16_t zoom, newest, step;
        uint8_t want;
    };
    for (const Case& c : {Case{3200, 1000, 4, 0}, Case{3200, 1000, 5, 2}, Case{3200, 1600, 14, 0},
                          Case{3200, 1600, 15, 2}, Case{3200, 3000, 21, 0}, Case{3200, 3000, 22, 2},
                          Case{2000, 400, 4, 0}, Case{3200, 400, 4, 2}}) {
        distance_state_reset();
        lens_set_positions(c.zoom, 4000);
        for (int k = 8; k >= 0; --k)
            af_distance_input(static_cast<uint16_t>(c.newest - k * c.step));
        EXPECT_EQ(distance_trend(8), c.want) << c.newest << " by " << c.step << " at " << c.zoom;
    }
    feed({1200});
    for (int i = 0; i < 60; ++i)
        feed({kDistanceUnknown});
    EXPECT_EQ(distance_unknown_run(60), 1) << "only the newest 60 are kept";
    feed({1200});
    EXPECT_EQ(distance_unknown_run(1), 0);
}

// ---- The lens against two distances ----

TEST_F(DistanceAssistTest, FocusNearEitherEndOfTheSpanBetweenTwoDistances) {
    const int L = expected_focus(1000);
    const int H = expected_focus(3000);
    ASSERT_GE(H - L, 12) << "the span at zoom 3200";
    const int third = (H - L) / 3;
    const int half = (H - L) / 2;
    struct Case {
        int focus;
        uint8_t low, high;
    };
    for (const Case& c : {Case{L - 10, 1, 0}, Case{L + third, 1, 0}, Case{L + third + 1, 0, 0},
                          Case{H - half - 1, 0, 0}, Case{H - half, 0, 1}, Case{H + 4, 0, 1}}) {
        focus_at(static_cast<uint16_t>(c.focus));
        EXPECT_EQ(focus_near_low_end(3000, 1000), c.low) << "focus L + " << c.focus - L;
        EXPECT_EQ(focus_near_high_end(1000, 3000), c.high) << "focus L + " << c.focus - L;
    }
    focus_at(static_cast<uint16_t>(L));
    EXPECT_EQ(focus_near_low_end(1000, 1000), 0) << "no span";
    EXPECT_EQ(focus_near_high_end(1000, 1000), 0) << "no span";
}

TEST_F(DistanceAssistTest, StillValidWithinTolerancesThatTightenTheLongerFocusHolds) {
    lens_set_positions(1000, 4000);
    EXPECT_EQ(distance_still_valid(40, 45), 0) << "too near to judge";
    // Band 100..199 at zoom 448..1343: A = 8 - v, where v counts calls in 75s.
    focus_at(static_cast<uint16_t>(expected_focus(120) + 6));
    EXPECT_EQ(distance_still_valid(120, 120), 1) << "6 steps off within 8";
    for (int i = 0; i < 148; ++i)
        distance_still_valid(120, 120);
    EXPECT_EQ(distance_still_valid(120, 120), 0) << "150 calls: 6 steps off is no longer within 6";
    distance_assist_refresh();
    EXPECT_EQ(distance_still_valid(120, 120), 1) << "a search start resets the count";

    // Far band at zoom 1000: A = B = 3, C = 400, no tightening.
    focus_at(expected_focus(10000));
    ASSERT_LT(std::abs(focus_offset(10000) - focus_offset(10400)), 3);
    ASSERT_LT(std::abs(focus_offset(10000) - focus_offset(9000)), 3);
    EXPECT_EQ(distance_still_valid(10000, 10390), 1);
    EXPECT_EQ(distance_still_valid(10000, 10400), 0) << "receded by 400";
    EXPECT_EQ(distance_still_valid(10000, 9000), 1) << "a nearer subject passes the receding test";
    lens_set_positions(3800, expected_focus(10000));
    EXPECT_EQ(distance_still_valid(10000, 10000), 0) << "beyond zoom 3746 nothing is trusted";
}

// ---- The blocking drive ----

TEST_F(DistanceAssistTest, DriveMovesAtMostTwentyStepsAMoveAndStaysInsideTheRange) {
    const uint16_t e = expected_focus(3000);
    g_search.lowerBound = static_cast<uint16_t>(e - 300);
    g_search.upperBound = static_cast<uint16_t>(e + 300);
    focus_at(static_cast<uint16_t>(e - 45));
    move_to_distance(3000);
    EXPECT_EQ(clock_.stops, (std::vector<uint16_t>{static_cast<uint16_t>(e - 25),
                                                   static_cast<uint16_t>(e - 5), e}));
    EXPECT_EQ(g_search.searchDir, 2u);

    clock_.stops.clear();
    g_search.upperBound = static_cast<uint16_t>(e - 10);
    focus_at(static_cast<uint16_t>(e - 100));
    move_to_distance(3000);
    EXPECT_EQ(lens_get_focus_pos(), e - 12) << "beyond the upper bound: 2 inside it";
    g_search.lowerBound = static_cast<uint16_t>(e + 10);
    g_search.upperBound = static_cast<uint16_t>(e + 300);
    move_to_distance(3000);
    EXPECT_EQ(lens_get_focus_pos(), e + 12) << "below the lower bound: 2 inside it";
    EXPECT_EQ(g_search.searchDir, 2u);
}

// ---- Where the distance ends or redirects a search ----

TEST_F(DistanceAssistTest, FlatSceneNextToTheDistancesPositionEndsTheSearchThere) {
    const uint16_t e = expected_focus(3000);
    g_search.lowerBound = static_cast<uint16_t>(e - 300);
    g_search.upperBound = static_cast<uint16_t>(e + 300);
    feed({3000});
    g_afState = 1;
    struct Case {
        bool assist;
        uint32_t texture;
        int off;
        bool ends;
        const char* what;
    };
    for (const Case& c : {Case{true, 40, 4, true, "flat, 4 steps off"},
                          Case{true, 40, 6, false, "6 steps off: the search goes on"},
                          Case{true, 400, 4, false, "detail: the sweep finds the peak"},
                          Case{false, 40, 4, false, "assist off"}}) {
        set_distance_assist_mode(c.assist ? 1 : 0);
        g_afState = 1;
        focus_at(static_cast<uint16_t>(e + c.off));
        afrules::raw_frame(c.texture, {}).fetch();
        SnapshotReference();
        g_afState = 1;
        EXPECT_EQ(SampleFrame(), c.ends) << c.what;
        EXPECT_EQ(g_afState, c.ends ? 2u : 1u) << c.what;
        EXPECT_EQ(lens_get_focus_pos(), c.ends ? e : e + c.off) << c.what;
    }
}

TEST_F(DistanceAssistTest, WatchRestartsWhenTheSubjectCameNearerThanTheFocus) {
    set_distance_assist_mode(1);
    afrules::raw_frame(800, {}).fetch();
    g_seams.distanceAtStart = 3000;
    g_search.firstAfterZoom = 0;
    struct Case {
        std::initializer_list<uint16_t> readings;
        uint16_t focus;
        uint8_t state;
        const char* what;
    };
    for (const Case& c :
         {Case{{3000, 3000, 3000, 3000, 1000}, expected_focus(3000), 2, "one stray reading"},
          Case{{1000, 1000}, expected_focus(3000), 0, "lens still at the old distance"},
          Case{{}, expected_focus(1000), 2, "the search followed the subject"}}) {
        feed(c.readings);
        watch_state_reset();
        scene_clear_result();
        g_afState = 2;
        focus_at(c.focus);
        FocusWatch(1);
        EXPECT_EQ(g_afState, c.state) << c.what;
        EXPECT_EQ(g_sceneResult.decision, c.state == 0 ? 1 : 0) << "drive there first: " << c.what;
    }
    EXPECT_EQ(g_search.restartReason, 3u);
}

TEST_F(DistanceAssistTest, FocusAtTheWideEndTeachesTheCalibrationOffset) {
    set_distance_assist_mode(1);
    lens_set_positions(100, 4000);
    feed({1000});
    g_seams.distanceAtStart = 1000;
    const uint16_t base = curve_focus_at(0, 100);
    for (const auto& [off, want] : {std::pair{7, 7}, {-9, -9}, {40, 15}}) {
        watch_state_reset();
        focus_at(static_cast<uint16_t>(base + off));
        FocusWatch(1);
        EXPECT_EQ(get_calibration_offset(), want) << "focus base + " << off;
    }
    g_search.noPeak = 1;
    watch_state_reset();
    focus_at(base);
    FocusWatch(1);
    EXPECT_EQ(get_calibration_offset(), 15) << "a search without a peak teaches nothing";
}

// After a zoom with a known distance the lens is driven to the distance's position and the region
// search takes over; when it cannot decide it gives the search back as it was when it took over.
TEST_F(DistanceAssistTest, JumpAfterAZoomHandsTheRegionSearchWhatItMustGiveBack) {
    const uint16_t e = assisted_subject_at_3m();
    focus_at(static_cast<uint16_t>(e + 100));
    g_search.firstAfterZoom = 1;
    g_search.searchPhase = 2;
    g_afState = 1;
    g_focusValue.posHist[0] = static_cast<uint16_t>(e + 100);
    clock_.stops.clear();
    distance_start_jump();
    EXPECT_EQ(lens_get_focus_pos(), e) << "driven to the distance's position";
    // Five moves of 20 steps with a frame's wait after each; then the region search lets the lens
    // settle for a frame before it waits for the statistics of the next one, to see which blocks
    // got sharper on the way down.
    EXPECT_EQ(clock_.stops.size(), 7u) << ::testing::PrintToString(clock_.stops);
    ASSERT_EQ(g_search.searchPhase, 8u);
    const uint32_t dir = g_search.searchDir;  // the drive's last direction
    // A second hand-over while the region search runs (the distance moved again) starts it over
    // but keeps what it gives back.
    enter_region_search();
    ASSERT_EQ(g_search.searchPhase, 8u);
    // Probes whose three captures read alike decide nothing; after the fourth the search is
    // given back.
    for (int round = 0; round < 4 && g_search.searchPhase == 8; ++round)
        for (int k = 0; k < 5; ++k) {
            afrules::raw_frame(1500, {}).fetch();
            region_search(1);
        }
    EXPECT_EQ(g_search.searchPhase, 2u) << "the phase the search had";
    EXPECT_EQ(g_search.searchDir, dir);
}

// Until the first focus sets it from the zoom, five steps from the distance's position count as no
// real change: the search after a zoom is not replaced by a drive for that little.
TEST_F(DistanceAssistTest, BeforeTheFirstFocusFiveStepsAreNoChange) {
    const uint16_t e = assisted_subject_at_3m();
    for (int off : {5, 6}) {
        focus_at(static_cast<uint16_t>(e + off));
        g_search.firstAfterZoom = 1;
        g_search.searchPhase = 2;
        g_afState = 1;
        distance_start_jump();
        EXPECT_EQ(g_search.searchPhase, off > 5 ? 8u : 2u) << off << " steps off";
        EXPECT_EQ(lens_get_focus_pos(), off > 5 ? e : e + off) << off << " steps off";
    }
}

}  // namespace
