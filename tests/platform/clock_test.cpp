#include <gtest/gtest.h>
#include <sys/mman.h>

#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "data/frame_stamp.h"
#include "platform/clock.h"
#include "platform/sim/virtual_clock.h"
#include "tests/support/test_env.h"

namespace {

uint64_t read_page(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    unsigned char b[8] = {};
    f.read(reinterpret_cast<char*>(b), 8);
    uint64_t t = 0;
    for (int i = 0; i < 8; ++i)
        t |= static_cast<uint64_t>(b[i]) << (8 * i);
    return t;
}

TEST(VirtualClock, SleepsAdvanceTimeAtOnce) {
    platform::VirtualClock vc;
    const uint64_t real_before = platform::clock().monotonic_us();
    vc.sleep_us(1000000);
    vc.sleep_us(33000);
    EXPECT_EQ(vc.monotonic_us(), 1033000u);
    timeval tv{};
    ASSERT_EQ(vc.wall_time(&tv), 0);
    EXPECT_EQ(tv.tv_sec, platform::VirtualClock::kEpochSeconds + 1);
    EXPECT_EQ(tv.tv_usec, 33000);
    EXPECT_LT(platform::clock().monotonic_us() - real_before, 500000u)
        << "a virtual second must not take a real one";
}

TEST(VirtualClock, FollowsFrameStampsForwardOnly) {
    platform::VirtualClock vc;
    vc.on_frame({1, 40000});
    EXPECT_EQ(vc.monotonic_us(), 40000u);
    vc.sleep_us(5000);
    vc.on_frame({2, 73333});
    EXPECT_EQ(vc.monotonic_us(), 73333u) << "a frame moves time to its capture time";
    vc.sleep_us(50000);
    vc.on_frame({3, 106666});
    EXPECT_EQ(vc.monotonic_us(), 123333u) << "never backwards";
}

TEST(VirtualClock, LoopSeesExactFrameIntervalWhenKeepingUp) {
    platform::VirtualClock vc;
    platform::select_clock(&vc);
    timeval prev{};
    platform::wall_time(&prev);
    for (uint32_t k = 1; k <= 5; ++k) {
        platform::sleep_us(3000);  // some frame work
        vc.on_frame({k, 40000ull * k});
        timeval now{};
        platform::wall_time(&now);
        const uint32_t interval = static_cast<uint32_t>(now.tv_sec - prev.tv_sec) * 1000000u +
                                  static_cast<uint32_t>(now.tv_usec - prev.tv_usec);
        EXPECT_EQ(interval, 40000u);
        prev = now;
    }
    platform::select_clock(nullptr);
}

TEST(VirtualClock, PublishesItsTimeOnTheSharedPage) {
    testsupport::SandboxRoot root;
    const std::string page = root.path() + "/vclock";
    platform::VirtualClock vc;
    ASSERT_EQ(vc.attach_page(page.c_str()), 0);
    vc.sleep_us(1234);
    EXPECT_EQ(read_page(page), 1234u);
    vc.on_frame({9, 99999});
    EXPECT_EQ(read_page(page), 99999u);
    EXPECT_EQ(vc.attach_page("/nonexistent-dir/x"), -1);
}

TEST(VirtualClock, ConcurrentSleepersLoseNoTime) {
    platform::VirtualClock vc;
    std::vector<std::thread> ts;
    for (int i = 0; i < 4; ++i) {
        ts.emplace_back([&vc] {
            for (int k = 0; k < 10000; ++k)
                vc.sleep_us(1);
        });
    }
    for (auto& t : ts)
        t.join();
    EXPECT_EQ(vc.monotonic_us(), 40000u);
}

TEST(RealClock, SleepsAtLeastTheAskedTime) {
    platform::select_clock(nullptr);
    EXPECT_FALSE(platform::clock().is_virtual());
    const uint64_t t0 = platform::monotonic_us();
    platform::sleep_us(2000);
    EXPECT_GE(platform::monotonic_us() - t0, 2000u);
}

TEST(FrameStamp, LittleEndianLayout) {
    uint8_t b[afdata::kFrameStampSize] = {};
    afdata::frame_stamp_encode({0x04030201u, 0x0C0B0A0908070605ull}, b);
    for (int i = 0; i < 12; ++i)
        EXPECT_EQ(b[i], i + 1) << i;
    const afdata::FrameStamp s = afdata::frame_stamp_decode(b);
    EXPECT_EQ(s.sequence, 0x04030201u);
    EXPECT_EQ(s.time_us, 0x0C0B0A0908070605ull);
}

}  // namespace
