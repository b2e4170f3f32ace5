// The lens layer above the chip through a recording operation table: start-up homing (order,
// failure bits, the counts it assigns), step counting, bounds and backlash of lens_move, the
// parameter record, and the zoom speed table.
#include <gtest/gtest.h>

#include <array>
#include <fstream>

#include "store/lens_data.h"
#include "tests/lens_api/fake_devices.h"

namespace {

using Motor = std::array<int, 4>;  // zoom dir, zoom steps, focus dir, focus steps
std::vector<Motor> g_moves;
std::string g_log;
uint32_t g_zoomHome = kHomeOk, g_focusHome = kHomeOk;

const LensDriverOps kRecordingOps = {
    [] { g_log += "init "; },
    [] { g_log += "on "; },
    [] { g_log += "off "; },
    []() -> uint32_t {
        g_log += "zoom ";
        return g_zoomHome;
    },
    []() -> uint32_t {
        g_log += "focus ";
        return g_focusHome;
    },
    []() -> int32_t { return 0; },
    [](uint8_t) {},
    [](uint16_t) {},
    [](uint8_t, uint8_t) {},
    [](uint8_t, uint8_t) {},
    [](uint8_t zd, uint8_t zs, uint8_t fd, uint8_t fs) {
        g_moves.push_back({zd, zs, fd, fs});
    },
};

class LensDriverTest : public lensfake::Rig<> {
  protected:
    void SetUp() override {
        Rig::SetUp();
        lens_set_ops_for_testing(&kRecordingOps);
        g_moves.clear();
        g_log.clear();
        g_zoomHome = g_focusHome = kHomeOk;
        for (uint8_t i = 0; i < 100; ++i)
            lens_param_set(i, 0);
        testsupport::capture_stdout([] {
            lens_set_zoom_backlash(3);
            lens_set_focus_backlash(5);
        });
    }
    // One lens_move that is issued: the counts after it and the motor command it gave.
    static void move(uint8_t zd, uint8_t zs, uint8_t fd, uint8_t fs, int zoom, int focus,
                     Motor motor, const char* why) {
        g_moves.clear();
        EXPECT_EQ(lens_move(zd, zs, fd, fs), 0) << why;
        EXPECT_EQ(lens_get_zoom_pos(), zoom) << why;
        EXPECT_EQ(lens_get_focus_pos(), focus) << why;
        EXPECT_EQ(g_moves, std::vector<Motor>{motor}) << why;
    }
};

TEST_F(LensDriverTest, InitSetsUpHomesZoomThenFocusAndAssignsTheHomeCounts) {
    lens_set_positions(123, 456);
    EXPECT_EQ(lens_motor_init(), 0);
    EXPECT_EQ(g_log, "init on zoom focus off ");
    EXPECT_EQ(clock.monotonic_us(), 1000u) << "1 ms settling after the supply";
    EXPECT_EQ(lens_get_zoom_pos(), kZoomHomePosition);
    EXPECT_EQ(lens_get_focus_pos(), lens_get_focus_home());
    // Re-homing skips the set-up and the settling.
    g_log.clear();
    lens_set_positions(123, 456);
    EXPECT_EQ(lens_motor_rehome(), 0);
    EXPECT_EQ(g_log, "on zoom focus off ");
    EXPECT_EQ(clock.monotonic_us(), 1000u);
    EXPECT_EQ(lens_get_zoom_pos(), kZoomHomePosition);
}

TEST_F(LensDriverTest, AnyHomingFailureZeroesBothCountsAndAZoomFailureStillHomesFocus) {
    const struct {
        uint32_t zoom, focus;
        uint8_t bits;
    } cases[] = {
        {kHomeFailed, kHomeOk, kZoomHomeFailed},
        {kHomeOk, kHomeFailed, kFocusHomeFailed},
        {0x1234FFFF, kHomeFailed, kZoomHomeFailed | kFocusHomeFailed},  // low 16 bits count
    };
    for (const auto& c : cases) {
        g_log.clear();
        g_zoomHome = c.zoom;
        g_focusHome = c.focus;
        lens_set_positions(1, 1);
        EXPECT_EQ(lens_motor_init(), c.bits);
        EXPECT_EQ(g_log, "init on zoom focus off ");
        EXPECT_EQ(lens_get_zoom_pos() + lens_get_focus_pos(), 0);
    }
}

// Zoom motor direction 1 lowers the zoom, focus motor direction 1 raises the focus. The counts move
// by the steps asked; the motor also gets the backlash (zoom 3, focus 5) when it reverses.
TEST_F(LensDriverTest, MoveCountsFollowTheStepsAndReversalsAddTheBacklash) {
    lens_set_positions(6378, 2400);
    move(0, 10, 0, 0, 6368, 2400, {1, 13, 0, 0}, "zoom down reverses the zoom motor");
    move(0, 10, 0, 0, 6358, 2400, {1, 10, 0, 0}, "same direction");
    move(1, 10, 1, 20, 6368, 2420, {0, 13, 1, 25}, "both reverse");
    move(9, 0, 0, 20, 6368, 2400, {0, 0, 0, 25}, "an idle channel keeps its direction, any given");
}

TEST_F(LensDriverTest, MoveBoundsShortenMovesToAtMost80StepsAndNeverWrap) {
    lens_set_positions(6600, 6100);
    move(1, 100, 1, 200, 6624, 6120, {0, 24, 1, 25}, "up to the zoom and focus maxima");
    move(0, 0, 2, 200, 6624, 6040, {0, 0, 0, 85}, "direction 2 down towards 0, 80 steps at most");
    ASSERT_EQ(lens_set_zoom_max(6000), 0);
    lens_set_positions(6378, 3000);  // homing leaves the zoom above a lower maximum
    move(1, 50, 0, 0, 6378, 3000, {0, 0, 0, 0}, "no further out of range");
    move(3, 50, 0, 0, 6428, 3000, {0, 50, 0, 0}, "direction 3 up to the travel limit");
    move(0, 50, 0, 0, 6378, 3000, {1, 53, 0, 0}, "back towards the range");
    ASSERT_EQ(lens_set_zoom_min(500), 0);
    lens_set_positions(100, 3);
    move(0, 50, 0, 10, 100, 0, {1, 0, 0, 3}, "below the zoom minimum, down to focus 0");
    move(1, 50, 0, 10, 150, 0, {0, 53, 0, 0}, "back towards the range");

    g_moves.clear();
    EXPECT_EQ(lens_move(0, 0, 0, 0), 1);
    EXPECT_EQ(lens_move(4, 10, 0, 0), 1);
    EXPECT_EQ(lens_move(1, 10, 9, 10), 1) << "one bad direction stops both channels";
    EXPECT_TRUE(g_moves.empty());
    EXPECT_EQ(lens_get_zoom_pos(), 150);
}

TEST_F(LensDriverTest, ZoomBoundsAreCheckedAndStoredWithTheirComplements) {
    EXPECT_EQ(lens_set_zoom_max(6625), 1);
    EXPECT_EQ(lens_get_zoom_max(), 6624);
    EXPECT_EQ(lens_set_zoom_max(6000), 0);
    EXPECT_EQ(lens_set_zoom_min(6001), 1);
    EXPECT_EQ(lens_set_zoom_min(200), 0);
    const int want[][2] = {{8, 6000}, {9, uint16_t(~6000)}, {10, 200}, {11, uint16_t(~200)}};
    for (const auto& w : want)
        EXPECT_EQ(lens_param_get(static_cast<uint8_t>(w[0])), w[1]) << w[0];
}

TEST_F(LensDriverTest, ParameterRecordSetsTheBoundsWhenValidAndPlausible) {
    auto set_pair = [](uint8_t i, uint16_t v) {
        lens_param_set(i, v);
        lens_param_set(static_cast<uint8_t>(i + 1), static_cast<uint16_t>(~v));
    };
    const uint16_t home = lens_get_focus_home(), top = lens_get_focus_max();
    set_pair(0, 2300);
    set_pair(2, 3800);
    set_pair(8, 6500);
    set_pair(10, 120);
    lens_apply_parameters();
    EXPECT_EQ(lens_get_zoom_max(), 6624) << "without the validity mark nothing applies";
    lens_param_set(99, 0x55AA);
    lens_apply_parameters();
    EXPECT_EQ(lens_get_zoom_max(), 6500);
    EXPECT_EQ(lens_get_zoom_min(), 120);
    EXPECT_EQ(lens_get_focus_home(), 2300);
    EXPECT_EQ(lens_get_focus_max(), 6100);
    set_pair(2, 3000);  // focus top 5300: implausible, the defaults come back
    lens_apply_parameters();
    EXPECT_EQ(lens_get_focus_home(), home);
    EXPECT_EQ(lens_get_focus_max(), top);
    set_pair(2, 3800);
    lens_param_set(3, 0);  // broken complement
    lens_apply_parameters();
    EXPECT_EQ(lens_get_focus_max(), top);
}

// Steps per frame grow with the speed and shrink towards the tele end; speed 0 gives the
// fallback and speeds above 8 count as 8. The table for speeds 1..7 is published for the camera's
// control software and must say what the daemon does.
TEST_F(LensDriverTest, ZoomSpeedStepsAndTheirPublishedTable) {
    lens_set_positions(0, 0);
    EXPECT_GT(zoom_speed_steps(1, 0), 0);
    EXPECT_EQ(zoom_speed_steps(0, 9), 9);
    std::ifstream f(root.host("/dev/sm_zoom_speed_info"), std::ios::binary);
    std::string m((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    ASSERT_EQ(m.size(), 133u);
    auto u8 = [&](size_t i) { return static_cast<int>(static_cast<uint8_t>(m[i])); };
    ASSERT_EQ(u8(0), 30);
    ASSERT_EQ(u8(65), 10);
    EXPECT_EQ(u8(84) | (u8(85) << 8), kZoomTravelLimit) << "the last band edge";
    int band_before = 255;
    for (int b = 0; b <= 10; ++b) {
        // At the upper edge of band b; band 10 lies past the last edge.
        const int pos = b < 10 ? u8(66 + 2 * b) | (u8(67 + 2 * b) << 8) : kZoomTravelLimit + 100;
        lens_set_positions(static_cast<uint16_t>(pos), 0);
        int steps = -1;
        for (uint8_t speed = 1; speed <= 8; ++speed) {
            const int s = zoom_speed_steps(speed, 0);
            EXPECT_GE(s, steps) << "speed " << int(speed) << " band " << b;
            steps = s;
            if (speed < 8 && b < 10) {
                EXPECT_EQ(s, u8(1 + 2 * (8 - speed) + b)) << "speed " << int(speed);
            }
        }
        EXPECT_EQ(zoom_speed_steps(200, 0), steps);
        EXPECT_LE(steps, band_before) << "band " << b;
        band_before = steps;
    }
}

// ---- Counts on hardware that does not take the move ---------------------------------------------

// The counts are the only record of where the lens stands: a move the chip driver dropped (its
// busy signal stuck) must leave them, and the remembered motor direction, as they were, so that
// the counts and the motors still agree when the hardware comes back.
class LensMoveStuck : public lensfake::Rig<> {
  protected:
    void SetUp() override {
        Rig::SetUp();
        board.keep_log = false;  // waits of a million polls
        lens_set_positions(3000, 3000);
    }
};

TEST_F(LensMoveStuck, Ms41908DropsTheWholeMoveAndTheCountsStay) {
    lensfake::MsChip chip{board};
    testsupport::capture_stdout([] {
        gpio_load_pins();
        lens_detect_chip();
        ms_init_regs();
    });
    chip.set_zoom(3000);
    chip.focus = 3000;
    chip.busy_stuck = true;
    testsupport::capture_stdout([] { EXPECT_EQ(lens_move(0, 10, 1, 20), kMoveDropped); });
    EXPECT_EQ(lens_get_zoom_pos(), 3000);
    EXPECT_EQ(lens_get_focus_pos(), 3000);
    EXPECT_EQ(chip.strobes, 0u);
    // Back: the same move goes out, still with the backlash of both reversals (1 and 2).
    chip.busy_stuck = false;
    testsupport::capture_stdout([] { EXPECT_EQ(lens_move(0, 10, 1, 20), 0); });
    EXPECT_EQ(lens_get_zoom_pos(), 2990);
    EXPECT_EQ(lens_get_focus_pos(), 3020);
    EXPECT_EQ(chip.zoom(), 3000 - 11);
    EXPECT_EQ(chip.focus, 3000 + 22);
}

TEST_F(LensMoveStuck, Lc898201DropsOnlyTheStuckChannel) {
    lensfake::LcChip chip{board};
    chip.zoom = chip.focus = 3000;
    chip.zoom_stuck_busy = true;
    testsupport::capture_stdout([] { EXPECT_EQ(lens_move(0, 10, 1, 20), kMoveDropped); });
    EXPECT_EQ(lens_get_zoom_pos(), 3000);
    EXPECT_EQ(lens_get_focus_pos(), 3020);
    EXPECT_EQ(chip.zoom, 3000);
    EXPECT_EQ(chip.focus, 3000 + 22);
    chip.zoom_stuck_busy = false;
    testsupport::capture_stdout([] { EXPECT_EQ(lens_move(0, 10, 1, 20), 0); });
    EXPECT_EQ(lens_get_zoom_pos(), 2990);
    EXPECT_EQ(lens_get_focus_pos(), 3040);
    EXPECT_EQ(chip.zoom, 3000 - 11) << "the zoom's reversal still owes its backlash";
    EXPECT_EQ(chip.focus, 3000 + 42);
}

}  // namespace
