// Command channel through its public interface: datagrams in, replies and reports out on a real
// UDP socket standing in for the control software.
#include "command/command_process.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "af/auto_focus.h"
#include "af/focus_zone.h"
#include "base/frame_pacing.h"
#include "data/lens_tables.h"
#include "lens_api/iris.h"
#include "lens_api/lens_driver.h"
#include "lens_api/lens_position.h"
#include "platform/ports.h"
#include "store/lens_data.h"
#include "tests/support/test_env.h"
#include "tracking/calibration.h"
#include "tracking/curves.h"
#include "tracking/zoom_track.h"

namespace {

using Bytes = std::vector<uint8_t>;

sockaddr_in loopback(uint16_t port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

int open_peer(uint16_t* port) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a = loopback(0);
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    *port = ntohs(a.sin_port);
    return fd;
}

// The datagram waiting on fd within `ms`, or nothing. The daemon sends synchronously on loopback,
// so a reply is there as soon as command_process_datagram returns.
Bytes receive(int fd, int ms = 100) {
    pollfd pfd{fd, POLLIN, 0};
    if (poll(&pfd, 1, ms) <= 0)
        return {};
    uint8_t buf[512];
    const ssize_t n = recv(fd, buf, sizeof buf, 0);
    return n > 0 ? Bytes(buf, buf + n) : Bytes{};
}

uint16_t u16(const Bytes& b, size_t at) {
    return static_cast<uint16_t>(b[at] | (b[at + 1] << 8));
}
// n little-endian halfwords from byte `at` on.
std::vector<int> u16s(const Bytes& b, size_t at, size_t n) {
    std::vector<int> v;
    for (size_t i = 0; i < n; ++i)
        v.push_back(u16(b, at + 2 * i));
    return v;
}

MotionCommand motion(uint8_t mode, uint8_t zoom_dir = 0, uint16_t zoom_target = 0) {
    MotionCommand m{};
    m.mode = mode;
    m.zoom_dir = zoom_dir;
    m.zoom_target = zoom_target;
    m.zoom_speed = 5;
    m.focus_speed = 3;
    return m;
}

Bytes write0(const MotionCommand& m) {
    Bytes d(2 + kMotionCommandWireSize, 0);
    d[0] = 'w';
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
        // Leave the electronic zoom enabled and at zero for the modules tested after this one.
        send({'w', 13, 1, 0});
        command_set_ezoom(0);
        command_set_max_ezoom(0);
        set_loop_paused(0);
        command_set_zoom_motion_active(0);
        lens_set_positions(0, 0);
    }

    static void drain() {
        while (!receive(reply_fd_, 1).empty() || !receive(other_fd_, 1).empty()) {
        }
    }

    // Processes a datagram as if received from the "other" socket; returns what was printed.
    static std::string send(const Bytes& d) {
        return testsupport::capture_stdout(
            [&] { command_process_datagram(d.data(), d.size(), loopback(other_port_)); });
    }

    testsupport::SandboxRoot root_;
    static inline int reply_fd_ = -1, other_fd_ = -1;
    static inline uint16_t reply_port_ = 0, other_port_ = 0;
};

// ---- Read requests ----

TEST_F(CommandTest, ReadsAreAnsweredToTheReplyPortOrToTheAskingSender) {
    command_set_homing_error(3);
    const struct {
        Bytes request, to_reply_port, to_sender;
    } cases[] = {
        {{'r', 6}, {'r', 6, 3}, {}},       // homing status
        {{'R', 6}, {'R', 6, 3}, {}},       // either case of the direction
        {{'r', 20}, {'r', 20, 0, 0}, {}},  // the counter reads zero
        {{'r', 3, 0xAA, 0x54}, {'r', 3, 0, 0}, {}},
        {{'r', 3, 0xAA, 0x55}, {}, {'r', 3, 0, 0}},  // calibration status to the asker
        {{'x', 6}, {}, {}},
        {{'r', 99}, {}, {}},
        {{'w', 99, 1, 2, 3}, {}, {}},
    };
    for (const auto& c : cases) {
        send(c.request);
        EXPECT_EQ(receive(reply_fd_), c.to_reply_port) << c.request[0] << int(c.request[1]);
        EXPECT_EQ(receive(other_fd_, 1), c.to_sender) << c.request[0] << int(c.request[1]);
    }
}

