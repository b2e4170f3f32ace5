#include "lens_api/lens_driver.h"

#include <atomic>

#include "base/dbgout.h"
#include "lens_api/gpio_pins.h"
#include "lens_api/iris.h"
#include "lens_api/lc898201.h"
#include "lens_api/lens_ms.h"
#include "lens_api/lens_position.h"
#include "lens_api/spi_link.h"
#include "platform/clock.h"
#include "store/offsets.h"

namespace {

// Bus probe: a register of the LC898201 that holds what is written to it. On a bus with the
// MS41908 (which ignores frames sent in the other chip's bus mode), with no chip at all, or with
// a link that cannot be opened, the value does not come back (a failed read gives 0).
constexpr uint16_t kProbeRegister = 0x0101;
constexpr uint8_t kProbeValue = 0x82;

// Settling time between the sensor supply and the first sensor read, on top of the supply's own.
constexpr uint32_t kSensorSettleUs = 1000;

struct DriverState {
    LensDriverOps ops = kLc898201Ops;
    const LensDriverOps* override_ops = nullptr;
    uint8_t is_ms41908 = 0;
};

DriverState g_driver;

// Counted when a homing starts: from then on the counts no longer mean what they meant.
std::atomic<uint32_t> g_homings{0};

// Per thread: moves run on the main thread, homing and iris drives also on the command thread,
// and one thread's drop must not be charged to the other's move.
thread_local uint8_t t_dropped = 0;

uint8_t home_both() {
    const LensDriverOps& ops = lens_ops();
    uint8_t result = 0;
    if ((ops.zoom_home() & 0xFFFF) == 0xFFFF)
        result |= kZoomHomeFailed;
    if ((ops.focus_home() & 0xFFFF) == 0xFFFF)
        result |= kFocusHomeFailed;
    ops.sensor_power_off();

    if (result != 0) {
        lens_set_positions(0, 0);
    } else {
        lens_set_positions(kZoomHomePosition, lens_get_focus_home());
        lens_clear_directions();
    }
    return result;
}

}  // namespace

void lens_report_dropped(uint8_t channels) {
    t_dropped = static_cast<uint8_t>(t_dropped | channels);
}

uint8_t lens_take_dropped() {
    const uint8_t d = t_dropped;
    t_dropped = 0;
    return d;
}

const LensDriverOps& lens_ops() {
    return g_driver.override_ops != nullptr ? *g_driver.override_ops : g_driver.ops;
}

void lens_detect_chip() {
    g_driver.ops = kLc898201Ops;
    g_driver.is_ms41908 = 0;
    spi_lc_write8(kProbeRegister, kProbeValue);
    if (spi_lc_read8(kProbeRegister) != kProbeValue) {
        // From here on only the MS41908 link talks on the bus.
        spi_lc_close();
        gpio_init_ms();
        g_driver.ops = kMs41908Ops;
        g_driver.is_ms41908 = 1;
    }
    dbg_line(g_driver.is_ms41908 ? "IC is MS41908 " : "IC is LC898201 ");
    if (g_driver.is_ms41908)
        iris_use_ms41908_table();
}

uint8_t lens_is_ms41908() {
    return g_driver.is_ms41908;
}

uint8_t lens_motor_init() {
    g_homings.fetch_add(1);
    const LensDriverOps& ops = lens_ops();
    ops.init_regs();
    ops.sensor_power_on();
    platform::sleep_us(kSensorSettleUs);
    return home_both();
}

uint8_t lens_motor_rehome() {
    g_homings.fetch_add(1);
    lens_ops().sensor_power_on();
    return home_both();
}

uint32_t lens_homing_count() {
    return g_homings.load();
}

void lens_set_ops_for_testing(const LensDriverOps* ops) {
    g_driver.override_ops = ops;
}

void lens_load_offsets() {
    if (offset_load() != 0)
        return;
    const OffsetValues& v = offset_values();
    lens_set_focus_backlash(v.focus_backlash);
    lens_set_zoom_backlash(v.zoom_backlash);
    LcSettings lc = lc_get_settings();
    lc.iris_offset = v.iris_offset;
    lc.bias_offset = v.bias_offset;
    lc.zoom_gain = v.zoom_gain;
    lc.focus_gain = v.focus_gain;
    lc_set_settings(lc);
}

void lens_driver_reset_for_testing() {
    g_driver = DriverState{};
}
