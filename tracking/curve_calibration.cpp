// Curve calibration: focus backlash, then one focus scan per measured zoom step, then the
// commit. See tracking/calibration.h.
//
// The run measures into CurveRun.points; the curve module, the search bounds, curve.dat and the
// offset file are touched only in finish(), once the curve file is on flash. The one setting the
// run has to change while it measures is the focus backlash (0 while the play is measured, the
// measured value during the scans); it is noted at the start and put back by abandon().
#include "tracking/calibration.h"

#include <unistd.h>

#include <atomic>

#include "base/command_state.h"
#include "base/dbgout.h"
#include "data/lens_tables.h"
#include "isp/af_stat.h"
#include "lens_api/lc898201.h"
#include "lens_api/lens_driver.h"
#include "lens_api/lens_position.h"
#include "platform/clock.h"
#include "store/lens_data.h"
#include "store/offsets.h"
#include "tracking/calibration_run.h"
#include "tracking/curves.h"
#include "tracking/zoom_track.h"

namespace {

enum CurveState : uint8_t {
    kStBacklash = 0,
    kStWideEnd = 1,
    kStToScanStart = 2,
    kStScan = 3,
    kStRecord = 4,
    kStFinish = 5,
    kStSettle2 = 6,
    kStSettle1 = 7,
};

enum BacklashState : uint8_t {
    kBlGoto = 0,
    kBlFind = 1,
    kBlUp = 2,
    kBlDown = 3,
    kBlResult = 4,
    kBlDone = 5,
    kBlFailed = 6,
};

// Where the play is measured: mid zoom, and a focus well below the target's peak there.
constexpr uint16_t kBacklashZoom = 1000;
constexpr uint16_t kBacklashFocus = 4600;
// Centre sharpness at which the target counts as in view (below it the picture is a blur).
constexpr uint32_t kTargetInView = 200;
constexpr uint8_t kBacklashPasses = 4;
// Play beyond this is a broken gear train, not something to compensate.
constexpr uint16_t kMaxBacklash = 30;

// The first scan runs over the top 500 steps of the focus range (the wide-end focus of any unit
// lies there).
constexpr uint16_t kFirstScanSpan = 500;
// A scan peak is only believed on a real target.
constexpr uint32_t kScanPeakMin = 5001;
constexpr uint8_t kLastPoint = kCurvePoints - 1;  // 208: holds the form mark, never a zoom step
constexpr uint16_t kZoomPerPoint = 32;
// Window codes: below this, "end at best + code"; from it on, "start at best - (code - 512)".
constexpr uint16_t kCodeBelow = 512;

constexpr uint8_t kMaxStepMove = 40;   // approach moves
constexpr uint8_t kWideEndChunk = 50;  // zoom steps per frame on the way to the wide end
constexpr uint8_t kWideEndSpeed = 6;
constexpr uint8_t kReturnChunk = 10;  // return to the best focus after the commit
constexpr uint32_t kReturnWaitUs = 30000;
// The return covers at most the whole focus range in chunks; more means the lens is not moving.
constexpr int kMaxReturnMoves = 1000;

struct Backlash {
    uint8_t sub = kBlGoto;
    uint8_t toggle = 0;
    uint8_t pass = 0;
    uint32_t best = 0;
    uint16_t up[kBacklashPasses] = {};
    uint16_t down[kBacklashPasses] = {};
    const char* failure = nullptr;  // why the measurement gave up (sub-state kBlFailed)
};

struct CurveRun {
    uint8_t state = kStBacklash;
    uint8_t point = 0;
    uint32_t best_sharpness = 0;
    uint16_t best_focus = 0;
    uint16_t scan_start = 0;
    uint16_t scan_end = 0;
    uint16_t start_code = 0;
    uint16_t end_code = 0;

