// Settings and flags of the command channel that the modules below it read: the motion and
// calibration modes the frame loop dispatches on, the autofocus mode, the pan/tilt and focus-stop
// notices, the electronic zoom and the window preset.
//
// The command channel's Message_Process thread is the writer of every field here (the frame loop
// and the motion executor also end a motion and clear a focus-stop request; the motion executor
// sets the electronic zoom it reaches; the calibrations end their own calibration mode and, with
// the frame loop's Hall calibration, write their result into the status text). Each field but the
// status text is a single byte, halfword or word written by one thread and read by the other
// without a lock, so the frame loop sees a command on its next iteration. The record lives below
// the lens, tracking and autofocus modules so that they read it without reaching up into the
// command processor, which calls down into all of them.
#pragma once

#include <cstdint>

// Zoom-motion-active flag: 1 while a motion command runs on the frame loop.
uint8_t command_zoom_motion_active();
void command_set_zoom_motion_active(uint8_t on);

// Calibration mode: 0 none, 1 curve calibration, 4 iris correction, 5 hall calibration, 6.
inline constexpr uint8_t kCalibrationCurve = 1;
inline constexpr uint8_t kCalibrationIris = 4;
inline constexpr uint8_t kCalibrationHall = 5;
uint8_t command_calibration_mode();
void command_set_calibration_mode(uint8_t mode);
// A calibration that has run to its end (or failed) sets the mode back to 0 with this, on the
// main thread. Only its own mode is cleared: a command that has meanwhile asked for another
// calibration (or stopped this one) keeps what it asked for.
void command_end_calibration(uint8_t mode);

// Autofocus mode (autofocus_en): 0 off, 1 continuous, 2 once and hold, 3 single search.
uint8_t command_autofocus_mode();
void command_set_autofocus_mode(uint8_t mode);

// Pan/tilt head moving (sub-commands 14 and 15).
uint8_t command_pt_moving();
void command_set_pt_moving(uint8_t on);
// Focus-stop request (sub-command 13): read and cleared by the motion executor.
uint8_t command_focus_stop_request();
void command_set_focus_stop_request();
void command_clear_focus_stop_request();

// ---- Status text ----

// The last calibration message for the control software ("Hall init done!\n", "Iris_Correction
// Done!\n", ...), 128 bytes, zero-filled, answered by read request 10. The command channel owns
// and reads it; the writers are the main thread's calibrations (the frame loop's Hall
// calibration, curve calibration, iris correction). A lock keeps a reader from copying half of a
// message that is being replaced.
inline constexpr unsigned kStatusTextSize = 128;
// Replaces the text: at most 128 bytes of `text` are copied, the rest zero-filled.
void command_set_status_text(const char* text);
// Copies the 128 bytes into out (the command channel's reply).
void command_copy_status_text(char* out);
// The text itself, always terminated. For the writer's own thread and tests: another thread may
// replace it while it is read.
const char* command_status_text();

// ---- Electronic zoom ----

inline constexpr uint16_t kMaxEzoom = 1012;

// Sets the electronic zoom (0..1012) when enabled; a change is announced through the notifier.
void command_set_ezoom(uint32_t value);
uint32_t command_get_ezoom();
// Maximum electronic zoom (0..1012); a lower maximum pulls the current value down with it.
uint16_t command_get_max_ezoom();
void command_set_max_ezoom(uint16_t value);
// Electronic zoom enable (0/1).
uint16_t command_get_ezoom_enable();
void command_set_ezoom_enable(uint16_t on);
// Current and maximum back to 0 without an announcement (the command channel's start-up, which
// announces the 0 itself).
void command_reset_ezoom();
// Called with the new value whenever the electronic zoom changes (the command channel sends its
// "w" 11 notice). nullptr: changes are not announced.
void command_set_ezoom_notifier(void (*notify)(uint16_t value));

// ---- Focus zone preset ----

// Window preset ("region") 0..3 as the control software wrote it; 3 is the inner 3 x 3
// measured over blocks. The focus zone rebuilds its preset windows when it next reads it.
uint8_t get_window_preset();
void set_window_preset(uint8_t preset);