TEST_F(CommandTest, PositionRecordReflectsLensAndElectronicZoom) {
    lens_set_positions(6624, 4321);
    command_set_max_ezoom(500);
    drain();
    command_set_ezoom(200);
    EXPECT_EQ(receive(reply_fd_), Bytes({'w', 11, 200, 0})) << "the change is notified";
    send({'r', 1});
    const Bytes r = receive(reply_fd_);
    ASSERT_EQ(r.size(), 2 + kPositionRecordSize);
    // zoom (optical + electronic), focus, their maxima and minima, electronic zoom and maximum
    EXPECT_EQ(u16s(r, 2, 8),
              (std::vector<int>{6624 + 200, 4321, lens_get_zoom_max() + 500, lens_get_focus_max(),
                                lens_get_zoom_min(), lens_get_focus_min(), 200, 500}));
}

TEST_F(CommandTest, StatusBlockCarriesEveryRecord) {
    command_set_homing_error(2);
    send({'r', 7});
    const Bytes r = receive(reply_fd_);
    ASSERT_EQ(r.size(), 58u);
    // header 2, motion 18, calibration 2, iris 2, positions 16, day/night 12, mode 3, error 1,
    // electronic zoom enable 2. The motion record shows the start-up zone set-up and autofocus,
    // position slot 2 always the full range.
    const MotionCommand m = motion_command_decode(r.data() + 2);
    EXPECT_EQ((std::vector<int>{m.region, m.zone_type, m.autofocus_mode, r[22], u16(r, 28),
                                u16(r, 44), u16(r, 48), r[55], u16(r, 56)}),
              (std::vector<int>{3, 2, 1, 1, lens_get_zoom_max() + 1012, 200, 40, 2, 1}));
}

// The field-of-view record gives the wide-end angle and the zoom position of each magnification
// step up to 12x at the optical end; the angle of view narrows by tan(a/2) / magnification and
// is linear between steps.
TEST_F(CommandTest, AngleOfViewFollowsTheFieldOfViewRecord) {
    send({'r', 21});
    const Bytes r = receive(reply_fd_);
    ASSERT_EQ(r.size(), 82u);
    ASSERT_EQ(r[2 + 12], 12) << "magnification steps";
    EXPECT_EQ(u16(r, 2 + 18 + 22), lens_get_zoom_max());
    float wide = 0;
    std::memcpy(&wide, r.data() + 2 + 4, 4);
    const double two_x = 2 * std::atan(std::tan(wide / 2 * M_PI / 180) / 2) * 180 / M_PI;
    const uint16_t z2 = u16(r, 2 + 18 + 2);
    EXPECT_NEAR(command_angle_of_view(0), wide, 1e-3);
    EXPECT_NEAR(command_angle_of_view(z2), two_x, 1e-3);
    EXPECT_NEAR(command_angle_of_view(z2 / 2), (wide + two_x) / 2, 1e-3) << "linear";
}

// ---- Motions ----

// A zoom target past the optical end becomes electronic zoom; the target is saved, and a focus
// target during a return to the last position first finishes that zoom.
TEST_F(CommandTest, ZoomTargetIsSplitSavedAndFinishedOnAReturn) {
    const uint16_t zmax = lens_get_zoom_max();
    const std::string out = send(write0(motion(1, 1, 7000)));
    EXPECT_EQ(command_zoom_motion_active(), 1);
    MotionCommand m = command_motion_copy();
    EXPECT_EQ(m.zoom_target, zmax);
    EXPECT_EQ(m.ezoom_target, 7000 - zmax);
    EXPECT_EQ(command_saved_zoom_target(), 7000);
    EXPECT_NE(out.find("mode: 1 zoom_speed: 5 zoom_target: " + std::to_string(zmax)),
              std::string::npos)
        << out;
    g_returnToLast = 1;
    send(write0(motion(5)));
    g_returnToLast = 0;
    m = command_motion_copy();
    EXPECT_EQ(m.mode, 7);
    EXPECT_EQ(m.zoom_target, zmax);
    EXPECT_EQ(m.ezoom_target, 7000 - zmax);
    EXPECT_EQ(command_saved_zoom_target(), -1);
}

// A continuous zoom starts only when there is room to go in its direction (the electronic zoom
// counts beyond the optical end); it is recorded all the same, with the speed clamped to 8.
TEST_F(CommandTest, ContinuousZoomStartsOnlyWhereThereIsRoomToGo) {
    const uint16_t zmin = lens_get_zoom_min(), zmax = lens_get_zoom_max();
    const struct {
        uint16_t zoom, max_ezoom;
        uint8_t dir, starts;
    } cases[] = {{zmin, 0, 0, 0},   {zmin, 0, 1, 1},   {zmax, 0, 1, 0},
                 {zmax, 100, 2, 0}, {zmax, 100, 1, 1}, {zmax, 100, 0, 1}};
    for (const auto& c : cases) {
        command_set_zoom_motion_active(0);
        lens_set_positions(c.zoom, 3000);
        command_set_max_ezoom(c.max_ezoom);
        MotionCommand m = motion(0, c.dir);
        m.zoom_speed = 30;
        send(write0(m));
        EXPECT_EQ(command_zoom_motion_active(), c.starts) << c.zoom << " " << int(c.dir);
        EXPECT_EQ(command_motion_copy().zoom_speed, 8);
    }
}

