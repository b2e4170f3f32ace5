// The daemon's lens start-up and moves running unchanged against the virtual camera's MS41908
// and GPIO emulators, through the simulation backend and a real Unix socket, on the virtual
// clock: detection, homing from anywhere, lens_move with mechanical backlash keeping the counts
// equal to the true carriage positions, the iris, and the degraded start-ups.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <ostream>
#include <string>

#include "lens_api/gpio_pins.h"
#include "lens_api/iris.h"
#include "lens_api/lc898201.h"
#include "lens_api/lens_driver.h"
#include "lens_api/lens_ms.h"
#include "lens_api/lens_position.h"
#include "lens_api/spi_link.h"
#include "platform/sim/sim_devices.h"
#include "platform/sim/virtual_clock.h"
#include "sim/hw/hw_server.h"
#include "tests/support/test_env.h"

namespace {

using vcam::LensMechanics;
using vcam::hw::HwConfig;
using vcam::hw::HwServer;

class MsSimE2E : public ::testing::Test {
  protected:
    void start(const std::string& settings, double zoom, double focus) {
        HwConfig cfg;
        std::string err;
        // Moves four times faster than the default unit: every busy poll is a socket round trip.
        ASSERT_TRUE(vcam::hw::hw_config_parse_list(cfg, "chip=ms41908,time_unit_us=0.1", &err))
            << err;
        ASSERT_TRUE(vcam::hw::hw_config_parse_list(cfg, settings, &err)) << err;
        server = std::make_unique<HwServer>(mech, cfg);
        server->power_on(zoom, focus);
        const std::string sock = root.path() + "/hw.sock";
        ASSERT_EQ(server->start(sock), 0);
        ASSERT_EQ(link.connect(sock.c_str()), 0);
        platform::select_clock(&clock);
        platform::select_spi(&spi);
        platform::select_gpio(&gpio);
        reset_modules();
    }
    void TearDown() override {
        reset_modules();
        platform::select_spi(nullptr);
        platform::select_gpio(nullptr);
        platform::select_clock(nullptr);
        link.disconnect();
        if (server)
            server->stop();
    }
    static void reset_modules() {
        spi_reset_for_testing();
        gpio_reset_for_testing();
        lc_reset_for_testing();
        ms_reset_for_testing();
        lens_driver_reset_for_testing();
        lens_position_reset_for_testing();
        iris_reset_for_testing();
    }
    // The lens part of the daemon's start-up, in its order.
    uint8_t daemon_startup() {
        gpio_load_pins();
        gpio_reset_pulse();
        lens_detect_chip();
        return lens_motor_init();
    }
    // Lets the last move finish and brings the emulator up to now.
    vcam::LensTruth settle() {
        clock.sleep_us(200000);
        gpio_read_busy();
        return mech.snapshot();
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

class MsHomingFromAnywhere : public MsSimE2E, public ::testing::WithParamInterface<PowerOn> {};

TEST_P(MsHomingFromAnywhere, EndsOnTheSensorEdges) {
    const PowerOn p = GetParam();
    start("zoom_backlash=1,focus_backlash=2", p.zoom, p.focus);
    uint8_t result = 0xFF;
    const std::string out = testsupport::capture_stdout([&] { result = daemon_startup(); });
    ASSERT_EQ(result, 0) << out;
    EXPECT_NE(out.find("IC is MS41908 "), std::string::npos);
    EXPECT_EQ(lens_get_zoom_pos(), 6378);
    EXPECT_EQ(lens_get_focus_pos(), 2400);
    // The sensor trips within the last single step of the approach.
    const vcam::LensTruth truth = settle();
    EXPECT_GE(truth.zoom, 6378.0);
    EXPECT_LT(truth.zoom, 6379.0);
    EXPECT_LE(truth.focus, 2400.0);
    EXPECT_GT(truth.focus, 2399.0);
    EXPECT_EQ(iris_table_get(0), 960) << "the iris runs on the MS41908 table";
}

INSTANTIATE_TEST_SUITE_P(PowerOnPositions, MsHomingFromAnywhere,
                         ::testing::Values(PowerOn{0, 0}, PowerOn{6624, 6120}, PowerOn{6378, 2400},
                                           PowerOn{3000.5, 4999}, PowerOn{6500, 100},
                                           PowerOn{-250, -250}, PowerOn{6377, 2401}));

struct Backlash {
    int zoom;
    int focus;
};

void PrintTo(const Backlash& b, std::ostream* os) {
    *os << "zoom " << b.zoom << " focus " << b.focus;
}

class MsCountsFollowTheLens : public MsSimE2E, public ::testing::WithParamInterface<Backlash> {};

// With the daemon's backlash equal to the lens's play, every move and reversal lands the true
// carriages exactly on the counts. Focus steps of 80 + 30 on a reversal also exercise the pulse
// periods beyond the driver's table.
TEST_P(MsCountsFollowTheLens, ThroughMovesAndReversals) {
    const Backlash b = GetParam();
    start("zoom_backlash=" + std::to_string(b.zoom) + ",focus_backlash=" + std::to_string(b.focus),
          4000, 4000);
    testsupport::capture_stdout([&] {
        ASSERT_EQ(daemon_startup(), 0);
        lens_set_zoom_backlash(static_cast<uint16_t>(b.zoom));
        lens_set_focus_backlash(static_cast<uint16_t>(b.focus));
    });
    vcam::LensTruth t = settle();
    ASSERT_EQ(t.zoom, 6378.0);
    ASSERT_EQ(t.focus, 2400.0);

    uint32_t seed = 12345;
    auto next = [&seed](uint32_t n) {
        seed = seed * 1103515245u + 12345u;
        return (seed >> 16) % n;
    };
    for (int i = 0; i < 120; ++i) {
        const uint8_t zd = static_cast<uint8_t>(next(4));
        const uint8_t fd = static_cast<uint8_t>(next(4));
        const uint8_t zs = static_cast<uint8_t>(next(3) == 0 ? 0 : next(100));
        const uint8_t fs = static_cast<uint8_t>(next(100));
        lens_move(zd, zs, fd, fs);
        clock.sleep_us(33000);  // one frame
        if (i % 10 == 9) {
            t = settle();
            ASSERT_EQ(t.zoom, lens_get_zoom_pos()) << "after move " << i;
            ASSERT_EQ(t.focus, lens_get_focus_pos()) << "after move " << i;
        }
    }
    server->with_ms([](HwConfig&, vcam::hw::Ms41908Emu* ms, auto&) {
        EXPECT_EQ(ms->lost_pulses(), 0u);
        EXPECT_EQ(ms->strobes_while_busy(), 0u);
    });
}

INSTANTIATE_TEST_SUITE_P(Play, MsCountsFollowTheLens,
                         ::testing::Values(Backlash{1, 2}, Backlash{0, 0}, Backlash{3, 30}));

TEST_F(MsSimE2E, RehomingAfterMovesReturnsToTheSameEdges) {
    start("zoom_backlash=1,focus_backlash=2", 1234, 4321);
    testsupport::capture_stdout([&] { ASSERT_EQ(daemon_startup(), 0); });
    // A zoom-only move leaves the slowest focus period in the chip (twice entry 0): the re-home
    // must cope with it.
    lens_move(0, 80, 1, 80);
    lens_move(0, 80, 0, 0);
    uint8_t r = 0xFF;
    testsupport::capture_stdout([&] { r = lens_motor_rehome(); });
    EXPECT_EQ(r, 0);
    const vcam::LensTruth t = settle();
    EXPECT_EQ(t.zoom, 6378.0);
    EXPECT_EQ(t.focus, 2400.0);
}

TEST_F(MsSimE2E, IrisFollowsTheDrivenValueWithinTheChipsRange) {
    start("", 3000, 3000);
    testsupport::capture_stdout([&] { ASSERT_EQ(daemon_startup(), 0); });
    iris_drive_publish(2300);  // start-up value: limited to 1023 by the driver
    EXPECT_NEAR(settle().iris, 1023.0, 1.0);
    EXPECT_EQ(ms_iris_value(), 1023);
    iris_goto_step(12);
    EXPECT_NEAR(settle().iris, 5.0, 1.0);
    EXPECT_EQ(lens_get_zoom_pos(), 6378);
    EXPECT_EQ(settle().zoom, 6378.0) << "iris strobes move no motor";
}

TEST_F(MsSimE2E, SensorCommandSwitchesTheSupplyOnTheChip) {
    start("", 6400, 3000);
    testsupport::capture_stdout([&] { ASSERT_EQ(daemon_startup(), 0); });
    EXPECT_EQ(gpio_read_home(1), 0) << "supplies off after homing";
    ms_sensor_command(0x20);
    EXPECT_EQ(gpio_read_home(1), 16) << "zoom at 6378 is on its sensor";
    ms_sensor_command(0x30);
    EXPECT_EQ(gpio_read_home(1), 0);
}

struct StartupFault {
    const char* name;
    const char* settings;
    uint8_t expected;
    const char* message;
};

void PrintTo(const StartupFault& f, std::ostream* os) {
    *os << f.settings;
}

class MsStartupFaults : public MsSimE2E, public ::testing::WithParamInterface<StartupFault> {};

TEST_P(MsStartupFaults, GiveTheFailureBitsAndZeroCountsInBoundedTime) {
    start(GetParam().settings, 3000, 3000);
    uint8_t result = 0;
    const uint64_t t0 = clock.monotonic_us();
    const std::string out = testsupport::capture_stdout([&] { result = daemon_startup(); });
    EXPECT_EQ(result, GetParam().expected) << out;
    EXPECT_NE(out.find("IC is MS41908 "), std::string::npos);
    EXPECT_NE(out.find(GetParam().message), std::string::npos) << out;
    EXPECT_EQ(lens_get_zoom_pos(), 0);
    EXPECT_EQ(lens_get_focus_pos(), 0);
    EXPECT_LT(clock.monotonic_us() - t0, 60u * 1000000u);
}

INSTANTIATE_TEST_SUITE_P(
    Scenario, MsStartupFaults,
    ::testing::Values(
        StartupFault{"ZoomSensorDead", "fault.zoom_home=stuck_off", kZoomHomeFailed,
                     "lens_zoom_init_ms[0973] zoom initial fail!"},
        StartupFault{"FocusSensorStuckOn", "fault.focus_home=stuck_on", kFocusHomeFailed,
                     "lens_focus_init_ms[1122] focus initial fail!"},
        StartupFault{"BusyLineStuck", "fault.zoom_busy=stuck", kZoomHomeFailed | kFocusHomeFailed,
                     "busy line stuck (pls reads 1)"},
        StartupFault{"EmptyBus", "chip=none", kZoomHomeFailed | kFocusHomeFailed,
                     "lens_zoom_init_ms[0973] zoom initial fail!"},
        StartupFault{"WrongBusNumber", "spi_bus=1", kZoomHomeFailed | kFocusHomeFailed,
                     "lens_focus_init_ms[1099] focus initial fail!"},
        StartupFault{"NoGpioDevice", "gpio=absent", kZoomHomeFailed | kFocusHomeFailed,
                     "open vhd_gpio failed "}),
    [](const ::testing::TestParamInfo<StartupFault>& i) { return std::string(i.param.name); });

TEST_F(MsSimE2E, TheLc898201StillWinsTheProbeOnItsBus) {
    start("chip=lc898201", 3000, 3000);
    const std::string out = testsupport::capture_stdout([&] { EXPECT_EQ(daemon_startup(), 0); });
    EXPECT_NE(out.find("IC is LC898201 "), std::string::npos);
    EXPECT_EQ(lens_is_ms41908(), 0);
}

}  // namespace
