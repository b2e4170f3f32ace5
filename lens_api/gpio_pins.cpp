#include "lens_api/gpio_pins.h"

#include <fcntl.h>

#include <cstdlib>
#include <cstring>

#include "base/dbgout.h"
#include "lens_api/spi_link.h"
#include "platform/clock.h"
#include "platform/gpio.h"
#include "store/lens_data.h"

namespace {

constexpr GpioPins kDefaultPins = {50, 111, 112, 62, 38};
constexpr uint16_t kDefaultSpiBus = 4;
// Each step of the reset pulse is held this long, enough for the chip's reset filter.
constexpr uint32_t kResetStepUs = 100000;

struct GpioState {
    GpioPins pins = kDefaultPins;
    int fd = -1;
};

GpioState g_gpio;

// One request on one pin. The result is the int handed to the device: untouched by a failed
// request, the level after a successful read.
int gpio_request(unsigned long request, uint16_t pin) {
    int arg = pin;
    platform::gpio().ioctl(g_gpio.fd, request, &arg);
    return arg;
}

}  // namespace

void gpio_load_pins() {
    // One byte more than is read, so the text stays terminated.
    char text[kPinFileMax + 1];
    std::memset(text, 0, sizeof text);
    if (pin_file_read(text, kPinFileMax) == 0) {
        g_gpio.pins.zoom_pi = static_cast<uint16_t>(ini_get_value(text, "zoom1_pi =", 50));
        g_gpio.pins.focus_pi = static_cast<uint16_t>(ini_get_value(text, "focus_pi =", 111));
        g_gpio.pins.vd = static_cast<uint16_t>(ini_get_value(text, "vd =", 112));
        g_gpio.pins.pls = static_cast<uint16_t>(ini_get_value(text, "pls =", 62));
        g_gpio.pins.reset = static_cast<uint16_t>(ini_get_value(text, "reset =", 38));
        spi_set_bus_number(ini_get_value(text, "spi_bus_id =", kDefaultSpiBus));
    } else {
        g_gpio.pins = kDefaultPins;
    }

    if (g_gpio.fd >= 0)
        platform::gpio().close(g_gpio.fd);
    g_gpio.fd = platform::gpio().open(kGpioDevicePath, O_RDWR);
    if (g_gpio.fd < 0)
        dbg_line("open vhd_gpio failed ");
}

void gpio_reset_pulse() {
    gpio_request(kGpioReqOutHigh, g_gpio.pins.reset);
    platform::sleep_us(kResetStepUs);
    gpio_request(kGpioReqResetMid, g_gpio.pins.reset);
    platform::sleep_us(kResetStepUs);
    gpio_request(kGpioReqOutHigh, g_gpio.pins.reset);
}

void gpio_init_ms() {
    dbg_line("init gpio ");
    gpio_request(kGpioReqOutHigh, g_gpio.pins.vd);
    gpio_request(kGpioReqInput, g_gpio.pins.focus_pi);
    gpio_request(kGpioReqInput, g_gpio.pins.zoom_pi);
    gpio_request(kGpioReqInput, g_gpio.pins.pls);
}

int gpio_set_vd(int level) {
    gpio_request(level < 1 ? kGpioReqVdLow : kGpioReqVdHigh, g_gpio.pins.vd);
    return 0;
}

uint8_t gpio_read_home(uint8_t channel) {
    const uint16_t pin = channel == 1 ? g_gpio.pins.zoom_pi : g_gpio.pins.focus_pi;
    return gpio_request(kGpioReqRead, pin) == 1 ? 16 : 0;
}

int gpio_read_busy() {
    return gpio_request(kGpioReqRead, g_gpio.pins.pls);
}

GpioPins gpio_get_pins() {
    return g_gpio.pins;
}

void gpio_reset_for_testing() {
    if (g_gpio.fd >= 0)
        platform::gpio().close(g_gpio.fd);
    g_gpio = GpioState{};
}
