// The ISP link against a scripted ISP service: attribute set-up, frame requests (split, short,
// dropped, stalled), exposure decoding, filter profiles, the exposure-change test, reconnect and
// virtual-time following.
#include "isp/isp_link.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "isp/af_stat.h"
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
uint16_t zoom() {
    return g_zoom;
}
uint8_t preset3() {
    return 3;
}
const IspInputs kInputs = {zoom, preset3};

int16_t s16_at(const std::array<uint8_t, 264>& r, std::size_t off) {
    return static_cast<int16_t>(r[off] | (r[off + 1] << 8));
}
uint16_t u16_at(const std::vector<uint8_t>& r, std::size_t off) {
    return static_cast<uint16_t>(r[off] | (r[off + 1] << 8));
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
        // The SET has no reply: wait until the service has taken it in.
        EXPECT_TRUE(peer.wait_codes(2));
        while (peer.set_payloads().empty())
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return out;
    }
    // Reads the exposure record with the given brightness and gain, checking the gain ratio.
    void set_gain_ratio(uint32_t ratio) {
        peer.set_exposure(static_cast<float>(ratio), 0.01f, 100.0f);
        ASSERT_EQ(isp_read_exposure(), 0);
        ASSERT_EQ(get_exp_gain_ratio(), ratio);
    }

    testsupport::SandboxRoot root;
    IspPeer peer;
    platform::VirtualClock clock;
};

TEST_F(IspLinkTest, AttributeSetUpWritesEveryListedOffsetAndPassesOtherBytesBack) {
    std::array<uint8_t, 264> original{};
    for (std::size_t i = 0; i < original.size(); ++i)
        original[i] = static_cast<uint8_t>(i * 7 + 3);
    original[69] = 42;
    original[198] = 0xB3;  // -77
    original[199] = 0xFF;
    peer.set_attr_record(original);

    const std::string out = connect();
    EXPECT_NE(out.find("socket_to_soc_init called "), std::string::npos);
    EXPECT_NE(out.find("soc_client_sockfd = "), std::string::npos);
    EXPECT_NE(out.find("AF win_mu: 42  -77\n"), std::string::npos);
    EXPECT_NE(out.find("SET_AF_ATTR success! ret 265\n"), std::string::npos);

    // One GET, then one SET carrying the whole 264-byte record.
    ASSERT_TRUE(peer.wait_codes(2));
    EXPECT_EQ(peer.codes(), (std::vector<uint8_t>{2, 3}));
    ASSERT_EQ(peer.set_payloads().size(), 1u);
    ASSERT_EQ(peer.set_payloads()[0].size(), 264u);

    struct W {
        std::size_t off;
        int16_t v;
    };
    const W writes[] = {
        {128, 483},  {134, 28},   {140, 28},    {144, -1186}, {146, 0},    {148, 1186}, {150, 503},
        {152, 8},    {154, 9},    {156, -1997}, {158, 0},     {160, 1997}, {162, 512},  {164, 557},
        {166, -276}, {168, 460},  {170, 0},     {172, -460},  {174, 117},  {176, 863},  {178, -386},
        {180, 541},  {182, 0},    {184, -541},  {186, 100},   {188, 870},  {190, -399}, {192, 191},
        {194, 0},    {196, -191}, {198, 19},    {200, 986},   {202, -476}, {204, 766},  {206, 0},
        {208, -766}, {226, 80},   {228, 80},    {234, 960},
    };
    const auto rec = peer.attr_record();
    std::array<bool, 264> written{};
    for (const W& w : writes) {
        EXPECT_EQ(s16_at(rec, w.off), w.v) << "offset " << w.off;
        written[w.off] = written[w.off + 1] = true;
    }
    EXPECT_EQ(rec[230], 3);
    EXPECT_EQ(rec[232], 3);
    written[230] = written[232] = true;
    for (std::size_t i = 0; i < rec.size(); ++i) {
        if (!written[i]) {
            EXPECT_EQ(rec[i], original[i]) << "byte " << i << " changed";
        }
    }
    // The daemon's own copy is the record it sent.
    EXPECT_EQ(std::memcmp(isp_af_attr_record(), rec.data(), rec.size()), 0);

    // Once per connection: a second call sends nothing.
    peer.clear_log();
    EXPECT_EQ(isp_af_attr_setup(), 0);
    ASSERT_EQ(isp_read_exposure(), 0);  // something to wait for
    ASSERT_TRUE(peer.wait_codes(1));
    EXPECT_EQ(peer.codes(), (std::vector<uint8_t>{4}));
}