TEST_F(CommandTest, ShortDatagramIsNeverActedOnAndReportedOnce) {
    const MotionCommand before = command_motion_copy();
    Bytes d = write0(motion(1, 1, 4000));
    d.resize(12);
    const std::string first = send(d);
    const std::string second = send(d);
    EXPECT_EQ(command_zoom_motion_active(), 0);
    EXPECT_EQ(command_motion_copy().zoom_target, before.zoom_target);
    EXPECT_NE(first.find("DBG_ERR:"), std::string::npos);
    EXPECT_EQ(second, "") << "each kind is reported once";
}

// ---- Sub-commands ----

// Sub-commands (modes 8 and up) in sequence, each with the state it must leave.
TEST_F(CommandTest, SubCommands) {
    using Set = std::function<void(MotionCommand&)>;
    auto refocus_and_return = [] { return g_refocusRequest * 10 + g_returnToLast; };
    const struct {
        uint8_t mode;
        Set set;
        std::function<int()> get;
        int expect;
    } cases[] = {
        {8, [](MotionCommand& m) { m.autofocus_mode = 0; }, refocus_and_return, 11},
        {8, [](MotionCommand& m) { m.autofocus_mode = 1; }, refocus_and_return, 0},
        {8, [](MotionCommand& m) { m.autofocus_mode = 3; }, [] { return command_autofocus_mode(); },
         3},
        {10, [](MotionCommand& m) { m.zone_type = 1; }, [] { return g_zoneType; }, 1},
        {10, [](MotionCommand& m) { m.zone_type = 4; }, [] { return g_zoneType; }, 3},
        {10, [](MotionCommand& m) { m.zone_type = 4; }, [] { return command_zone_type4(); }, 1},
        {11, [](MotionCommand& m) { m.region = 2; }, [] { return get_window_preset(); }, 2},
        {11, [](MotionCommand& m) { m.region = 9; }, [] { return get_window_preset(); }, 1},
        // Direct motion: starts, with both speeds clamped to 7.
        {12, [](MotionCommand& m) { m.zoom_speed = 8, m.focus_speed = 9; },
         [] { return command_motion_copy().zoom_speed * 10 + command_motion_copy().focus_speed; },
         77},
        {12, [](MotionCommand&) {}, [] { return command_zoom_motion_active(); }, 1},
        {9, [](MotionCommand&) {}, [] { return command_zoom_motion_active(); }, 0},  // stop
        {13, [](MotionCommand&) {}, [] { return command_focus_stop_request(); }, 1},
        {14, [](MotionCommand&) {}, [] { return command_pt_moving(); }, 1},
        {15, [](MotionCommand&) {}, [] { return command_pt_moving(); }, 0},
        // Frame loop pause: 0 pauses, only 100 releases (the value travels in byte 1).
        {16, [](MotionCommand& m) { m.focus_speed = 0; }, [] { return get_loop_paused(); }, 1},
        {16, [](MotionCommand& m) { m.focus_speed = 50; }, [] { return get_loop_paused(); }, 1},
        {16, [](MotionCommand& m) { m.focus_speed = 100; }, [] { return get_loop_paused(); }, 0},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        g_refocusRequest = 0;
        g_returnToLast = 0;
        MotionCommand m = motion(cases[i].mode);
        cases[i].set(m);
        send(write0(m));
        EXPECT_EQ(cases[i].get(), cases[i].expect) << "case " << i;
    }
    // The motion record reports zone type 4 as such (the status block the plain type), and (byte
    // 13) the autofocus mode in force, whoever changed it: the control software reads it back to
    // show the mode.
    command_set_autofocus_mode(2);  // as the frame loop does when a one-shot search has ended
    for (const auto& [read, zone_type] : {std::pair{Bytes{'r', 0}, 4}, {Bytes{'r', 7}, 3}}) {
        drain();
        send(read);
        const Bytes r = receive(reply_fd_);
        ASSERT_GE(r.size(), 2 + kMotionCommandWireSize) << int(read[1]);
        const MotionCommand m = motion_command_decode(r.data() + 2);
        EXPECT_EQ(m.zone_type, zone_type) << int(read[1]);
        EXPECT_EQ(m.autofocus_mode, 2) << int(read[1]);
    }
    command_set_autofocus_mode(1);
    command_clear_focus_stop_request();
}