    bool active = false;
    uint8_t full_form = 0;
    uint16_t saved_backlash = 0;  // focus backlash in force before the run
    uint16_t measured_backlash = 0;
    uint32_t homings = 0;  // lens_homing_count when the positions were last valid
    uint16_t points[kCurvePoints] = {};
    Backlash bl;
};

CurveRun g_run;
std::atomic<uint8_t> g_variant{0};  // written by the command thread

uint16_t absdiff(uint16_t a, uint16_t b) {
    return a > b ? a - b : b - a;
}
uint8_t at_most(uint32_t v, uint8_t cap) {
    return static_cast<uint8_t>(v < cap ? v : cap);
}

// Window codes for the scan after point i, from the factory curve shape B: the next scan runs
// from 25 below the expected fall of the curve to 10 above the last best position (or, where the
// shape rises, from 10 below to 25 above the rise).
void window_codes(uint8_t i) {
    const uint16_t* B = afdata::kDefaultCurveShape;
    if (i > kLastPoint - 1) {
        g_run.end_code = 80;
        g_run.start_code = kCodeBelow + 10;
    } else if (B[i] <= B[i + 1]) {
        g_run.end_code = static_cast<uint16_t>(B[i + 1] - B[i] + 25);
        g_run.start_code = kCodeBelow + 10;
    } else {
        g_run.end_code = 10;
        g_run.start_code = static_cast<uint16_t>(B[i] - B[i + 1] + kCodeBelow + 25);
    }
}

// Position for a window code around `best`, within 0..focus maximum.
uint16_t apply_code(uint16_t best, uint16_t code) {
    int32_t p = code < kCodeBelow ? best + code : best - (code - kCodeBelow);
    const int32_t fmax = lens_get_focus_max();
    if (p < 0)
        p = 0;
    if (p > fmax)
        p = fmax;
    return static_cast<uint16_t>(p);
}

void backlash_reset() {
    g_run.bl = Backlash{};
}

void begin_run() {
    g_run.state = kStBacklash;
    g_run.point = 0;
    g_run.best_sharpness = 0;
    g_run.best_focus = 0;
    g_run.active = true;
    g_run.full_form = g_variant.load() == 1 ? 1 : 0;
    g_run.saved_backlash = lens_get_focus_backlash();
    g_run.measured_backlash = g_run.saved_backlash;
    g_run.homings = lens_homing_count();
    backlash_reset();
    traceout("%s: curve calibration start (%s form)\n", dbg_timestamp(),
             g_run.full_form ? "full" : "reference-point");
}

// Ends the run without a trace: the backlash in force before it comes back, the records are
// dropped. The calibration mode is the caller's business.
void abandon(const char* why) {
    if (g_run.active) {
        lens_set_focus_backlash(g_run.saved_backlash);
        traceout("%s: curve calibration ended, nothing saved: %s\n", dbg_timestamp(), why);
    }
    g_run.active = false;
    g_run.state = kStBacklash;
    g_run.point = 0;
    g_run.best_sharpness = 0;
    g_run.best_focus = 0;
    backlash_reset();
}

int fail(const char* why) {
    abandon(why);
    command_end_calibration(kCalibrationCurve);
    return 0;
}

// The Hall calibration writes the chip's offset and bias registers as it searches; a run that
// does not keep its result puts the values in force back.
void restore_hall_registers() {
    const LcSettings s = lc_get_settings();
    lc_set_iris_offset(s.iris_offset);
    lc_set_bias_offset(s.bias_offset);
}

bool interrupted() {
    return command_calibration_mode() != kCalibrationCurve || lens_homing_count() != g_run.homings;
}

// Moves the focus back to `target` in short moves, waiting for each to end.
void return_focus_to(uint16_t target) {
    for (int i = 0; i < kMaxReturnMoves; ++i) {
        const uint16_t f = lens_get_focus_pos();
        if (f == target)
            return;
        const uint8_t dir = f < target ? 1 : 0;
        if (lens_move(0, 0, dir, at_most(absdiff(f, target), kReturnChunk)) != 0)
            return;  // nothing moved: a bound or a stuck channel
        if (lens_get_focus_pos() != target)
            platform::sleep_us(kReturnWaitUs);
    }
}

int finish() {
    const bool lc = lens_is_ms41908() == 0;
    uint16_t* P = g_run.points;
    P[kLastPoint] = g_run.full_form ? kCurveFullForm : kCurveRefPointForm;
    if (!g_run.full_form) {
        // Only step 0 is measured; the loader rebuilds the rest from it. It also takes entries 1
        // and 2 of this form as packed Hall offset and bias when high and low byte add up to
        // 255, which some curve values do (5865, 6120): zeros never do. The Hall values live in
        // the offset file.
        for (int s = 1; s < kLastPoint; ++s)
            P[s] = 0;
    }

    const int hall = lc ? lc_hall_calibrate() : -1;
    // The Hall calibration holds the main thread for over a second: a stop or a re-homing that
    // came meanwhile still ends the run without a trace.
    if (interrupted()) {
        if (lc)
            restore_hall_registers();
        const bool stopped = command_calibration_mode() != kCalibrationCurve;
        abandon(stopped ? "stopped" : "lens re-homed");
        if (!stopped)
            command_end_calibration(kCalibrationCurve);
        return 0;
    }

    dbg_line("Save the curve");
    if (curve_file_write(P, kCurvePoints) == 0) {
        if (lc)
            restore_hall_registers();
        return fail("curve file not written");
    }

    // The curve is on flash: from here on the run's results are the unit's.
    offset_save(kOffsetFocus, static_cast<uint8_t>(g_run.measured_backlash));
    if (hall == 0) {
        const uint8_t offset = static_cast<uint8_t>(lc_get_iris_offset());
        const uint8_t bias = static_cast<uint8_t>(lc_get_bias_offset());
        offset_save(kOffsetIris, offset);
        offset_save(kOffsetBias, bias);
        offset_save(kOffsetHallVersion, 1);
        LcSettings s = lc_get_settings();
        s.iris_offset = offset;
        s.bias_offset = bias;
        lc_set_settings(s);
    } else if (lc) {
        restore_hall_registers();
        command_set_status_text("Hall init fail!\n");
    }

    // In memory the curve is rebuilt from step 0 in both forms; the full form's measured points
    // take effect when the file is loaded at the next start.
    curve_set_point(0, P[0]);
    curve_anchor(0);
    curve_rebuild_from_reference();
    for (uint16_t s = 0; s < kCurvePoints; ++s) {
        const uint16_t base = curve_get_point(s);
        curve_set_bounds(
            s, base, static_cast<uint16_t>(base + afdata::kFarCurveOffsets[kFarCurveCount - 1][s]));
    }

    const uint16_t best = g_run.best_focus;
    g_run.active = false;
    g_run.state = kStBacklash;
    g_run.point = 0;
    backlash_reset();
    return_focus_to(best);

    traceout("Track curve Success\n");
    command_end_calibration(kCalibrationCurve);
    sync();
    return 2;
}

}  // namespace