TEST_F(IspLinkTest, AttributeSetUpFailuresCloseTheLinkWithTheirMessage) {
    // No connection: refused without a word on the wire.
    EXPECT_EQ(isp_af_attr_setup(), -1);
    EXPECT_EQ(peer.connections(), 0);

    peer.fail_next(2, IspPeer::Fault::kShortReply);
    std::string out = capture_stdout([] {
        ASSERT_EQ(socket_to_soc_init(), 0);
        EXPECT_EQ(isp_af_attr_setup(), -1);
    });
    EXPECT_NE(out.find(" recv GET_AF_ATTR failed \n"), std::string::npos) << out;
    EXPECT_EQ(isp_link_up(), 0);
    EXPECT_TRUE(peer.set_payloads().empty());

    peer.stop();
    out = capture_stdout([] { EXPECT_EQ(socket_to_soc_init(), -1); });
    EXPECT_NE(out.find("connect error\n"), std::string::npos) << out;
}

TEST_F(IspLinkTest, FrameSplitByTcpArrivesWholeAndTheLinkStaysInStep) {
    connect();
    StatFrame f;
    for (int i = 0; i < 225; ++i)
        f.set(Field::kLuma, i / 15, i % 15, static_cast<uint32_t>(i + 1));
    f.raw_word(1375, 0x12345678);
    peer.set_frame(f.bytes());
    peer.set_split(1000, 2000);  // six pieces, 2 ms apart
    ASSERT_EQ(Get_ISP_VD(), 0);
    EXPECT_EQ(std::memcmp(isp_stat_frame(), f.data(), kAfStatFrameSize), 0);

    // The next exchange reads its own reply, not the tail of the frame.
    peer.set_split(100, 1000);
    peer.set_exposure(220.0f, 0.02f, 4.0f);
    ASSERT_EQ(isp_read_exposure(), 0);
    EXPECT_EQ(get_exp_luma(), 220u);
    ASSERT_EQ(Get_ISP_VD(), 0);
    af_stat_fetch(1);
    EXPECT_EQ(af_stat_blocks()[224].luma, 225u);
}

TEST_F(IspLinkTest, ShortOrMissingFrameReplyMarksTheLinkDownAndKeepsTheLastWholeFrame) {
    connect();
    StatFrame a;
    a.fill(Field::kLuma, 111);
    peer.set_frame(a.bytes());
    ASSERT_EQ(Get_ISP_VD(), 0);

    StatFrame b;
    b.fill(Field::kLuma, 222);
    peer.set_frame(b.bytes());
    peer.fail_next(1, IspPeer::Fault::kShortReply);
    std::string out = capture_stdout([] { EXPECT_EQ(Get_ISP_VD(), 1); });
    EXPECT_EQ(out, "Get_ISP_VD: recv from soc failed, need reconnect \n");
    EXPECT_EQ(isp_link_up(), 0);
    EXPECT_EQ(std::memcmp(isp_stat_frame(), a.data(), kAfStatFrameSize), 0);
    // Nothing else goes out on a dead link.
    EXPECT_EQ(isp_read_exposure(), -1);
    out = capture_stdout([] { set_filter_param(1, 2, 60, 80); });
    EXPECT_EQ(out, "");

    // A service that closes instead of answering.
    capture_stdout([] { ASSERT_EQ(Get_ISP_VD(), 0); });  // reconnects and fetches
    peer.fail_next(1, IspPeer::Fault::kCloseOnRequest);
    out = capture_stdout([] { EXPECT_EQ(Get_ISP_VD(), 1); });
    EXPECT_EQ(out, "Get_ISP_VD: recv from soc failed, need reconnect \n");
}

