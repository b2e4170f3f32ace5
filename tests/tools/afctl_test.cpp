// afctl against a scripted daemon: a UDP peer on the command port that records every datagram
// afctl sends and answers its reads as the daemon does (to the reply port, or to the sender for
// the forms that ask for that). The afctl binary runs as a child process, as a user runs it.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "data/command_wire.h"

namespace {

using Bytes = std::vector<uint8_t>;

uint16_t bound_port(int fd) {
    sockaddr_in a{};
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    return ntohs(a.sin_port);
}

int udp_socket(uint16_t port) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    return fd;
}

class FakeDaemon {
  public:
    FakeDaemon() : fd_(udp_socket(0)) {
        // A free port for afctl's reply listener.
        const int probe = udp_socket(0);
        reply_port_ = bound_port(probe);
        close(probe);
        thread_ = std::thread([this] { run(); });
    }
    ~FakeDaemon() {
        quit_ = true;
        thread_.join();
        close(fd_);
    }
    uint16_t port() const { return bound_port(fd_); }
    uint16_t reply_port() const { return reply_port_; }

    std::atomic<uint8_t> af_mode{1};
    std::atomic<uint8_t> homing{1};
    std::atomic<uint16_t> zoom{6624};  // optical position (electronic zoom 0)

    std::vector<Bytes> received() {
        std::lock_guard lk(mu_);
        return got_;
    }
    std::vector<Bytes> writes() {
        std::vector<Bytes> w;
        for (const Bytes& b : received())
            if (b[0] == 'w')
                w.push_back(b);
        return w;
    }

  private:
    void run() {
        while (!quit_) {
            pollfd p{fd_, POLLIN, 0};
            if (poll(&p, 1, 10) <= 0)
                continue;
            uint8_t buf[300];
            sockaddr_in from{};
            socklen_t len = sizeof from;
            const ssize_t n =
                recvfrom(fd_, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &len);
            if (n < 2)
                continue;
            {
                std::lock_guard lk(mu_);
                got_.emplace_back(buf, buf + n);
            }
            if (buf[0] == 'r')
                answer(buf, static_cast<size_t>(n), from);
        }
    }
    // The daemon's answer to each read: the motion record, the position record, iris, calibration,
    // modes, homing, the status block, electronic zoom, the counter.
    void answer(const uint8_t* req, size_t n, const sockaddr_in& from) {
        MotionCommand m{};
        m.mode = 1;
        m.zoom_target = 4000;
        m.move = 1;
        m.autofocus_mode = af_mode;
        m.zone_type = 2;
        m.region = 3;
        Bytes rec(18), pos(16, 0);
        motion_command_encode(m, rec.data());
        afdata::put_u16(&pos[0], zoom);
        afdata::put_u16(&pos[4], 6624 + 300);
        afdata::put_u16(&pos[14], 300);
        const uint8_t h = homing;
        Bytes status = rec;
        status.insert(status.end(), {0, 0, 1, 0});
        status.insert(status.end(), pos.begin(), pos.end());
        status.resize(51, 0);
        status.insert(status.end(), {20, 4, h, 1, 0});
        const std::map<uint8_t, Bytes> replies = {{0, rec},    {1, pos},         {2, {0, 9}},
                                                  {3, {5, 5}}, {5, {20, 4, 27}}, {6, {h}},
                                                  {7, status}, {13, {1, 0}},     {20, {0, 0}}};
        const auto it = replies.find(req[1]);
        if (it == replies.end())
            return;
        Bytes r = {'r', req[1]};
        r.insert(r.end(), it->second.begin(), it->second.end());
        // Only the calibration read with its marker is answered to the sender.
        sockaddr_in to = from;
        if (!(req[1] == 3 && n >= 4 && req[2] == 0xAA && req[3] == 0x55))
            to.sin_port = htons(reply_port_);
        sendto(fd_, r.data(), r.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    }

    int fd_;
    uint16_t reply_port_ = 0;
    std::atomic<bool> quit_{false};
    std::mutex mu_;
    std::vector<Bytes> got_;
    std::thread thread_;
};

struct Result {
    int status;
    std::string out;
};

class AfctlTest : public ::testing::Test {
  protected:
    Result afctl(const std::string& args) {
        const std::string cmd = "AFD_CMD_PORT=" + std::to_string(daemon.port()) +
                                " AFD_REPLY_PORT=" + std::to_string(daemon.reply_port()) + " " +
                                AFCTL_BINARY + " --timeout 2000 " + args + " 2>&1";
        FILE* p = popen(cmd.c_str(), "r");
        std::string out;
        char buf[512];
        size_t n;
        while ((n = fread(buf, 1, sizeof buf, p)) > 0)
            out.append(buf, n);
        const int st = pclose(p);
        return {WIFEXITED(st) ? WEXITSTATUS(st) : -1, out};
    }
    // The scripted daemon handles datagrams in order: once a read has been answered, everything
    // afctl sent before it has been recorded.
    void sync() { ASSERT_EQ(afctl("counter").status, 0); }
    FakeDaemon daemon;
};

Bytes motion(uint8_t mode, uint8_t fs, uint8_t zs, uint8_t fdir, uint8_t zdir, uint16_t zt,
             uint16_t ft, uint16_t et) {
    Bytes b = {'w', 0, mode, fs, zs, fdir, zdir, 0, 0, 0};
    b.insert(b.end(), {uint8_t(zt), uint8_t(zt >> 8), uint8_t(ft), uint8_t(ft >> 8), 0, 0, 0, 0,
                       uint8_t(et), uint8_t(et >> 8)});
    return b;
}

TEST_F(AfctlTest, WritesAreEncodedByteForByte) {
    daemon.af_mode = 0;
    const struct {
        const char* args;
        Bytes datagram;
    } cases[] = {
        {"ezoom --max 500", {'w', 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xF4, 0x01}},
        {"daynight --set 1 300 50", {'w', 4, 1, 0, 0, 0, 0x2C, 1, 0, 0, 50, 0, 0, 0}},
        {"daynight --set 0 7 70000 --id 15",
         {'w', 15, 0, 0, 0, 0, 7, 0, 0, 0, 0x70, 0x11, 0x01, 0}},
        {"calib offsets", {'w', 3, 6, 0}},
        {"move --zoom in --focus far --speed 3 --focus-speed 5", motion(6, 5, 3, 1, 1, 0, 0, 0)},
        {"move --zoom out --focus near", motion(6, 3, 5, 0, 0, 0, 0, 0)},
        {"ezoom --to 250 --speed 6", motion(12, 7, 6, 0, 0, 0, 0, 250)},
        {"focus --to 3000 --speed 2", motion(5, 2, 0, 0, 0, 0, 3000, 0)},
        {"zoom --out --blind --speed 8", motion(2, 7, 8, 0, 0, 0, 0, 0)},
        {"range --near 2 --far 9", {'w', 18, 1, 9, 2}},
    };
    size_t before = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args);
        const Result r = afctl(c.args);
        EXPECT_EQ(r.status, 0) << r.out;
        sync();
        const std::vector<Bytes> w = daemon.writes();
        ASSERT_EQ(w.size(), before + 1);
        EXPECT_EQ(w.back(), c.datagram);
        before = w.size();
    }
}

