// Statistics frame history: the bounded position-keyed sample table, neighbour series, the
// frame ring and its past-frame reads, best sample and per-block extremes.
#include "isp/frame_history.h"

#include <gtest/gtest.h>

#include <vector>

#include "lens_api/lens_position.h"
#include "tests/support/test_env.h"

namespace {

std::vector<uint32_t> grid_of(uint32_t v) {
    return std::vector<uint32_t>(kGridBlocks, v);
}

FhCellList centre_cells() {
    FhCellList cells;
    cells.add(7, 7);
    cells.add(7, 8);
    return cells;
}

FhFrame frame_of(uint32_t base) {
    FhFrame f;
    for (int b = 0; b < kGridBlocks; ++b) {
        uint32_t* w = &f.w[b * 5];
        w[0] = base;
        w[1] = base + 2;
        w[2] = base + 10;
        w[3] = base + 20;
        w[4] = 1000 + base;
    }
    return f;
}

class FrameHistoryTest : public ::testing::Test {
  protected:
    void SetUp() override {
        fh_reset_for_testing();
        lens_position_reset_for_testing();
        fh_reset_for_search();
    }
};

TEST_F(FrameHistoryTest, SampleTableStaysBoundedAndKeepsTheStartSample) {
    fh_set_position(100, 1);
    for (uint16_t p = 100; p <= 690; p = static_cast<uint16_t>(p + 10)) {
        const auto a = grid_of(p);
        fh_record_sample(a.data(), a.data(), p);
        EXPECT_LE(fh_sample_count(), 51);
    }
    EXPECT_EQ(fh_sample_count(), 51);
    // The start sample survived; the lowest others were dropped (110..190 went first).
    const FhCellList cells = centre_cells();
    FhSeries s;
    fh_neighbour_series(cells, 100, 0, 1, 4, &s);
    ASSERT_EQ(s.n, 1);
    EXPECT_EQ(s.v[0], 100u);
    fh_neighbour_series(cells, 190, 0, 1, 4, &s);
    EXPECT_EQ(s.n, 0) << "190 was dropped";
    fh_neighbour_series(cells, 200, 0, 1, 4, &s);
    EXPECT_EQ(s.n, 1) << "200 is the lowest kept after the start";
}

TEST_F(FrameHistoryTest, NeighbourSeriesRunsInRisingPositionOrder) {
    for (uint16_t p = 200; p <= 400; p = static_cast<uint16_t>(p + 10)) {
        const auto a = grid_of(p);
        const auto b = grid_of(p + 1);
        fh_record_sample(a.data(), b.data(), p);
    }
    FhSeries s;
    FhPositions pos;
    fh_neighbour_series(centre_cells(), 300, 2, 3, 4, &s, &pos);
    ASSERT_EQ(s.n, 5);
    const uint32_t want[5] = {280, 290, 300, 310, 320};
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(s.v[i], want[i]);
        EXPECT_EQ(pos.p[i], want[i]);
    }
    fh_neighbour_series(centre_cells(), 300, 1, 1, 5, &s);
    ASSERT_EQ(s.n, 2);
    EXPECT_EQ(s.v[0], 291u) << "kind 5 reads grid B";
    fh_neighbour_series(centre_cells(), 305, 2, 3, 4, &s);
    EXPECT_EQ(s.n, 0) << "no sample at the position";
    fh_neighbour_series(centre_cells(), 300, 2, 3, 3, &s);
    EXPECT_EQ(s.n, 0) << "only kinds 4 and 5 are kept";
}

TEST_F(FrameHistoryTest, RecordingTwiceAtOnePositionReplacesTheSample) {
    auto a = grid_of(500);
    fh_record_sample(a.data(), a.data(), 300);
    a = grid_of(700);
    fh_record_sample(a.data(), a.data(), 300);
    EXPECT_EQ(fh_sample_count(), 1);
    FhSeries s;
    fh_neighbour_series(centre_cells(), 300, 0, 1, 4, &s);
    ASSERT_EQ(s.n, 1);
    EXPECT_EQ(s.v[0], 700u);
}

