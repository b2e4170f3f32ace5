// LC898201 driver against the fake chip: register writes of the moves and set-up, matched move
// periods, the homing's failure limits, bounded busy waits, iris targets and Hall calibration.
// (Homing itself runs against the emulator in tests/simhw.)
#include <gtest/gtest.h>

#include <tuple>

#include "tests/lens_api/fake_devices.h"

namespace {

using testsupport::capture_stdout;
using Pairs = std::vector<std::pair<uint16_t, uint32_t>>;

uint32_t bits(float f) {
    uint32_t u;
    std::memcpy(&u, &f, 4);
    return u;
}

class Lc898201Test : public lensfake::Rig<> {
  protected:
    uint16_t period(uint16_t lo) const { return chip.reg8[lo] | (chip.reg8[lo + 1] << 8); }
    lensfake::LcChip chip{board};
};

TEST_F(Lc898201Test, MoveBothLoadsBothChannelsBeforeStartingEither) {
    LcSettings s = lc_get_settings();
    s.zoom_gain = 0x5A;
    lc_set_settings(s);
    lc_move_both(1, 10, 0, 30);
    std::vector<uint16_t> order;
    for (const auto& w : chip.writes())
        order.push_back(w.first);
    EXPECT_EQ(order, (std::vector<uint16_t>{0x0142, 0x0146, 0x0147, 0x0102, 0x0106, 0x0107, 0x0103,
                                            0x0144, 0x0145, 0x014E, 0x0104, 0x0105, 0x010E}));
    EXPECT_EQ(chip.reg8[0x0103], 0x5A) << "the unit's zoom gain";
    EXPECT_EQ(chip.zoom, -10);
    EXPECT_EQ(chip.focus, -30);
}

// A zoom move lasts the same for any step count (4 pulses a step); with the zoom moving, an even
// focus count up to 50 (2 pulses a step) ends with it. Longer moves take the fastest periods.
TEST_F(Lc898201Test, MoveBothMatchesTheChannelDurations) {
    lc_move_both(0, 1, 0, 0);
    const double zoom_time = 4.0 * period(0x0104);
    for (int z = 1; z <= 122; ++z) {
        lc_move_both(0, static_cast<uint8_t>(z), 0, static_cast<uint8_t>(2 * (z % 26)));
        EXPECT_NEAR(4.0 * z * period(0x0104), zoom_time, 0.01 * zoom_time) << z;
        if (z % 26 != 0) {
            EXPECT_NEAR(4.0 * (z % 26) * period(0x0144), zoom_time, 0.01 * zoom_time) << z;
        }
    }
    const uint16_t zoom_fastest = period(0x0104);
    lc_move_both(0, 200, 0, 0);
    EXPECT_EQ(period(0x0104), zoom_fastest) << "beyond the table";
    // Focus alone: one slow period up to 80 steps, a fast one above; with zoom above 50 steps.
    board.clear();
    lc_move_both(0, 0, 0, 20);
    const uint16_t slow = period(0x0144);
    lc_move_both(0, 0, 0, 80);
    EXPECT_EQ(period(0x0144), slow);
    lc_move_both(0, 0, 0, 81);
    const uint16_t fast = period(0x0144);
    EXPECT_LT(fast, slow);
    lc_move_both(0, 5, 0, 51);
    EXPECT_EQ(period(0x0144), fast);
    EXPECT_EQ(chip.writes(0x010E).size(), 1u) << "an idle zoom channel is never started";
}

TEST_F(Lc898201Test, InitRegsPutsThePerUnitSettingsIntoTheSetUp) {
    lc_set_settings({150, 80, 0xAB, 0xCD, 3, 3});
    lc_alt_setup();  // the marker file's servo settings S1 = S2 = 2
    lc_init_regs();
    EXPECT_EQ(clock.monotonic_us(), 5000u) << "5 ms between the two block-reset writes";
    const Pairs w = chip.writes();
    ASSERT_GE(w.size(), 2u);
    EXPECT_EQ(w[0], (std::pair<uint16_t, uint32_t>{0x0278, 0x00}));
    EXPECT_EQ(w[1], (std::pair<uint16_t, uint32_t>{0x0278, 0x0F}));
    const std::pair<uint16_t, uint8_t> unit[] = {{0x0079, 150},  {0x007C, 80}, {0x0103, 0xAB},
                                                 {0x0143, 0xCD}, {0x0262, 2},  {0x0265, 2}};
    for (const auto& u : unit)
        EXPECT_EQ(chip.reg8[u.first], u.second) << std::hex << u.first;
}

TEST_F(Lc898201Test, IrisTargetsAreExactFloats) {
    EXPECT_EQ(lc_iris_target_bits(0), bits(-1.0f));
    EXPECT_EQ(lc_iris_target_bits(512), bits(-0.5f));
    EXPECT_EQ(lc_iris_target_bits(1024), 0u);
    EXPECT_EQ(lc_iris_target_bits(1025), bits(1.5f / 1024.0f));
    EXPECT_EQ(lc_iris_target_bits(2047), bits(0.99951171875f));
    EXPECT_EQ(lc_iris_target_bits(2300), bits(0.99951171875f));

    lc_iris_drive(3000);
    EXPECT_EQ(iris_get_value(), 2300);
    EXPECT_EQ(chip.writes(), (Pairs{{0x0314, 0x80}, {0x000D, 1}})) << "drive on, then take";
    EXPECT_EQ(chip.reg32[0x1027], bits(0.99951171875f));
    board.clear();
    lc_iris_drive(0);
    EXPECT_EQ(chip.writes(), (Pairs{{0x0314, 0}})) << "value 0 only switches the drive off";
    EXPECT_EQ(iris_get_value(), 2300);
}

TEST_F(Lc898201Test, DeadSensorsFailAfterTheirMoveLimits) {
    chip.reg8[0x01A0] = 0x11;
    chip.focus_sensor_dead = chip.zoom_sensor_dead = true;
    chip.focus = 5000;
    EXPECT_EQ(lc_focus_home(), kHomeFailed);
    EXPECT_EQ(chip.focus_starts, 300);
    EXPECT_EQ(lc_zoom_home(), kHomeFailed);
    EXPECT_EQ(chip.zoom_starts, 500);
}

TEST_F(Lc898201Test, StuckBusyIsBoundedReportedAndFailsHoming) {
    chip.reg8[0x01A0] = 0x11;
    chip.zoom_stuck_busy = true;
    chip.zoom = 100;
    uint32_t r = 0;
    const std::string out = capture_stdout([&] { r = lc_zoom_home(); });
    EXPECT_EQ(r, kHomeFailed);
    EXPECT_NE(out.find("zoom channel busy stuck"), std::string::npos) << out;
    EXPECT_EQ(lc_busy_timeouts(), 1u);
    // A move on the stuck channel is dropped and reported to the position counts; the other
    // channel still moves. Found stuck, the channel's flag is read once per move, and the repeat
    // is counted rather than printed.
    board.clear();
    lens_take_dropped();
    const std::string again = capture_stdout([] { lc_move_both(0, 10, 1, 10); });
    EXPECT_EQ(again, "");
    EXPECT_TRUE(chip.writes(0x010E).empty());
    EXPECT_EQ(chip.writes(0x014E).size(), 1u);
    EXPECT_EQ(lc_busy_timeouts(), 2u);
    EXPECT_EQ(lens_take_dropped(), kMoveZoomDropped);
    int zoom_busy_reads = 0;
    for (const lensfake::Call& c : board.calls(lensfake::Call::kTransfer))
        zoom_busy_reads += c.reads() && c.tx.size() == 3 && c.tx[0] == 0x81 && c.tx[1] == 0x0E;
    EXPECT_EQ(zoom_busy_reads, 1);
    // Idle again: moves go out, and the end of the spell is reported.
    chip.zoom_stuck_busy = false;
    const std::string back = capture_stdout([] { lc_move_both(0, 10, 0, 0); });
    EXPECT_EQ(chip.writes(0x010E).size(), 1u);
    EXPECT_NE(back.find("zoom channel idle again, 2 moves dropped"), std::string::npos) << back;
    EXPECT_EQ(lens_take_dropped(), 0);
}

// The bus fails while a move is loaded: the channel is not started on half-written registers and
// the move is dropped from the counts; a homing step fails at once. The bus comes back: moves go
// out and count again.
TEST_F(Lc898201Test, AMoveTheBusFailedToLoadIsNeitherStartedNorCounted) {
    board.transfer_fails = true;
    lens_take_dropped();
    capture_stdout([] { lc_move_both(0, 10, 1, 10); });
    EXPECT_EQ(lens_take_dropped(), kMoveZoomDropped | kMoveFocusDropped);
    EXPECT_TRUE(chip.writes(0x010E).empty());
    EXPECT_TRUE(chip.writes(0x014E).empty());
    capture_stdout([] { EXPECT_EQ(lc_focus_home(), kHomeFailed); });
    EXPECT_EQ(chip.focus_starts, 0);
    board.transfer_fails = false;
    capture_stdout([] { lc_move_both(0, 10, 1, 10); });
    EXPECT_EQ(lens_take_dropped(), 0);
    EXPECT_EQ(chip.writes(0x010E).size(), 1u);
    EXPECT_EQ(chip.writes(0x014E).size(), 1u);
}

// A unit whose Hall reading rises with the offset (0.0006 a unit) and the bias, centred at
// `centre`.
float reading(int offset, int bias, int centre) {
    return 0.986f + static_cast<float>(offset - centre) * 0.0006f +
           static_cast<float>(bias - 64) * 0.005f;
}

// The walk stops at the first offset (steps of 5) whose reading reaches the top of the window; a
// unit out of the offset's reach at bias 64 moves the bias down one step of 16 (a step of 8 would
// already do for this one). The offset is then centred for the bias (bias 64: +32).
TEST_F(Lc898201Test, HallCalibrationConvergesFromAboveAndFromBelowChangingTheBiasIfNeeded) {
    for (const auto& [centre, bias, trim] : {std::tuple{90, 64, 32}, {200, 64, 32}, {40, 48, 0}}) {
        chip.hall = [centre](int off, int b) { return bits(reading(off, b, centre)); };
        const uint64_t t0 = clock.monotonic_us();
        EXPECT_EQ(lc_hall_calibrate(), 0) << centre;
        EXPECT_GE(clock.monotonic_us() - t0, 1000000u) << "settles 1 s before the first reading";
        EXPECT_EQ(lc_get_bias_offset(), bias) << centre;
        const int walked = chip.reg8[0x0079] - trim;
        EXPECT_GE(reading(walked, bias, centre), 0.9921875f) << centre;
        EXPECT_LT(reading(walked - 5, bias, centre), 0.9921875f) << centre;
        EXPECT_EQ(lc_get_iris_offset(), chip.reg8[0x0079]);
        EXPECT_EQ(chip.reg8[0x000C], 7) << "servo running again";
    }
}

TEST_F(Lc898201Test, HallCalibrationFailsWhenTheBiasRunsOut) {
    chip.hall = [](int, int) { return bits(1.5f); };  // always above the window
    EXPECT_EQ(lc_hall_calibrate(), 1);
    EXPECT_EQ(chip.reg8[0x007C], 48);
    EXPECT_EQ(chip.reg8[0x0079], 64);
    EXPECT_EQ(chip.reg8[0x000C], 7);
    chip.hall = [](int, int) { return bits(-0.5f); };  // negative: counts as 0, below
    EXPECT_EQ(lc_hall_calibrate(), 2);
    EXPECT_EQ(chip.reg8[0x007C], 208);
    EXPECT_EQ(chip.reg8[0x0079], 96);
}

TEST_F(Lc898201Test, FilterSwitchPulsesTwiceKeepingTheOtherEnableBits) {
    chip.reg8[0x0240] = 0x40;
    lc_filter_switch(1);
    EXPECT_EQ(clock.monotonic_us(), 200000u);
    EXPECT_EQ(chip.writes(0x0240), (Pairs{{0x0240, 0x41}, {0x0240, 0x41}}));
    EXPECT_EQ(chip.writes(0x01B2), (Pairs{{0x01B2, 0x81}, {0x01B2, 0x81}}));
    EXPECT_EQ(chip.writes(0x01B1),
              (Pairs{{0x01B1, 0x80}, {0x01B1, 0}, {0x01B1, 0x80}, {0x01B1, 0}}));
}

}  // namespace
