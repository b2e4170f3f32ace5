// LC898201 driver against a register-level fake chip: register writes of the moves and set-up,
// homing on the sensor bits including its failure limits, bounded busy waits, iris targets and
// Hall calibration.
#include <gtest/gtest.h>

#include <cstring>

#include "lens_api/lc898201.h"
#include "lens_api/spi_link.h"
#include "platform/sim/virtual_clock.h"
#include "tests/lens_api/fake_devices.h"
#include "tests/support/test_env.h"

namespace {

using lensfake::FakeLcChip;
using lensfake::FakeSpi;
using testsupport::capture_stdout;

uint32_t bits(float f) {
    uint32_t u;
    std::memcpy(&u, &f, 4);
    return u;
}

class Lc898201Test : public ::testing::Test {
  protected:
    void SetUp() override {
        spi_reset_for_testing();
        lc_reset_for_testing();
        platform::select_spi(&spi);
        platform::select_clock(&clock);
        chip.attach(spi);
    }
    void TearDown() override {
        spi_reset_for_testing();
        lc_reset_for_testing();
        platform::select_spi(nullptr);
        platform::select_clock(nullptr);
    }
    // The 8-bit writes in order, as (address, value) pairs.
    std::vector<std::pair<uint16_t, uint32_t>> writes8() const {
        std::vector<std::pair<uint16_t, uint32_t>> out;
        for (const auto& w : chip.writes)
            if (w.width == 8)
                out.emplace_back(w.addr, w.value);
        return out;
    }