// Every end of a motion forgets the zoom-tracking set-up, so that the next zoom picks the curve
// through the focus position as it is then, not the curve of the object of the last zoom.
TEST_F(CommandTest, EveryEndOfAMotionForgetsTheTrackingSetUp) {
    static const auto no_op = [] {};
    static const LensDriverOps quiet = {
        no_op,
        no_op,
        no_op,
        [] { return kHomeOk; },
        [] { return kHomeOk; },
        [] { return int32_t{0}; },
        [](uint8_t) {},
        [](uint16_t) {},
        [](uint8_t, uint8_t) {},
        [](uint8_t, uint8_t) {},
        [](uint8_t, uint8_t, uint8_t, uint8_t) {},
    };
    lens_set_ops_for_testing(&quiet);
    testsupport::capture_stdout([] { curve_load(); });
    const struct {
        const char* what;
        Bytes request;
    } ends[] = {
        {"stop", write0(motion(9))},
        {"re-home check", {'r', 14}},
        {"lens reset", {'w', 9, 1}},
    };
    for (const auto& e : ends) {
        zoom_track_reset_for_testing();
        lens_set_positions(3000, 3000);
        send(write0(motion(0, 1)));
        // The first step after a change of direction only turns round.
        if (zoom_track_step(1, 3, 0) == 0) {
            ASSERT_EQ(zoom_track_step(1, 3, 0), 1) << e.what;
        }
        ASSERT_EQ(zoom_track_is_active(), 1) << e.what;
        send(e.request);
        EXPECT_EQ(zoom_track_is_active(), 0) << e.what;
    }
    lens_set_ops_for_testing(nullptr);
    zoom_track_reset_for_testing();
    command_set_autofocus_mode(1);
}

// A re-home whose homing fails is logged and shows in the homing status (2 zoom, 3 focus, 4
// both, as at start-up); the next one that succeeds reports OK (1) again.
TEST_F(CommandTest, AFailedReHomeIsLoggedAndShowsInTheHomingStatus) {
    static uint32_t zoom_result = kHomeOk, focus_result = kHomeOk;
    LensDriverOps ops = lens_ops();
    ops.sensor_power_on = [] {};
    ops.sensor_power_off = [] {};
    ops.zoom_home = [] { return zoom_result; };
    ops.focus_home = [] { return focus_result; };
    lens_set_ops_for_testing(&ops);
    const struct {
        uint32_t zoom, focus;
        const char* log;
        uint8_t status;
    } cases[] = {
        {kHomeFailed, kHomeOk, "re-home: zoom fail\n", 2},
        {kHomeOk, kHomeFailed, "re-home: focus fail\n", 3},
        {kHomeFailed, kHomeFailed, "re-home: focus fail, zoom fail\n", 4},
        {kHomeOk, kHomeOk, nullptr, 1},
    };
    for (const auto& c : cases) {
        zoom_result = c.zoom;
        focus_result = c.focus;
        const std::string out = send({'r', 14});
        if (c.log != nullptr)
            EXPECT_NE(out.find(c.log), std::string::npos) << out;
        else
            EXPECT_EQ(out.find("re-home:"), std::string::npos) << out;
        EXPECT_EQ(command_homing_error(), c.status) << (c.log ? c.log : "ok");
    }
    lens_set_ops_for_testing(nullptr);
    command_set_autofocus_mode(1);
}

// ---- Other writes ----

// Write 23 moves the iris to an absolute value or by a signed delta from the value last driven;
// a delta past either end stops there instead of wrapping round.
TEST_F(CommandTest, IrisMoveIsAbsoluteOrRelativeToTheDrivenValue) {
    static uint16_t driven = 0;
    LensDriverOps ops = lens_ops();
    ops.iris_drive = [](uint16_t v) {
        driven = v;
        iris_note_driven(v);
    };
    lens_set_ops_for_testing(&ops);
    auto move = [](uint8_t relative_flag, uint16_t absolute, int16_t delta) {
        const uint16_t d = static_cast<uint16_t>(delta);
        send({'w', 23, relative_flag, 0, static_cast<uint8_t>(absolute & 0xFF),
              static_cast<uint8_t>(absolute >> 8), static_cast<uint8_t>(d & 0xFF),
              static_cast<uint8_t>(d >> 8)});
        return driven;
    };
    EXPECT_EQ(move(1, 800, 0), 800) << "absolute";
    EXPECT_EQ(move(0, 0, -300), 500) << "relative to the driven value";
    EXPECT_EQ(move(0, 0, 250), 750);
    EXPECT_EQ(move(0, 0, -1000), 0) << "stops at the closed end";
    move(1, 65000, 0);
    EXPECT_EQ(move(0, 0, 1000), 65535) << "stops at the open end";
    lens_set_ops_for_testing(nullptr);
    iris_reset_for_testing();
}

