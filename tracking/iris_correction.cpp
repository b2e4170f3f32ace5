// Iris correction: opens the iris, notes the open brightness, closes step by step and records
// the iris value at which the brightness has fallen to each F-number step's fraction. See
// tracking/calibration.h.
//
// The values are measured into IrisRun.table; the iris table, its file and the offset file are
// touched only when the run succeeds. On the way the run sets the iris mode to fixed, drives the
// iris and, on the LC898201, moves the Hall bias; these are noted at the start and put back when
// the run does not succeed.
#include "tracking/calibration.h"

#include <atomic>
#include <cstdio>

#include "base/command_state.h"
#include "base/dbgout.h"
#include "isp/isp_link.h"
#include "lens_api/iris.h"
#include "lens_api/lc898201.h"
#include "lens_api/lens_driver.h"
#include "store/lens_data.h"
#include "store/offsets.h"
#include "tracking/calibration_run.h"

namespace {

enum IrisState : uint8_t {
    kStOpen = 0,
    kStReference = 1,
    kStClose = 2,
    kStCheck = 3,
    kStDone = 4,
};

// Brightness of each F-number step in 1/1024 of the open brightness. Steps 0 and 1 are not
// measured (they keep their values); step 12 is the closed iris.
constexpr uint16_t kFraction[kIrisSteps] = {1024, 1024, 576, 423, 287, 207, 143,
                                            102,  72,   51,  36,  31,  15};
constexpr uint8_t kFirstMeasured = 2;
constexpr uint8_t kLastMeasured = 11;

constexpr uint16_t kMsOpen = 1023;
constexpr uint16_t kMsAfter = 960;
constexpr uint16_t kLcOpen = 2048;
constexpr uint16_t kLcAfter = 2048;
// The MS41908's iris closes steeply below this value: finer steps there.
constexpr uint16_t kMsFineBelow = 501;
constexpr uint16_t kMsCoarseStep = 5;
constexpr uint16_t kMsFineStep = 2;
constexpr uint16_t kLcStep = 5;
// LC898201: the servo cannot close the iris further than this; the bias is lowered (by 5, down
// to 37) until the fractions are reached before it.
constexpr uint16_t kLcClosedLimit = 6;
constexpr int32_t kBiasStep = 5;
constexpr int32_t kBiasLowest = 37;
// LC898201: when step 11 is already reached at or above this value the range is crowded at the
// open end; the bias is raised (by 5, up to 91) to spread it.
constexpr uint16_t kLcSpreadBelow = 501;
constexpr int32_t kBiasHighest = 91;
// Brightness within this of the previous reading has settled.
constexpr uint32_t kStable = 2;

struct IrisRun {
    uint8_t state = kStOpen;
    uint8_t k = kFirstMeasured;
    uint16_t value = 0;
    uint32_t reference = 0;
    uint32_t previous = 0;
    uint16_t table[kIrisSteps] = {};

    bool active = false;
    uint8_t saved_mode = 0;
    uint16_t saved_value = 0;
    uint8_t saved_bias = 0;
    uint32_t homings = 0;
};

IrisRun g_run;
// Set by iris_correct_step(0) on the command thread, taken by the main thread's next step.
std::atomic<uint8_t> g_restart{0};

bool lc() {
    return lens_is_ms41908() == 0;
}
uint16_t open_value() {
    return lc() ? kLcOpen : kMsOpen;
}

void begin_run() {
    g_run = IrisRun{};
    g_run.active = true;
    g_run.saved_mode = iris_get_mode();
    g_run.saved_value = iris_get_value();
    g_run.saved_bias = lc_get_settings().bias_offset;
    g_run.homings = lens_homing_count();
    for (uint8_t k = 0; k < kIrisSteps; ++k)
        g_run.table[k] = iris_table_get(k);
}

// Ends the run without a trace: bias, iris mode and iris position as they were before it.
void abandon(const char* why) {
    if (g_run.active) {
        if (lc())
            lc_set_bias_offset(g_run.saved_bias);
        iris_set_mode(g_run.saved_mode);
        if (g_run.saved_value != 0)  // 0 would switch the LC898201's servo drive off
            iris_drive_publish(g_run.saved_value);
        traceout("%s: iris correction ended, nothing saved: %s\n", dbg_timestamp(), why);
    }
    g_run.active = false;
    g_run.state = kStOpen;
}

int fail(uint8_t k, uint16_t value) {
    char text[kStatusTextSize];
    std::snprintf(text, sizeof text, "Iris_Correction Fail! num = %d,F_data = %d\n", k, value);
    command_set_status_text(text);
    command_end_calibration(kCalibrationIris);
    abandon("the iris closed before the brightness fell far enough");
    return 2;
}

uint32_t diff(uint32_t a, uint32_t b) {
    return a > b ? a - b : b - a;
}

// The bias moved: the whole range shifts, so measure again from the open iris.
void restart_with_bias(int32_t bias) {
    lc_set_bias_offset(static_cast<uint8_t>(bias));
    g_run.state = kStOpen;
}

int succeed() {
    if (iris_file_write(g_run.table, kIrisSteps) != 0) {
        command_set_status_text("Iris_Correction Fail! iris_data.dat not saved\n");
        command_end_calibration(kCalibrationIris);
        abandon("iris table not saved");
        return 2;
    }
    for (uint8_t k = 0; k < kIrisSteps; ++k)
        iris_table_set(k, g_run.table[k]);
    if (lc()) {
        // The bias the run ended with is already in force (lc_set_bias_offset keeps it).
        offset_save(kOffsetIris, static_cast<uint8_t>(lc_get_iris_offset()));
        offset_save(kOffsetBias, static_cast<uint8_t>(lc_get_bias_offset()));
        offset_save(kOffsetHallVersion, 1);
    }
    g_run.active = false;
    g_run.state = kStOpen;
    command_end_calibration(kCalibrationIris);
    command_set_status_text("Iris_Correction Done!\n");
    iris_drive_publish(lc() ? kLcAfter : kMsAfter);  // the iris mode stays fixed
    return 1;
}

}  // namespace