TEST_F(IspLinkTest, StalledServiceIsGivenUpAfterTheReplyTimeout) {
    isp_set_reply_timeout_ms_for_testing(150);
    connect();
    peer.fail_next(1, IspPeer::Fault::kStall);
    const auto t0 = std::chrono::steady_clock::now();
    const std::string out = capture_stdout([] { EXPECT_EQ(Get_ISP_VD(), 1); });
    const auto ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0)
            .count();
    EXPECT_EQ(out, "Get_ISP_VD: recv from soc failed, need reconnect \n");
    EXPECT_GE(ms, 140);
    EXPECT_LT(ms, 2000);
    EXPECT_EQ(isp_link_up(), 0);

    // The exposure read and the parameter write give up the same way, with their own messages.
    capture_stdout([] { ASSERT_EQ(Get_ISP_VD(), 0); });
    peer.fail_next(4, IspPeer::Fault::kStall);
    std::string o2 = capture_stdout([] { EXPECT_EQ(isp_read_exposure(), -1); });
    EXPECT_NE(o2.find(" recv GET_AE_EXP_INFO failed \n"), std::string::npos) << o2;
    capture_stdout([] { ASSERT_EQ(Get_ISP_VD(), 0); });
    peer.fail_next(2, IspPeer::Fault::kCloseOnRequest);
    o2 = capture_stdout([] { set_filter_param(1, 2, 60, 80); });
    EXPECT_NE(o2.find(" set_filter_param: line 381, send error: 0 \n"), std::string::npos) << o2;
}

TEST_F(IspLinkTest, ReconnectsOnceASecondAndSetsTheAttributesAgain) {
    connect();
    ASSERT_EQ(peer.connections(), 1);
    ASSERT_EQ(Get_ISP_VD(), 0);

    // The service restarts.
    peer.stop();
    std::string log = capture_stdout([] { EXPECT_EQ(Get_ISP_VD(), 1); });
    EXPECT_NE(log.find("need reconnect"), std::string::npos);
    const uint64_t lost_at = clock.monotonic_us();

    // While it is down every call fails after a 100 ms pause; the loss is logged once.
    std::string down_log = capture_stdout([] {
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(Get_ISP_VD(), 1);
    });
    EXPECT_EQ(clock.monotonic_us() - lost_at, 300000u);
    peer.start();

    // Back up from 0.3 s on, but the next attempt is due only a second after the first.
    peer.clear_log();
    int calls = 3;
    down_log += capture_stdout([&] {
        while (Get_ISP_VD() != 0 && calls < 50)
            ++calls;
    });
    const uint64_t up_after = clock.monotonic_us() - lost_at;
    EXPECT_GE(up_after, 1000000u);
    EXPECT_LT(up_after, 1200000u);
    EXPECT_EQ(peer.connections(), 2);

    auto count = [](const std::string& s, const char* what) {
        std::size_t n = 0;
        for (std::size_t p = s.find(what); p != std::string::npos; p = s.find(what, p + 1))
            ++n;
        return n;
    };
    EXPECT_EQ(count(down_log, "ISP link down"), 1u) << down_log;
    EXPECT_EQ(count(down_log, "ISP link reconnected"), 1u) << down_log;
    EXPECT_EQ(count(down_log, "SET_AF_ATTR success! ret 265"), 1u) << down_log;
    // The new connection got the attribute set-up before its first frame request.
    EXPECT_EQ(peer.codes(), (std::vector<uint8_t>{2, 3, 1}));
    EXPECT_EQ(s16_at(peer.attr_record(), 234), 960);
}

