// The ISP link against a scripted ISP service: attribute set-up, failed and split exchanges,
// reconnect, the lock, frame stamps, exposure decoding, filter profiles and the exposure-change
// test.
#include "isp/isp_link.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "data/frame_stamp.h"
#include "isp/af_stat.h"
#include "isp/highlight.h"
#include "isp/isp_inputs.h"
#include "platform/clock.h"
#include "platform/ports.h"
#include "platform/sim/virtual_clock.h"
#include "tests/isp/isp_peer.h"
#include "tests/isp/stat_frame.h"
#include "tests/support/alloc_counter.h"
#include "tests/support/test_env.h"

namespace {

using isptest::Field;
using isptest::IspPeer;
using isptest::StatFrame;
using testsupport::capture_stdout;

uint16_t g_zoom = 0;
const IspInputs kInputs = {[] { return g_zoom; }, [] { return uint8_t{3}; }};

uint16_t u16_at(const std::vector<uint8_t>& r, std::size_t off) {
    return static_cast<uint16_t>(r[off] | (r[off + 1] << 8));
}
long ms_since(std::chrono::steady_clock::time_point t0) {
    const auto d = std::chrono::steady_clock::now() - t0;
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(d).count());
}

class IspLinkTest : public ::testing::Test {
  protected:
    void SetUp() override {
        setenv("AFD_ISP_ADDR", "127.0.0.1", 1);
        setenv("AFD_ISP_PORT", std::to_string(peer.port()).c_str(), 1);
        platform::reload_ports();
        clock.set_now_us(1000000);
        platform::select_clock(&clock);
        isp_link_reset_for_testing();
        g_zoom = 0;
        isp_set_inputs_for_testing(&kInputs);
    }
    void TearDown() override {
        isp_link_reset_for_testing();
        isp_set_inputs_for_testing(nullptr);
        platform::select_clock(nullptr);
        unsetenv("AFD_ISP_PORT");
        unsetenv("AFD_ISP_ADDR");
        platform::reload_ports();
    }

    // Connects and runs the attribute set-up; returns what they printed.
    std::string connect() {
        std::string out = capture_stdout([] {
            ASSERT_EQ(socket_to_soc_init(), 0);
            ASSERT_EQ(isp_af_attr_setup(), 0);
        });
        EXPECT_TRUE(peer.wait_codes(2));  // the SET has no reply: wait until the service has it
        return out;
    }
    // Filter parameter A of each record written since the last check. The exposure read is
    // answered only after every earlier request, so every write has arrived by then.
    std::vector<int> sent_profiles() {
        EXPECT_EQ(isp_read_exposure(), 0);
        std::vector<int> a;
        for (const auto& rec : peer.set_payloads())
            a.push_back(rec[230]);
        peer.clear_log();
        return a;
    }
    void set_gain_ratio(uint32_t ratio) {
        peer.set_exposure(static_cast<float>(ratio), 0.01f, 100.0f);
        ASSERT_EQ(isp_read_exposure(), 0);
        ASSERT_EQ(get_exp_gain_ratio(), ratio);
        peer.clear_log();
    }

    testsupport::SandboxRoot root;
    IspPeer peer;
    platform::VirtualClock clock;
};