int iris_correct_step(uint8_t run) {
    if (run == 0) {
        g_restart.store(1);
        return 0;
    }
    if (g_restart.exchange(0) != 0 && g_run.active)
        abandon("started again");
    if (!g_run.active) {
        begin_run();
    } else if (lens_homing_count() != g_run.homings) {
        command_end_calibration(kCalibrationIris);
        abandon("lens re-homed");
        return 2;
    }

    const uint32_t X = get_exp_gain_ratio();
    const bool stable = diff(X, g_run.previous) < kStable;
    switch (g_run.state) {
        case kStOpen:
            iris_set_mode(0);
            iris_drive_publish(open_value());
            g_run.previous = X;
            g_run.state = kStReference;
            return 0;
        case kStReference:
            if (stable) {
                g_run.reference = X;
                g_run.k = kFirstMeasured;
                g_run.value = open_value();
                g_run.state = kStClose;
            }
            g_run.previous = X;
            return 0;
        case kStClose: {
            g_run.previous = X;
            uint16_t& v = g_run.value;
            if (lc()) {
                v = v > kLcStep ? static_cast<uint16_t>(v - kLcStep) : 0;
                if (v < kLcClosedLimit) {
                    const int32_t bias = lc_get_bias_offset();
                    if (bias > kBiasLowest) {
                        restart_with_bias(bias - kBiasStep);
                        return 0;
                    }
                    return fail(g_run.k, v);
                }
            } else {
                // The MS41908 has no failure of its own: but an iris already at 0 cannot close
                // any further, and the steps not reached have no value to record.
                if (v == 0)
                    return fail(g_run.k, v);
                const uint16_t step = v < kMsFineBelow ? kMsFineStep : kMsCoarseStep;
                v = v > step ? static_cast<uint16_t>(v - step) : 0;
            }
            iris_drive_publish(v);
            g_run.state = kStCheck;
            return 0;
        }
        case kStCheck:
            if (stable) {
                const uint64_t target =
                    static_cast<uint64_t>(kFraction[g_run.k]) * g_run.reference / 1024;
                if (target > X) {
                    g_run.table[g_run.k] = g_run.value;
                    ++g_run.k;
                    if (g_run.k > kLastMeasured) {
                        g_run.table[kIrisSteps - 1] = 0;
                        g_run.previous = X;
                        g_run.state = kStDone;
                        return 0;
                    }
                }
                g_run.state = kStClose;
            }
            g_run.previous = X;
            return 0;
        case kStDone:
            if (lc() && g_run.value >= kLcSpreadBelow) {
                const int32_t bias = lc_get_bias_offset();
                if (bias < kBiasHighest) {
                    restart_with_bias(bias + kBiasStep);
                    return 0;
                }
            }
            return succeed();
        default:
            abandon("unknown step");
            command_end_calibration(kCalibrationIris);
            return 2;
    }
}

namespace calibration_detail {

void iris_supervise(uint8_t mode, uint8_t frames_arriving) {
    if (!g_run.active)
        return;
    if (mode != kCalibrationIris) {
        abandon("stopped");
    } else if (frames_arriving == 0) {
        command_end_calibration(kCalibrationIris);
        abandon("ISP link lost");
    } else if (lens_homing_count() != g_run.homings) {
        command_end_calibration(kCalibrationIris);
        abandon("lens re-homed");
    }
}

void iris_reset_for_testing() {
    g_run = IrisRun{};
    g_restart.store(0);
}

}  // namespace calibration_detail
