// Frame loop driven frame by frame: a scripted frame source advances a virtual clock by the
// interval of each frame signal, and a recording operation table shows what the loop did.
#include "app/frame_loop.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "af/af_seams.h"
#include "af/af_state.h"
#include "af/auto_focus.h"
#include "af/distance_assist.h"
#include "base/frame_pacing.h"
#include "command/command_process.h"
#include "platform/clock.h"
#include "platform/sim/virtual_clock.h"
#include "tests/support/alloc_counter.h"

namespace {

// How often each operation was called.
struct Counts {
    int vd, exposure, clear, arm, curve, iris, hall, motion, af, ret, snapshot, publish, auto_iris;
    bool operator==(const Counts&) const = default;
};

struct Recorder {
    platform::VirtualClock clock;
    // Microseconds from one frame signal to the next. 25 ms matches no frame-rate range, so the
    // divisors a test sets stay in force.
    uint32_t interval = 25000;
    int vd_result = 0;
    int hall_result = 0;
    uint32_t tracking = 0;     // tracker state polled on each processed frame
    uint16_t distance = 8192;  // the rangefinder's reading
    int distance_polls = 0;
    Counts n{};
    unsigned fetch_modes = 0;  // bit m: statistics fetched in mode m
    std::vector<std::pair<std::string, int32_t>> saved;
    std::string events;  // "F" / "L": supervised with frames arriving / lost, "C" curve step
};

Recorder* g = nullptr;

int tick(int& count) {
    ++count;
    return 0;
}

const FrameLoopOps kFakeOps = {
    .get_isp_vd =
        [] {
            g->clock.sleep_us(g->interval);
            return tick(g->n.vd) + g->vd_result;
        },
    .read_exposure = [] { return tick(g->n.exposure); },
    .track_poll = [] { return g->tracking; },
    .stat_fetch = [](uint8_t mode) { g->fetch_modes |= 1u << mode; },
    .clear_latched_highlight = [] { tick(g->n.clear); },
    .arm_highlight_update = [] { tick(g->n.arm); },
    .curve_calibrate_step =
        [] {
            g->events += 'C';
            return tick(g->n.curve);
        },
    .iris_correct_step = [](uint8_t) { return tick(g->n.iris); },
    .hall_calibrate = [] { return tick(g->n.hall) + g->hall_result; },
    .hall_iris_offset = [] { return int32_t{17}; },
    .hall_bias_offset = [] { return int32_t{42}; },
    .offset_save = [](const char* key, int32_t v) { g->saved.emplace_back(key, v); },
    .motion_execute = [](const MotionCommand&) { tick(g->n.motion); },
    .af_frame = [] { tick(g->n.af); },
    .return_to_last = [] { tick(g->n.ret); },
    .snapshot_reference = [] { tick(g->n.snapshot); },
    .publish_positions = [] { tick(g->n.publish); },
    .auto_iris_step = [] { tick(g->n.auto_iris); },
    .calibration_supervise = [](uint8_t frames) { g->events += frames ? 'F' : 'L'; },
    .distance_poll =
        [] {
            ++g->distance_polls;
            return g->distance;
        },
};

class FrameLoopTest : public ::testing::Test {
  protected:
    void SetUp() override {
        rec_.clock.set_now_us(1000000);
        platform::select_clock(&rec_.clock);
        g = &rec_;
        reset_state();
    }
    void TearDown() override {
        platform::select_clock(nullptr);
        g = nullptr;
        reset_state();
    }
    void reset_state() {
        rec_.n = {};
        rec_.fetch_modes = 0;
        rec_.tracking = 0;
        rec_.distance_polls = 0;
        rec_.events.reserve(1 << 14);  // a letter a frame must not allocate
        af_set_slow_divider(false);
        frame_pacing_reset_for_testing();  // also tracking off
        command_set_calibration_mode(0);
        command_set_zoom_motion_active(0);
        command_set_autofocus_mode(0);
        command_set_status_text("");
        g_afState = 0;
        g_refocusRequest = 0;
        g_returnToLast = 0;
        g_oneShotStage = 0;
    }

    // A loop as start-up leaves it (start time taken, armed), with the given cadence divisors.
    // Start-up assumes 60 fps until classified, which gives both divisors 2.
    FrameLoop make_loop(uint8_t af_div = 2, uint8_t motion_div = 2, uint8_t homing = 0) {
        FrameLoop loop(kFakeOps, homing);
        loop.mark_start_time();
        loop.arm();
        set_af_divisor(af_div);
        set_high_rate(motion_div == 2 ? 1 : 0);
        set_motion_divisor_from_high_rate();
        return loop;
    }
    static void run(FrameLoop& loop, int n) {
        for (int i = 0; i < n; ++i)
            loop.iteration();
    }

