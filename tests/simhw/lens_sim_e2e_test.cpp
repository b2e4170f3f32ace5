// The daemon's lens start-up (pin file, reset pulse, detection, offsets, homing) and its moves
// running unchanged against the virtual camera's chip and GPIO emulators, through the simulation
// backend and a real Unix socket, on the virtual clock, with either chip.
#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <tuple>

#include "lens_api/lens_driver.h"
#include "lens_api/spi_link.h"
#include "platform/sim/sim_devices.h"
#include "sim/hw/hw_server.h"
#include "store/offsets.h"
#include "tests/lens_api/fake_devices.h"

namespace {

using vcam::hw::HwConfig;
using vcam::hw::HwServer;

// The lens fixture's clock, sandbox and module resets, with the simulation backends in place of
// the fake board.
class LensSimE2E : public lensfake::Rig<> {
  protected:
    // The driver's busy polls make one socket round trip each, which is what costs real time
    // here: moves run faster than the chips' default pulse units.
    void start(const std::string& chip, const std::string& settings, double zoom, double focus) {
        HwConfig cfg;
        std::string err;
        const std::string unit = chip == "ms41908" ? "0.1" : "0.02";
        ASSERT_TRUE(
            vcam::hw::hw_config_parse_list(cfg, "chip=" + chip + ",time_unit_us=" + unit, &err));
        ASSERT_TRUE(vcam::hw::hw_config_parse_list(cfg, settings, &err)) << err;
        server = std::make_unique<HwServer>(mech, cfg);
        server->power_on(zoom, focus);
        const std::string sock = root.path() + "/hw.sock";
        ASSERT_EQ(server->start(sock), 0);
        ASSERT_EQ(link.connect(sock.c_str()), 0);
        platform::select_spi(&spi);
        platform::select_gpio(&gpio);
    }
    void TearDown() override {
        Rig::TearDown();
        link.disconnect();
        if (server)
            server->stop();
    }
    // The lens part of the daemon's start-up, in its order.
    std::string daemon_startup(uint8_t* result) {
        return testsupport::capture_stdout([&] {
            gpio_load_pins();
            gpio_reset_pulse();
            lens_detect_chip();
            lens_load_offsets();
            *result = lens_motor_init();
        });
    }
    // Lets the last move finish and brings the emulator up to now.
    vcam::LensTruth settle() {
        clock.sleep_us(200000);
        gpio_read_busy();
        return mech.snapshot();
    }
    // Homing ends where the sensors trip, within the last single step of the approach.
    void expect_on_the_home_edges() {
        const vcam::LensTruth t = settle();
        EXPECT_GE(t.zoom, 6378.0);
        EXPECT_LT(t.zoom, 6379.0);
        EXPECT_LE(t.focus, 2400.0);
        EXPECT_GT(t.focus, 2399.0);
    }
    // The emulator saw no pulse lost against an end stop and no move restarted while running.
    void expect_clean_moves() {
        server->with_lock([](HwConfig&, vcam::hw::Lc898201Emu* lc, auto&) {
            EXPECT_TRUE(lc == nullptr ||
                        (lc->lost_pulses() == 0 && lc->restarts_while_busy() == 0));
        });
        server->with_ms([](HwConfig&, vcam::hw::Ms41908Emu* ms, auto&) {
            EXPECT_TRUE(ms == nullptr || (ms->lost_pulses() == 0 && ms->strobes_while_busy() == 0));
        });
    }

