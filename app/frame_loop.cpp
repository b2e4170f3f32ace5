#include "app/frame_loop.h"

#include "af/auto_focus.h"
#include "af/distance_assist.h"
#include "base/frame_pacing.h"
#include "command/command_process.h"
#include "isp/af_stat.h"
#include "isp/distance_input.h"
#include "isp/highlight.h"
#include "isp/isp_link.h"
#include "isp/track_input.h"
#include "lens_api/iris.h"
#include "lens_api/lc898201.h"
#include "platform/clock.h"
#include "store/offsets.h"
#include "tracking/calibration.h"
#include "tracking/motion.h"

namespace {

// Calibration modes set by the command channel.
constexpr uint8_t kCalCurve = 1;
constexpr uint8_t kCalIris = 4;
constexpr uint8_t kCalHall = 5;

// Frame signals closer than this are spurious (a rate above 100 fps is never real here).
constexpr uint32_t kMinIntervalUs = 10000;

const FrameLoopOps kDefaultOps = {
    Get_ISP_VD,
    isp_read_exposure,
    track_poll,
    af_stat_fetch,
    highlight_clear_latched,
    highlight_arm_update,
    curve_calibrate_step,
    iris_correct_step,
    lc_hall_calibrate,
    lc_get_iris_offset,
    lc_get_bias_offset,
    offset_save_by_key,
    motion_execute,
    AfFrame,
    ReturnToLastPosition,
    SnapshotReference,
    command_publish_positions,
    auto_iris_step,
    calibration_supervise,
    distance_poll,
};

}  // namespace

const FrameLoopOps& default_frame_loop_ops() {
    return kDefaultOps;
}

FrameLoop::FrameLoop(const FrameLoopOps& ops, uint8_t homing_result) : ops_(ops) {
    st_.homing_result = homing_result;
}

void FrameLoop::mark_start_time() {
    platform::wall_time(&st_.prev_frame_time);
}

void FrameLoop::arm() {
    st_.cadence_phase = 1;
    st_.rate_countdown = 2;
}

void FrameLoop::run() {
    for (;;)
        iteration();
}

void FrameLoop::iteration() {
    // 1-2. Paused by the command channel: idle in 1 ms steps, re-learn the rate on resume.
    if (get_loop_paused() == 1) {
        platform::idle_us(1000);
        st_.resume_pending = 1;
        return;
    }
    if (st_.resume_pending) {
        st_.resume_pending = 0;
        st_.rate_countdown = 2;
    }

    // 3. Wait for the next frame. Above 90 fps only every other signal is worked on.
    const bool got = ops_.get_isp_vd() == 0;
    // A calibration measures a continuous run of frames on a lens whose counts it trusts: one
    // that was stopped, re-homed or lost its frames is ended here, before anything else moves.
    if (ops_.calibration_supervise != nullptr)
        ops_.calibration_supervise(got ? 1 : 0);
    if (got && (get_half_rate() == 0 || st_.frame_toggle == 1)) {
        // 4. Frame interval, in 32-bit unsigned microseconds as the board computes it.
        timeval now{};
        platform::wall_time(&now);
        st_.interval_us =
            static_cast<uint32_t>(now.tv_sec - st_.prev_frame_time.tv_sec) * 1000000u +
            static_cast<uint32_t>(now.tv_usec) - static_cast<uint32_t>(st_.prev_frame_time.tv_usec);
        st_.prev_frame_time = now;
        if (st_.interval_us < kMinIntervalUs)
            return;  // spurious signal: toggle unchanged

        // 5. Frame-rate classification.
        if (st_.rate_countdown == 0) {
            const uint32_t fps = classify_frame_interval(st_.interval_us);
            if (fps != 0) {
                set_frame_rate(fps);
                update_frame_cadence();
                set_motion_divisor_from_high_rate();
            } else {
                st_.rate_countdown = 1;
            }
        }
        if (st_.rate_countdown >= 0)
            --st_.rate_countdown;

        // 6. Tracker state, and the object distance (the distance assist keeps one reading a
        //    frame, whichever activity the frame goes to, so that its trends see the whole time).
        set_tracking_on(ops_.track_poll());
        if (ops_.distance_poll != nullptr)
            af_distance_input(ops_.distance_poll());

        // 7-9. The first processed frame only publishes, and so does every frame after a failed
        // start-up homing (the lens positions cannot be trusted, so nothing may move it).
        if (st_.warmup_count <= 0) {
            ++st_.warmup_count;
        } else if (st_.homing_result == 0) {
            dispatch();
        }

        // 10. Publish; the automatic iris every sixth cycle.
        ops_.publish_positions();
        if (st_.cycle_count % 6 == 0)
            ops_.auto_iris_step();
    }

    // 11.
    st_.frame_toggle ^= 1;
}

