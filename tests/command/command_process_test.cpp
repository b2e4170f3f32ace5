// Command channel through its public interface: datagrams in, replies and reports out on a real
// UDP socket standing in for the control software.
#include "command/command_process.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "af/auto_focus.h"
#include "af/focus_zone.h"
#include "app/frame_pacing.h"
#include "data/lens_tables.h"
#include "lens_api/lens_position.h"
#include "platform/ports.h"
#include "tests/support/test_env.h"
#include "tracking/curves.h"
#include "tracking/zoom_track.h"

namespace {

using Bytes = std::vector<uint8_t>;

int open_peer(uint16_t* port) {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    *port = ntohs(a.sin_port);
    timeval tv{0, 200000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    return fd;
}

Bytes receive(int fd) {
    uint8_t buf[512];
    ssize_t n = recv(fd, buf, sizeof buf, 0);
    if (n <= 0)
        return {};
    return Bytes(buf, buf + n);
}

// Waits up to `ms` for a datagram (a thread on a loaded machine may take a while to run).
Bytes receive_within(int fd, int ms) {
    pollfd pfd{fd, POLLIN, 0};
    if (poll(&pfd, 1, ms) <= 0)
        return {};
    uint8_t buf[512];
    ssize_t n = recv(fd, buf, sizeof buf, 0);
    if (n <= 0)
        return {};
    return Bytes(buf, buf + n);
}

uint16_t u16(const Bytes& b, size_t at) {
    return static_cast<uint16_t>(b[at] | (b[at + 1] << 8));
}

Bytes motion_write(uint8_t mode, uint8_t zoom_dir, uint16_t zoom_target, uint8_t zoom_speed = 5) {
    MotionCommand m{};
    m.mode = mode;
    m.zoom_dir = zoom_dir;
    m.zoom_target = zoom_target;
    m.zoom_speed = zoom_speed;
    m.focus_speed = 3;
    Bytes d(20, 0);
    d[0] = 'w';
    d[1] = 0;
    motion_command_encode(m, d.data() + 2);
    return d;
}

class CommandTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        reply_fd_ = open_peer(&reply_port_);
        other_fd_ = open_peer(&other_port_);
        setenv("AFD_REPLY_PORT", std::to_string(reply_port_).c_str(), 1);
        setenv("AFD_CMD_PORT", "0", 1);
        setenv("AFD_CMD_BIND", "127.0.0.1", 1);
        platform::reload_ports();
        command_sockets_open();
        unsetenv("AFD_REPLY_PORT");
        unsetenv("AFD_CMD_PORT");
        unsetenv("AFD_CMD_BIND");
        platform::reload_ports();
    }

    void SetUp() override {
        testsupport::capture_stdout([] { command_state_init(); });
        command_set_zoom_motion_active(0);
        lens_set_positions(0, 3000);
        drain();
    }
    void TearDown() override {
        set_loop_paused(0);
        command_set_zoom_motion_active(0);
        lens_set_positions(0, 0);
    }