    FakeSpi spi;
    FakeLcChip chip;
    platform::VirtualClock clock;
};

using Pairs = std::vector<std::pair<uint16_t, uint32_t>>;

TEST_F(Lc898201Test, ChannelStepWritesDirectionCountThenStart) {
    lc_zoom_step(1, 0);
    EXPECT_TRUE(chip.writes.empty()) << "0 steps write nothing";
    lc_zoom_step(0, 100);
    EXPECT_EQ(writes8(), (Pairs{{0x0102, 0x16}, {0x0106, 0x90}, {0x0107, 0x01}, {0x010E, 1}}));
    chip.writes.clear();
    lc_focus_step(1, 30);
    EXPECT_EQ(writes8(), (Pairs{{0x0142, 0x96}, {0x0146, 60}, {0x0147, 0}, {0x014E, 1}}));
}

TEST_F(Lc898201Test, MoveBothMatchesThePeriods) {
    lc_move_both(1, 10, 0, 30);
    EXPECT_EQ(writes8(), (Pairs{{0x0142, 0x16},
                                {0x0146, 60},
                                {0x0147, 0},  // focus loaded
                                {0x0102, 0x96},
                                {0x0106, 40},
                                {0x0107, 0},     // zoom loaded
                                {0x0103, 0xCC},  // zoom gain
                                {0x0144, 0xE2},
                                {0x0145, 0x04},
                                {0x014E, 1},  // 1250
                                {0x0104, 0x53},
                                {0x0105, 0x07},
                                {0x010E, 1}}));  // 1875
    chip.writes.clear();
    lc_move_both(0, 0, 1, 90);
    EXPECT_EQ(chip.writes_to(0x0144)[0].value, 0x38u);
    EXPECT_EQ(chip.writes_to(0x0145)[0].value, 0x01u);
    EXPECT_TRUE(chip.writes_to(0x010E).empty()) << "the idle zoom channel is left alone";
    chip.writes.clear();
    lc_move_both(0, 0, 1, 60);
    EXPECT_EQ(chip.writes_to(0x0144)[0].value, 0x00u);
    EXPECT_EQ(chip.writes_to(0x0145)[0].value, 0x02u);
    chip.writes.clear();
    lc_move_both(0, 5, 0, 51);  // with zoom, above 50 focus steps
    EXPECT_EQ(chip.writes_to(0x0144)[0].value, 0x38u);
    chip.writes.clear();
    lc_move_both(0, 200, 0, 0);  // beyond the period table: its last entry (18750 / 122)
    EXPECT_EQ(chip.writes_to(0x0104)[0].value, (18750 / 122) & 0xFFu);
}

TEST_F(Lc898201Test, InitRegsWritesTablesServoSequenceAndUnitSettings) {
    LcSettings s = lc_get_settings();
    s.iris_offset = 150;
    s.bias_offset = 80;
    s.zoom_gain = 0xAB;
    s.focus_gain = 0xCD;
    lc_set_settings(s);
    lc_alt_setup();
    const uint64_t t0 = clock.monotonic_us();
    lc_init_regs();
    EXPECT_EQ(clock.monotonic_us() - t0, 5000u) << "5 ms between the first two writes";
    // 8 (A) + 151 (servo) + 18 + 1 (B, gain) + 18 + 1 (C, gain) + 12 (D)
    ASSERT_EQ(chip.writes.size(), 209u);
    EXPECT_EQ(chip.writes[0].addr, 0x0278);
    EXPECT_EQ(chip.writes[1].addr, 0x0278);
    EXPECT_EQ(chip.writes[1].value, 0x0Fu);
    const auto& servo = chip.writes;  // servo entries start at index 8
    EXPECT_EQ(servo[8 + 7].addr, 0x0262);
    EXPECT_EQ(servo[8 + 7].value, 2u) << "S1 with the marker file";
    EXPECT_EQ(servo[8 + 9].addr, 0x0079);
    EXPECT_EQ(servo[8 + 9].value, 150u);
    EXPECT_EQ(servo[8 + 12].value, 80u);
    EXPECT_EQ(servo[8 + 14].addr, 0x0265);
    EXPECT_EQ(servo[8 + 6].width, 32);
    EXPECT_EQ(servo[8 + 6].value, 0xBF800000u);
    EXPECT_EQ(servo[8 + 150].addr, 0x000D);
    EXPECT_EQ(servo[8 + 149].value, 0x3F800000u);
    EXPECT_EQ(chip.writes[8 + 151 + 18].addr, 0x0103);
    EXPECT_EQ(chip.writes[8 + 151 + 18].value, 0xABu);
    EXPECT_EQ(chip.writes[8 + 151 + 19 + 18].value, 0xCDu);
    EXPECT_EQ(chip.writes.back().addr, 0x019B);
}

TEST_F(Lc898201Test, IrisTargetsAreExactFloats) {
    EXPECT_EQ(lc_iris_target_bits(0), bits(-1.0f));
    EXPECT_EQ(lc_iris_target_bits(512), bits(-0.5f));
    EXPECT_EQ(lc_iris_target_bits(1024), 0u);
    EXPECT_EQ(lc_iris_target_bits(2047), bits(0.99951171875f));
    EXPECT_EQ(lc_iris_target_bits(1025), bits(1.5f / 1024.0f));

    lc_iris_drive(3000);
    EXPECT_EQ(lc_iris_value(), 2300);
    EXPECT_EQ(chip.writes_to(0x0314)[0].value, 0x80u);
    EXPECT_EQ(chip.reg32[0x1027], 0x3F7FE000u);
    EXPECT_EQ(chip.writes.back().addr, 0x000D);
    chip.writes.clear();
    lc_iris_drive(0);
    ASSERT_EQ(chip.writes.size(), 1u) << "value 0 only switches the drive off";
    EXPECT_EQ(chip.writes[0].addr, 0x0314);
    EXPECT_EQ(chip.writes[0].value, 0u);
    EXPECT_EQ(lc_iris_value(), 2300);
}

TEST_F(Lc898201Test, ZoomHomingFromBelowFindsTheRisingEdge) {
    chip.reg8[0x01A0] = 0x11;
    chip.zoom_pos = 100;
    EXPECT_EQ(lc_zoom_home(), kHomeOk);
    EXPECT_EQ(chip.zoom_pos, chip.zoom_edge);
    EXPECT_EQ(lc_zoom_travel(), chip.zoom_edge - 100);
}

TEST_F(Lc898201Test, ZoomHomingFromAboveLeavesTheSensorThenApproaches) {
    chip.reg8[0x01A0] = 0x11;
    chip.zoom_pos = 6600;
    EXPECT_EQ(lc_zoom_home(), kHomeOk);
    EXPECT_EQ(chip.zoom_pos, chip.zoom_edge);
    EXPECT_EQ(lc_zoom_travel(), chip.zoom_edge - 6600);
}

TEST_F(Lc898201Test, FocusHomingFromEitherSideEndsAtTheFallingEdge) {
    chip.reg8[0x01A0] = 0x11;
    for (int start : {5000, 2400, 1000, 0}) {
        chip.focus_pos = start;
        EXPECT_EQ(lc_focus_home(), kHomeOk) << start;
        EXPECT_EQ(chip.focus_pos, chip.focus_edge) << start;
        EXPECT_EQ(lc_focus_travel(), chip.focus_edge - start) << start;
    }
}

TEST_F(Lc898201Test, DeadSensorsFailAfterTheirMoveLimits) {
    chip.reg8[0x01A0] = 0x11;
    chip.focus_sensor_dead = true;
    chip.focus_pos = 5000;
    EXPECT_EQ(lc_focus_home(), kHomeFailed);
    EXPECT_EQ(chip.focus_starts, 300);
    chip.zoom_sensor_dead = true;
    EXPECT_EQ(lc_zoom_home(), kHomeFailed);
    EXPECT_EQ(chip.zoom_starts, 500);
}

TEST_F(Lc898201Test, UnpoweredSensorsNeverTrip) {
    chip.zoom_pos = 7000;  // on the sensor, but its supply is off
    EXPECT_EQ(lc_zoom_home(), kHomeFailed);
}

TEST_F(Lc898201Test, StuckBusyIsBoundedReportedAndFailsHoming) {
    chip.reg8[0x01A0] = 0x11;
    chip.zoom_stuck_busy = true;
    chip.zoom_pos = 100;
    uint32_t r = 0;
    const std::string out = capture_stdout([&] { r = lc_zoom_home(); });
    EXPECT_EQ(r, kHomeFailed);
    EXPECT_NE(out.find("zoom channel busy stuck"), std::string::npos) << out;
    EXPECT_EQ(lc_busy_timeouts(), 1u);
    // A move on the stuck channel is dropped; the other channel still moves.
    chip.writes.clear();
    capture_stdout([] { lc_move_both(0, 10, 1, 10); });
    EXPECT_TRUE(chip.writes_to(0x010E).empty());
    EXPECT_EQ(chip.writes_to(0x014E).size(), 1u);
    EXPECT_EQ(lc_busy_timeouts(), 2u);
}

// Hall reading rising with offset and bias: 0.9765625 + (offset - centre) * 0.0005 + bias term.
uint32_t hall_reading(int offset, int bias, int centre) {
    const float r = 0.986f + static_cast<float>(offset - centre) * 0.0006f +
                    static_cast<float>(bias - 64) * 0.005f;
    return bits(r);
}

TEST_F(Lc898201Test, HallCalibrationConvergesFromAboveAndFromBelow) {
    for (int centre : {90, 200}) {
        chip.writes.clear();
        chip.hall = [centre](int off, int bias) { return hall_reading(off, bias, centre); };
        const uint64_t t0 = clock.monotonic_us();
        EXPECT_EQ(lc_hall_calibrate(), 0) << centre;
        EXPECT_GE(clock.monotonic_us() - t0, 1000000u) << "settles 1 s before the first reading";
        const int off = chip.reg8[0x0079];
        const int untrimmed = off - 32;  // bias 64 trims +32
        // The walk stops at the first offset whose reading reaches the top of the window.
        auto reading = [centre](int o) {
            return 0.986f + static_cast<float>(o - centre) * 0.0006f;
        };
        EXPECT_GE(reading(untrimmed), 0.9921875f) << centre;
        EXPECT_LT(reading(untrimmed - 5), 0.9921875f) << centre;
        EXPECT_EQ(chip.reg8[0x000C], 7) << "servo running again";
        EXPECT_EQ(lc_get_iris_offset(), off);
        EXPECT_EQ(lc_get_bias_offset(), 64);
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

TEST_F(Lc898201Test, FilterSwitchPulsesTwice) {
    chip.reg8[0x0240] = 0x40;
    const uint64_t t0 = clock.monotonic_us();
    lc_filter_switch(1);
    EXPECT_EQ(clock.monotonic_us() - t0, 200000u);
    EXPECT_EQ(chip.writes_to(0x0240).size(), 2u);
    EXPECT_EQ(chip.writes_to(0x0240)[0].value, 0x41u);
    EXPECT_EQ(chip.writes_to(0x01B2)[0].value, 0x81u);
    EXPECT_EQ(chip.writes_to(0x01B1).size(), 4u);
    EXPECT_EQ(chip.writes_to(0x01B1).back().value, 0u);
}

}  // namespace