    vcam::LensMechanics mech;
    std::unique_ptr<HwServer> server;
    platform::SimHwLink link;
    platform::SimSpi spi{link};
    platform::SimGpio gpio{link};
};

const auto kChips = ::testing::Values(std::string("lc898201"), std::string("ms41908"));

class LensSimHoming
    : public LensSimE2E,
      public ::testing::WithParamInterface<std::tuple<std::string, std::pair<double, double>>> {};

TEST_P(LensSimHoming, FromAnyPowerOnPositionEndsOnTheSensorEdges) {
    const auto& [chip, at] = GetParam();
    start(chip, "zoom_backlash=2,focus_backlash=3", at.first, at.second);
    uint8_t result = 0xFF;
    const std::string out = daemon_startup(&result);
    ASSERT_EQ(result, 0) << out;
    EXPECT_NE(out.find(chip == "ms41908" ? "IC is MS41908 " : "IC is LC898201 "),
              std::string::npos);
    EXPECT_EQ(lens_get_zoom_pos(), 6378);
    EXPECT_EQ(lens_get_focus_pos(), 2400);
    expect_on_the_home_edges();
    if (chip == "lc898201") {
        // The net travel the driver counted is the true one, up to the play taken up on the
        // reversals and the fraction of a step at power-on.
        EXPECT_NEAR(lc_zoom_travel(), 6378.0 - at.first, 2.0 + 1.0);
        EXPECT_NEAR(lc_focus_travel(), 2400.0 - at.second, 2 * 3.0 + 1.0);
    }
}

INSTANTIATE_TEST_SUITE_P(PowerOn, LensSimHoming,
                         ::testing::Combine(kChips,
                                            ::testing::Values(std::make_pair(0.0, 0.0),
                                                              std::make_pair(6624.0, 6120.0),
                                                              std::make_pair(6378.0, 2400.0),
                                                              std::make_pair(3000.25, 4999.5),
                                                              std::make_pair(6500.0, 100.0),
                                                              std::make_pair(-250.0, -250.0),
                                                              std::make_pair(6377.0, 2401.0))));

class LensSimMoves
    : public LensSimE2E,
      public ::testing::WithParamInterface<std::tuple<std::string, std::pair<int, int>>> {};

// With the daemon's backlash equal to the lens's play, every move and reversal lands the true
// carriages exactly on the counts, also after a re-homing, which finds the same edges. Focus steps
// of 80 plus a large backlash also exercise the pulse periods beyond the drivers' tables.
TEST_P(LensSimMoves, CountsFollowTheLensThroughMovesAndReversals) {
    const auto& [chip, play] = GetParam();
    start(chip,
          "zoom_backlash=" + std::to_string(play.first) +
              ",focus_backlash=" + std::to_string(play.second),
          4000, 4000);
    uint8_t result = 0xFF;
    daemon_startup(&result);
    ASSERT_EQ(result, 0);
    testsupport::capture_stdout([&] {
        lens_set_zoom_backlash(static_cast<uint16_t>(play.first));
        lens_set_focus_backlash(static_cast<uint16_t>(play.second));
    });
    uint32_t seed = 12345;
    auto next = [&seed](uint32_t n) {
        seed = seed * 1103515245u + 12345u;
        return static_cast<uint8_t>((seed >> 16) % n);
    };
    for (int i = 0; i < 120; ++i) {
        const uint8_t zd = next(4), fd = next(4);
        const uint8_t zs = next(3) == 0 ? 0 : next(100);
        lens_move(zd, zs, fd, next(100));
        clock.sleep_us(33000);  // one frame
        if (i % 10 == 9) {
            const vcam::LensTruth t = settle();
            ASSERT_EQ(t.zoom, lens_get_zoom_pos()) << "after move " << i;
            ASSERT_EQ(t.focus, lens_get_focus_pos()) << "after move " << i;
        }
    }
    expect_clean_moves();
    // A zoom-only move leaves the MS41908 the slowest focus period: the re-home copes with it.
    lens_move(0, 80, 0, 0);
    testsupport::capture_stdout([&] { result = lens_motor_rehome(); });
    EXPECT_EQ(result, 0);
    expect_on_the_home_edges();
    // Homing leaves both motors last turned in direction 0: the next reversals carry the play.
    lens_move(1, 40, 1, 40);
    const vcam::LensTruth t = settle();
    EXPECT_EQ(t.zoom, lens_get_zoom_pos());
    EXPECT_EQ(t.focus, lens_get_focus_pos());
}

INSTANTIATE_TEST_SUITE_P(Play, LensSimMoves,
                         ::testing::Combine(kChips, ::testing::Values(std::make_pair(1, 2),
                                                                      std::make_pair(0, 0),
                                                                      std::make_pair(3, 30))));

struct StartupFault {
    const char* name;
    const char* chip;
    const char* settings;
    uint8_t expected;
    const char* message;
};

class LensSimFaults : public LensSimE2E, public ::testing::WithParamInterface<StartupFault> {};

TEST_P(LensSimFaults, GiveTheFailureBitsAndZeroCountsInBoundedTime) {
    const StartupFault& f = GetParam();
    start(f.chip, f.settings, 3000, 3000);
    uint8_t result = 0;
    const std::string out = daemon_startup(&result);
    EXPECT_EQ(result, f.expected) << out;
    EXPECT_NE(out.find(f.message), std::string::npos) << out;
    EXPECT_EQ(lens_get_zoom_pos(), 0);
    EXPECT_EQ(lens_get_focus_pos(), 0);
    // Every wait is bounded: even a stuck channel ends the start-up within virtual minutes.
    EXPECT_LT(clock.monotonic_us(), 120u * 1000000u);
}

constexpr uint8_t kBoth = kZoomHomeFailed | kFocusHomeFailed;

INSTANTIATE_TEST_SUITE_P(
    Scenario, LensSimFaults,
    ::testing::Values(
        StartupFault{"LcBothSensorsStuck", "lc898201",
                     "fault.zoom_home=stuck_on,fault.focus_home=stuck_off", kBoth,
                     "IC is LC898201"},
        StartupFault{"LcZoomBusyStuck", "lc898201", "fault.zoom_busy=stuck", kZoomHomeFailed,
                     "zoom channel busy stuck"},
        StartupFault{"LcFocusBusyStuck", "lc898201", "fault.focus_busy=stuck", kFocusHomeFailed,
                     "focus channel busy stuck"},
        StartupFault{"LcFocusBlockedAboveHome", "lc898201", "focus_stop_min=2600", kFocusHomeFailed,
                     "IC is LC898201"},
        StartupFault{"LcTransferError", "lc898201", "fault.spi_transfer=error", kBoth,
                     "IC is MS41908"},
        StartupFault{"LcOnAnotherBus", "lc898201", "spi_bus=2", kBoth, "IC is MS41908"},
        StartupFault{"MsFocusSensorStuckOn", "ms41908", "fault.focus_home=stuck_on",
                     kFocusHomeFailed, "lens_focus_init_ms[1122] focus initial fail!"},
        StartupFault{"MsBusyLineStuck", "ms41908", "fault.zoom_busy=stuck", kBoth,
                     "busy line stuck (pls reads 1)"},
        StartupFault{"MsEmptyBus", "none", "", kBoth, "lens_zoom_init_ms[0973] zoom initial fail!"},
        StartupFault{"MsWrongBusNumber", "ms41908", "spi_bus=1", kBoth,
                     "lens_focus_init_ms[1099] focus initial fail!"},
        StartupFault{"MsNoGpioDevice", "ms41908", "gpio=absent", kBoth, "open vhd_gpio failed "}),
    [](const ::testing::TestParamInfo<StartupFault>& i) { return std::string(i.param.name); });

// With no lens hardware at all (no SPI device, no GPIO device) the start-up fails, and from then
// on every frame still asks for an iris drive (the degraded loop runs the automatic iris on every
// frame) and may ask for a move. Each must be dropped at once, not after polling the dead busy
// line for the whole bound, and the log must get the first failure and then a count every few
// seconds, not a line per frame.
TEST_F(LensSimE2E, WithoutLensHardwareEachFrameDropsAtOnceAndTheLogGetsARepeatCount) {
    start("none", "gpio=absent,fault.spi_open=error", 3000, 3000);
    uint8_t result = 0;
    daemon_startup(&result);
    ASSERT_EQ(result, kBoth);
    iris_publish_init();
    constexpr int kFrames = 900;  // 30 s at 30 frames/s
    const uint64_t requests0 = server->requests();
    int frames = 0;
    const std::string out = testsupport::capture_stdout([&] {
        // One busy-line read for the iris drive, one for the move: a frame that polls more is
        // polling a dead line, and the run stops there.
        for (; frames < kFrames && server->requests() - requests0 <= 2u * frames; ++frames) {
            iris_drive_publish(static_cast<uint16_t>(400 + frames % 100));
            lens_move(1, 10, 1, 10);
            clock.sleep_us(33333);
        }
    });
    EXPECT_EQ(frames, kFrames) << "hardware requests: " << server->requests() - requests0;
    int lines = 0, counts = 0;
    std::istringstream text(out);
    for (std::string line; std::getline(text, line); ++lines)
        counts += line.find("more since the last report") != std::string::npos;
    EXPECT_GE(counts, 1) << out;
    EXPECT_LE(lines, 1 + kFrames / 150 + 1) << "one line per 5 s, not per frame\n" << out;
    EXPECT_EQ(lens_get_zoom_pos(), 0) << "nothing moved";
    EXPECT_EQ(iris_get_value(), 0);
}

// A driver polling the LC898201's busy register leaves the loop at the virtual time the pulse
// train ends, in a handful of polls rather than one round trip per 10 us; reads that do not
// repeat the one before (another register between them, or a fault holding the flag) are
// charged one call each.
TEST_F(LensSimE2E, ABusyPollJumpsToTheEndOfThePulseTrainOtherReadsCostOneCall) {
    start("lc898201", "time_unit_us=0.2", 3000, 3000);
    ASSERT_EQ(spi_lc_open(), 0);
    auto start_zoom = [&](uint16_t pulses, uint16_t period) {
        spi_lc_write8(0x0102, 0x00);  // direction
        spi_lc_write8(0x0104, static_cast<uint8_t>(period & 0xFF));
        spi_lc_write8(0x0105, static_cast<uint8_t>(period >> 8));
        spi_lc_write8(0x0106, static_cast<uint8_t>(pulses & 0xFF));
        spi_lc_write8(0x0107, static_cast<uint8_t>(pulses >> 8));
        spi_lc_write8(0x010E, 1);
    };
    // 4000 pulses of 1000 x 0.2 us: busy for 800 ms from the start write.
    start_zoom(4000, 1000);
    const uint64_t started = clock.monotonic_us() - platform::kSimCallCostUs;
    const uint64_t requests0 = server->requests();
    int polls = 0;
    while (spi_lc_read8(0x010E) == 1 && polls < 100000)
        ++polls;
    const uint64_t left = clock.monotonic_us();
    EXPECT_GE(left, started + 800000);
    EXPECT_LE(left, started + 800000 + 2 * platform::kSimCallCostUs);
    EXPECT_LE(server->requests() - requests0, 800000 / platform::kSimPollJumpUs + 3);

    // Not a poll: the busy read alternates with a sensor read.
    start_zoom(4000, 1000);
    uint64_t t = clock.monotonic_us();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(spi_lc_read8(0x010E), 1);
        spi_lc_read8(0x014C);
    }
    EXPECT_EQ(clock.monotonic_us() - t, 6 * platform::kSimCallCostUs);

    // A stuck busy flag promises nothing: every poll is one call.
    server->with_lock(
        [](HwConfig&, vcam::hw::Lc898201Emu* lc, auto&) { lc->config().zoom_busy_stuck = true; });
    t = clock.monotonic_us();
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(spi_lc_read8(0x010E), 1);
    EXPECT_EQ(clock.monotonic_us() - t, 5 * platform::kSimCallCostUs);
}

}  // namespace