TEST_F(IspLinkTest, AttributeSetUpRewritesOnlyTheFilterBlockOncePerConnection) {
    std::array<uint8_t, 264> original{};
    for (std::size_t i = 0; i < original.size(); ++i)
        original[i] = static_cast<uint8_t>(i * 7 + 3);
    original[69] = 42;
    original[198] = 0xB3;  // -77
    original[199] = 0xFF;
    peer.set_attr_record(original);

    EXPECT_NE(connect().find("AF win_mu: 42  -77\n"), std::string::npos) << "values as received";
    ASSERT_EQ(peer.codes(), (std::vector<uint8_t>{2, 3}));
    // The coefficients and filter parameters lie in bytes 128..235; the rest goes back as read.
    const std::vector<uint8_t> rec = peer.set_payloads()[0];
    for (std::size_t i = 0; i < rec.size(); ++i)
        EXPECT_TRUE((i >= 128 && i <= 235) || rec[i] == original[i]) << "byte " << i << " changed";
    EXPECT_EQ(std::memcmp(isp_af_attr_record(), rec.data(), rec.size()), 0);
    // Filter parameters A, B, C, D: the high-noise profile, the one in force at power-on.
    EXPECT_EQ((std::vector<int>{rec[230], rec[232], u16_at(rec, 226), u16_at(rec, 228)}),
              (std::vector<int>{3, 3, 80, 80}));

    // Once per connection: a second call sends nothing. A parameter write reads the record back,
    // changes C (226), D (228), A (230) and B (232), and writes the whole record.
    peer.clear_log();
    EXPECT_EQ(isp_af_attr_setup(), 0);
    set_filter_param(5, 6, 0x1234, 0x5678);
    ASSERT_TRUE(peer.wait_codes(2));
    ASSERT_EQ(peer.codes(), (std::vector<uint8_t>{2, 3}));
    std::vector<uint8_t> want = rec;
    for (auto [at, v] :
         {std::pair{226, 0x34}, {227, 0x12}, {228, 0x78}, {229, 0x56}, {230, 5}, {232, 6}})
        want[at] = static_cast<uint8_t>(v);
    EXPECT_EQ(peer.set_payloads()[0], want);
}

