// Frame loop driven frame by frame: a scripted frame source advances a virtual clock by the
// interval of each frame signal, and a recording operation table shows what the loop did.
#include "app/frame_loop.h"

#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "af/auto_focus.h"
#include "app/frame_pacing.h"
#include "command/command_process.h"
#include "platform/clock.h"
#include "platform/sim/virtual_clock.h"
#include "tests/support/alloc_counter.h"

namespace {

struct Recorder {
    platform::VirtualClock* clock = nullptr;
    std::deque<uint32_t> intervals;  // next frame signals, microseconds after the previous one
    // 25 ms matches no frame-rate range, so the divisors a test sets stay in force.
    uint32_t default_interval = 25000;
    int vd_result = 0;
    int vd_calls = 0;
    int exposure_reads = 0;
    int publishes = 0;
    int auto_iris = 0;
    int motion_steps = 0;
    int af_frames = 0;
    int returns = 0;
    int snapshots = 0;
    int curve_steps = 0;
    int iris_steps = 0;
    int hall_calls = 0;
    int hall_result = 0;
    int arms = 0;
    int clears = 0;
    std::vector<uint8_t> fetch_modes;
    std::vector<std::string> saved_keys;
    std::vector<int32_t> saved_values;
    std::vector<std::string> order;  // activities in call order
};

Recorder* g_rec = nullptr;

int fake_vd() {
    ++g_rec->vd_calls;
    uint32_t dt = g_rec->default_interval;
    if (!g_rec->intervals.empty()) {
        dt = g_rec->intervals.front();
        g_rec->intervals.pop_front();
    }
    g_rec->clock->sleep_us(dt);
    return g_rec->vd_result;
}
int fake_exposure() {
    ++g_rec->exposure_reads;
    return 0;
}
uint32_t fake_track() {
    return 0;
}
void fake_fetch(uint8_t mode) {
    g_rec->fetch_modes.push_back(mode);
}
void fake_clear() {
    ++g_rec->clears;
}
void fake_arm() {
    ++g_rec->arms;
}
int fake_curve() {
    ++g_rec->curve_steps;
    g_rec->order.push_back("curve");
    return 0;
}
int fake_iris_correct(uint8_t) {
    ++g_rec->iris_steps;
    g_rec->order.push_back("iris");
    return 0;
}
int fake_hall() {
    ++g_rec->hall_calls;
    g_rec->order.push_back("hall");
    return g_rec->hall_result;
}
int32_t fake_iris_offset() {
    return 17;
}
int32_t fake_bias_offset() {
    return 42;
}
void fake_offset_save(const char* key, int32_t v) {
    g_rec->saved_keys.emplace_back(key);
    g_rec->saved_values.push_back(v);
}
void fake_motion(const MotionCommand&) {
    ++g_rec->motion_steps;
    g_rec->order.push_back("motion");
}
void fake_af() {
    ++g_rec->af_frames;
    g_rec->order.push_back("af");
}
void fake_return() {
    ++g_rec->returns;
    g_rec->order.push_back("return");
}
void fake_snapshot() {
    ++g_rec->snapshots;
    g_rec->order.push_back("snapshot");
}
void fake_publish() {
    ++g_rec->publishes;
}
void fake_auto_iris() {
    ++g_rec->auto_iris;
}

const FrameLoopOps kFakeOps = {
    fake_vd,          fake_exposure,    fake_track,        fake_fetch, fake_clear,
    fake_arm,         fake_curve,       fake_iris_correct, fake_hall,  fake_iris_offset,
    fake_bias_offset, fake_offset_save, fake_motion,       fake_af,    fake_return,
    fake_snapshot,    fake_publish,     fake_auto_iris,
};

class FrameLoopTest : public ::testing::Test {
  protected:
    void SetUp() override {
        clock_.set_now_us(1000000);
        platform::select_clock(&clock_);
        rec_.clock = &clock_;
        g_rec = &rec_;
        frame_pacing_reset_for_testing();
        command_set_calibration_mode(0);
        command_set_zoom_motion_active(0);
        command_set_autofocus_mode(0);
        command_set_status_text("");
        g_afState = 0;
        g_refocusRequest = 0;
        g_returnToLast = 0;
        g_oneShotStage = 0;
    }
    void TearDown() override {
        platform::select_clock(nullptr);
        g_rec = nullptr;
        frame_pacing_reset_for_testing();
        command_set_calibration_mode(0);
        command_set_zoom_motion_active(0);
        command_set_autofocus_mode(0);
    }

