// The per-frame main loop. The ISP service paces it: each iteration waits for the next frame's
// statistics, measures the frame interval, learns the frame rate from it, and dispatches one step
// of exactly one activity (curve calibration, iris correction, Hall calibration, zoom motion or
// autofocus), then publishes the lens positions.
//
// Everything the loop does to the rest of the daemon goes through FrameLoopOps, a table of
// operations. The daemon uses default_frame_loop_ops(); a test installs its own table and drives
// the loop one iteration at a time with a virtual clock.
#pragma once

#include <sys/time.h>

#include <cstdint>

#include "command/motion_command.h"

struct FrameLoopOps {
    int (*get_isp_vd)();  // 0 when a frame arrived
    int (*read_exposure)();
    uint32_t (*track_poll)();
    void (*stat_fetch)(uint8_t mode);
    void (*clear_latched_highlight)();
    void (*arm_highlight_update)();
    int (*curve_calibrate_step)();
    int (*iris_correct_step)(uint8_t run);
    int (*hall_calibrate)();  // 0 on success
    int32_t (*hall_iris_offset)();
    int32_t (*hall_bias_offset)();
    void (*offset_save)(const char* key, int32_t value);
    void (*motion_execute)(const MotionCommand& cmd);
    void (*af_frame)();
    void (*return_to_last)();
    void (*snapshot_reference)();
    void (*publish_positions)();
    void (*auto_iris_step)();
    // Told on every iteration whether frames arrive; ends calibrations that were interrupted.
    void (*calibration_supervise)(uint8_t frames_arriving);
    // The rangefinder's object distance in mm (8192: none), read every processed frame and
    // handed to the autofocus; nullptr: no distance source.
    uint16_t (*distance_poll)() = nullptr;
};

const FrameLoopOps& default_frame_loop_ops();

// The loop's own state: plain values, readable by tests.
struct FrameLoopState {
    timeval prev_frame_time{};   // time of the last accepted frame signal
    uint32_t interval_us = 0;    // last measured frame interval
    int32_t rate_countdown = 2;  // classification runs at 0; -1 after a match
    uint8_t resume_pending = 0;
    uint8_t frame_toggle = 0;
    int32_t warmup_count = 0;
    uint8_t homing_result = 0;  // bit 0 zoom failed, bit 1 focus failed; never cleared here
    int32_t cadence_phase = 1;  // 1..6
    uint32_t cycle_count = 0;   // 1..180, 0 before the first dispatch
    uint8_t motion_primed = 0;
    uint8_t af_primed = 0;
};

class FrameLoop {
  public:
    FrameLoop(const FrameLoopOps& ops, uint8_t homing_result);

    // Start-up: the current time becomes the previous frame time.
    void mark_start_time();
    // Start-up, once the ISP link is up: cadence phase 1, classification re-armed.
    void arm();

    // One pass of the loop (one frame signal, or one 1 ms idle step while paused).
    void iteration();

    // Never returns.
    [[noreturn]] void run();

    const FrameLoopState& state() const { return st_; }

  private:
    void dispatch();
    void autofocus_step();
    void hall_calibration_step();

    const FrameLoopOps& ops_;
    FrameLoopState st_;
};