// Each way an exchange fails closes the link with the request's message: a reply cut short by a
// closed connection, a reply not complete within the reply timeout, and bytes left over after a
// complete reply (a reply longer than its record, junk in front of it), which put the stream out
// of step so that the reply is not used either. The last whole frame and the last good exposure
// values stay, nothing more goes out on the dead link, and the next connection is back in step.
// Replies split by TCP arrive whole.
TEST_F(IspLinkTest, AFailedExchangeClosesTheLinkKeepsTheLastGoodValuesAndResynchronises) {
    using enum IspPeer::Fault;
    const StatFrame good = StatFrame().fill(Field::kLuma, 111).raw_word(1375, 0x12345678);
    const StatFrame other = StatFrame().fill(Field::kLuma, 222);
    const auto filter_write = [] {
        set_filter_param(1, 2, 60, 80);
        return 0;
    };
    const char* const kVdLost = "Get_ISP_VD: recv from soc failed, need reconnect \n";
    const struct {
        uint8_t code;
        IspPeer::Fault fault;
        int (*request)();
        int result;
        const char* log;
    } cases[] = {
        {2, kShortReply, isp_af_attr_setup, -1, " recv GET_AF_ATTR failed \n"},
        {1, kShortReply, Get_ISP_VD, 1, kVdLost},
        {1, kStall, Get_ISP_VD, 1, kVdLost},
        {4, kStall, isp_read_exposure, -1, " recv GET_AE_EXP_INFO failed \n"},
        {2, kShortReply, filter_write, 0, " set_filter_param: line 381, send error: 0 \n"},
        {1, kLongReply, Get_ISP_VD, 1, "ISP link out of step"},
        {1, kJunkFirst, Get_ISP_VD, 1, "ISP link out of step"},
        {4, kLongReply, isp_read_exposure, -1, "ISP link out of step"},
        {2, kJunkFirst, filter_write, 0, "ISP link out of step"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.log) + " fault " + std::to_string(static_cast<int>(c.fault)));
        isp_link_reset_for_testing();
        // A stall is given up at a short reply timeout. The timeout applies to every receive, so
        // the stall cases get their replies in one piece: a loaded machine may well pause the
        // service for a while between two pieces.
        const bool stall = c.fault == kStall;
        if (stall)
            isp_set_reply_timeout_ms_for_testing(500);
        peer.set_split(stall ? 0 : 1000);  // a frame in six pieces
        peer.set_frame(good.bytes());
        peer.set_exposure(220.0f, 0.02f, 4.0f);
        capture_stdout([&] {
            ASSERT_EQ(socket_to_soc_init(), 0);
            ASSERT_TRUE(c.request == isp_af_attr_setup || isp_af_attr_setup() == 0);
            ASSERT_EQ(Get_ISP_VD(), 0);  // answered after the service has taken the record
            ASSERT_EQ(isp_read_exposure(), 0);
        });
        peer.set_frame(other.bytes());
        peer.set_exposure(100.0f, 0.01f, 1.0f);
        peer.fail_next(c.code, c.fault);
        peer.clear_log();
        const auto t0 = std::chrono::steady_clock::now();
        const std::string out = capture_stdout([&] { EXPECT_EQ(c.request(), c.result); });
        EXPECT_LT(ms_since(t0), 2000);  // the default reply timeout is 3 s
        EXPECT_NE(out.find(c.log), std::string::npos) << out;
        EXPECT_EQ(isp_link_up(), 0);
        EXPECT_EQ(std::memcmp(isp_stat_frame(), good.data(), kAfStatFrameSize), 0);
        EXPECT_EQ((std::vector<uint32_t>{get_exp_luma(), get_exp_gain_ratio(), get_exp_index()}),
                  (std::vector<uint32_t>{220, 5500, 800}));
        EXPECT_EQ(isp_read_exposure(), -1);
        EXPECT_EQ(capture_stdout([] { set_filter_param(1, 2, 60, 80); }), "");
        EXPECT_TRUE(peer.set_payloads().empty()) << "a record read in error is not written";
        // The reconnect is in step: the next frame is the service's current one.
        capture_stdout([] {
            for (int calls = 0; Get_ISP_VD() != 0 && calls < 50; ++calls) {
            }
        });
        EXPECT_EQ(std::memcmp(isp_stat_frame(), other.data(), kAfStatFrameSize), 0);
    }

    // A service out of step on every frame: one line, then one per 5 s with the count.
    peer.set_split(0);
    clock.set_now_us(100000000);
    const std::string log = capture_stdout([&] {
        for (int i = 0; i < 40; ++i) {
            peer.fail_next(1, kLongReply);
            Get_ISP_VD();
            clock.set_now_us(clock.monotonic_us() + 1000000);
        }
    });
    std::size_t lines = 0;
    for (std::size_t at = log.find("out of step"); at != std::string::npos;
         at = log.find("out of step", at + 1))
        ++lines;
    EXPECT_GE(lines, 2u);
    EXPECT_LE(lines, 9u) << log;
    EXPECT_NE(log.find("more since the last report"), std::string::npos);
}

