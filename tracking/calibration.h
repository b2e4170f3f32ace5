// Per-unit calibrations run on the finished camera, frame by frame on the main thread:
//
// Curve calibration (calibration mode 1). Each lens unit focuses a little differently, so the
// base focus curve is measured with a sharp target in front of the camera: the run first measures
// the play of the focus gear (backlash), re-homes, drives the zoom to its wide end and, at zoom 0
// and (in the full form) every 32 zoom steps after it, scans the focus upwards through a window
// around the expected position for the sharpest centre. The result goes to /data/curve.dat, the
// LC898201's Hall servo is calibrated, and the focus returns to the last best position.
//
// Iris correction (calibration mode 4). In front of an evenly lit scene the iris is opened fully,
// the brightness noted, and the iris closed little by little; the iris value at which the
// brightness has fallen to each F-number step's fraction of the open brightness becomes that
// step's table entry (/data/iris_data.dat). On the LC898201 the Hall bias is moved as needed so
// that the usable iris range fits the servo.
//
// All or nothing. A run measures into its own records and changes what the rest of the daemon
// uses (curve, search bounds, iris table, offsets, their files) only when it completes. What a run
// must change on the way (the focus backlash while it measures, the LC898201's Hall bias, the iris
// mode and position) is noted when it starts and put back when it does not complete: when the
// command channel stops it (the calibration mode is no longer its own), when the lens is re-homed
// under it, when the ISP link is lost, or when it fails. The frame loop reports these through
// calibration_supervise on every iteration.
//
// Main thread only, except iris_correct_step(0), which the command channel calls.
#pragma once

#include <cstdint>

// ---- Curve calibration ----

// One step, after the statistics were fetched in mode 0 (centre sharpness). 1 step done, 2
// calibration finished (mode back to 0), 0 failed (the run ended without changing anything; mode
// back to 0).
int curve_calibrate_step();

// Form of the next run, taken when it starts: 1 full (every zoom step measured, curve file form
// 0xAA44), 0 reference point (zoom step 0 only, form 0xAA55). The command channel sets it from
// "CURVE_OFFSET =" or from the calibration command's variant.
void curve_calibration_set_variant(uint8_t full);
uint8_t curve_calibration_get_variant();

// Focus backlash measurement, the curve calibration's first phase (run 0 resets, 1 steps; it
// works on every second call so that each frame it reads shows the lens at rest after the last
// move). It climbs through the sharpness peak of the target and back down four times; the peak
// positions of the upward and downward passes differ by the play of the gear. Returns 1 once the
// play has been measured (passes 1..3, at most 30 steps), set as the focus backlash and the lens
// re-homed, else 0. The value is saved as "FOCUS_OFFSET =" when the curve calibration completes.
uint8_t focus_backlash_calibrate(uint8_t run);

// 1 when the lens stands at (zoom, focus); otherwise one move of at most 40 steps per channel
// towards it (calibration moves, not held by the ordinary bounds) and 0.
uint8_t lens_goto(uint16_t zoom, uint16_t focus);

// Where the curve calibration stands (telemetry and tests).
struct CurveCalibrationProgress {
    uint8_t active;       // a run is under way
    uint8_t state;        // 0 backlash, 1 wide end, 2 to scan start, 7 and 6 settle, 3 scan,
                          // 4 record, 5 finish
    uint8_t point;        // zoom step being measured (0..208)
    uint16_t scan_start;  // focus window of the current scan
    uint16_t scan_end;
    uint16_t best_focus;  // sharpest position of the current scan so far
    uint32_t best_sharpness;
};
CurveCalibrationProgress curve_calibration_progress();

// ---- Iris correction ----

// run 1: one step (every tenth frame). 0 running, 1 finished with success, 2 failed (the old
// table and offsets stay). run 0: start over at the next step, putting back what an unfinished
// run had changed (the command channel, on its own thread, when it starts a correction).
int iris_correct_step(uint8_t run);

// ---- Interruptions ----

// Called by the frame loop on every iteration (paused iterations aside) before the dispatch.
// frames_arriving: 1 when the ISP link delivered this iteration's frame, 0 when the link is down.
// Ends a run whose calibration mode the command channel has taken away (the mode is left as the
// command set it), or whose lens was re-homed, or whose ISP link was lost (those end the mode),
// and puts back what the run had changed.
void calibration_supervise(uint8_t frames_arriving);

// Back to the power-on state without putting anything back (tests).
void calibration_reset_for_testing();
