// Chip detection: the probe of LC898201 register 0x0101 decides the driver table, and choosing
// the MS41908 closes the other link, sets up its GPIO lines and hands the iris its table.
#include <gtest/gtest.h>

#include <string>

#include "lens_api/gpio_pins.h"
#include "lens_api/iris.h"
#include "lens_api/lc898201.h"
#include "lens_api/lens_driver.h"
#include "lens_api/lens_ms.h"
#include "lens_api/lens_position.h"
#include "lens_api/spi_link.h"
#include "platform/sim/virtual_clock.h"
#include "tests/lens_api/fake_ms41908.h"
#include "tests/support/test_env.h"

namespace {

using msfake::Event;
using testsupport::capture_stdout;

class ChipDetectTest : public msfake::RigTest<platform::VirtualClock> {
  protected:
    void SetUp() override {
        RigTest::SetUp();
        capture_stdout([] { gpio_load_pins(); });
    }
    std::string detect() {
        return capture_stdout([] { lens_detect_chip(); });
    }
    bool table_is(const LensDriverOps& want) {
        const LensDriverOps& ops = lens_ops();
        return ops.init_regs == want.init_regs && ops.sensor_power_on == want.sensor_power_on &&
               ops.sensor_power_off == want.sensor_power_off && ops.zoom_home == want.zoom_home &&
               ops.focus_home == want.focus_home && ops.init_all == want.init_all &&
               ops.filter_switch == want.filter_switch && ops.iris_drive == want.iris_drive &&
               ops.focus_step == want.focus_step && ops.zoom_step == want.zoom_step &&
               ops.move_both == want.move_both;
    }
};

TEST_F(ChipDetectTest, AnLc898201AnsweringTheProbeKeepsItsTable) {
    chip.lc_present = true;
    const std::string out = detect();
    EXPECT_EQ(out, "IC is LC898201 \n");
    EXPECT_TRUE(table_is(kLc898201Ops));
    EXPECT_EQ(lens_is_ms41908(), 0);
    EXPECT_EQ(spi_lc_info().opened, 1) << "its link stays open for the driver";
    EXPECT_EQ(chip.count(Event::kGpioSetup), 0) << "the MS41908 lines are left alone";
    EXPECT_EQ(iris_table_get(0), 1984);
}

TEST_F(ChipDetectTest, AnMs41908IgnoresTheProbeAndGetsItsTableLinesAndIrisTable) {
    const std::string out = detect();
    EXPECT_EQ(out, "init gpio \nIC is MS41908 \n");
    EXPECT_TRUE(table_is(kMs41908Ops));
    EXPECT_EQ(lens_is_ms41908(), 1);
    // The probe went out in the LC898201's bus mode (one write, one read) and came back 0.
    EXPECT_EQ(chip.count(Event::kLcFrame), 2);
    EXPECT_EQ(spi_lc_info().opened, 0);
    EXPECT_EQ(spi_lc_info().fd, 0);
    // vd as an output, then focus sensor, zoom sensor and pls as inputs.
    std::vector<std::pair<int, int>> setup;
    for (const Event& e : chip.events())
        if (e.kind == Event::kGpioSetup)
            setup.emplace_back(e.value, e.pin);
    EXPECT_EQ(setup,
              (std::vector<std::pair<int, int>>{{0x66, 112}, {0x69, 111}, {0x69, 50}, {0x69, 62}}));
    EXPECT_EQ(iris_table_get(0), 960);
    EXPECT_EQ(iris_table_get(12), 5);

    // From here the MS41908 link talks to the chip in its own mode.
    lens_ops().init_regs();
    EXPECT_EQ(spi_ms_info().mode, 0x0F);
    EXPECT_EQ(chip.reg(0x24), 0x1520);
}

TEST_F(ChipDetectTest, AnEmptyBusRunsTheMs41908PathWhichFailsItsHomingCleanly) {
    chip.spi_open_fails = true;
    const std::string out = detect();
    EXPECT_NE(out.find("Open /dev/spidev4.0 error!"), std::string::npos);
    EXPECT_NE(out.find("IC is MS41908 "), std::string::npos);
    EXPECT_EQ(lens_is_ms41908(), 1);

    // No chip moves and no sensor ever lights: both homings run into their limits.
    uint8_t r = 0;
    const std::string homing = capture_stdout([&] { r = lens_motor_init(); });
    EXPECT_EQ(r, kZoomHomeFailed | kFocusHomeFailed);
    EXPECT_NE(homing.find("lens_zoom_init_ms[0973] zoom initial fail!"), std::string::npos);
    EXPECT_NE(homing.find("lens_focus_init_ms[1099] focus initial fail!"), std::string::npos);
    EXPECT_EQ(lens_get_zoom_pos(), 0);
    EXPECT_EQ(lens_get_focus_pos(), 0);
}

TEST_F(ChipDetectTest, AnMs41908OnAnotherBusIsReachedThroughTheBusNumber) {
    chip.ms_path = "/dev/spidev2.0";
    spi_set_bus_number(2);
    detect();
    ASSERT_EQ(lens_is_ms41908(), 1);
    chip.set_zoom(6000);
    chip.focus_pos = 3000;
    uint8_t r = 0xFF;
    capture_stdout([&] { r = lens_motor_init(); });
    EXPECT_EQ(r, 0);
    EXPECT_EQ(chip.zoom(), 6378);
    EXPECT_EQ(chip.focus_pos, 2400);
}

TEST_F(ChipDetectTest, AWrongBusNumberLeavesTheChipUnreachedAndHomingFails) {
    chip.ms_path = "/dev/spidev2.0";  // the daemon keeps the default bus 4
    detect();
    ASSERT_EQ(lens_is_ms41908(), 1);
    chip.set_zoom(6000);
    uint8_t r = 0;
    capture_stdout([&] { r = lens_motor_init(); });
    EXPECT_EQ(r, kZoomHomeFailed | kFocusHomeFailed);
    EXPECT_TRUE(chip.writes().empty());
    EXPECT_EQ(chip.zoom(), 6000) << "the strobes reach a chip whose registers never changed";
}

}  // namespace
