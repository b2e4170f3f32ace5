// The virtual clock (sleeps advance time at once, frame stamps move it forward, the shared page),
// the real clock, and the byte layout of the frame stamp that carries the virtual time line.
#include "platform/sim/virtual_clock.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "data/frame_stamp.h"
#include "platform/clock.h"
#include "tests/support/test_env.h"

namespace {

TEST(VirtualClock, SleepsAdvanceAtOnceAndFramesMoveTimeForwardOnly) {
    platform::VirtualClock vc;
    const uint64_t real_before = platform::clock().monotonic_us();
    vc.sleep_us(1000000);
    vc.sleep_us(33000);
    EXPECT_EQ(vc.monotonic_us(), 1033000u);
    EXPECT_LT(platform::clock().monotonic_us() - real_before, 500000u)
        << "a virtual second must not take a real one";
    vc.on_frame({1, 1100000});
    EXPECT_EQ(vc.monotonic_us(), 1100000u) << "a frame moves time to its capture time";
    vc.on_frame({2, 1050000});
    EXPECT_EQ(vc.monotonic_us(), 1100000u) << "never backwards";
}

TEST(VirtualClock, PublishesItsTimeOnTheSharedPage) {
    testsupport::SandboxRoot root;
    const std::string page = root.path() + "/vclock";
    platform::VirtualClock vc;
    ASSERT_EQ(vc.attach_page(page.c_str()), 0);
    auto read_page = [&] {
        std::array<unsigned char, 8> b{};
        std::ifstream(page, std::ios::binary).read(reinterpret_cast<char*>(b.data()), 8);
        uint64_t t = 0;
        for (int i = 0; i < 8; ++i)
            t |= static_cast<uint64_t>(b[i]) << (8 * i);
        return t;
    };
    vc.sleep_us(1234);
    EXPECT_EQ(read_page(), 1234u);
    vc.on_frame({9, 0x0102030405ull});
    EXPECT_EQ(read_page(), 0x0102030405ull);
    EXPECT_EQ(vc.attach_page("/nonexistent-dir/x"), -1);
}

TEST(VirtualClock, ConcurrentSleepersLoseNoTime) {
    platform::VirtualClock vc;
    std::atomic<bool> go{false};
    std::vector<std::thread> ts;
    for (int i = 0; i < 4; ++i) {
        ts.emplace_back([&] {
            while (!go) {
            }
            for (int k = 0; k < 1000000; ++k)
                vc.sleep_us(1);
        });
    }
    go = true;
    for (auto& t : ts)
        t.join();
    EXPECT_EQ(vc.monotonic_us(), 4000000u);
}

TEST(RealClock, SleepsAtLeastTheAskedTime) {
    platform::select_clock(nullptr);
    EXPECT_FALSE(platform::clock().is_virtual());
    const uint64_t t0 = platform::monotonic_us();
    platform::sleep_us(2000);
    EXPECT_GE(platform::monotonic_us() - t0, 2000u);
}

// Every record that crosses a process boundary is little-endian and packed whatever the host.
TEST(FrameStamp, SequenceThenTimeLittleEndianAtAnyOffset) {
    // Every byte distinct, so a swapped, shifted or misplaced byte shows; guard bytes around it
    // (the stamp heads a statistics reply that may sit anywhere in a receive buffer).
    std::array<uint8_t, 14> buf;
    buf.fill(0xEE);
    afdata::frame_stamp_encode({0x04030201u, 0x0C0B0A0908070605ull}, buf.data() + 1);
    for (int i = 0; i < 12; ++i)
        EXPECT_EQ(buf[1 + i], i + 1) << i;
    EXPECT_EQ(buf[0], 0xEE);
    EXPECT_EQ(buf[13], 0xEE);
    afdata::FrameStamp s = afdata::frame_stamp_decode(buf.data() + 1);
    EXPECT_EQ(s.sequence, 0x04030201u);
    EXPECT_EQ(s.time_us, 0x0C0B0A0908070605ull);
    // 0x80 in every byte: a byte widened with its sign would spill ones into the bytes above it.
    std::array<uint8_t, 12> high;
    high.fill(0x80);
    s = afdata::frame_stamp_decode(high.data());
    EXPECT_EQ(s.sequence, 0x80808080u);
    EXPECT_EQ(s.time_us, 0x8080808080808080ull);
}

}  // namespace