// After a reconnect the ISP filters with the profile the daemon believes in force: the set-up of
// the new connection carries the low-noise profile forced before the service restarted.
TEST_F(IspLinkTest, ReconnectsOnceASecondAndSetsTheAttributesAndTheProfileInForceAgain) {
    connect();
    set_gain_ratio(150);  // between the thresholds: the profile in force stays
    isp_force_filter_profile(1);
    ASSERT_EQ(isp_read_exposure(), 0);  // answered after the record written by the forcing
    peer.set_attr_record({});           // so the profile can only come from the new set-up
    ASSERT_EQ(Get_ISP_VD(), 0);
    peer.stop();  // the service restarts
    capture_stdout([] {
        EXPECT_EQ(Get_ISP_VD(), 1);
        EXPECT_EQ(socket_to_soc_init(), -1);
    });
    const uint64_t lost_at = clock.monotonic_us();

    // While it is down every call fails after a 100 ms pause, in real time too (no spinning a core
    // on virtual time); the attempts at 0 s and 1 s fail, and the loss is logged once.
    const auto real_start = std::chrono::steady_clock::now();
    const std::string log = capture_stdout([] {
        for (int i = 0; i < 15; ++i)
            EXPECT_EQ(Get_ISP_VD(), 1);
    });
    EXPECT_EQ(clock.monotonic_us() - lost_at, 1500000u);
    EXPECT_GE(ms_since(real_start), 15);
    EXPECT_NE(log.find("ISP link down"), std::string::npos);
    EXPECT_EQ(log.find("ISP link down"), log.rfind("ISP link down")) << log;

    // Back from 1.5 s on. The attempt at 2 s connects but the service fails the attribute
    // exchange; the next attempt still waits out the second, so the link is up at 3 s.
    peer.start();
    peer.clear_log();
    peer.fail_next(2, IspPeer::Fault::kShortReply);
    capture_stdout([] {
        for (int calls = 0; Get_ISP_VD() != 0 && calls < 50; ++calls) {
        }
    });
    const uint64_t up_after = clock.monotonic_us() - lost_at;
    EXPECT_GE(up_after, 3000000u);
    EXPECT_LT(up_after, 3200000u);
    // The new connection got the attribute set-up before its first frame request.
    ASSERT_EQ(peer.codes(), (std::vector<uint8_t>{2, 2, 3, 1}));
    const std::vector<uint8_t> rec = peer.set_payloads()[0];
    EXPECT_EQ(u16_at(rec, 234), 960);
    EXPECT_EQ((std::vector<int>{rec[230], rec[232], u16_at(rec, 226), u16_at(rec, 228)}),
              (std::vector<int>{1, 2, 60, 80}));
    // And the automatic update, believing the same, still has nothing to send.
    EXPECT_EQ(isp_auto_filter_update(), 0);
}

TEST_F(IspLinkTest, ConnectInterruptedBySignalsStillComesUp) {
    // Signals land on the frame-loop thread (shutdown, timers, a debugger); a handler without
    // SA_RESTART makes a blocking connect return early while the connection carries on.
    struct sigaction sa {};
    struct sigaction old {};
    sa.sa_handler = [](int) {};
    sigemptyset(&sa.sa_mask);
    ASSERT_EQ(sigaction(SIGUSR2, &sa, &old), 0);
    const pthread_t target = pthread_self();
    std::atomic<bool> stop{false};
    std::thread pelter([&] {
        while (!stop.load())
            pthread_kill(target, SIGUSR2);
    });
    int failed = 0;
    for (int i = 0; i < 300; ++i)
        if (socket_to_soc_init() != 0)
            ++failed;
    stop.store(true);
    pelter.join();
    sigaction(SIGUSR2, &old, nullptr);
    EXPECT_EQ(failed, 0);
}

