// The ISP service byte for byte: reply sizes, one send per reply, frame stamps in virtual time,
// the attribute record round trip, and bad input closing only the offending connection.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <fstream>
#include <memory>
#include <thread>

#include "data/frame_stamp.h"
#include "sim/camera.h"
#include "sim/isp_server.h"
#include "sim_test_util.h"

namespace {

using simtest::IspClient;
using Bytes = std::vector<uint8_t>;

// A running ISP service in virtual time on a free port, stopped and joined at the end.
class Service {
  public:
    explicit Service(const std::string& vclock = "") : camera_(chart(), &mech_) {
        vcam::ServerConfig cfg;
        cfg.port = 0;
        cfg.mode = vcam::TimeMode::kVirtual;
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
    static vcam::Scenario chart() { return simtest::chart_scenario(3000, 3200); }
    vcam::LensMechanics mech_;
    vcam::Camera camera_;
    std::unique_ptr<vcam::IspServer> server_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

TEST(IspProtocol, RepliesHaveTheExactSizesInOneSendAndSetIsStoredWithoutReply) {
    Service svc;
    IspClient c(svc.port());
    ASSERT_TRUE(c.connected());
    EXPECT_EQ(c.request(1, 5504).size(), 5504u);
    Bytes rec = c.request(2, 264);
    ASSERT_EQ(rec.size(), 264u);
    EXPECT_EQ(rec[vcam::kAttrFilterA], 1) << "boots with the low-noise parameters";
    EXPECT_EQ(c.request(4, 292).size(), 292u);
    for (size_t i = 0; i < rec.size(); ++i)
        rec[i] = static_cast<uint8_t>(i * 7 + 3);
    Bytes msg(1 + rec.size(), 3);
    std::copy(rec.begin(), rec.end(), msg.begin() + 1);
    ASSERT_TRUE(c.send_bytes(msg));
    // No reply to a SET: the next bytes on the stream are the answer to the next request.
    EXPECT_EQ(c.request(2, 264), rec);
    EXPECT_EQ(c.request(1, 5504).size(), 5504u);
    svc.stop();
    EXPECT_EQ(svc.stats().frames, 2u);
    EXPECT_EQ(svc.stats().sends, 5u) << "one send per reply, none for the SET";
}

// Without a clock page virtual time simply steps along the grid, as fast as the client asks.
TEST(IspProtocol, VirtualFramesWithoutAClockPageFollowTheGridFarFasterThanRealTime) {
    Service svc;
    IspClient c(svc.port());
    const auto t0 = std::chrono::steady_clock::now();
    for (uint32_t k = 1; k <= 600; ++k) {
        const afdata::FrameStamp st = c.next_frame();
        ASSERT_EQ(st.sequence, k);
        ASSERT_EQ(st.time_us, static_cast<uint64_t>(std::llround(k * 1e6 / 30)));
    }
    const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - t0;
    EXPECT_LT(wall.count(), 1.0) << "20 s of scene time must not take a second";
}

TEST(IspProtocol, VirtualFramesFollowTheClientsClockPage) {
    const std::string page = simtest::temp_path("vclock");
    std::ofstream(page, std::ios::binary) << std::string(afdata::kVirtualClockFileSize, '\0');
    auto set_now = [&](uint64_t t) {  // in place: the service has the page mapped
        std::fstream f(page, std::ios::binary | std::ios::in | std::ios::out);
        for (int i = 0; i < 8; ++i)
            f.put(static_cast<char>(t >> (8 * i)));
    };
    Service svc(page);
    IspClient c(svc.port());
    const struct {
        uint64_t now;
        uint32_t sequence;
        uint64_t stamp;
    } steps[] = {
        {0, 1, 33333},               // the first frame strictly after now
        {33333 + 1000, 2, 66667},    // a client that kept up
        {66667 + 40000, 4, 133333},  // a client that was late: the frame in between is gone
        {133333, 5, 166667},         // exactly at a frame time: never the same frame twice
    };
    for (const auto& s : steps) {
        set_now(s.now);
        const afdata::FrameStamp st = c.next_frame();
        EXPECT_EQ(st.sequence, s.sequence) << "now " << s.now;
        EXPECT_EQ(st.time_us, s.stamp) << "now " << s.now;
    }
    std::remove(page.c_str());
}

// A client that sends an unknown code, closes in the middle of a SET or stalls in it is cut off
// with a protocol error; nothing of it is stored. A client vanishing before its replies is
// harmless. The next client is served either way.
TEST(IspBadInput, OffendingConnectionIsClosedAndTheServiceGoesOn) {
    Service svc;
    Bytes short_set(100, 0xEE);
    short_set[0] = 3;
    for (const Bytes& bad : {Bytes{9}, short_set, Bytes{1, 1, 4, 2}}) {
        IspClient c(svc.port());
        ASSERT_TRUE(c.send_bytes(bad));
        if (bad[0] == 9) {
            EXPECT_TRUE(c.closed_by_peer());
        }
    }
    {
        IspClient stalled(svc.port());
        ASSERT_TRUE(stalled.send_bytes(Bytes(50, 3)));
        EXPECT_TRUE(stalled.closed_by_peer());
    }
    IspClient next(svc.port());
    const Bytes rec = next.request(2, 264);
    ASSERT_EQ(rec.size(), 264u);
    EXPECT_EQ(rec[vcam::kAttrFilterA], 1) << "a partial record must not be stored";
    EXPECT_EQ(next.request(4, 292).size(), 292u);
    svc.stop();
    EXPECT_EQ(svc.stats().protocol_errors, 3u);
}

TEST(Determinism, SameSeedSameBytesOtherSeedOtherBytes) {
    auto frames = [](uint64_t seed, bool noise) {
        vcam::Scenario sc = simtest::chart_scenario(3000, 3200);
        sc.noise.enabled = noise;
        sc.noise.seed = seed;
        vcam::LensMechanics mech;
        vcam::Camera cam(sc, &mech);
        Bytes all;
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
