// Step counting, bounds and backlash of lens_move, the parameter record, and the zoom speed table.
#include "lens_api/lens_position.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "lens_api/lens_driver.h"
#include "store/lens_data.h"
#include "tests/support/test_env.h"

namespace {

struct MoveCall {
    uint8_t zd, zs, fd, fs;
    bool operator==(const MoveCall& o) const {
        return zd == o.zd && zs == o.zs && fd == o.fd && fs == o.fs;
    }
};
std::vector<MoveCall> g_moves;

void record_move(uint8_t zd, uint8_t zs, uint8_t fd, uint8_t fs) {
    g_moves.push_back({zd, zs, fd, fs});
}

LensDriverOps make_ops() {
    LensDriverOps ops = lens_ops();
    ops.move_both = record_move;
    return ops;
}

class LensMoveTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ops_ = make_ops();
        lens_set_ops_for_testing(&ops_);
        lens_position_reset_for_testing();
        g_moves.clear();
        for (uint8_t i = 0; i < 100; ++i)
            lens_param_set(i, 0);
    }
    void TearDown() override {
        lens_set_ops_for_testing(nullptr);
        lens_position_reset_for_testing();
    }
    MoveCall last() const { return g_moves.back(); }

    LensDriverOps ops_{};
    testsupport::SandboxRoot root_;
};

TEST_F(LensMoveTest, ZoomReversalAddsBacklashOnce) {
    lens_set_positions(6378, 2400);
    EXPECT_EQ(lens_move(0, 10, 0, 0), 0);
    EXPECT_EQ(lens_get_zoom_pos(), 6368);
    EXPECT_EQ(last().zd, 1) << "the zoom motor's direction 1 lowers the position";
    EXPECT_EQ(last().zs, 11) << "reversal from direction 0 adds the zoom backlash of 1";
    lens_move(0, 10, 0, 0);
    EXPECT_EQ(last().zs, 10) << "same direction: no backlash";
    EXPECT_EQ(lens_get_zoom_pos(), 6358);
    lens_move(1, 10, 0, 0);
    EXPECT_EQ(last().zd, 0);
    EXPECT_EQ(last().zs, 11);
    EXPECT_EQ(lens_get_zoom_pos(), 6368) << "the count moves by the asked steps only";
}

TEST_F(LensMoveTest, BoundsShortenMovesSilently) {
    lens_set_positions(6600, 3000);
    lens_move(1, 100, 0, 0);
    EXPECT_EQ(lens_get_zoom_pos(), 6624);
    EXPECT_EQ(last().zs, 24);
    ASSERT_EQ(lens_set_zoom_max(6000), 0);
    lens_set_positions(6600, 3000);
    lens_move(3, 50, 0, 0);
    EXPECT_EQ(lens_get_zoom_pos(), 6624) << "direction 3 reaches past the zoom maximum";
    EXPECT_EQ(last().zs, 24);

    lens_set_positions(100, 6100);
    lens_move(0, 0, 1, 200);
    EXPECT_EQ(lens_get_focus_pos(), 6120);
    EXPECT_EQ(last().fs, 22) << "20 steps to the focus maximum, reversing from direction 0";
    lens_move(0, 0, 2, 200);
    EXPECT_EQ(lens_get_focus_pos(), 6120 - 80) << "at most 80 steps";
    EXPECT_EQ(last().fs, 82) << "plus the focus backlash of 2 on reversal";
}

TEST_F(LensMoveTest, MoveReducedToZeroStillCallsTheDriver) {
    lens_set_positions(0, 0);
    EXPECT_EQ(lens_move(0, 5, 0, 0), 0);
    ASSERT_EQ(g_moves.size(), 1u);
    EXPECT_EQ(last().zs, 0);
    EXPECT_EQ(lens_get_zoom_pos(), 0);
}

TEST_F(LensMoveTest, NothingToDoOrUnknownDirection) {
    lens_set_positions(3000, 3000);
    EXPECT_EQ(lens_move(0, 0, 0, 0), 1);
    EXPECT_EQ(lens_move(4, 10, 0, 0), 1);
    EXPECT_EQ(lens_move(0, 0, 7, 10), 1);
    EXPECT_EQ(lens_move(1, 10, 9, 10), 1) << "one bad channel stops both";
    EXPECT_TRUE(g_moves.empty());
    EXPECT_EQ(lens_get_zoom_pos(), 3000);
    EXPECT_EQ(lens_move(9, 0, 1, 10), 0) << "a channel without steps may have any direction";
}