TEST_F(IspLinkTest, OtherThreadsAreNotHeldWhileTheLinkIsDown) {
    // Real time here: the pause of a closed link must not hold the link lock.
    platform::select_clock(nullptr);
    peer.stop();
    std::atomic<bool> done{false};
    std::thread loop([&] {
        capture_stdout([&] {
            while (!done)
                Get_ISP_VD();
        });
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(isp_read_exposure(), -1);
    set_filter_param(3, 3, 80, 80);
    const long ms = ms_since(t0);
    done = true;
    loop.join();
    EXPECT_LT(ms, 30);
}

TEST_F(IspLinkTest, EachFrameMovesTheVirtualClockToItsCaptureTime) {
    connect();
    std::vector<uint8_t> frame(kAfStatFrameSize, 0);
    for (uint32_t n : {1u, 2u}) {
        afdata::frame_stamp_encode({n, 2000000u + 40000u * n}, frame.data());
        peer.set_frame(frame);
        ASSERT_EQ(Get_ISP_VD(), 0);
        EXPECT_EQ(clock.monotonic_us(), 2000000u + 40000u * n);
    }
}

TEST(IspExposureDecode, LumaGainRatioAndIndexSaturateLikeTheBoard) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    struct Case {
        float l, t, g;
        uint32_t luma, ratio, index;
    };
    const Case cases[] = {
        {220.0f, 0.02f, 4.0f, 220, 5500, 800},   // ratio L / G x 100, index T x 1000 x G x 10
        {150.5f, 0.03f, 0.0f, 150, 15050, 300},  // a gain of 0 reads as 1
        {nan, nan, nan, 0, 0, 0},
        {-5.0f, -1.0f, 2.0f, 0, 0, static_cast<uint32_t>(-20000)},  // the index is signed
        {1e30f, inf, 1.0f, 0xFFFFFFFFu, 0xFFFFFFFFu, 0x7FFFFFFFu},
    };
    for (const Case& c : cases) {
        std::array<uint8_t, kExposureRecordSize> r{};
        std::memcpy(r.data() + 8, &c.l, 4);
        std::memcpy(r.data() + 44, &c.t, 4);
        std::memcpy(r.data() + 48, &c.g, 4);
        const ExposureValues v = isp_decode_exposure(r.data());
        EXPECT_EQ((std::vector<uint32_t>{v.luma, v.gain_ratio, v.index}),
                  (std::vector<uint32_t>{c.luma, c.ratio, c.index}))
            << c.l;
    }
}

TEST_F(IspLinkTest, ExposureIndexAboveOneThousandStopsWideningTheLights) {
    connect();
    highlight_reset_for_testing();
    // {exposure time, lights marked}: index 1500 is dark; exactly 1000 is not dark yet.
    for (auto [time_s, marked] : {std::pair{0.015f, 1}, {0.01f, 5}}) {
        peer.set_exposure(100.0f, time_s, 10.0f);
        ASSERT_EQ(isp_read_exposure(), 0);
        af_stat_fetch_from(StatFrame().set(Field::kHighlight, 7, 7, 5000).data(), 1);
        std::array<uint8_t, 225> m{};
        copy_live_highlight_mask(m.data());
        EXPECT_EQ(std::count(m.begin(), m.end(), 1), marked) << time_s;
    }
    highlight_reset_for_testing();
}

TEST_F(IspLinkTest, FilterProfileTableWithHysteresisAndTeleCutOff) {
    connect();
    struct Case {
        uint8_t stat_mode;
        uint32_t ratio;
        uint16_t zoom;
        uint8_t result;
        uint32_t exposure_mode;
        int sent_a;  // filter parameter A sent: 1 low-noise profile, 3 high-noise; -1 nothing
    };
    const Case cases[] = {
        {0, 150, 0, 0, 3, -1},    {2, 150, 0, 0, 20, -1},    {0, 200, 0, 0, 3, -1},
        {0, 201, 5682, 1, 20, 3}, {0, 250, 6000, 0, 20, -1}, {0, 250, 5683, 0, 20, -1},
        {2, 119, 0, 1, 3, 1},     {2, 120, 0, 0, 20, -1},    {1, 100, 4000, 1, 3, 1},
        {2, 100, 6000, 0, 3, -1}, {0, 5000, 0, 1, 20, 3},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE("mode " + std::to_string(c.stat_mode) + " ratio " + std::to_string(c.ratio) +
                     " zoom " + std::to_string(c.zoom));
        set_statistics_mode(c.stat_mode);
        set_gain_ratio(c.ratio);
        g_zoom = c.zoom;
        EXPECT_EQ(isp_auto_filter_update(), c.result);
        EXPECT_EQ(get_exposure_mode(), c.exposure_mode);
        EXPECT_EQ(get_statistics_mode(), c.stat_mode);  // left to the caller
        EXPECT_EQ(sent_profiles(), std::vector<int>(c.sent_a < 0 ? 0 : 1, c.sent_a));
    }
}

uint8_t g_lowLightCalls = 0;
uint8_t g_lastLowLight = 0xFF;

TEST_F(IspLinkTest, StatisticsModeTellsTheAutofocusSideOnlyOnChangesAndForcedProfileDoesNot) {
    connect();
    g_lowLightCalls = 0;
    g_lastLowLight = 0xFF;
    isp_set_low_light_listener([](uint8_t v) {
        ++g_lowLightCalls;
        g_lastLowLight = v;
    });
    // Power-on mode 2 (no change), then 0, 1 (low-light for the profiles, but not "2"), 2.
    const uint8_t modes[] = {2, 0, 1, 2};
    const uint8_t calls[] = {0, 1, 2, 3};
    const uint8_t told[] = {0xFF, 0, 0, 1};
    for (int i = 0; i < 4; ++i) {
        set_statistics_mode(modes[i]);
        EXPECT_EQ(g_lowLightCalls, calls[i]) << i;
        EXPECT_EQ(g_lastLowLight, told[i]) << i;
    }

    // Forced: the low-noise profile and mode 0, without telling. Not forced: by the gain ratio.
    peer.clear_log();
    EXPECT_EQ(isp_force_filter_profile(1), 0);
    EXPECT_EQ(get_statistics_mode(), 0);
    EXPECT_EQ(g_lowLightCalls, 3);
    EXPECT_EQ(sent_profiles(), std::vector<int>{1});
    for (auto [ratio, sent_a] : {std::pair{120u, 3}, {119u, 1}}) {
        set_gain_ratio(ratio);
        EXPECT_EQ(isp_force_filter_profile(0), 0);
        EXPECT_EQ(sent_profiles(), std::vector<int>{sent_a}) << ratio;
    }
    isp_set_low_light_listener(nullptr);
}

// Calls the exposure-change test n times with the exposure mode at `mode`; returns how many
// calls reported a change.
int changes(uint32_t mode, int n, uint8_t active = 1) {
    isp_set_exposure_mode_for_testing(mode);
    int reported = 0;
    for (int i = 0; i < n; ++i)
        reported += exposure_change_test(active);
    return reported;
}

TEST_F(IspLinkTest, ExposureChangeCountsFromTwoHundredAndBeyondTwiceAndMustLast46Calls) {
    // {reference, mode, reported}: large means at least 200 apart and beyond a factor of two
    // either way, reported on the 46th call in a row; the two modes the filter update sets are
    // never a large change. An inactive call takes the current mode as the reference.
    const uint32_t cases[][3] = {
        {20, 500, 1},  {300, 601, 1}, {100, 300, 1}, {1000, 499, 1}, {500, 249, 1}, {300, 600, 0},
        {101, 300, 0}, {500, 250, 0}, {150, 50, 0},  {3, 20, 0},     {20, 3, 0},    {0, 0, 0},
    };
    for (const auto& c : cases) {
        changes(c[0], 1, /*active=*/0);
        EXPECT_EQ(changes(c[1], 45), 0) << c[0] << " -> " << c[1];
        EXPECT_EQ(changes(c[1], 1), static_cast<int>(c[2])) << c[0] << " -> " << c[1];
    }
    // After a report the new mode is the reference; a small change restarts the count.
    changes(20, 1, 0);
    ASSERT_EQ(changes(2000, 46), 1);
    EXPECT_EQ(changes(20, 45), 0);
    EXPECT_EQ(changes(1500, 1), 0);
    EXPECT_EQ(changes(20, 45), 0);
    EXPECT_EQ(changes(20, 1), 1);
}

TEST_F(IspLinkTest, SteadyFramesNeedNoHeap) {
    connect();
    peer.set_frame(StatFrame().fill(Field::kFirV, 900).set(Field::kHighlight, 7, 7, 4000).bytes());
    uint64_t before = 0;
    for (int i = 0; i < 520; ++i) {
        if (i == 20)  // the scripted service reuses its buffers once warmed up
            before = testsupport::allocation_count();
        ASSERT_EQ(Get_ISP_VD(), 0);
        af_stat_fetch(i % 3 == 0 ? 2 : 1);
        isp_read_exposure();
    }
    EXPECT_EQ(testsupport::allocation_count() - before, 0u);
}

}  // namespace
