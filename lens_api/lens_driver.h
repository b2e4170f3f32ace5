// Motor-driver operation table and the start-up homing.
//
// The lens is driven by one of two chips that differ in every register but offer the same motor
// operations. Everything above this layer (position control, zoom tracking, calibration, iris)
// calls the chip through one table, filled once at start-up before any other thread exists and
// read-only afterwards.
//
// Direction conventions, the same for both chips: zoom direction 1 lowers the zoom position and 0
// raises it; focus direction 1 raises the focus position and 0 lowers it. A step count of 0 moves
// nothing.
#pragma once

#include <cstdint>

// Result of zoom_home / focus_home.
inline constexpr uint32_t kHomeOk = 0;
inline constexpr uint32_t kHomeFailed = 0xFFFFFFFF;

// Bits of the lens_motor_init result.
inline constexpr uint8_t kZoomHomeFailed = 0x01;
inline constexpr uint8_t kFocusHomeFailed = 0x02;

// Zoom count assigned when zoom homing succeeds: the home sensor's edge.
inline constexpr uint16_t kZoomHomePosition = 6378;

// The eleven operations, in slot order.
struct LensDriverOps {
    void (*init_regs)();                             // 0: chip set-up
    void (*sensor_power_on)();                       // 1: home-sensor supply on, settles 50 ms
    void (*sensor_power_off)();                      // 2: home-sensor supply off
    uint32_t (*zoom_home)();                         // 3: kHomeOk or kHomeFailed
    uint32_t (*focus_home)();                        // 4: kHomeOk or kHomeFailed
    int32_t (*init_all)();                           // 5: 0, -1 focus failed, -2 zoom failed
    void (*filter_switch)(uint8_t direction);        // 6: timed drive pulse of the filter actuator
    void (*iris_drive)(uint16_t value);              // 7: iris target
    void (*focus_step)(uint8_t dir, uint8_t steps);  // 8
    void (*zoom_step)(uint8_t dir, uint8_t steps);   // 9
    void (*move_both)(uint8_t zoom_dir, uint8_t zoom_steps, uint8_t focus_dir,
                      uint8_t focus_steps);  // 10: both channels with matched speeds
};

// Moves the driver could not start. The chips' start/busy signals are waited for before every move,
// and a wait that gives up (a stuck channel) drops the move. The position counts must only follow
// what the motors were told to do, so move_both reports the channels it dropped here, on the
// calling thread, and lens_move picks the report up right after the call. Bits as below.
inline constexpr uint8_t kMoveZoomDropped = 0x01;
inline constexpr uint8_t kMoveFocusDropped = 0x02;
// Drivers: adds channels to the calling thread's report.
void lens_report_dropped(uint8_t channels);
// Returns the calling thread's report and clears it.
uint8_t lens_take_dropped();

// The table in force.
const LensDriverOps& lens_ops();

// Probes the bus and fills the table: writes 0x82 to LC898201 register 0x0101 and reads it back.
// The value coming back means an LC898201. Anything else (an MS41908, which ignores the other
// chip's frames, an empty bus, a link that does not open) selects the MS41908: the LC898201 link
// is closed, the MS41908's GPIO lines are set up and the iris module takes the MS41908 iris table.
// Prints "IC is MS41908 " or "IC is LC898201 ". Runs once at start-up, before other threads.
void lens_detect_chip();
// 1 when the MS41908 drives the lens.
uint8_t lens_is_ms41908();

// Sets up the chip and homes zoom then focus (a zoom failure does not stop the focus homing).
// Returns the failure bits. On success the counts become zoom 6378 and the focus home position
// and the remembered directions are cleared; on any failure both counts become 0.
uint8_t lens_motor_init();
// The same without the chip set-up (re-homing on request).
uint8_t lens_motor_rehome();
// Homings started since start-up (lens_motor_init and lens_motor_rehome, on any thread). A
// homing resets the position counts, so a calibration that sees this number change knows that
// the positions it was measuring against are gone.
uint32_t lens_homing_count();

// Loads the calibration-offset file and applies it: motor backlash, and the LC898201's Hall
// offset and bias and drive gains. A missing file changes nothing.
void lens_load_offsets();

// Replaces the table (tests that drive the homing logic through a fake chip). nullptr restores
// the table chosen by lens_detect_chip.
void lens_set_ops_for_testing(const LensDriverOps* ops);
// Back to the LC898201 table and chip flag 0 without probing (tests).
void lens_driver_reset_for_testing();