    static void drain() {
        timeval tv{0, 1000};
        setsockopt(reply_fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        while (!receive(reply_fd_).empty()) {
        }
        tv = {0, 200000};
        setsockopt(reply_fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    }

    static sockaddr_in from(uint16_t port) {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(port);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return a;
    }

    // Sends a datagram as if received from the "other" socket; returns what was printed.
    static std::string send(const Bytes& d) {
        return testsupport::capture_stdout(
            [&] { command_process_datagram(d.data(), d.size(), from(other_port_)); });
    }

    testsupport::SandboxRoot root_;
    static int reply_fd_;
    static int other_fd_;
    static uint16_t reply_port_;
    static uint16_t other_port_;
};

int CommandTest::reply_fd_ = -1;
int CommandTest::other_fd_ = -1;
uint16_t CommandTest::reply_port_ = 0;
uint16_t CommandTest::other_port_ = 0;

// ---- Read requests ----

TEST_F(CommandTest, HomingStatusIsReported) {
    command_set_homing_error(3);
    send({'r', 6});
    EXPECT_EQ(receive(reply_fd_), Bytes({'r', 6, 3}));
}

TEST_F(CommandTest, CalibrationStatusGoesToTheSenderOnlyWhenAsked) {
    send({'r', 3, 0xAA, 0x55});
    EXPECT_EQ(receive(other_fd_), Bytes({'r', 3, 0, 0}));
    EXPECT_TRUE(receive(reply_fd_).empty());
    send({'r', 3, 0xAA, 0x54});
    EXPECT_EQ(receive(reply_fd_), Bytes({'r', 3, 0, 0}));
    EXPECT_TRUE(receive(other_fd_).empty());
}

TEST_F(CommandTest, PositionRecordReflectsLensAndElectronicZoom) {
    lens_set_positions(6624, 4321);
    command_set_max_ezoom(500);
    drain();
    command_set_ezoom(200);
    EXPECT_EQ(receive(reply_fd_), Bytes({'w', 11, 200, 0})) << "the change is notified";
    send({'r', 1});
    const Bytes r = receive(reply_fd_);
    ASSERT_EQ(r.size(), 18u);
    EXPECT_EQ(u16(r, 2), 6624 + 200);
    EXPECT_EQ(u16(r, 4), 4321);
    EXPECT_EQ(u16(r, 6), lens_get_zoom_max() + 500);
    EXPECT_EQ(u16(r, 8), lens_get_focus_max());
    EXPECT_EQ(u16(r, 10), lens_get_zoom_min());
    EXPECT_EQ(u16(r, 12), lens_get_focus_min());
    EXPECT_EQ(u16(r, 14), 200);
    EXPECT_EQ(u16(r, 16), 500);
}

TEST_F(CommandTest, StatusBlockCarriesEveryRecord) {
    command_set_homing_error(2);
    send({'r', 7});
    const Bytes r = receive(reply_fd_);
    ASSERT_EQ(r.size(), 58u);
    const MotionCommand m = motion_command_decode(r.data() + 2);
    EXPECT_EQ(m.region, 3);
    EXPECT_EQ(m.zone_type, 2);
    EXPECT_EQ(m.autofocus_mode, 1);
    // header 2, motion 18, calibration 2, iris 2, positions 16, day/night 12, mode 3, error 1,
    // electronic zoom enable 2
    EXPECT_EQ(r[22], 1) << "autoiris_en";
    EXPECT_EQ(u16(r, 24 + 4), lens_get_zoom_max() + 1012) << "slot 2 always shows the full range";
    EXPECT_EQ(u16(r, 40), 0) << "day/night enable";
    EXPECT_EQ(u16(r, 44), 200) << "upper threshold";
    EXPECT_EQ(u16(r, 48), 40) << "lower threshold";
    EXPECT_EQ(Bytes(r.begin() + 52, r.begin() + 55), Bytes({20, 4, 27}));
    EXPECT_EQ(r[55], 2) << "error";
    EXPECT_EQ(u16(r, 56), 1) << "electronic zoom enable";
}

TEST_F(CommandTest, FieldOfViewTableAndAngleLookup) {
    send({'r', 21});
    const Bytes r = receive(reply_fd_);
    ASSERT_EQ(r.size(), 82u);
    float wide = 0;
    std::memcpy(&wide, r.data() + 2 + 4, 4);
    EXPECT_FLOAT_EQ(wide, 70.1f);
    EXPECT_EQ(r[2 + 12], 12);
    EXPECT_EQ(u16(r, 2 + 18 + 2), 2556);
    EXPECT_EQ(u16(r, 2 + 18 + 22), 6624);

    EXPECT_FLOAT_EQ(command_angle_of_view(0), 70.1f);
    const double half = std::tan(70.1 / 2 * M_PI / 180);
    const double two_x = 2 * std::atan(half / 2) * 180 / M_PI;
    EXPECT_NEAR(command_angle_of_view(2556), two_x, 1e-3);
    EXPECT_NEAR(command_angle_of_view(1278), (70.1 + two_x) / 2, 1e-3) << "linear between steps";
    EXPECT_NEAR(command_angle_of_view(6624), 2 * std::atan(half / 12) * 180 / M_PI, 1e-3);
    EXPECT_GT(command_angle_of_view(3000), command_angle_of_view(4000)) << "narrower when zoomed";
}

TEST_F(CommandTest, CounterReadsZero) {
    send({'r', 20});
    EXPECT_EQ(receive(reply_fd_), Bytes({'r', 20, 0, 0}));
}

TEST_F(CommandTest, UnknownDirectionAndIdsAreIgnored) {
    send({'x', 6});
    send({'r', 99});
    send({'w', 99, 1, 2, 3});
    EXPECT_TRUE(receive(reply_fd_).empty());
}

// ---- Motions ----

TEST_F(CommandTest, ZoomTargetPastTheOpticalEndBecomesElectronicZoom) {
    const std::string out = send(motion_write(1, 1, 7000));
    EXPECT_EQ(command_zoom_motion_active(), 1);
    const MotionCommand m = command_motion_copy();
    EXPECT_EQ(m.zoom_target, 6624);
    EXPECT_EQ(m.ezoom_target, 376);
    EXPECT_EQ(command_saved_zoom_target(), 7000);
    EXPECT_NE(out.find("mode: 1 zoom_speed: 5 zoom_target: 6624"), std::string::npos) << out;
}

TEST_F(CommandTest, ZoomOutAtTheWideEndDoesNotStartButIsRecorded) {
    lens_set_positions(lens_get_zoom_min(), 3000);
    const std::string out = send(motion_write(0, 0, 0, 30));
    EXPECT_EQ(command_zoom_motion_active(), 0);
    EXPECT_EQ(command_motion_copy().zoom_speed, 8) << "replaced, with the speed clamped";
    EXPECT_NE(out.find("mode: 0 zoom_speed: 8"), std::string::npos) << out;
    send(motion_write(0, 1, 0));
    EXPECT_EQ(command_zoom_motion_active(), 1) << "zooming in from the wide end starts";
}

TEST_F(CommandTest, ZoomInAtTheOpticalEndStartsOnlyForElectronicZoom) {
    lens_set_positions(lens_get_zoom_max(), 3000);
    send(motion_write(0, 1, 0));
    EXPECT_EQ(command_zoom_motion_active(), 0);
    command_set_max_ezoom(100);
    send(motion_write(0, 1, 0));
    EXPECT_EQ(command_zoom_motion_active(), 1);
    command_set_zoom_motion_active(0);
    send(motion_write(0, 2, 0));
    EXPECT_EQ(command_zoom_motion_active(), 0) << "no such zoom direction";
}

TEST_F(CommandTest, FocusTargetDuringReturnFinishesTheSavedZoom) {
    send(motion_write(1, 1, 5000));
    ASSERT_EQ(command_zoom_motion_active(), 1);
    g_returnToLast = 1;
    send(motion_write(5, 0, 0));
    g_returnToLast = 0;
    const MotionCommand m = command_motion_copy();
    EXPECT_EQ(m.mode, 7);
    EXPECT_EQ(m.zoom_target, 5000);
    EXPECT_EQ(command_saved_zoom_target(), -1);
}

TEST_F(CommandTest, ShortDatagramIsNeverActedOnAndReportedOnce) {
    const MotionCommand before = command_motion_copy();
    Bytes d = motion_write(1, 1, 4000);
    d.resize(12);
    const std::string first = send(d);
    const std::string second = send(d);
    EXPECT_EQ(command_zoom_motion_active(), 0);
    EXPECT_EQ(command_motion_copy().zoom_target, before.zoom_target);
    EXPECT_NE(first.find("DBG_ERR:"), std::string::npos);
    EXPECT_EQ(second, "") << "each kind is reported once";
}

// ---- Sub-commands ----

TEST_F(CommandTest, AutofocusOffRaisesRefocusAndReturn) {
    g_refocusRequest = 0;
    g_returnToLast = 0;
    Bytes d = motion_write(8, 0, 0);
    d[2 + 13] = 0;
    const std::string out = send(d);
    EXPECT_EQ(command_autofocus_mode(), 0);
    EXPECT_EQ(g_refocusRequest, 1);
    EXPECT_EQ(g_returnToLast, 1);
    EXPECT_NE(out.find(": autofocus_en: 0 \n"), std::string::npos);
    g_refocusRequest = 0;
    g_returnToLast = 0;
    d[2 + 13] = 1;
    send(d);
    EXPECT_EQ(command_autofocus_mode(), 1);
    EXPECT_EQ(g_refocusRequest, 0) << "continuous mode needs no request";
    EXPECT_EQ(g_returnToLast, 0);
}

TEST_F(CommandTest, ZoneTypeAndPreset) {
    Bytes d = motion_write(10, 0, 0);
    d[2 + 14] = 1;
    send(d);
    EXPECT_EQ(g_zoneType, 1);
    EXPECT_EQ(command_zone_type4(), 0);
    d[2 + 14] = 4;
    send(d);
    EXPECT_EQ(g_zoneType, 3);
    EXPECT_EQ(command_zone_type4(), 1);
    send({'r', 0});
    EXPECT_EQ(receive(reply_fd_)[2 + 14], 4) << "reported as type 4";

    Bytes p = motion_write(11, 0, 0);
    p[2 + 15] = 2;
    send(p);
    EXPECT_EQ(get_window_preset(), 2);
    p[2 + 15] = 9;
    send(p);
    EXPECT_EQ(get_window_preset(), 1);
}

TEST_F(CommandTest, DirectMotionClampsSpeedsToSeven) {
    Bytes d = motion_write(12, 1, 3000, 8);
    d[2 + 1] = 9;
    send(d);
    EXPECT_EQ(command_zoom_motion_active(), 1);
    EXPECT_EQ(command_motion_copy().zoom_speed, 7);
    EXPECT_EQ(command_motion_copy().focus_speed, 7);
    send(motion_write(9, 0, 0));
    EXPECT_EQ(command_zoom_motion_active(), 0) << "sub-command 9 stops";
}

TEST_F(CommandTest, PauseAndReleaseTheFrameLoop) {
    Bytes d = motion_write(16, 0, 0);
    d[2 + 1] = 0;
    send(d);
    EXPECT_EQ(get_loop_paused(), 1u);
    d[2 + 1] = 50;
    send(d);
    EXPECT_EQ(get_loop_paused(), 1u) << "only 100 releases";
    d[2 + 1] = 100;
    send(d);
    EXPECT_EQ(get_loop_paused(), 0u);
}

TEST_F(CommandTest, PanTiltAndFocusStopFlags) {
    EXPECT_NE(send(motion_write(14, 0, 0)).find(": pt move\n"), std::string::npos);
    EXPECT_EQ(command_pt_moving(), 1);
    EXPECT_NE(send(motion_write(15, 0, 0)).find(": pt stop\n"), std::string::npos);
    EXPECT_EQ(command_pt_moving(), 0);
    send(motion_write(13, 0, 0));
    EXPECT_EQ(command_focus_stop_request(), 1);
    command_clear_focus_stop_request();
    EXPECT_EQ(command_focus_stop_request(), 0);
}

// ---- Other writes ----

TEST_F(CommandTest, ElectronicZoomEnableAndLimits) {
    send({'w', 13, 7, 0});
    EXPECT_EQ(command_get_ezoom_enable(), 1);
    command_set_max_ezoom(2000);
    EXPECT_EQ(command_get_max_ezoom(), 1012);
    command_set_ezoom(1012);
    command_set_max_ezoom(300);
    EXPECT_EQ(command_get_ezoom(), 300u) << "a lower maximum pulls the current value down";
    drain();
    command_set_ezoom(300);
    EXPECT_TRUE(receive(reply_fd_).empty()) << "no notification without a change";

    send({'w', 13, 0, 0});
    command_set_ezoom(100);
    EXPECT_EQ(command_get_ezoom(), 300u) << "disabled: ignored";
}

TEST_F(CommandTest, SearchRangeByDistanceNarrowsTheBounds) {
    testsupport::capture_stdout([] { curve_load(); });
    const uint16_t lo0 = curve_get_lower_bound(100);
    const uint16_t up0 = curve_get_upper_bound(100);
    g_refocusRequest = 0;
    send({'w', 18, 1, 5, 5});  // one band: row 38 with 5 steps each side
    const auto& off = afdata::kFarCurveOffsets;
    const int32_t k = zoom_track_get_trim();
    EXPECT_EQ(curve_get_lower_bound(100), curve_get_point(100) + off[38][100] - k - 5);
    EXPECT_EQ(curve_get_upper_bound(100), curve_get_point(100) + off[38][100] - k + 5);
    EXPECT_EQ(g_refocusRequest, 1);

    send({'w', 18, 1, 11, 0});  // from the nearest band to the farthest
    EXPECT_LT(curve_get_lower_bound(100), curve_get_upper_bound(100));

    send({'w', 18, 1, 12, 0});  // index out of range: unchanged
    send({'w', 18, 0, 0, 0});   // restores the defaults
    EXPECT_EQ(curve_get_lower_bound(100), lo0);
    EXPECT_EQ(curve_get_upper_bound(100), up0);
}

// ---- Publishing and the end-of-motion report ----

TEST_F(CommandTest, PublishesPositionsAndReportsEachMotionEndOnce) {
    lens_set_positions(1234, 2345);
    command_publish_positions();
    std::ifstream f(root_.host("/dev/sm_af_zoom_focus_value"), std::ios::binary);
    ASSERT_TRUE(f.good()) << "device created under the file root";
    std::string content((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    ASSERT_EQ(content.size(), 17u) << "extended to 17 bytes";
    EXPECT_EQ(static_cast<uint8_t>(content[0]) | (static_cast<uint8_t>(content[1]) << 8), 1234);
    EXPECT_EQ(static_cast<uint8_t>(content[2]) | (static_cast<uint8_t>(content[3]) << 8), 2345);

    drain();
    command_set_zoom_motion_active(1);
    command_publish_positions();
    EXPECT_TRUE(receive(reply_fd_).empty());
    command_set_zoom_motion_active(0);
    command_publish_positions();
    command_publish_positions();
    const Bytes r = receive(reply_fd_);
    ASSERT_EQ(r.size(), 20u);
    EXPECT_EQ(r[0], 'r');
    EXPECT_EQ(r[1], 0);
    EXPECT_EQ(r[2 + 12], 0) << "move flag refreshed";
    EXPECT_TRUE(receive(reply_fd_).empty()) << "exactly one report per motion";
}

TEST_F(CommandTest, MessageThreadServesTheCommandSocket) {
    ASSERT_EQ(command_thread_start(), 0);
    const uint16_t port = command_get_port();
    ASSERT_NE(port, 0);
    command_set_homing_error(4);
    const uint8_t req[2] = {'R', 6};
    sockaddr_in to = from(port);
    sendto(other_fd_, req, 2, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    EXPECT_EQ(receive_within(reply_fd_, 5000), Bytes({'R', 6, 4}));
}

}  // namespace
