// The daemon's lens start-up (pin file, reset pulse, chip table, offsets, homing) and Hall
// calibration running unchanged against the virtual camera's LC898201 and GPIO emulators, through
// the simulation backend and a real Unix socket, on the virtual clock.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <ostream>
#include <string>

#include "lens_api/gpio_pins.h"
#include "lens_api/lc898201.h"
#include "lens_api/lens_driver.h"
#include "lens_api/lens_position.h"
#include "lens_api/spi_link.h"
#include "platform/sim/sim_devices.h"
#include "platform/sim/virtual_clock.h"
#include "sim/hw/hw_server.h"
#include "store/offsets.h"
#include "tests/support/test_env.h"

namespace {

using vcam::LensMechanics;
using vcam::hw::HwConfig;
using vcam::hw::HwServer;

class LensSimE2E : public ::testing::Test {
  protected:
    // Moves run ten times faster than the default pulse unit unless a test says otherwise: the
    // driver's busy polls make one socket round trip each, which is what costs real time here.
    void start(const std::string& settings, double zoom, double focus) {
        HwConfig cfg;
        std::string err;
        ASSERT_TRUE(vcam::hw::hw_config_parse_list(cfg, "time_unit_us=0.02", &err)) << err;
        ASSERT_TRUE(vcam::hw::hw_config_parse_list(cfg, settings, &err)) << err;
        server = std::make_unique<HwServer>(mech, cfg);
        server->power_on(zoom, focus);
        const std::string sock = root.path() + "/hw.sock";
        ASSERT_EQ(server->start(sock), 0);
        ASSERT_EQ(link.connect(sock.c_str()), 0);
        platform::select_clock(&clock);
        platform::select_spi(&spi);
        platform::select_gpio(&gpio);
        spi_reset_for_testing();
        gpio_reset_for_testing();
        lc_reset_for_testing();
    }
    void TearDown() override {
        spi_reset_for_testing();
        gpio_reset_for_testing();
        lc_reset_for_testing();
        platform::select_spi(nullptr);
        platform::select_gpio(nullptr);
        platform::select_clock(nullptr);
        link.disconnect();
        if (server)
            server->stop();
    }
    // The lens part of the daemon's start-up, in its order.
    uint8_t daemon_startup() {
        gpio_load_pins();
        gpio_reset_pulse();
        lens_detect_chip();
        offset_load();
        return lens_motor_init();
    }