void curve_calibration_set_variant(uint8_t full) {
    g_variant.store(full);
}
uint8_t curve_calibration_get_variant() {
    return g_variant.load();
}

uint8_t lens_goto(uint16_t zoom, uint16_t focus) {
    const uint16_t z = lens_get_zoom_pos();
    const uint16_t f = lens_get_focus_pos();
    if (z == zoom && f == focus)
        return 1;
    // Directions 2 and 3 reach past the ordinary bounds, as a calibration may need to.
    lens_move(z < zoom ? 3 : 2, at_most(absdiff(z, zoom), kMaxStepMove), f < focus ? 3 : 2,
              at_most(absdiff(f, focus), kMaxStepMove));
    return 0;
}

uint8_t focus_backlash_calibrate(uint8_t run) {
    Backlash& bl = g_run.bl;
    if (run == 0) {
        backlash_reset();
        return 0;
    }
    // Every other call: the frame after a move still shows the lens on its way.
    bl.toggle ^= 1;
    if (bl.toggle == 1)
        return 0;

    const uint32_t s = get_window_sharpness(0);
    const uint16_t f = lens_get_focus_pos();
    // Peak tracking: the position of the sharpest frame so far; passed once the sharpness has
    // fallen by a quarter from it.
    const auto track = [&](uint16_t& at) {
        if (s > bl.best) {
            bl.best = s;
            at = f;
        }
        return bl.best > s && bl.best - s > bl.best / 4;
    };

    switch (bl.sub) {
        case kBlGoto:
            if (lens_goto(kBacklashZoom, kBacklashFocus) == 1) {
                lens_set_focus_backlash(0);  // the play itself is to be seen
                bl.sub = kBlFind;
            }
            return 0;
        case kBlFind:
            if (s >= kTargetInView) {
                bl.best = 0;
                bl.sub = kBlUp;
            } else if (f >= lens_get_focus_max()) {
                bl.failure = "no target in front of the lens";
                bl.sub = kBlFailed;
            } else {
                lens_move(0, 0, 1, 10);
            }
            return 0;
        case kBlUp:
            if (track(bl.up[bl.pass])) {
                bl.best = 0;
                bl.sub = kBlDown;
            } else if (f >= lens_get_focus_max()) {
                bl.failure = "no sharpness peak below the focus maximum";
                bl.sub = kBlFailed;
                return 0;
            }
            lens_move(0, 0, 1, 1);
            return 0;
        case kBlDown:
            if (track(bl.down[bl.pass])) {
                bl.best = 0;
                ++bl.pass;
                bl.sub = bl.pass < kBacklashPasses ? kBlUp : kBlResult;
            } else if (f <= lens_get_focus_min()) {
                bl.failure = "no sharpness peak above the focus minimum";
                bl.sub = kBlFailed;
                return 0;
            }
            lens_move(0, 0, 0, 1);
            return 0;
        case kBlResult: {
            // Upwards the lens lags the motor by the play, downwards it does not: the peaks of
            // the two directions lie the play apart. Pass 0 started from the coarse search and
            // is not used.
            int32_t up = 0;
            int32_t down = 0;
            for (int k = 1; k < kBacklashPasses; ++k) {
                up += bl.up[k];
                down += bl.down[k];
            }
            int32_t play = (up > down ? up - down : down - up) / (kBacklashPasses - 1);
            if (play > kMaxBacklash)
                play = kMaxBacklash;
            g_run.measured_backlash = static_cast<uint16_t>(play);
            lens_set_focus_backlash(g_run.measured_backlash);
            bl.sub = kBlDone;
            // The passes left the counts with whatever the play cost: start again from home.
            const uint8_t homed = lens_motor_init();
            g_run.homings = lens_homing_count();
            if (homed != 0) {
                bl.failure = "homing failed";
                bl.sub = kBlFailed;
                return 0;
            }
            return 1;
        }
        case kBlDone:
            return 1;
        default:
            return 0;
    }
}