TEST_F(FrameHistoryTest, BestSampleAndBlockExtremesFollowTheSharpestFrames) {
    auto a = grid_of(100);
    fh_record_sample(a.data(), a.data(), 10);
    a = grid_of(900);
    a[0] = 5;  // an outer block does not count towards the best mean
    fh_record_sample(a.data(), a.data(), 20);
    a = grid_of(400);
    fh_record_sample(a.data(), a.data(), 30);
    EXPECT_EQ(fh_best_position(), 20);
    EXPECT_EQ(fh_best_mean(), 900u);
    uint32_t peaks[25];
    fh_copy_peak_table(peaks);
    EXPECT_EQ(peaks[12], 900u);
    EXPECT_EQ(peaks[0], (5u + 8 * 900) / 9);
    EXPECT_EQ(fh_block_max(0), 400u);
    EXPECT_EQ(fh_block_max_pos(0), 30);
    EXPECT_EQ(fh_block_min(0), 5u);
    EXPECT_EQ(fh_block_min_pos(0), 20);
    EXPECT_EQ(fh_visited_min(), 10);
    EXPECT_EQ(fh_visited_max(), 30);
    // Near and far of the start position 20: the best sample on each side.
    fh_set_position(20, 1);
    EXPECT_EQ(fh_near_candidate(), 10);
    EXPECT_EQ(fh_far_candidate(), 30);
}

TEST_F(FrameHistoryTest, RingKeepsFiveFramesAndReadsThePastByKind) {
    for (uint32_t i = 1; i <= 7; ++i)
        fh_ring_push(frame_of(100 * i));
    EXPECT_EQ(fh_ring_size(), 5);
    uint32_t g[kGridBlocks];
    get_sm_his_frame(g, 0, 0);
    EXPECT_EQ(g[0], 700u) << "frames back 0 is the newest";
    get_sm_his_frame(g, 4, 1);
    EXPECT_EQ(g[0], (600u + 602) / 2);
    get_sm_his_frame(g, 5, 4);
    EXPECT_EQ(g[0], (310u + 320) / 2);
    get_sm_his_frame(g, 6, 2);
    EXPECT_EQ(g[0], 1500u);
    const std::string out = testsupport::capture_stdout([&] { get_sm_his_frame(g, 0, 5); });
    EXPECT_EQ(out, "get_sm_his_frame 596 error\n");
    EXPECT_EQ(g[0], 0x32323232u);
    EXPECT_EQ(g[224], 0x32323232u);

    FhSeries s;
    fh_ring_series(&s, centre_cells(), 0, 3);
    ASSERT_EQ(s.n, 3);
    EXPECT_EQ(s.v[0], 500u);
    EXPECT_EQ(s.v[2], 700u);
    fh_block_series(&s, 7, 7, 5, 2);
    ASSERT_EQ(s.n, 2);
    EXPECT_EQ(s.v[0], (610u + 620) / 2);
    EXPECT_EQ(s.v[1], (710u + 720) / 2);

    fh_ring_average_grid(g, 0, 2);
    EXPECT_EQ(g[100], 650u);
    fh_ring_fill(frame_of(42));
    fh_ring_average_grid(g, 0, 5);
    EXPECT_EQ(g[100], 42u) << "a fill makes five equal frames";
    fh_ring_clear();
    fh_ring_average_grid(g, 0, 5);
    EXPECT_EQ(g[100], 0u);
}

TEST_F(FrameHistoryTest, EventLogAndPhaseHistoryKeepTheNewestEntries) {
    FhEvent e{99, 99, 99};
    EXPECT_EQ(fh_last_event(&e), 0);
    EXPECT_EQ(e.phase, 99u) << "untouched when empty";
    fh_event_append(1, 4, 1234);
    fh_event_append(2, 2, 1500);
    ASSERT_EQ(fh_last_event(&e), 1);
    EXPECT_EQ(e.phase, 2u);
    EXPECT_EQ(e.kind, 2u);
    EXPECT_EQ(e.position, 1500);
    for (uint8_t p = 1; p <= 7; ++p)
        fh_phase_push(p);
    uint8_t ph[5];
    uint8_t n = 0;
    fh_phase_series(ph, &n, 3);
    ASSERT_EQ(n, 3);
    EXPECT_EQ(ph[0], 5);
    EXPECT_EQ(ph[2], 7);
    fh_reset_for_search();
    EXPECT_EQ(fh_last_event(&e), 0) << "a search reset empties the log";
}

}  // namespace