TEST_F(AfctlTest, ReadsAskTheRightQuestionAndShowTheAnswer) {
    const struct {
        const char* args;
        Bytes request;
        const char* shows;
    } cases[] = {
        {"motion", {'r', 0}, "mode 1 (zoom to target (tracked)), moving"},
        {"--json motion", {'r', 0}, "\"autofocus\":\"continuous\""},
        {"calib status", {'r', 3, 0xAA, 0x55}, "last command hall, mode hall"},
        {"modes", {'r', 5}, "mode 20, big 4, little 27"},
        {"counter", {'r', 20}, "counter: 0"},
        {"iris", {'r', 2}, "iris: fixed, step 9"},
        {"--json ezoom", {'r', 13}, "{\"electronic_zoom\":\"enabled\"}"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args);
        const Result r = afctl(c.args);
        EXPECT_EQ(r.status, 0) << r.out;
        EXPECT_NE(r.out.find(c.shows), std::string::npos) << r.out;
        EXPECT_EQ(daemon.received().back(), c.request);
    }
}

TEST_F(AfctlTest, CommandsTheDaemonWouldIgnoreAreRefusedWithTheReason) {
    daemon.af_mode = 1;
    for (const char* args : {"focus --to 3000", "focus --near", "zoom --to 100 --blind",
                             "zoom --in --blind", "move --zoom in --focus far"}) {
        SCOPED_TRACE(args);
        const Result r = afctl(args);
        EXPECT_EQ(r.status, 1);
        EXPECT_NE(r.out.find("autofocus is on"), std::string::npos) << r.out;
    }
    daemon.zoom = 5000;
    Result r = afctl("ezoom --to 100");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find("not at its optical end 6624"), std::string::npos) << r.out;
    daemon.zoom = 6624;
    r = afctl("ezoom --to 400");
    EXPECT_NE(r.out.find("maximum is 300"), std::string::npos) << r.out;
    sync();
    EXPECT_TRUE(daemon.writes().empty());

    // Told, the user may still insist; a tracked zoom never needs autofocus off.
    EXPECT_EQ(afctl("--force focus --to 3000").status, 0);
    EXPECT_EQ(afctl("zoom --to 100").status, 0);
    sync();
    EXPECT_EQ(daemon.writes().size(), 2u);
}

TEST_F(AfctlTest, BadArgumentsExitTwoAndSendNothing) {
    const char* const bad[] = {"",
                               "range --near 9 --far 2",
                               "range --near 2",
                               "range --default --near 1",
                               "zoom --to abc",
                               "zoom --to 100 --in",
                               "zoom --frobnicate",
                               "focus",
                               "focus --to 70000",
                               "move --zoom up --focus far",
                               "ezoom --max 2000",
                               "calib everything",
                               "daynight --set 1 2",
                               "daynight --set 2 1 1",
                               "daynight --set 1 2 3 --id 5",
                               "af --mode sometimes",
                               "status extra",
                               "bogus",
                               "--timeout x status",
                               "sensor 300"};
    for (const char* args : bad) {
        SCOPED_TRACE(args);
        const Result r = afctl(args);
        EXPECT_EQ(r.status, 2) << r.out;
        EXPECT_NE(r.out.find("afctl"), std::string::npos) << r.out;  // a message, not silence
    }
    sync();
    EXPECT_EQ(daemon.received(), std::vector<Bytes>{Bytes({'r', 20})});
    const Result help = afctl("--help");
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.rfind("usage: afctl", 0), 0u) << help.out;
}

TEST_F(AfctlTest, JsonNamesValuesInsteadOfCodes) {
    daemon.homing = 3;
    Result r = afctl("--json status");
    EXPECT_EQ(r.status, 0);
    for (const char* want : {"\"homing\":\"focus failed\"", "\"moving\":true",
                             "\"iris\":{\"mode\":\"auto\",\"step\":0}",
                             "\"autofocus\":\"continuous\"", "\"electronic_zoom\":\"enabled\""})
        EXPECT_NE(r.out.find(want), std::string::npos) << want << " in " << r.out;
    daemon.homing = 1;
    r = afctl("--json error");
    EXPECT_NE(r.out.find("\"homing\":\"ok\""), std::string::npos) << r.out;
}

}  // namespace