int curve_calibrate_step() {
    const uint8_t i = g_run.point;
    window_codes(i);

    if (!g_run.active)
        begin_run();
    else if (lens_homing_count() != g_run.homings)
        return fail("lens re-homed");

    switch (g_run.state) {
        case kStBacklash:
            if (focus_backlash_calibrate(1) == 1) {
                const uint16_t fmax = lens_get_focus_max();
                g_run.scan_start = fmax > kFirstScanSpan ? fmax - kFirstScanSpan : 0;
                g_run.scan_end = fmax;
                g_run.state = kStWideEnd;
            } else if (g_run.bl.sub == kBlFailed) {
                return fail(g_run.bl.failure);
            }
            return 1;
        case kStWideEnd: {
            focus_backlash_calibrate(0);
            const uint16_t z = lens_get_zoom_pos();
            g_run.point = 0;
            if (z == 0) {
                zoom_track_clear_active();
                g_run.state = kStToScanStart;
            } else if (z <= lens_get_zoom_min()) {
                // A zoom minimum above 0 stops the tracked zoom; the rest is a calibration move.
                lens_move(2, at_most(z, kWideEndChunk), 0, 0);
            } else {
                zoom_track_step(0, kWideEndSpeed, at_most(z, kWideEndChunk));
            }
            return 1;
        }
        case kStToScanStart: {
            const uint16_t f = lens_get_focus_pos();
            const uint16_t start = g_run.scan_start;
            if (f > start)
                lens_move(3, 0, 0, at_most(f - start, kMaxStepMove));
            else if (f < start)
                lens_move(3, 0, 1, at_most(start - f, kMaxStepMove));
            else
                g_run.state = kStSettle1;
            return 1;
        }
        case kStSettle1:
            g_run.state = kStSettle2;
            return 1;
        case kStSettle2:
            g_run.state = kStScan;
            return 1;
        case kStScan: {
            const uint32_t s = get_window_sharpness(0);
            if (s > g_run.best_sharpness) {
                g_run.best_sharpness = s;
                g_run.best_focus = lens_get_focus_pos();
            }
            lens_move(3, 0, 1, 1);
            const uint32_t best = g_run.best_sharpness;
            const bool passed = best >= kScanPeakMin && s < best && best - s > s / 4;
            if (lens_get_focus_pos() >= g_run.scan_end || passed)
                g_run.state = kStRecord;
            return 1;
        }
        case kStRecord: {
            const uint16_t best = g_run.best_focus;
            g_run.points[i] = best;
            g_run.scan_start = apply_code(best, g_run.start_code);
            g_run.scan_end = apply_code(best, g_run.end_code);
            g_run.point = g_run.full_form ? static_cast<uint8_t>(i + 1) : kCurvePoints;
            if (g_run.point != kCurvePoints) {
                lens_move(3, kZoomPerPoint, 0, 0);
                g_run.best_sharpness = 0;
                g_run.best_focus = 0;
                g_run.state = kStToScanStart;
            } else {
                g_run.state = kStFinish;
            }
            return 1;
        }
        case kStFinish:
            return finish();
        default:
            dbg_line("Error");
            return fail("unknown step");
    }
}

CurveCalibrationProgress curve_calibration_progress() {
    return {static_cast<uint8_t>(g_run.active ? 1 : 0),
            g_run.state,
            g_run.point,
            g_run.scan_start,
            g_run.scan_end,
            g_run.best_focus,
            g_run.best_sharpness};
}

namespace calibration_detail {

void curve_supervise(uint8_t mode, uint8_t frames_arriving) {
    if (!g_run.active)
        return;
    if (mode != kCalibrationCurve) {
        abandon("stopped");  // the command channel has set the mode it wants
    } else if (frames_arriving == 0) {
        fail("ISP link lost");
    } else if (lens_homing_count() != g_run.homings) {
        fail("lens re-homed");
    }
}

void curve_reset_for_testing() {
    g_run = CurveRun{};
    g_variant.store(0);
}

}  // namespace calibration_detail
