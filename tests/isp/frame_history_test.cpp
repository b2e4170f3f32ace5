// Statistics frame history: the bounded position-keyed sample table, neighbour series, the
// frame ring and its past-frame reads, best sample and per-block extremes.
#include "isp/frame_history.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "lens_api/lens_position.h"
#include "tests/support/test_env.h"

namespace {

using Values = std::vector<uint32_t>;

void record(uint32_t a, uint32_t b, uint16_t position) {
    const std::vector<uint32_t> ga(kGridBlocks, a), gb(kGridBlocks, b);
    fh_record_sample(ga.data(), gb.data(), position);
}

Values values(const FhSeries& s) {
    return {s.v, s.v + s.n};
}

// Mean of kind 4 (grid A) at the position alone; 0 when no sample is kept there.
uint32_t sample_at(uint16_t position) {
    FhCellList cells;
    cells.add(7, 7);
    FhSeries s;
    fh_neighbour_series(cells, position, 0, 1, 4, &s);
    return s.n == 1 ? s.v[0] : 0;
}

FhFrame frame_of(uint32_t base) {
    FhFrame f;
    for (int b = 0; b < kGridBlocks; ++b) {
        const uint32_t w[5] = {base, base + 2, base + 10, base + 20, 1000 + base};
        std::copy(w, w + 5, &f.w[b * 5]);
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

TEST_F(FrameHistoryTest, SampleTableStaysBoundedKeepsTheStartAndReplacesARevisit) {
    fh_set_position(100, 1);
    for (uint16_t p = 100; p <= 690; p = static_cast<uint16_t>(p + 10)) {
        record(p, p, p);
        EXPECT_LE(fh_sample_count(), 51);
    }
    EXPECT_EQ(fh_sample_count(), 51);
    // The start sample survived; the lowest others were dropped (110..190 went first).
    EXPECT_EQ(sample_at(100), 100u);
    EXPECT_EQ(sample_at(190), 0u);
    EXPECT_EQ(sample_at(200), 200u);
    record(777, 777, 300);
    EXPECT_EQ(fh_sample_count(), 51);
    EXPECT_EQ(sample_at(300), 777u);
    EXPECT_EQ(sample_at(200), 200u) << "a revisit drops nothing else";
}

TEST_F(FrameHistoryTest, NeighbourSeriesRunsInRisingPositionOrder) {
    for (uint16_t p = 200; p <= 400; p = static_cast<uint16_t>(p + 10))
        record(p, p + 1, p);
    FhCellList cells;
    cells.add(7, 7);
    cells.add(7, 8);
    FhSeries s;
    FhPositions pos;
    fh_neighbour_series(cells, 300, 2, 3, 4, &s, &pos);
    EXPECT_EQ(values(s), (Values{280, 290, 300, 310, 320}));
    EXPECT_EQ(std::vector<uint16_t>(pos.p, pos.p + pos.n),
              (std::vector<uint16_t>{280, 290, 300, 310, 320}));
    fh_neighbour_series(cells, 300, 1, 1, 5, &s);
    EXPECT_EQ(values(s), (Values{291, 301})) << "kind 5 reads grid B";
    fh_neighbour_series(cells, 305, 2, 3, 4, &s);
    EXPECT_EQ(s.n, 0) << "no sample at the position";
    fh_neighbour_series(cells, 300, 2, 3, 3, &s);
    EXPECT_EQ(s.n, 0) << "only kinds 4 and 5 are kept";
}

TEST_F(FrameHistoryTest, BestSampleAndBlockExtremesFollowTheSharpestFrames) {
    record(100, 0, 10);
    std::vector<uint32_t> a(kGridBlocks, 900);
    a[0] = 5;  // an outer block does not count towards the best mean
    fh_record_sample(a.data(), a.data(), 20);
    record(400, 0, 30);
    EXPECT_EQ(fh_best_position(), 20);
    EXPECT_EQ(fh_best_mean(), 900u);
    uint32_t peaks[25];
    fh_copy_peak_table(peaks);
    EXPECT_EQ(peaks[12], 900u);
    EXPECT_EQ(peaks[0], (5u + 8 * 900) / 9);
    // Block 0: the largest value and where, the smallest and where; the visited range.
    EXPECT_EQ((Values{fh_block_max(0), fh_block_max_pos(0), fh_block_min(0), fh_block_min_pos(0),
                      fh_visited_min(), fh_visited_max()}),
              (Values{400, 30, 5, 20, 10, 30}));
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
    // {kind, frames back, value}: the newest frame is 0 back.
    const uint32_t reads[][3] = {
        {0, 0, 700}, {4, 1, (600 + 602) / 2}, {5, 4, (310 + 320) / 2}, {6, 2, 1500}};
    for (const auto& r : reads) {
        get_sm_his_frame(g, static_cast<uint8_t>(r[0]), static_cast<uint8_t>(r[1]));
        EXPECT_EQ(g[0], r[2]) << "kind " << r[0] << " back " << r[1];
    }
    const std::string out = testsupport::capture_stdout([&] { get_sm_his_frame(g, 0, 5); });
    EXPECT_EQ(out, "get_sm_his_frame 596 error\n");
    EXPECT_EQ(std::count(g, g + kGridBlocks, 0x32323232u), kGridBlocks);

    FhCellList cells;
    cells.add(7, 7);
    FhSeries s;
    fh_ring_series(&s, cells, 0, 3);
    EXPECT_EQ(values(s), (Values{500, 600, 700}));
    fh_block_series(&s, 7, 7, 5, 2);
    EXPECT_EQ(values(s), (Values{(610 + 620) / 2, (710 + 720) / 2}));
    fh_block_series(&s, 7, 7, 0, 1);  // any kind but 5 reads the first pair
    EXPECT_EQ(values(s), (Values{(700 + 702) / 2}));

    fh_ring_average_grid(g, 0, 2);
    EXPECT_EQ(g[100], 650u);
    fh_ring_fill(frame_of(42));
    EXPECT_EQ(fh_ring_size(), 5);
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
    fh_event_append(3, 2, 1500);
    ASSERT_EQ(fh_last_event(&e), 1);
    EXPECT_EQ((Values{e.phase, e.kind, e.position}), (Values{3, 2, 1500}));
    for (uint8_t p = 1; p <= 7; ++p)
        fh_phase_push(p);
    uint8_t ph[5];
    uint8_t n = 0;
    fh_phase_series(ph, &n, 3);
    EXPECT_EQ(std::vector<uint8_t>(ph, ph + n), (std::vector<uint8_t>{5, 6, 7}));
    fh_reset_for_search();
    EXPECT_EQ(fh_last_event(&e), 0) << "a search reset empties the log";
}

}  // namespace