void FrameLoop::dispatch() {
    const uint8_t af_div = get_af_divisor();
    const uint8_t motion_div = get_motion_divisor();

    // 8.1 Exposure state at the AF cadence.
    if (st_.cadence_phase % af_div == 0)
        ops_.read_exposure();

    // 8.2
    st_.cycle_count = st_.cycle_count >= 180 ? 1 : st_.cycle_count + 1;

    // 8.3 One activity, by priority.
    const uint8_t cal = command_calibration_mode();
    if (cal == kCalCurve) {
        if (st_.cadence_phase % motion_div == 0) {
            ops_.stat_fetch(0);
            ops_.curve_calibrate_step();
        }
    } else if (cal == kCalIris) {
        if (st_.cycle_count % 10 == 0)
            ops_.iris_correct_step(1);
    } else if (cal == kCalHall) {
        if (st_.cadence_phase % motion_div == 0)
            hall_calibration_step();
    } else if (command_zoom_motion_active() == 1) {
        if (st_.cadence_phase % motion_div == 0) {
            if (st_.motion_primed) {
                const MotionCommand cmd = command_motion_copy();
                ops_.stat_fetch(2);
                ops_.clear_latched_highlight();
                ops_.motion_execute(cmd);
            }
            st_.motion_primed = 1;
        }
    } else if (command_autofocus_mode() != 0) {
        if (st_.cadence_phase % af_div == 0) {
            if (st_.af_primed)
                autofocus_step();
            st_.af_primed = 1;
        }
    }

    // 8.4 A motion or a curve calibration makes the next AF frame a fresh start.
    const uint8_t moving = command_zoom_motion_active();
    if (moving == 0)
        st_.motion_primed = 0;
    if (moving == 1 || command_calibration_mode() == kCalCurve)
        st_.af_primed = 0;

    // 8.5
    if (st_.cadence_phase >= 6) {
        st_.cadence_phase = 1;
        set_motion_divisor_from_high_rate();
    } else {
        ++st_.cadence_phase;
    }
}

void FrameLoop::hall_calibration_step() {
    if (ops_.hall_calibrate() == 0) {
        ops_.offset_save("IRIS_OFFSET =", ops_.hall_iris_offset());
        ops_.offset_save("BIAS_OFFSET =", ops_.hall_bias_offset());
        ops_.offset_save("HALL_VERSION =", 1);
        command_set_status_text("Hall init done!\n");
    } else {
        command_set_status_text("Hall init fail!\n");
    }
    command_set_calibration_mode(0);
}

void FrameLoop::autofocus_step() {
    if (g_afState == 0)
        ops_.arm_highlight_update();
    ops_.stat_fetch(1);

    const uint8_t mode = command_autofocus_mode();
    const bool due =
        mode == 1 || g_refocusRequest == 1 || (mode == 2 && g_afState != 2) || mode == 3;
    if (!due)
        return;

    if (g_returnToLast == 1) {
        ops_.return_to_last();
    } else if (mode != 3) {
        ops_.af_frame();
    } else {
        // One-shot: reference, one search, then autofocus off.
        switch (g_oneShotStage) {
            case 0:
                ops_.snapshot_reference();
                g_oneShotStage = 1;
                break;
            case 1:
                ops_.af_frame();
                break;
            case 2:
                g_oneShotStage = 0;
                command_set_autofocus_mode(0);
                break;
            default:
                break;
        }
    }
}