    testsupport::SandboxRoot root;
    LensMechanics mech;
    std::unique_ptr<HwServer> server;
    platform::VirtualClock clock;
    platform::SimHwLink link;
    platform::SimSpi spi{link};
    platform::SimGpio gpio{link};
};

struct PowerOn {
    double zoom;
    double focus;
};

void PrintTo(const PowerOn& p, std::ostream* os) {
    *os << "zoom " << p.zoom << " focus " << p.focus;
}

class HomingFromAnywhere : public LensSimE2E, public ::testing::WithParamInterface<PowerOn> {};

TEST_P(HomingFromAnywhere, CountsAgreeWithTheTrueCarriages) {
    const PowerOn p = GetParam();
    start("zoom_backlash=2,focus_backlash=3", p.zoom, p.focus);
    uint8_t result = 0xFF;
    const std::string out = testsupport::capture_stdout([&] { result = daemon_startup(); });
    ASSERT_EQ(result, 0) << out;
    EXPECT_EQ(lens_get_zoom_pos(), 6378);
    EXPECT_EQ(lens_get_focus_pos(), 2400);
    // The sensor trips within the last single step of the approach.
    const vcam::LensTruth truth = mech.snapshot();
    EXPECT_GE(truth.zoom, 6378.0);
    EXPECT_LT(truth.zoom, 6379.0);
    EXPECT_LE(truth.focus, 2400.0);
    EXPECT_GT(truth.focus, 2399.0);
    // The net travel the driver counted is the true carriage travel, up to the backlash taken up
    // on the reversals and the fraction of a step at power-on.
    EXPECT_NEAR(lc_zoom_travel(), 6378.0 - p.zoom, 2.0 + 1.0);
    EXPECT_NEAR(lc_focus_travel(), 2400.0 - p.focus, 2 * 3.0 + 1.0);
    EXPECT_NE(out.find("IC is LC898201 "), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(PowerOnPositions, HomingFromAnywhere,
                         ::testing::Values(PowerOn{0, 0}, PowerOn{6624, 6120}, PowerOn{6378, 2400},
                                           PowerOn{3000.25, 4999.5}, PowerOn{6500, 100},
                                           PowerOn{-250, -250}, PowerOn{6377, 2401}));

TEST_F(LensSimE2E, RehomingAfterMovesReturnsToTheSameEdges) {
    start("zoom_backlash=1,focus_backlash=2,time_unit_us=0.2", 1234, 4321);
    testsupport::capture_stdout([&] { ASSERT_EQ(daemon_startup(), 0); });
    lens_ops().move_both(1, 100, 1, 100);  // zoom down, focus up
    lens_ops().move_both(1, 100, 1, 100);
    clock.sleep_us(100000);
    EXPECT_EQ(lens_motor_rehome(), 0);
    EXPECT_NEAR(mech.snapshot().zoom, 6378.0, 1.0);
    EXPECT_NEAR(mech.snapshot().focus, 2400.0, 1.0);
}

struct HomingFault {
    const char* name;
    const char* settings;
    uint8_t expected;
};

void PrintTo(const HomingFault& f, std::ostream* os) {
    *os << f.settings;
}

class HomingFaults : public LensSimE2E, public ::testing::WithParamInterface<HomingFault> {};

TEST_P(HomingFaults, GiveTheFailureBitsAndZeroCounts) {
    start(GetParam().settings, 3000, 3000);
    uint8_t result = 0;
    const uint64_t t0 = clock.monotonic_us();
    testsupport::capture_stdout([&] { result = daemon_startup(); });
    EXPECT_EQ(result, GetParam().expected);
    EXPECT_EQ(lens_get_zoom_pos(), 0);
    EXPECT_EQ(lens_get_focus_pos(), 0);
    // Every wait is bounded: even a stuck channel ends the start-up within virtual minutes.
    EXPECT_LT(clock.monotonic_us() - t0, 120u * 1000000u);
}

INSTANTIATE_TEST_SUITE_P(
    Scenario, HomingFaults,
    ::testing::Values(
        HomingFault{"ZoomSensorDead", "fault.zoom_home=stuck_off", kZoomHomeFailed},
        HomingFault{"FocusSensorDead", "fault.focus_home=stuck_off", kFocusHomeFailed},
        HomingFault{"BothSensorsStuck", "fault.zoom_home=stuck_on,fault.focus_home=stuck_off",
                    kZoomHomeFailed | kFocusHomeFailed},
        HomingFault{"ZoomBusyStuck", "fault.zoom_busy=stuck", kZoomHomeFailed},
        HomingFault{"FocusBusyStuck", "fault.focus_busy=stuck", kFocusHomeFailed},
        HomingFault{"TransferError", "fault.spi_transfer=error",
                    kZoomHomeFailed | kFocusHomeFailed},
        HomingFault{"FocusBlockedAboveHome", "focus_stop_min=2600", kFocusHomeFailed}),
    [](const ::testing::TestParamInfo<HomingFault>& i) { return std::string(i.param.name); });

TEST_F(LensSimE2E, StuckBusyIsReported) {
    start("fault.zoom_busy=stuck", 3000, 3000);
    const std::string out = testsupport::capture_stdout([&] { daemon_startup(); });
    EXPECT_NE(out.find("zoom channel busy stuck"), std::string::npos);
    EXPECT_GE(lc_busy_timeouts(), 1u);
}

TEST_F(LensSimE2E, HallCalibrationConvergesOnANominalUnit) {
    start("hall_centre=170", 3000, 3000);
    testsupport::capture_stdout([&] { ASSERT_EQ(daemon_startup(), 0); });
    EXPECT_EQ(lc_hall_calibrate(), 0);
    const int offset = lc_get_iris_offset();
    EXPECT_EQ(lc_get_bias_offset(), 64);
    EXPECT_GE(offset, 64 + 32);
    EXPECT_LE(offset, 240);
    // Saved as the frame loop does, and read back at the next start.
    offset_save(kOffsetIris, static_cast<uint8_t>(offset));
    offset_save(kOffsetBias, static_cast<uint8_t>(lc_get_bias_offset()));
    testsupport::capture_stdout([] { offset_load(); });
    EXPECT_EQ(lc_get_settings().iris_offset, offset);
}

TEST_F(LensSimE2E, HallCalibrationFailsWhenTheUnitIsOutOfReach) {
    start("hall_centre=-1000", 3000, 3000);
    testsupport::capture_stdout([&] { ASSERT_EQ(daemon_startup(), 0); });
    EXPECT_EQ(lc_hall_calibrate(), 1);
    EXPECT_EQ(lc_get_bias_offset(), 48);
    server->with_lock(
        [](HwConfig&, vcam::hw::Lc898201Emu* lc, auto&) { lc->config().hall_centre = 1000; });
    EXPECT_EQ(lc_hall_calibrate(), 2);
    EXPECT_EQ(lc_get_bias_offset(), 208);
}

TEST_F(LensSimE2E, ChipOnAnotherBusReadsZeroOnTheProbeRegister) {
    start("spi_bus=2", 3000, 3000);
    EXPECT_EQ(spi_lc_write8(0x0101, 0x82), 3);
    EXPECT_EQ(spi_lc_read8(0x0101), 0) << "spidev4.0 has no LC898201 behind it";
}

}  // namespace
