// The tracker's box as statistics blocks, the on/off states of its record, bad records and
// devices, the command channel's region of interest as windows, and the rangefinder readings.
#include "isp/track_input.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>
#include <cstdio>
#include <string>
#include <vector>

#include "base/af_status.h"
#include "isp/distance_input.h"
#include "isp/highlight.h"
#include "platform/paths.h"
#include "platform/sim/virtual_clock.h"
#include "tests/support/test_env.h"

namespace {

using testsupport::capture_stdout;

// The tracker and the rangefinder publish their records in devices under the file root.
class TrackInputTest : public ::testing::Test {
  protected:
    void SetUp() override {
        platform::set_file_root(root_.path().c_str());
        track_input_reset();
        distance_input_reset();
        highlight_reset_for_testing();
        g_zoomChanged = 0;
        g_ptChanged = 0;
        ::mkdir(root_.host("/dev").c_str(), 0755);
    }
    void TearDown() override {
        track_input_reset();
        distance_input_reset();
        platform::set_file_root(nullptr);
    }
    // Writes the words in place (the publishers rewrite the same device), little-endian as on the
    // camera.
    void put(const char* device, std::vector<uint32_t> words) {
        FILE* f = std::fopen(root_.host(device).c_str(), "r+b");
        if (f == nullptr)
            f = std::fopen(root_.host(device).c_str(), "w+b");
        ASSERT_NE(f, nullptr);
        std::fwrite(words.data(), 4, words.size(), f);
        std::fclose(f);
    }
    void publish(uint32_t state, uint32_t x1, uint32_t y1, uint32_t x2, uint32_t y2) {
        put(kTrackDevice, {state, x1, y1, x2, y2});
    }
    void truncate_to(off_t n) { ASSERT_EQ(::truncate(root_.host(kTrackDevice).c_str(), n), 0); }
    static int count(const TrackRegion& r) {
        int n = 0;
        for (uint8_t b : r.mask)
            n += b != 0;
        return n;
    }
    // Box update on a fresh poll (the first box after tracking starts is always looked at).
    uint8_t update(TrackRegion* r, std::string* log = nullptr) {
        uint8_t res = 0;
        const std::string out = capture_stdout([&] { res = track_box_update(r); });
        if (log != nullptr)
            *log = out;
        return res;
    }
    testsupport::SandboxRoot root_;
};

TEST_F(TrackInputTest, OnAndOffAreLoggedOnceAndAMissingOrShortDeviceMeansOff) {
    EXPECT_EQ(track_poll(), 0u) << "no device";
    publish(1, 0, 0, 0, 0);
    truncate_to(12);
    EXPECT_EQ(track_poll(), 0u) << "a device shorter than a record";
    publish(1, 0, 0, 0, 0);
    std::string log = capture_stdout([] { EXPECT_EQ(track_poll(), 1u); });
    EXPECT_NE(log.find(": track_on, Mirror/Flip: 1/0\n"), std::string::npos) << log;
    log = capture_stdout([] { EXPECT_EQ(track_poll(), 1u); });
    EXPECT_EQ(log, "") << "logged once";
    for (uint32_t off_state : {3u, 0u}) {
        publish(off_state, 0, 0, 0, 0);
        log = capture_stdout([] { EXPECT_EQ(track_poll(), 0u); });
        EXPECT_EQ(log.find("track_close") != std::string::npos, off_state == 3) << off_state;
    }
    // Cut short while mapped: off, no fault; whole again: on.
    publish(2, 0, 0, 0, 0);
    truncate_to(8);
    EXPECT_EQ(track_poll(), 0u);
    publish(2, 0, 0, 0, 0);
    capture_stdout([] { EXPECT_EQ(track_poll(), 1u); });
}

TEST_F(TrackInputTest, BoxBecomesTheBlocksItCoversMirroredLeftToRight) {
    publish(1, 100, 50, 300, 200);
    capture_stdout([] { track_poll(); });
    TrackRegion r;
    ASSERT_EQ(update(&r), kBoxTracked);
    // x 100..300 mirrored is 340..540: columns 7..12, and the wide box starts at the next block
    // because 340 cuts block 7; rows 2..8 (50 lies on a block edge).
    EXPECT_EQ(r.rowStart, 2);
    EXPECT_EQ(r.rowEnd, 9);
    EXPECT_EQ(r.colStart, 8);
    EXPECT_EQ(r.colEnd, 13);
    EXPECT_EQ(count(r), 7 * 5);
    EXPECT_EQ(r.mask[2 * 15 + 8], 1);
    EXPECT_EQ(r.mask[2 * 15 + 7], 0);
    EXPECT_EQ(update(&r), kBoxNothing) << "the same record again";

    // The whole space: every block, the last row and column clamped to the grid.
    publish(1, 0, 0, 640, 360);
    ASSERT_EQ(update(&r), kBoxTracked);
    EXPECT_EQ(count(r), 225);
    EXPECT_EQ(r.rowEnd, 15);
    EXPECT_EQ(r.colEnd, 15);

    // A corner box of two blocks: the centre 7 x 7 instead.
    publish(1, 600, 335, 640, 360);
    std::string log;
    ASSERT_EQ(update(&r, &log), kBoxDefault);
    EXPECT_NE(log.find("跟踪区域大小为2,小于4块! 恢复为中心7x7"), std::string::npos) << log;
    EXPECT_EQ(count(r), 49);
    EXPECT_EQ(r.mask[4 * 15 + 4], 1);
    EXPECT_EQ(r.mask[10 * 15 + 10], 1);
    EXPECT_EQ(r.rowStart, 4);
    EXPECT_EQ(r.colEnd, 11);
}

TEST_F(TrackInputTest, ABoxOfAboutTheSameWidthIsNotRefocusedOn) {
    publish(1, 100, 50, 300, 200);
    capture_stdout([] { track_poll(); });
    TrackRegion r;
    ASSERT_EQ(update(&r), kBoxTracked);
    publish(1, 100, 60, 326, 200);  // 26 wider
    std::string log;
    EXPECT_EQ(update(&r, &log), kBoxNothing);
    EXPECT_NE(log.find("跟踪区域差不多，不聚焦,(26,27)"), std::string::npos) << log;
    publish(1, 100, 60, 327, 200);  // 27 wider than the last accepted width
    EXPECT_EQ(update(&r), kBoxTracked);
}

TEST_F(TrackInputTest, MalformedBoxesAskForTheDefaultRegionAndLeaveTheRegionAlone) {
    const uint32_t bad[][4] = {
        {300, 50, 100, 200},  // x2 < x1
        {100, 200, 300, 50},  // y2 < y1
        {100, 50, 641, 200},  // beyond the width
        {100, 50, 300, 361},  // beyond the height
        {0, 0, 0, 0},
    };
    capture_stdout([&] {
        publish(1, 0, 0, 1, 1);
        track_poll();
    });
    for (const auto& b : bad) {
        publish(1, b[0], b[1], b[2], b[3]);
        TrackRegion r;
        r.mask[0] = 7;
        std::string log;
        EXPECT_EQ(update(&r, &log), kBoxDefault) << b[0] << " " << b[2];
        EXPECT_NE(log.find("跟踪区域异常"), std::string::npos) << log;
        EXPECT_EQ(r.mask[0], 7) << "region untouched";
    }
}

TEST_F(TrackInputTest, AZoomOrPanTiltMoveAsksForTheDefaultRegionOnce) {
    publish(1, 100, 50, 300, 200);
    capture_stdout([] { track_poll(); });
    g_ptChanged = 1;
    TrackRegion r;
    std::string log;
    EXPECT_EQ(update(&r, &log), kBoxDefault);
    EXPECT_NE(log.find("g_zoomChanged 0 g_ptChanged 1"), std::string::npos) << log;
    EXPECT_EQ(g_ptChanged, 0);
    EXPECT_EQ(update(&r), kBoxNothing) << "the record was taken as seen";
}

TEST_F(TrackInputTest, RegionOfInterestMarksTheWindowsItCoversWholly) {
    uint8_t w[kWindowCount];
    track_set_roi(1920, 1080, 0, 0, 1920, 1080);
    EXPECT_EQ(track_take_roi_changed(), 1);
    EXPECT_EQ(track_take_roi_changed(), 0);
    track_copy_roi_windows(w);
    for (int i = 0; i < kWindowCount; ++i)
        EXPECT_EQ(w[i], 1) << i;
    track_set_roi(1920, 1080, 900, 500, 10, 10);
    track_copy_roi_windows(w);
    for (int i = 0; i < kWindowCount; ++i)
        EXPECT_EQ(w[i], i == 12 ? 1 : 0) << i;
    // Blocks 0..5 by 0..5 (128 x 72 pixels each): windows 0, 1, 5 and 6 only.
    track_set_roi(1920, 1080, 0, 0, 5 * 128, 5 * 72);
    track_copy_roi_windows(w);
    for (int i = 0; i < kWindowCount; ++i)
        EXPECT_EQ(w[i], (i == 0 || i == 1 || i == 5 || i == 6) ? 1 : 0) << i;
    track_set_roi(0, 0, 10, 10, 10, 10);  // no image size: the centre
    track_copy_roi_windows(w);
    EXPECT_EQ(w[12], 1);
}

TEST_F(TrackInputTest, RangefinderReadingsAndTheirAbsence) {
    // Polled on every frame: without a rangefinder the poll must not wait (the virtual clock
    // advances by whatever the daemon sleeps).
    platform::VirtualClock clock;
    platform::select_clock(&clock);
    const uint64_t t0 = clock.monotonic_us();
    EXPECT_EQ(distance_poll(), kDistanceInputNone) << "no rangefinder";
    EXPECT_EQ(clock.monotonic_us(), t0);
    platform::select_clock(nullptr);
    put(kDistanceDevice, {1, 2500});
    std::string log = capture_stdout([] { EXPECT_EQ(distance_poll(), 2500); });
    EXPECT_NE(log.find("rangefinder reading"), std::string::npos);
    EXPECT_EQ(capture_stdout([] { distance_poll(); }), "") << "logged once";
    put(kDistanceDevice, {1, 8192});
    EXPECT_EQ(distance_poll(), 8193) << "a real 8192 mm is not 'none'";
    put(kDistanceDevice, {1, 70000});
    EXPECT_EQ(distance_poll(), 65535);
    put(kDistanceDevice, {0, 2500});
    log = capture_stdout([] { EXPECT_EQ(distance_poll(), kDistanceInputNone); });
    EXPECT_NE(log.find("rangefinder no reading"), std::string::npos);
    ASSERT_EQ(::truncate(root_.host(kDistanceDevice).c_str(), 4), 0);
    EXPECT_EQ(distance_poll(), kDistanceInputNone) << "a record cut short";
}

}  // namespace