// Commands 1 to 3 start a curve calibration: 1 in the form the offset file names, 2 the full
// form, 3 the reference-point form. The calibration's result is read back as the status text.
TEST_F(CommandTest, CurveCalibrationFormAndStatusText) {
    mkdir(root_.host("/data").c_str(), 0777);
    const struct {
        const char* offsets;
        uint8_t command, form;
    } cases[] = {
        {"CURVE_OFFSET = 1\n", 1, 1},
        {"CURVE_OFFSET = 0\n", 1, 0},
        {"CURVE_OFFSET = 0\n", 2, 1},
        {"CURVE_OFFSET = 1\n", 3, 0},
    };
    for (const auto& c : cases) {
        std::ofstream(root_.host("/data/af_data.dat")) << c.offsets;
        send({'w', 3, c.command, 0});
        EXPECT_EQ(command_calibration_mode(), 1) << int(c.command);
        EXPECT_EQ(curve_calibration_get_variant(), c.form) << int(c.command) << c.offsets;
        command_set_calibration_mode(0);
    }
    command_set_status_text("Track curve stopped\n");
    send({'r', 10});
    const Bytes reply = receive(other_fd_);
    ASSERT_EQ(reply.size(), 130u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(reply.data()) + 2),
              "Track curve stopped\n");
    command_set_status_text("");
}

// Write 8 sets one entry of the lens parameter record and saves the record; an index past the
// record sets nothing but still saves what the daemon holds.
TEST_F(CommandTest, LensParameterWriteAlwaysSavesTheRecord) {
    const std::string file = root_.host(kLensParamPath);
    for (const uint8_t index : {uint8_t{5}, uint8_t{100}, uint8_t{255}}) {
        std::remove(file.c_str());
        send({'w', 8, index, 0, 0x34, 0x12});
        EXPECT_TRUE(std::ifstream(file).good()) << "index " << int(index);
    }
    EXPECT_EQ(lens_param_get(5), 0x1234);
}

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
    send({'w', 18, 1, 5, 5});  // one band: far-curve row 38 with 5 steps each side
    const int32_t at38 =
        curve_get_point(100) + afdata::kFarCurveOffsets[38][100] - zoom_track_get_trim();
    EXPECT_EQ(curve_get_lower_bound(100), at38 - 5);
    EXPECT_EQ(curve_get_upper_bound(100), at38 + 5);
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
    const std::string s((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    ASSERT_EQ(s.size(), 17u) << "extended to 17 bytes";
    EXPECT_EQ(u16s(Bytes(s.begin(), s.end()), 0, 2), (std::vector<int>{1234, 2345}));

    drain();
    command_set_zoom_motion_active(1);
    command_publish_positions();
    EXPECT_TRUE(receive(reply_fd_).empty());
    command_set_autofocus_mode(0);  // e.g. a one-shot search that ended meanwhile
    command_set_zoom_motion_active(0);
    command_publish_positions();
    command_publish_positions();
    const Bytes r = receive(reply_fd_);
    ASSERT_EQ(r.size(), 20u);
    EXPECT_EQ(r[0], 'r');
    EXPECT_EQ(r[1], 0);
    EXPECT_EQ(motion_command_decode(r.data() + 2).move, 0) << "move flag refreshed";
    EXPECT_EQ(motion_command_decode(r.data() + 2).autofocus_mode, 0) << "the mode in force";
    EXPECT_TRUE(receive(reply_fd_).empty()) << "exactly one report per motion";
}

TEST_F(CommandTest, MessageThreadServesTheCommandSocket) {
    ASSERT_EQ(command_thread_start(), 0);
    const uint16_t port = command_get_port();
    ASSERT_NE(port, 0);
    command_set_homing_error(4);
    const uint8_t req[2] = {'R', 6};
    const sockaddr_in to = loopback(port);
    sendto(other_fd_, req, 2, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    // A thread on a loaded machine may take a while to run.
    EXPECT_EQ(receive(reply_fd_, 5000), Bytes({'R', 6, 4}));
}

}  // namespace