TEST_F(LensMoveTest, IdleChannelKeepsItsLastDirection) {
    lens_set_positions(3000, 3000);
    lens_move(0, 10, 0, 0);  // zoom motor direction 1
    lens_move(0, 0, 1, 10);
    EXPECT_EQ(last().zd, 1);
    EXPECT_EQ(last().zs, 0);
}

TEST_F(LensMoveTest, PositionOutsideConfiguredBoundsNeverWraps) {
    // A zoom maximum below the homing position: homing leaves the count at 6378.
    ASSERT_EQ(lens_set_zoom_max(6000), 0);
    lens_set_positions(6378, 3000);
    lens_move(1, 50, 0, 0);
    EXPECT_EQ(lens_get_zoom_pos(), 6378) << "no further out of range";
    EXPECT_EQ(last().zs, 0);
    lens_move(0, 50, 0, 0);
    EXPECT_EQ(lens_get_zoom_pos(), 6328) << "back towards the range";
    ASSERT_EQ(lens_set_zoom_min(500), 0);
    lens_set_positions(100, 3000);
    lens_move(0, 50, 0, 0);
    EXPECT_EQ(lens_get_zoom_pos(), 100);
    lens_move(1, 50, 0, 0);
    EXPECT_EQ(lens_get_zoom_pos(), 150);
}

TEST_F(LensMoveTest, ZoomBoundSettersRefuseOutOfRange) {
    EXPECT_EQ(lens_set_zoom_max(6625), 1);
    EXPECT_EQ(lens_get_zoom_max(), 6624);
    EXPECT_EQ(lens_set_zoom_max(6000), 0);
    EXPECT_EQ(lens_param_get(8), 6000);
    EXPECT_EQ(lens_param_get(9), static_cast<uint16_t>(~6000));
    EXPECT_EQ(lens_set_zoom_min(6001), 1);
    EXPECT_EQ(lens_set_zoom_min(200), 0);
    EXPECT_EQ(lens_param_get(10), 200);
}

TEST_F(LensMoveTest, ParameterRecordSetsTheBounds) {
    auto set_pair = [](uint8_t i, uint16_t v) {
        lens_param_set(i, v);
        lens_param_set(static_cast<uint8_t>(i + 1), static_cast<uint16_t>(~v));
    };
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

    set_pair(0, 2000);
    set_pair(2, 3000);  // sum 5000: implausible
    lens_apply_parameters();
    EXPECT_EQ(lens_get_focus_home(), 2400);
    EXPECT_EQ(lens_get_focus_max(), 6120);

    set_pair(0, 2300);
    lens_param_set(3, 0);  // broken complement
    lens_apply_parameters();
    EXPECT_EQ(lens_get_focus_max(), 6120);
}

TEST_F(LensMoveTest, ZoomSpeedTableAndItsPublication) {
    lens_set_positions(3000, 0);
    EXPECT_EQ(zoom_speed_steps(8, 0), 65);
    EXPECT_EQ(zoom_speed_steps(1, 0), 19);
    EXPECT_EQ(zoom_speed_steps(0, 9), 9);
    EXPECT_EQ(zoom_speed_steps(200, 0), 65) << "speeds above 8 count as 8";
    lens_set_positions(7000, 0);
    EXPECT_EQ(zoom_speed_steps(8, 0), 25);
    lens_set_positions(5360, 0);
    EXPECT_EQ(zoom_speed_steps(7, 0), 34) << "band 7, two entries in for speed 7";

    std::ifstream f(root_.host("/dev/sm_zoom_speed_info"), std::ios::binary);
    std::string c((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    ASSERT_EQ(c.size(), 133u);
    EXPECT_EQ(c[0], 30);
    EXPECT_EQ(static_cast<uint8_t>(c[1]), 78);
    EXPECT_EQ(c[30], 1);
    EXPECT_EQ(c[65], 10);
    EXPECT_EQ(static_cast<uint8_t>(c[66]) | (static_cast<uint8_t>(c[67]) << 8), 3500);
    EXPECT_EQ(static_cast<uint8_t>(c[84]) | (static_cast<uint8_t>(c[85]) << 8), 6624);
}

}  // namespace
