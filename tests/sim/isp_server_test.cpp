// The ISP service byte for byte: reply sizes, one send per reply, frame stamps in both time
// modes, the attribute record round trip, and bad input closing only the offending connection.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <fstream>
#include <memory>
#include <thread>

#include "data/frame_stamp.h"
#include "sim/camera.h"
#include "sim/isp_server.h"
#include "sim_test_util.h"

namespace {

using simtest::IspClient;

// A running ISP service on a free port, stopped and joined at the end of the test.
class Service {
  public:
    explicit Service(vcam::TimeMode mode, const std::string& vclock = "",
                     vcam::Scenario sc = simtest::chart_scenario(3000, 3200))
        : camera_(sc, &mech_) {
        vcam::ServerConfig cfg;
        cfg.port = 0;
        cfg.mode = mode;
        cfg.vclock_path = vclock;
        cfg.body_timeout_s = 0.3;
        server_ = std::make_unique<vcam::IspServer>(&camera_, cfg, nullptr);
        EXPECT_EQ(server_->listen(), 0);
        thread_ = std::thread([this] { server_->run(stop_); });
    }
    ~Service() { stop(); }
    void stop() {
        stop_.store(true);
        if (thread_.joinable())
            thread_.join();
    }
    uint16_t port() const { return server_->port(); }
    const vcam::ServerStats& stats() const { return server_->stats(); }

