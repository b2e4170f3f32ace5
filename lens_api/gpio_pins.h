// GPIO lines of the lens board and the pin file.
//
// Besides the SPI bus the lens board wires five signals to processor GPIO lines: the zoom and
// focus photo-interrupters that mark the home positions, the driver chip's frame strobe (vd), its
// busy/pulse output (pls) and its reset input. Which GPIO carries which signal, and the SPI bus of
// the MS41908, come from /data/af_gpio_pin.ini with built-in defaults. The lines are driven through
// the vendor character device /dev/vhd_gpio, one ioctl per pin operation, each taking a pointer to
// one int that holds the pin number (a read returns the level in the same int).
#pragma once

#include <cstdint>

#include "store/ini_value.h"  // ini_get_value, the pin file's lookup
#include "store/lens_data.h"  // kPinFilePath

// Vendor GPIO requests, _IOW('B', 0x65..0x6A, int).
inline constexpr unsigned long kGpioReqResetMid = 0x40044265;  // middle step of the reset pulse
inline constexpr unsigned long kGpioReqOutHigh = 0x40044266;   // reset pulse ends; vd as output
inline constexpr unsigned long kGpioReqVdHigh = 0x40044267;    // drive vd to 1
inline constexpr unsigned long kGpioReqVdLow = 0x40044268;     // drive vd to 0
inline constexpr unsigned long kGpioReqInput = 0x40044269;     // configure an input pin
inline constexpr unsigned long kGpioReqRead = 0x4004426A;      // read a pin's level

inline constexpr const char* kGpioDevicePath = "/dev/vhd_gpio";
// Only this much of the pin file is read.
inline constexpr uint16_t kPinFileMax = 256;

struct GpioPins {
    uint16_t zoom_pi;   // zoom home sensor (input)
    uint16_t focus_pi;  // focus home sensor (input)
    uint16_t vd;        // frame strobe to the driver (output)
    uint16_t pls;       // busy output of the driver (input)
    uint16_t reset;     // driver reset (output)
};

// Reads the pin file (missing file: default pins, bus number unchanged) and opens the GPIO device
// ("open vhd_gpio failed " when it cannot).
void gpio_load_pins();
// Reset pulse on the driver's reset line: 0x66, 100 ms, 0x65, 100 ms, 0x66.
void gpio_reset_pulse();
// MS41908 pin set-up: vd as an output, the two home sensors and pls as inputs.
void gpio_init_ms();
// Drives vd: level below 1 gives 0, else 1. Returns 0.
int gpio_set_vd(int level);
// Home sensor of channel 1 (zoom) or any other channel (focus): 16 when the pin reads exactly 1,
// else 0 (the same bit value as the LC898201's home-sensor bit).
uint8_t gpio_read_home(uint8_t channel);
// Level of pls: 1 while the driver is still pulsing. A failed read leaves the pin number in the
// result, as the device call leaves its argument untouched.
int gpio_read_busy();

// Pin numbers in force.
GpioPins gpio_get_pins();
// Closes the GPIO device and restores the default pins (tests).
void gpio_reset_for_testing();