    // A loop as start-up leaves it: start time taken, cadence computed for 60 fps, armed.
    FrameLoop make_loop(uint8_t homing = 0) {
        FrameLoop loop(kFakeOps, homing);
        loop.mark_start_time();
        set_high_rate(0);
        update_frame_cadence();
        set_motion_divisor_from_high_rate();
        loop.arm();
        return loop;
    }

    // Start-up leaves both divisors at 2 (the rate is assumed to be 60 fps until classified).
    static void set_divisors(uint8_t af, uint8_t motion) {
        set_af_divisor(af);
        set_high_rate(motion == 2 ? 1 : 0);
        set_motion_divisor_from_high_rate();
    }

    void run(FrameLoop& loop, int n) {
        for (int i = 0; i < n; ++i)
            loop.iteration();
    }

    platform::VirtualClock clock_;
    Recorder rec_;
};

// ---- Frame-rate classification ----

TEST(FrameRateTable, BoundsAreExclusiveAtBothEnds) {
    struct Case {
        uint32_t us;
        uint32_t fps;
    };
    const Case cases[] = {
        {15600, 0},  {15601, 60}, {16667, 60},      {17599, 60}, {17600, 0},  {19000, 0},
        {19001, 50}, {20999, 50}, {21000, 0},       {32000, 0},  {32001, 30}, {33999, 30},
        {34000, 0},  {39000, 0},  {39001, 25},      {40999, 25}, {41000, 0},  {25000, 0},
        {8333, 0},   {0, 0},      {0xFFFFFFFFu, 0},
    };
    for (const Case& c : cases)
        EXPECT_EQ(classify_frame_interval(c.us), c.fps) << c.us;
}

TEST_F(FrameLoopTest, ClassifiesOnTheThirdAcceptedFrame) {
    FrameLoop loop = make_loop();
    rec_.default_interval = 33333;
    run(loop, 2);
    EXPECT_EQ(get_frame_rate(), 60u) << "no classification before the third frame";
    run(loop, 1);
    EXPECT_EQ(get_frame_rate(), 30u);
    EXPECT_EQ(get_high_rate(), 0);
    EXPECT_EQ(get_af_divisor(), 1);
    EXPECT_EQ(get_motion_divisor(), 1);
    EXPECT_EQ(loop.state().rate_countdown, -1);
}

TEST_F(FrameLoopTest, SixtyFpsSetsBothDivisorsToTwo) {
    FrameLoop loop = make_loop();
    set_frame_rate(25);  // so that the change to 60 and its divisors is visible
    set_divisors(1, 1);
    rec_.default_interval = 16667;
    run(loop, 3);
    EXPECT_EQ(get_frame_rate(), 60u);
    EXPECT_EQ(get_high_rate(), 1);
    EXPECT_EQ(get_af_divisor(), 2);
    EXPECT_EQ(get_motion_divisor(), 2);
    EXPECT_EQ(get_half_rate(), 0);
}

TEST_F(FrameLoopTest, ExactBoundIsRetriedOnTheNextAcceptedFrame) {
    FrameLoop loop = make_loop();
    rec_.intervals = {33333, 33333, 17600, 15600, 40000};
    run(loop, 3);
    EXPECT_EQ(get_frame_rate(), 60u) << "17600 matches no range";
    EXPECT_EQ(loop.state().rate_countdown, 0) << "a miss re-arms for the next frame";
    run(loop, 1);
    EXPECT_EQ(get_frame_rate(), 60u) << "15600 matches no range";
    run(loop, 1);
    EXPECT_EQ(get_frame_rate(), 25u);
    EXPECT_EQ(loop.state().rate_countdown, -1);
    // A match is final until the next resume.
    rec_.default_interval = 20000;
    run(loop, 5);
    EXPECT_EQ(get_frame_rate(), 25u);
}

TEST_F(FrameLoopTest, PauseAndResumeRerunsClassification) {
    FrameLoop loop = make_loop();
    rec_.default_interval = 33333;
    run(loop, 3);
    ASSERT_EQ(get_frame_rate(), 30u);

    set_loop_paused(1);
    const int calls = rec_.vd_calls;
    const int pubs = rec_.publishes;
    const uint64_t t0 = clock_.monotonic_us();
    run(loop, 5);
    EXPECT_EQ(rec_.vd_calls, calls) << "no ISP request while paused";
    EXPECT_EQ(rec_.publishes, pubs) << "no publishing while paused";
    EXPECT_EQ(clock_.monotonic_us() - t0, 5000u) << "idles in 1 ms steps";

    set_loop_paused(0);
    rec_.default_interval = 40000;
    run(loop, 1);  // the first interval after resume includes the pause
    run(loop, 1);
    EXPECT_EQ(get_frame_rate(), 30u);
    run(loop, 1);
    EXPECT_EQ(get_frame_rate(), 25u) << "classified again on the third accepted frame";
}

// ---- Frame acceptance ----

TEST_F(FrameLoopTest, SignalUnderTenMsIsDroppedWithoutFlippingTheToggle) {
    FrameLoop loop = make_loop();
    rec_.intervals = {33333, 5000, 33333};
    run(loop, 1);
    const uint8_t toggle = loop.state().frame_toggle;
    const int pubs = rec_.publishes;
    run(loop, 1);
    EXPECT_EQ(loop.state().frame_toggle, toggle);
    EXPECT_EQ(rec_.publishes, pubs) << "a dropped signal does nothing";
    EXPECT_EQ(loop.state().interval_us, 5000u);
    run(loop, 1);
    EXPECT_EQ(loop.state().interval_us, 33333u) << "the dropped signal became the previous time";
}

TEST_F(FrameLoopTest, HalfRateWorksOnEveryOtherSignal) {
    FrameLoop loop = make_loop();
    set_half_rate(1);
    rec_.default_interval = 11111;
    run(loop, 6);
    EXPECT_EQ(rec_.vd_calls, 6);
    EXPECT_EQ(rec_.publishes, 3);
    // The skipped signals still flip the toggle: after six signals it is back where it started.
    EXPECT_EQ(loop.state().frame_toggle, 0);
}

TEST_F(FrameLoopTest, FailedFrameRequestOnlyFlipsTheToggle) {
    FrameLoop loop = make_loop();
    rec_.vd_result = 1;
    run(loop, 3);
    EXPECT_EQ(rec_.publishes, 0);
    EXPECT_EQ(rec_.auto_iris, 0);
    EXPECT_EQ(loop.state().frame_toggle, 1);
    EXPECT_EQ(loop.state().warmup_count, 0);
}

// ---- Warm-up, priming and dispatch ----

TEST_F(FrameLoopTest, FirstProcessedFrameOnlyPublishes) {
    FrameLoop loop = make_loop();
    command_set_autofocus_mode(1);
    run(loop, 1);
    EXPECT_EQ(rec_.publishes, 1);
    EXPECT_EQ(rec_.exposure_reads, 0);
    EXPECT_EQ(loop.state().cycle_count, 0u);
    run(loop, 1);
    EXPECT_EQ(loop.state().cycle_count, 1u) << "the second processed frame dispatches";
}

TEST_F(FrameLoopTest, FirstEligibleMotionFrameDoesNoWork) {
    FrameLoop loop = make_loop();
    set_divisors(1, 1);
    command_set_zoom_motion_active(1);
    run(loop, 1);  // warm-up
    run(loop, 1);  // first eligible motion frame: primes only
    EXPECT_EQ(rec_.motion_steps, 0);
    EXPECT_EQ(loop.state().motion_primed, 1);
    run(loop, 1);
    EXPECT_EQ(rec_.motion_steps, 1);
    ASSERT_FALSE(rec_.fetch_modes.empty());
    EXPECT_EQ(rec_.fetch_modes.back(), 2) << "zoom motion fetches in mode 2";
    EXPECT_EQ(rec_.clears, 1) << "latched highlight masks cleared before each motion step";

    // When the motion ends the priming is lost, so the next motion skips a frame again.
    command_set_zoom_motion_active(0);
    run(loop, 1);
    EXPECT_EQ(loop.state().motion_primed, 0);
    command_set_zoom_motion_active(1);
    const int steps = rec_.motion_steps;
    run(loop, 1);
    EXPECT_EQ(rec_.motion_steps, steps);
    run(loop, 1);
    EXPECT_EQ(rec_.motion_steps, steps + 1);
}

TEST_F(FrameLoopTest, AutofocusRunsOnEligibleFramesAfterPriming) {
    FrameLoop loop = make_loop();
    set_divisors(2, 1);
    command_set_autofocus_mode(1);
    run(loop, 1);   // warm-up
    run(loop, 12);  // cadence phases 1..6, 1..6: eligible on even phases
    // Six eligible frames, the first of which only primes.
    EXPECT_EQ(rec_.af_frames, 5);
    EXPECT_EQ(rec_.exposure_reads, 6) << "exposure read at the AF cadence";
    for (uint8_t m : rec_.fetch_modes)
        EXPECT_EQ(m, 1);
}

TEST_F(FrameLoopTest, ZoomMotionMakesAutofocusPrimeAgain) {
    FrameLoop loop = make_loop();
    set_divisors(1, 1);
    command_set_autofocus_mode(1);
    run(loop, 3);
    ASSERT_EQ(rec_.af_frames, 1);
    command_set_zoom_motion_active(1);
    run(loop, 1);
    EXPECT_EQ(loop.state().af_primed, 0);
    command_set_zoom_motion_active(0);
    run(loop, 1);
    EXPECT_EQ(rec_.af_frames, 1) << "first AF frame after a motion is skipped";
    run(loop, 1);
    EXPECT_EQ(rec_.af_frames, 2);
}

TEST_F(FrameLoopTest, DispatchPriorityCalibrationFirstThenMotionThenAutofocus) {
    FrameLoop loop = make_loop();
    set_divisors(1, 1);
    command_set_autofocus_mode(1);
    command_set_zoom_motion_active(1);
    command_set_calibration_mode(1);
    run(loop, 4);
    EXPECT_EQ(rec_.curve_steps, 3);
    EXPECT_EQ(rec_.motion_steps, 0);
    EXPECT_EQ(rec_.af_frames, 0);
    EXPECT_EQ(rec_.fetch_modes, std::vector<uint8_t>({0, 0, 0}));

    command_set_calibration_mode(0);
    run(loop, 3);
    EXPECT_GT(rec_.motion_steps, 0);
    EXPECT_EQ(rec_.af_frames, 0) << "a zoom motion outranks autofocus";

    command_set_zoom_motion_active(0);
    run(loop, 3);
    EXPECT_GT(rec_.af_frames, 0);
}

TEST_F(FrameLoopTest, IrisCorrectionRunsEveryTenthCycle) {
    FrameLoop loop = make_loop();
    set_divisors(1, 1);
    command_set_calibration_mode(4);
    command_set_zoom_motion_active(1);
    run(loop, 1 + 30);
    EXPECT_EQ(rec_.iris_steps, 3);
    EXPECT_EQ(rec_.motion_steps, 0);
}

TEST_F(FrameLoopTest, HallCalibrationSavesOffsetsAndEndsTheMode) {
    FrameLoop loop = make_loop();
    set_divisors(1, 1);
    command_set_calibration_mode(5);
    run(loop, 2);
    EXPECT_EQ(rec_.hall_calls, 1);
    EXPECT_EQ(command_calibration_mode(), 0);
    EXPECT_STREQ(command_status_text(), "Hall init done!\n");
    ASSERT_EQ(rec_.saved_keys.size(), 3u);
    EXPECT_EQ(rec_.saved_keys[0], "IRIS_OFFSET =");
    EXPECT_EQ(rec_.saved_values[0], 17);
    EXPECT_EQ(rec_.saved_keys[1], "BIAS_OFFSET =");
    EXPECT_EQ(rec_.saved_values[1], 42);
    EXPECT_EQ(rec_.saved_keys[2], "HALL_VERSION =");
    EXPECT_EQ(rec_.saved_values[2], 1);

    rec_.hall_result = 1;
    command_set_calibration_mode(5);
    run(loop, 1);
    EXPECT_STREQ(command_status_text(), "Hall init fail!\n");
    EXPECT_EQ(command_calibration_mode(), 0);
    EXPECT_EQ(rec_.saved_keys.size(), 3u) << "nothing saved on failure";
}

TEST_F(FrameLoopTest, MotionWaitsForTheMotionDivisor) {
    FrameLoop loop = make_loop();
    set_divisors(1, 2);
    ASSERT_EQ(get_motion_divisor(), 2);
    command_set_zoom_motion_active(1);
    run(loop, 1 + 12);
    // Eligible on phases 2, 4, 6 of each round: six eligible frames, one spent priming.
    EXPECT_EQ(rec_.motion_steps, 5);
}

TEST_F(FrameLoopTest, CycleCountRunsOneTo180AndIrisStepsEverySixth) {
    FrameLoop loop = make_loop();
    run(loop, 1);
    EXPECT_EQ(rec_.auto_iris, 1) << "before the first dispatch the cycle count is 0";
    run(loop, 180);
    EXPECT_EQ(loop.state().cycle_count, 180u);
    EXPECT_EQ(rec_.auto_iris, 1 + 30);
    run(loop, 1);
    EXPECT_EQ(loop.state().cycle_count, 1u);
}

TEST_F(FrameLoopTest, DegradedAfterHomingFailure) {
    FrameLoop loop = make_loop(/*homing=*/2);
    command_set_autofocus_mode(1);
    command_set_zoom_motion_active(1);
    run(loop, 10);
    EXPECT_EQ(rec_.publishes, 10);
    EXPECT_EQ(rec_.auto_iris, 10) << "cycle count stays 0, so the iris step runs every frame";
    EXPECT_EQ(rec_.motion_steps, 0);
    EXPECT_EQ(rec_.af_frames, 0);
    EXPECT_EQ(rec_.exposure_reads, 0);
    EXPECT_EQ(loop.state().cycle_count, 0u);
}

// ---- Autofocus step ----

TEST_F(FrameLoopTest, ModeTwoHoldsWhenFocusedUntilRefocusRequested) {
    FrameLoop loop = make_loop();
    set_divisors(1, 1);
    command_set_autofocus_mode(2);
    g_afState = 2;
    run(loop, 5);
    EXPECT_EQ(rec_.af_frames, 0);
    EXPECT_EQ(rec_.arms, 0) << "mask update armed only while the AF state is 0";
    EXPECT_FALSE(rec_.fetch_modes.empty()) << "statistics are fetched even when no work is due";
    g_refocusRequest = 1;
    run(loop, 1);
    EXPECT_EQ(rec_.af_frames, 1);
}

TEST_F(FrameLoopTest, ReturnToLastTakesPrecedenceOverASearch) {
    FrameLoop loop = make_loop();
    set_divisors(1, 1);
    command_set_autofocus_mode(1);
    g_returnToLast = 1;
    run(loop, 4);  // warm-up, priming, two steps
    EXPECT_EQ(rec_.returns, 2);
    EXPECT_EQ(rec_.af_frames, 0);
    EXPECT_GE(rec_.arms, 2) << "AF state 0 arms the mask update";
}

TEST_F(FrameLoopTest, OneShotRunsReferenceSearchThenSwitchesOff) {
    FrameLoop loop = make_loop();
    set_divisors(1, 1);
    command_set_autofocus_mode(3);
    run(loop, 2);  // warm-up, priming
    run(loop, 1);
    EXPECT_EQ(rec_.snapshots, 1);
    EXPECT_EQ(g_oneShotStage, 1);
    run(loop, 2);
    EXPECT_EQ(rec_.af_frames, 2);
    g_oneShotStage = 2;  // the search has ended
    run(loop, 1);
    EXPECT_EQ(g_oneShotStage, 0);
    EXPECT_EQ(command_autofocus_mode(), 0);
    run(loop, 3);
    EXPECT_EQ(rec_.af_frames, 2) << "autofocus is off after the single search";
    EXPECT_EQ(rec_.order, std::vector<std::string>({"snapshot", "af", "af"}));
}

}  // namespace

namespace {

TEST_F(FrameLoopTest, NoHeapAllocationPerFrame) {
    FrameLoop loop = make_loop();
    set_divisors(2, 2);
    command_set_autofocus_mode(1);
    rec_.default_interval = 16667;
    run(loop, 10);  // warm-up and classification
    rec_.order.reserve(10000);
    rec_.fetch_modes.reserve(10000);
    const uint64_t before = testsupport::allocation_count();
    run(loop, 3000);
    EXPECT_EQ(testsupport::allocation_count() - before, 0u);
    EXPECT_GT(rec_.af_frames, 1000);
}

}  // namespace