  private:
    vcam::LensMechanics mech_;
    vcam::Camera camera_;
    std::unique_ptr<vcam::IspServer> server_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

TEST(IspProtocol, RepliesHaveTheExactSizesAndArriveInOneRead) {
    Service svc(vcam::TimeMode::kVirtual);
    IspClient c(svc.port());
    ASSERT_TRUE(c.connected());
    EXPECT_EQ(c.request(1, 5504).size(), 5504u);
    EXPECT_EQ(c.request(2, 264).size(), 264u);
    EXPECT_EQ(c.request(4, 292).size(), 292u);
    EXPECT_EQ(c.request(1, 5504).size(), 5504u);
    svc.stop();
    EXPECT_EQ(svc.stats().frames, 2u);
    EXPECT_EQ(svc.stats().sends, 4u) << "one send per reply";
}

TEST(IspProtocol, SetAttrIsStoredWithoutReplyAndSwitchesTheProfile) {
    Service svc(vcam::TimeMode::kVirtual);
    IspClient c(svc.port());
    std::vector<uint8_t> rec = c.request(2, 264);
    ASSERT_EQ(rec.size(), 264u);
    EXPECT_EQ(rec[230], 1);  // boots with the low-noise parameters
    EXPECT_EQ(rec[232], 2);
    for (size_t i = 0; i < rec.size(); ++i)
        rec[i] = static_cast<uint8_t>(i * 7 + 3);
    rec[226] = 80;  // C
    rec[227] = 0;
    rec[230] = 3;  // A
    rec[232] = 3;  // B
    std::vector<uint8_t> msg(1 + rec.size(), 3);
    std::copy(rec.begin(), rec.end(), msg.begin() + 1);
    ASSERT_TRUE(c.send_bytes(msg));
    // No reply to a SET: the next bytes on the stream are the answer to the next request.
    EXPECT_EQ(c.request(2, 264), rec);
    EXPECT_EQ(c.request(4, 292).size(), 292u);
}

TEST(IspProtocol, VirtualFramesWithoutAClockPageFollowTheGrid) {
    Service svc(vcam::TimeMode::kVirtual);
    IspClient c(svc.port());
    for (uint32_t k = 1; k <= 4; ++k) {
        const std::vector<uint8_t> f = c.request(1, 5504);
        ASSERT_EQ(f.size(), 5504u);
        const afdata::FrameStamp st = afdata::frame_stamp_decode(f.data());
        EXPECT_EQ(st.sequence, k);
        EXPECT_EQ(st.time_us, static_cast<uint64_t>(std::llround(k * 1e6 / 30)));
    }
}

TEST(IspProtocol, VirtualFramesFollowTheClientsClockPage) {
    const std::string page = simtest::temp_path("vclock");
    {
        std::ofstream f(page, std::ios::binary);
        const char zero[8] = {};
        f.write(zero, 8);
    }
    auto set_now = [&](uint64_t t) {
        std::fstream f(page, std::ios::in | std::ios::out | std::ios::binary);
        uint8_t b[8];
        for (int i = 0; i < 8; ++i)
            b[i] = static_cast<uint8_t>(t >> (8 * i));
        f.write(reinterpret_cast<char*>(b), 8);
    };
    Service svc(vcam::TimeMode::kVirtual, page);
    IspClient c(svc.port());
    auto stamp = [&] { return afdata::frame_stamp_decode(c.request(1, 5504).data()); };
    set_now(0);
    EXPECT_EQ(stamp().time_us, 33333u);  // first frame strictly after now
    set_now(33333 + 1000);               // a client that kept up
    afdata::FrameStamp s = stamp();
    EXPECT_EQ(s.sequence, 2u);
    EXPECT_EQ(s.time_us, 66667u);
    set_now(66667 + 40000);  // a client that was late: the frame in between is gone
    s = stamp();
    EXPECT_EQ(s.sequence, 4u);
    EXPECT_EQ(s.time_us, 133333u);
    set_now(133333);  // exactly at a frame time: the next one, never the same frame twice
    EXPECT_EQ(stamp().time_us, 166667u);
    std::remove(page.c_str());
}

TEST(IspProtocol, RealTimeFramesArePacedAtTheFrameRate) {
    vcam::Scenario sc = simtest::chart_scenario(3000, 3200);
    sc.fps = 50;
    Service svc(vcam::TimeMode::kReal, "", sc);
    IspClient c(svc.port());
    std::vector<afdata::FrameStamp> stamps;
    uint8_t buf[5504];
    const auto t0 = std::chrono::steady_clock::now();
    for (int i = 0; i < 8; ++i) {
        const uint8_t code = 1;
        ASSERT_EQ(send(c.fd(), &code, 1, 0), 1);
        ASSERT_EQ(recv(c.fd(), buf, sizeof buf, MSG_WAITALL), 5504);
        stamps.push_back(afdata::frame_stamp_decode(buf));
    }
    const double wall =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_GT(wall, 6 * 20000 / 1e6) << "frames must not come faster than the frame rate";
    // Frame k is complete at k periods after the start: never delivered before that, and only
    // late by the scheduling delay of a busy machine. A client that was late skips frames.
    for (size_t i = 0; i < stamps.size(); ++i) {
        const uint64_t due = uint64_t{stamps[i].sequence} * 20000;
        EXPECT_GE(stamps[i].time_us, due) << "frame " << i;
        EXPECT_LT(stamps[i].time_us, due + 15000) << "frame " << i;
        if (i > 0) {
            EXPECT_GT(stamps[i].sequence, stamps[i - 1].sequence);
        }
    }
}

TEST(IspBadInput, UnknownCodeClosesTheConnectionAndTheServiceGoesOn) {
    Service svc(vcam::TimeMode::kVirtual);
    {
        IspClient c(svc.port());
        ASSERT_TRUE(c.send_bytes({9}));
        EXPECT_TRUE(c.closed_by_peer());
    }
    IspClient next(svc.port());
    EXPECT_EQ(next.request(1, 5504).size(), 5504u);
    svc.stop();
    EXPECT_EQ(svc.stats().protocol_errors, 1u);
}

TEST(IspBadInput, ShortSetFromAClosingClientIsRejectedAndNotStored) {
    Service svc(vcam::TimeMode::kVirtual);
    {
        IspClient c(svc.port());
        std::vector<uint8_t> msg(100, 0xEE);
        msg[0] = 3;
        ASSERT_TRUE(c.send_bytes(msg));
    }  // closes mid-record
    IspClient next(svc.port());
    const std::vector<uint8_t> rec = next.request(2, 264);
    ASSERT_EQ(rec.size(), 264u);
    EXPECT_EQ(rec[230], 1) << "the partial record must not be stored";
    svc.stop();
    EXPECT_EQ(svc.stats().protocol_errors, 1u);
}

TEST(IspBadInput, ShortSetFromAStalledClientTimesOut) {
    Service svc(vcam::TimeMode::kVirtual);
    IspClient c(svc.port());
    std::vector<uint8_t> msg(50, 0);
    msg[0] = 3;
    ASSERT_TRUE(c.send_bytes(msg));
    EXPECT_TRUE(c.closed_by_peer(3000));
}

TEST(IspBadInput, ClientVanishingBeforeItsReplyIsHarmless) {
    Service svc(vcam::TimeMode::kVirtual);
    for (int i = 0; i < 5; ++i) {
        IspClient c(svc.port());
        ASSERT_TRUE(c.send_bytes({1, 1, 4, 2}));
    }
    IspClient next(svc.port());
    EXPECT_EQ(next.request(4, 292).size(), 292u);
}

TEST(Determinism, SameSeedSameBytesOtherSeedOtherBytes) {
    auto frames = [](uint64_t seed, bool noise) {
        vcam::Scenario sc = simtest::chart_scenario(3000, 3200);
        sc.noise.enabled = noise;
        sc.noise.seed = seed;
        vcam::LensMechanics mech;
        vcam::Camera cam(sc, &mech);
        std::vector<uint8_t> all;
        uint8_t buf[vcam::kStatFrameSize];
        for (uint64_t k = 1; k <= 5; ++k) {
            cam.frame(k, cam.grid_time_us(k), buf, nullptr);
            all.insert(all.end(), buf, buf + sizeof buf);
        }
        return all;
    };
    EXPECT_EQ(frames(11, true), frames(11, true));
    EXPECT_NE(frames(11, true), frames(12, true));
    EXPECT_EQ(frames(11, false), frames(12, false)) << "without noise the seed plays no part";
}

}  // namespace