    Recorder rec_;
};

TEST(FrameRate, IntervalRangesAreExclusiveAtBothEnds) {
    // {first, last} interval in microseconds of each rate: about 1 ms either side of the period.
    const uint32_t ranges[][3] = {
        {15601, 17599, 60}, {19001, 20999, 50}, {32001, 33999, 30}, {39001, 40999, 25}};
    for (const auto& r : ranges) {
        const uint32_t got[] = {classify_frame_interval(r[0] - 1), classify_frame_interval(r[0]),
                                classify_frame_interval(r[1]), classify_frame_interval(r[1] + 1)};
        EXPECT_THAT(got, ::testing::ElementsAre(0, r[2], r[2], 0)) << r[2] << " fps";
    }
    for (uint32_t us : {0u, 8333u, 25000u, 0xFFFFFFFFu})
        EXPECT_EQ(classify_frame_interval(us), 0u) << us;
}

TEST_F(FrameLoopTest, ThirdAcceptedFrameSetsTheRateAndItsCadence) {
    struct Case {
        uint32_t us, fps;
        bool slow;  // the autofocus side asks for a slower AF cadence
        uint8_t high, af_div, motion_div;
    };
    const Case cases[] = {{33333, 30, false, 0, 1, 1}, {40000, 25, false, 0, 1, 1},
                          {16667, 60, false, 1, 2, 2}, {20000, 50, false, 1, 2, 2},
                          {33333, 30, true, 0, 2, 1},  {16667, 60, true, 1, 3, 2}};
    for (const Case& c : cases) {
        // Start from another rate and the other divisors, so that every change shows.
        af_set_slow_divider(c.slow);
        FrameLoop loop = make_loop(3 - c.af_div, 3 - c.motion_div);
        set_frame_rate(c.fps == 60 ? 25 : 60);
        rec_.interval = c.us;
        run(loop, 2);
        EXPECT_NE(get_frame_rate(), c.fps) << "classified before the third frame";
        run(loop, 1);
        EXPECT_EQ(
            std::tuple(get_frame_rate(), get_high_rate(), get_af_divisor(), get_motion_divisor()),
            std::tuple(c.fps, c.high, c.af_div, c.motion_div));
    }
}

TEST_F(FrameLoopTest, PauseIdlesInMillisecondStepsAndResumeRelearnsTheRate) {
    // The third frame's 25 ms matches no rate, so the fourth is classified.
    FrameLoop loop = make_loop();
    run(loop, 3);
    rec_.interval = 40000;
    run(loop, 1);
    ASSERT_EQ(get_frame_rate(), 25u);

    set_loop_paused(1);
    const auto n = rec_.n;
    const uint64_t t0 = rec_.clock.monotonic_us();
    run(loop, 5);
    EXPECT_EQ(rec_.n, n) << "no ISP request and no publishing while paused";
    EXPECT_EQ(rec_.clock.monotonic_us() - t0, 5000u);

    // After the resume the third accepted frame is classified again (the first interval includes
    // the pause), and the match holds.
    set_loop_paused(0);
    rec_.interval = 33333;
    run(loop, 2);
    EXPECT_EQ(get_frame_rate(), 25u);
    run(loop, 1);
    EXPECT_EQ(get_frame_rate(), 30u);
    rec_.interval = 40000;
    run(loop, 5);
    EXPECT_EQ(get_frame_rate(), 30u);
}

TEST_F(FrameLoopTest, SpuriousSkippedAndFailedSignalsAreNotWorkedOn) {
    FrameLoop loop = make_loop();
    run(loop, 1);
    // A signal under 10 ms does nothing, not even flip the toggle, but its time becomes the
    // previous one.
    rec_.interval = 5000;
    run(loop, 1);
    EXPECT_EQ(loop.state().frame_toggle, 1);
    EXPECT_EQ(rec_.n.publish, 1);
    rec_.interval = 33333;
    run(loop, 1);
    EXPECT_EQ(loop.state().interval_us, 33333u);
    // Above 90 fps every other signal is worked on, each polling the tracker.
    set_half_rate(1);
    rec_.interval = 11111;
    rec_.tracking = 1;
    run(loop, 6);
    EXPECT_EQ(rec_.n.publish, 2 + 3);
    EXPECT_EQ(get_tracking_on(), 1u);
    // A failed request only flips the toggle.
    rec_.vd_result = 1;
    auto n = rec_.n;
    n.vd += 3;
    run(loop, 3);
    EXPECT_EQ(rec_.n, n);
    EXPECT_EQ(loop.state().frame_toggle, 1);
}

TEST_F(FrameLoopTest, TheDistanceReachesTheAutofocusOnEveryProcessedFrame) {
    FrameLoop loop = make_loop();
    distance_state_reset();
    rec_.distance = 2500;
    command_set_zoom_motion_active(1);  // a zoom runs: the autofocus itself does not
    run(loop, 4);
    command_set_zoom_motion_active(0);
    EXPECT_EQ(rec_.distance_polls, rec_.n.publish);
    EXPECT_EQ(g_seams.currentDistance, 2500);
    EXPECT_EQ(g_distance.historyCount, rec_.n.publish);
    rec_.distance = 8192;
    run(loop, 1);
    EXPECT_EQ(g_seams.currentDistance, 8192);
    distance_state_reset();
    seam_state_reset();
}

TEST_F(FrameLoopTest, EachActivityRunsAtItsCadence) {
    struct Case {
        const char* what;
        uint8_t af_div, motion_div, cal, motion, af_mode;
        int Counts::*op;
        int steps;
        unsigned fetch_modes;
    };
    // Twelve frames after the warm-up: cadence phases 1..6 twice. Motion and autofocus spend their
    // first eligible frame priming; the exposure is read at the AF cadence whatever runs. The
    // statistics fetched show which activity ran: calibration outranks motion, which outranks
    // autofocus.
    const Case cases[] = {
        {"autofocus every 2nd", 2, 1, 0, 0, 1, &Counts::af, 5, 1u << 1},
        {"autofocus every 3rd", 3, 2, 0, 0, 1, &Counts::af, 3, 1u << 1},
        {"motion every 2nd, before autofocus", 1, 2, 0, 1, 1, &Counts::motion, 5, 1u << 2},
        {"motion every frame", 1, 1, 0, 1, 0, &Counts::motion, 11, 1u << 2},
        {"curve calibration every 2nd, before all else", 1, 2, 1, 1, 1, &Counts::curve, 6, 1u << 0},
        {"iris correction every 10th cycle", 2, 2, 4, 1, 1, &Counts::iris, 1, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        reset_state();
        FrameLoop loop = make_loop(c.af_div, c.motion_div);
        command_set_calibration_mode(c.cal);
        command_set_zoom_motion_active(c.motion);
        command_set_autofocus_mode(c.af_mode);
        run(loop, 13);
        EXPECT_EQ(rec_.n.*c.op, c.steps);
        EXPECT_EQ(rec_.n.exposure, 12 / c.af_div);
        EXPECT_EQ(rec_.fetch_modes, c.fetch_modes);
        // Latched masks are cleared before each motion step.
        EXPECT_EQ(rec_.n.clear, c.op == &Counts::motion ? c.steps : 0);
    }
}

TEST_F(FrameLoopTest, MotionAndCurveCalibrationMakeTheNextAutofocusFramePrimeAgain) {
    FrameLoop loop = make_loop(1, 1);
    command_set_autofocus_mode(1);
    run(loop, 3);  // warm-up, priming, one step
    ASSERT_EQ(rec_.n.af, 1);
    command_set_zoom_motion_active(1);
    run(loop, 3);  // priming, two steps
    EXPECT_EQ(rec_.n.motion, 2);
    command_set_zoom_motion_active(0);
    run(loop, 2);
    EXPECT_EQ(rec_.n.af, 2) << "the first AF frame after a motion only primes";
    command_set_zoom_motion_active(1);
    run(loop, 1);
    EXPECT_EQ(rec_.n.motion, 2) << "the motion priming ended with the last motion";
    command_set_zoom_motion_active(0);
    run(loop, 2);  // priming, one step
    ASSERT_EQ(rec_.n.af, 3);
    command_set_calibration_mode(1);
    run(loop, 1);
    command_set_calibration_mode(0);
    run(loop, 2);
    EXPECT_EQ(rec_.n.af, 4) << "the first AF frame after a curve calibration only primes";
}

TEST_F(FrameLoopTest, HallCalibrationSavesOffsetsOnlyOnSuccessAndEndsTheMode) {
    FrameLoop loop = make_loop(1, 1);
    const std::vector<std::pair<std::string, int32_t>> saved = {
        {"IRIS_OFFSET =", 17}, {"BIAS_OFFSET =", 42}, {"HALL_VERSION =", 1}};
    for (int failed : {0, 1}) {
        rec_.hall_result = failed;
        command_set_calibration_mode(5);
        run(loop, 2);
        EXPECT_EQ(command_calibration_mode(), 0);
        EXPECT_STREQ(command_status_text(), failed ? "Hall init fail!\n" : "Hall init done!\n");
        EXPECT_EQ(rec_.saved, saved);
    }
}

// The calibrations hear on every frame signal whether frames arrive, before any step runs, so a
// stopped or starved calibration is ended before it could move the lens again. A paused loop
// does nothing at all.
TEST_F(FrameLoopTest, CalibrationsAreSupervisedOnEverySignalBeforeTheirStep) {
    FrameLoop loop = make_loop(1, 1);
    command_set_calibration_mode(1);
    run(loop, 3);  // warm-up, then two curve steps
    EXPECT_EQ(rec_.events, "FFCFC");
    rec_.events.clear();
    rec_.vd_result = 1;  // the ISP link is gone
    run(loop, 2);
    EXPECT_EQ(rec_.events, "LL");
    rec_.events.clear();
    rec_.vd_result = 0;
    set_loop_paused(1);
    run(loop, 3);
    EXPECT_EQ(rec_.events, "");
    set_loop_paused(0);
    run(loop, 1);
    EXPECT_EQ(rec_.events, "FC");
}

TEST_F(FrameLoopTest, CycleCountRunsOneTo180AndTheAutoIrisStepsEverySixth) {
    FrameLoop loop = make_loop();
    run(loop, 1 + 180);
    EXPECT_EQ(loop.state().cycle_count, 180u);
    EXPECT_EQ(rec_.n.auto_iris, 1 + 30) << "also on the warm-up frame, at cycle count 0";
    run(loop, 1);
    EXPECT_EQ(loop.state().cycle_count, 1u);
}

TEST_F(FrameLoopTest, AfterAFailedHomingTheLoopOnlyPublishes) {
    FrameLoop loop = make_loop(2, 2, /*homing=*/2);
    command_set_autofocus_mode(1);
    command_set_zoom_motion_active(1);
    run(loop, 10);
    EXPECT_EQ(rec_.n.publish, 10);
    EXPECT_EQ(rec_.n.auto_iris, 10) << "cycle count stays 0, so the iris step runs every frame";
    EXPECT_EQ(rec_.n.motion + rec_.n.af + rec_.n.exposure, 0);
}

TEST_F(FrameLoopTest, AutofocusStepFollowsModeStateAndRequests) {
    struct Case {
        const char* what;
        uint8_t mode, state, refocus, ret, stage;
        int af, returns, snapshots, arms;  // after three eligible frames
        uint8_t mode_after, stage_after;
    };
    const Case cases[] = {
        {"continuous", 1, 0, 0, 0, 0, 3, 0, 0, 3, 1, 0},
        {"mode 2 searching", 2, 1, 0, 0, 0, 3, 0, 0, 0, 2, 0},
        {"mode 2 focused holds", 2, 2, 0, 0, 0, 0, 0, 0, 0, 2, 0},
        {"mode 2 focused, refocus asked", 2, 2, 1, 0, 0, 3, 0, 0, 0, 2, 0},
        {"return to last outranks a search", 1, 0, 0, 1, 0, 0, 3, 0, 3, 1, 0},
        {"one-shot: reference, then search", 3, 1, 0, 0, 0, 2, 0, 1, 0, 3, 1},
        {"one-shot ended: autofocus off", 3, 1, 0, 0, 2, 0, 0, 0, 0, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        reset_state();
        FrameLoop loop = make_loop(1, 1);
        command_set_autofocus_mode(c.mode);
        g_afState = c.state;
        g_refocusRequest = c.refocus;
        g_returnToLast = c.ret;
        g_oneShotStage = c.stage;
        run(loop, 2 + 3);  // warm-up, priming
        EXPECT_EQ(rec_.n.af, c.af);
        EXPECT_EQ(rec_.n.ret, c.returns);
        EXPECT_EQ(rec_.n.snapshot, c.snapshots);
        EXPECT_EQ(rec_.n.arm, c.arms) << "the mask update is armed only in AF state 0";
        EXPECT_EQ(rec_.fetch_modes, 1u << 1) << "statistics are fetched even when nothing is due";
        EXPECT_EQ(command_autofocus_mode(), c.mode_after);
        EXPECT_EQ(g_oneShotStage, c.stage_after);
    }
}

TEST_F(FrameLoopTest, NoHeapAllocationPerFrame) {
    FrameLoop loop = make_loop();
    command_set_autofocus_mode(1);
    rec_.interval = 16667;
    run(loop, 10);  // warm-up and classification
    const uint64_t before = testsupport::allocation_count();
    run(loop, 3000);
    EXPECT_EQ(testsupport::allocation_count() - before, 0u);
    EXPECT_GT(rec_.n.af, 1000);
}

}  // namespace