TEST_F(IspLinkTest, OtherThreadsAreNotHeldWhileTheLinkIsDown) {
    // Real time here: the pause of a closed link must not hold the link lock.
    platform::select_clock(nullptr);
    peer.stop();
    std::atomic<bool> done{false};
    std::thread loop([&] {
        capture_stdout([&] {
            while (!done.load())
                Get_ISP_VD();
        });
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    long worst_us = 0;
    for (int i = 0; i < 5; ++i) {
        const auto t0 = std::chrono::steady_clock::now();
        EXPECT_EQ(isp_read_exposure(), -1);
        set_filter_param(3, 3, 80, 80);
        const long us = static_cast<long>(std::chrono::duration_cast<std::chrono::microseconds>(
                                              std::chrono::steady_clock::now() - t0)
                                              .count());
        worst_us = std::max(worst_us, us);
        std::this_thread::sleep_for(std::chrono::milliseconds(37));
    }
    done.store(true);
    loop.join();
    EXPECT_LT(worst_us, 30000);
}

TEST_F(IspLinkTest, FrameStampDrivesTheVirtualClock) {
    connect();
    peer.set_frame_stamps(5000000, 40000);
    ASSERT_EQ(Get_ISP_VD(), 0);
    EXPECT_EQ(clock.monotonic_us(), 5040000u);
    ASSERT_EQ(Get_ISP_VD(), 0);
    EXPECT_EQ(clock.monotonic_us(), 5080000u);
    // Time never runs backwards for a stale stamp.
    clock.set_now_us(9000000);
    ASSERT_EQ(Get_ISP_VD(), 0);
    EXPECT_EQ(clock.monotonic_us(), 9000000u);
}

TEST_F(IspLinkTest, ExposureRecordGivesLumaGainRatioAndIndex) {
    connect();
    peer.set_exposure(220.0f, 0.02f, 4.0f);
    ASSERT_EQ(isp_read_exposure(), 0);
    EXPECT_EQ(get_exp_luma(), 220u);
    EXPECT_EQ(get_exp_gain_ratio(), 5500u);  // 220 / 4 x 100
    EXPECT_EQ(get_exp_index(), 800u);        // 20 x 40

    // Gain 0.0 reads as 1.0.
    peer.set_exposure(150.5f, 0.03f, 0.0f);
    ASSERT_EQ(isp_read_exposure(), 0);
    EXPECT_EQ(get_exp_luma(), 150u);
    EXPECT_EQ(get_exp_gain_ratio(), 15050u);
    EXPECT_EQ(get_exp_index(), 300u);

    // A failed read keeps the previous values.
    peer.fail_next(4, IspPeer::Fault::kShortReply);
    capture_stdout([] { EXPECT_EQ(isp_read_exposure(), -1); });
    EXPECT_EQ(get_exp_gain_ratio(), 15050u);
}

TEST(IspExposureDecode, CorruptFloatsSaturateLikeTheBoardInsteadOfOverflowing) {
    auto rec = [](float l, float t, float g) {
        std::array<uint8_t, 292> r{};
        std::memcpy(r.data() + 8, &l, 4);
        std::memcpy(r.data() + 44, &t, 4);
        std::memcpy(r.data() + 48, &g, 4);
        return r;
    };
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    ExposureValues v = isp_decode_exposure(rec(nan, nan, nan).data());
    EXPECT_EQ(v.luma, 0u);
    EXPECT_EQ(v.gain_ratio, 0u);
    EXPECT_EQ(v.index, 0u);
    v = isp_decode_exposure(rec(-5.0f, -1.0f, 2.0f).data());
    EXPECT_EQ(v.luma, 0u);
    EXPECT_EQ(v.gain_ratio, 0u);
    EXPECT_EQ(v.index, static_cast<uint32_t>(-20000));  // a signed index, stored as u32
    v = isp_decode_exposure(rec(1e30f, inf, 1.0f).data());
    EXPECT_EQ(v.luma, 0xFFFFFFFFu);
    EXPECT_EQ(v.gain_ratio, 0xFFFFFFFFu);
    EXPECT_EQ(v.index, 0x7FFFFFFFu);
}

TEST_F(IspLinkTest, FilterProfileTableWithHysteresisAndTeleCutOff) {
    connect();
    struct Case {
        uint8_t stat_mode;
        uint32_t ratio;
        uint16_t zoom;
        uint8_t result;
        uint32_t exposure_mode;
        int sent_a;  // -1: nothing sent
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
        peer.clear_log();
        EXPECT_EQ(isp_auto_filter_update(), c.result);
        EXPECT_EQ(get_exposure_mode(), c.exposure_mode);
        EXPECT_EQ(get_statistics_mode(), c.stat_mode);  // left to the caller
        ASSERT_EQ(isp_read_exposure(), 0);              // a marker after any parameter write
        ASSERT_TRUE(peer.wait_codes(1));
        if (c.sent_a < 0) {
            EXPECT_EQ(peer.codes(), (std::vector<uint8_t>{4}));
            continue;
        }
        EXPECT_EQ(peer.codes(), (std::vector<uint8_t>{2, 3, 4}));
        ASSERT_EQ(peer.set_payloads().size(), 1u);
        const std::vector<uint8_t> p = peer.set_payloads()[0];
        EXPECT_EQ(p[230], c.sent_a);
        EXPECT_EQ(p[232], c.sent_a == 1 ? 2 : 3);
        EXPECT_EQ(u16_at(p, 226), c.sent_a == 1 ? 60 : 80);
        EXPECT_EQ(u16_at(p, 228), 80);
    }
}

TEST_F(IspLinkTest, GainWalkSwitchesProfilesOnlyBeyondTheHysteresisBand) {
    connect();
    // The caller's rule: low-light statistics above exposure mode 12, normal below 10.
    auto search_start = [&](uint32_t ratio) {
        set_gain_ratio(ratio);
        const uint32_t em = get_exposure_mode();
        if (em > 12)
            set_statistics_mode(2);
        else if (em < 10)
            set_statistics_mode(0);
        return isp_auto_filter_update();
    };
    // From power-on (exposure mode 20, so low-light): a low gain ratio switches to low-noise,
    // 120..200 keeps whichever profile is in force, beyond 200 switches to high-noise.
    const uint32_t walk[] = {100, 150, 190, 250, 180, 130, 119, 150, 200, 201, 201};
    const uint8_t sent[] = {1, 0, 0, 1, 0, 0, 1, 0, 0, 1, 0};
    const uint8_t mode_after[] = {2, 0, 0, 0, 2, 2, 2, 0, 0, 0, 2};
    for (std::size_t i = 0; i < std::size(walk); ++i) {
        SCOPED_TRACE("ratio " + std::to_string(walk[i]));
        EXPECT_EQ(search_start(walk[i]), sent[i]);
        EXPECT_EQ(get_statistics_mode(), mode_after[i]);
    }
}

uint8_t g_lowLightCalls = 0;
uint8_t g_lastLowLight = 0xFF;
void on_low_light(uint8_t v) {
    ++g_lowLightCalls;
    g_lastLowLight = v;
}

TEST_F(IspLinkTest, StatisticsModeTellsTheAutofocusSideOnlyOnChangesAndForcedProfileDoesNot) {
    connect();
    g_lowLightCalls = 0;
    isp_set_low_light_listener(on_low_light);
    set_statistics_mode(2);  // power-on value: no change
    EXPECT_EQ(g_lowLightCalls, 0);
    set_statistics_mode(0);
    EXPECT_EQ(g_lowLightCalls, 1);
    EXPECT_EQ(g_lastLowLight, 0);
    set_statistics_mode(1);  // low-light for the profile logic, but not "2"
    EXPECT_EQ(g_lowLightCalls, 2);
    EXPECT_EQ(g_lastLowLight, 0);
    set_statistics_mode(2);
    EXPECT_EQ(g_lastLowLight, 1);

    peer.clear_log();
    EXPECT_EQ(isp_force_filter_profile(1), 0);
    EXPECT_EQ(get_statistics_mode(), 0);
    EXPECT_EQ(g_lowLightCalls, 3);
    set_gain_ratio(120);
    EXPECT_EQ(isp_force_filter_profile(0), 0);
    set_gain_ratio(119);
    EXPECT_EQ(isp_force_filter_profile(0), 0);
    ASSERT_EQ(isp_read_exposure(), 0);
    ASSERT_TRUE(peer.wait_codes(9));
    const auto sets = peer.set_payloads();
    ASSERT_EQ(sets.size(), 3u);
    EXPECT_EQ(sets[0][230], 1);  // forced: low-noise
    EXPECT_EQ(sets[1][230], 3);  // 120: high-noise
    EXPECT_EQ(sets[2][230], 1);  // 119: low-noise
    EXPECT_EQ(get_statistics_mode(), 0);
}

TEST_F(IspLinkTest, ExposureChangeMustLastFortySixCalls) {
    // With only the modes 3 and 20 nothing ever counts as a large change.
    exposure_change_reset();
    for (int i = 0; i < 200; ++i) {
        isp_set_exposure_mode_for_testing(i % 2 == 0 ? 3 : 20);
        EXPECT_EQ(exposure_change_test(1), 0);
    }

    isp_set_exposure_mode_for_testing(20);
    exposure_change_reset();
    isp_set_exposure_mode_for_testing(500);  // +480 and beyond twice the reference
    for (int i = 1; i <= 45; ++i)
        ASSERT_EQ(exposure_change_test(1), 0) << "call " << i;
    EXPECT_EQ(exposure_change_test(1), 1);
    // The reference is now 500: the same mode is no change.
    EXPECT_EQ(exposure_change_test(1), 0);

    // An interruption restarts the count; inactive calls reset the reference.
    isp_set_exposure_mode_for_testing(2000);
    for (int i = 0; i < 45; ++i)
        ASSERT_EQ(exposure_change_test(1), 0);
    isp_set_exposure_mode_for_testing(600);  // small against 500
    EXPECT_EQ(exposure_change_test(1), 0);
    isp_set_exposure_mode_for_testing(2000);
    for (int i = 0; i < 45; ++i)
        ASSERT_EQ(exposure_change_test(1), 0);
    EXPECT_EQ(exposure_change_test(0), 0);  // reference := 2000
    EXPECT_EQ(exposure_change_test(1), 0);

    // Below the reference: large only when at least 200 less and less than half.
    isp_set_exposure_mode_for_testing(1000);
    exposure_change_reset();
    isp_set_exposure_mode_for_testing(499);
    for (int i = 0; i < 45; ++i)
        ASSERT_EQ(exposure_change_test(1), 0);
    EXPECT_EQ(exposure_change_test(1), 1);
    isp_set_exposure_mode_for_testing(500);
    exposure_change_reset();
    isp_set_exposure_mode_for_testing(250);  // 250 less, but exactly half: small
    EXPECT_EQ(exposure_change_test(1), 0);
    isp_set_exposure_mode_for_testing(0);  // read as 1
    exposure_change_reset();
    EXPECT_EQ(exposure_change_test(1), 0);
}

TEST_F(IspLinkTest, WindowMaskReadAlwaysAnswersFullMaskAndTouchesNothing) {
    std::array<uint8_t, 25> mask;
    mask.fill(0x5A);
    EXPECT_EQ(isp_read_window_mask(mask.data()), 1);
    for (uint8_t b : mask)
        EXPECT_EQ(b, 0x5A);
    EXPECT_EQ(get_fast_statistics(), 1);
}

TEST_F(IspLinkTest, SteadyFramesNeedNoHeap) {
    connect();
    StatFrame f;
    f.fill(Field::kFirV, 900).fill(Field::kIir1, 700).set(Field::kHighlight, 7, 7, 4000);
    peer.set_frame(f.bytes());
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(Get_ISP_VD(), 0);
        af_stat_fetch(1);
        isp_read_exposure();
    }
    const uint64_t before = testsupport::allocation_count();
    for (int i = 0; i < 500; ++i) {
        ASSERT_EQ(Get_ISP_VD(), 0);
        af_stat_fetch(i % 3 == 0 ? 2 : 1);
        isp_read_exposure();
    }
    // The scripted service shares the process; it reuses its buffers once warmed up.
    EXPECT_EQ(testsupport::allocation_count() - before, 0u);
}

}  // namespace
