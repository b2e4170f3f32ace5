// vcam as a separate program, driven by a plain client: a scenario in both time modes, the
// statistics peaking where the ground truth says, scenario errors, the telemetry plot and the
// frame rate in virtual time.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

#include "data/frame_stamp.h"
#include "sim/isp_records.h"
#include "sim_test_util.h"

namespace {

uint16_t free_port() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    close(fd);
    return ntohs(a.sin_port);
}

// A child process with its standard output and error in a log file.
class Process {
  public:
    Process(std::vector<std::string> args, const std::string& log) : log_(log) {
        pid_ = fork();
        if (pid_ == 0) {
            FILE* f = std::fopen(log.c_str(), "w");
            dup2(fileno(f), 1);
            dup2(fileno(f), 2);
            std::vector<char*> argv;
            for (std::string& a : args)
                argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
    }
    ~Process() {
        if (pid_ > 0 && !exited_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    // Exit code, or -1 when it did not end within the timeout (then it is killed).
    int wait(int timeout_ms = 10000) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        while (std::chrono::steady_clock::now() < end) {
            int st = 0;
            if (waitpid(pid_, &st, WNOHANG) == pid_) {
                exited_ = true;
                return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return -1;
    }
    std::string log() const { return simtest::read_file(log_); }

  private:
    pid_t pid_ = -1;
    bool exited_ = false;
    std::string log_;
};

double centre_v(const std::vector<uint8_t>& f) {
    double v = 0;
    for (int r = 6; r <= 9; ++r)
        for (int c = 6; c <= 9; ++c) {
            const size_t b = static_cast<size_t>(r * 15 + c);
            v += (vcam::get_u32(f.data() + 4 * (vcam::kFirVWord + b)) +
                  vcam::get_u32(f.data() + 4 * (vcam::kIir1Word + b))) /
                 2.0;
        }
    return v / 16;
}

const std::string kSweep = std::string(AFD_SOURCE_DIR) + "/sim/scenarios/focus_sweep.yaml";

TEST(VcamProgram, VirtualTimeSweepPeaksWhereTheTruthSays) {
    const uint16_t port = free_port();
    const std::string tel = simtest::temp_path("sweep.jsonl");
    const std::string log = simtest::temp_path("sweep.log");
    Process vcam({VCAM_EXE, "--mode", "virtual", "--port", std::to_string(port), "--frames", "150",
                  "--telemetry", tel, kSweep},
                 log);
    simtest::IspClient c(port);
    ASSERT_TRUE(c.connected()) << vcam.log();
    std::vector<double> v;
    for (int i = 0; i < 150; ++i) {
        const std::vector<uint8_t> f = c.request(1, 5504);
        ASSERT_EQ(f.size(), 5504u);
        EXPECT_EQ(afdata::frame_stamp_decode(f.data()).sequence, static_cast<uint32_t>(i + 1));
        v.push_back(centre_v(f));
    }
    EXPECT_EQ(vcam.wait(), 0) << vcam.log();

    std::ifstream in(tel);
    std::vector<nlohmann::json> truth;
    for (std::string line; std::getline(in, line);)
        truth.push_back(nlohmann::json::parse(line));
    ASSERT_EQ(truth.size(), 150u);
    size_t peak = 0;
    for (size_t i = 1; i < v.size(); ++i)
        if (v[i] > v[peak])
            peak = i;
    const double lens_at_peak = truth[peak]["lens"]["focus"].get<double>();
    const double subject = truth[peak]["subject_focus"].get<double>();
    // The sweep moves 2 steps per frame and each frame shows half of the previous position.
    EXPECT_NEAR(lens_at_peak, subject, 3.0);
    EXPECT_GT(v[peak], 2800);
    EXPECT_LT(v.front(), 0.1 * v[peak]) << "the sweep starts far out of focus";
    EXPECT_LT(v.back(), 0.1 * v[peak]);

    const std::string svg = simtest::temp_path("sweep.svg");
    const std::string cmd = std::string(TELEMETRY_PLOT_EXE) + " " + tel + " " + svg;
    ASSERT_EQ(std::system(cmd.c_str()), 0);
    const std::string s = simtest::read_file(svg);
    EXPECT_EQ(s.rfind("<svg", 0), 0u);
    EXPECT_NE(s.find("lens focus (true)"), std::string::npos);
    EXPECT_GE(std::count(s.begin(), s.end(), 'M'), 4) << "four plotted series";
    std::remove(tel.c_str());
    std::remove(svg.c_str());
    std::remove(log.c_str());
}

TEST(VcamProgram, RealTimeModePacesFramesAtTheScenarioRate) {
    const uint16_t port = free_port();
    const std::string log = simtest::temp_path("real.log");
    Process vcam({VCAM_EXE, "--mode", "real", "--port", std::to_string(port), "--fps", "25",
                  "--frames", "8", kSweep},
                 log);
    simtest::IspClient c(port);
    ASSERT_TRUE(c.connected()) << vcam.log();
    std::vector<afdata::FrameStamp> stamps;
    uint8_t buf[5504];
    for (int i = 0; i < 8; ++i) {
        const uint8_t code = 1;
        ASSERT_EQ(send(c.fd(), &code, 1, 0), 1);
        ASSERT_EQ(recv(c.fd(), buf, sizeof buf, MSG_WAITALL), 5504);
        stamps.push_back(afdata::frame_stamp_decode(buf));
    }
    EXPECT_EQ(vcam.wait(), 0) << vcam.log();
    // Frame k is complete at k periods after the start: never delivered before that, and only
    // late by the scheduling delay of a busy machine. A client that was late skips frames.
    for (size_t i = 0; i < stamps.size(); ++i) {
        const uint64_t due = uint64_t{stamps[i].sequence} * 40000;
        EXPECT_GE(stamps[i].time_us, due) << "frame " << i;
        EXPECT_LT(stamps[i].time_us, due + 30000) << "frame " << i;
        if (i > 0) {
            EXPECT_GT(stamps[i].sequence, stamps[i - 1].sequence);
        }
    }
    std::remove(log.c_str());
}

TEST(VcamProgram, ScenarioErrorNamesFileLineAndFieldAndExits) {
    const std::string bad = simtest::temp_path("bad.yaml");
    std::ofstream(bad) << "name: x\nfps: 30\nlatency:\n  frames: 0\n";
    const std::string log = simtest::temp_path("bad.log");
    Process vcam({VCAM_EXE, "--port", std::to_string(free_port()), bad}, log);
    EXPECT_EQ(vcam.wait(), 1);
    EXPECT_NE(vcam.log().find(bad + ":4: latency.frames: value 0 outside 1 .. 16"),
              std::string::npos)
        << vcam.log();
    std::remove(bad.c_str());
    std::remove(log.c_str());
}

TEST(VcamProgram, VirtualTimeRunsFarFasterThanRealTime) {
    const uint16_t port = free_port();
    const std::string log = simtest::temp_path("speed.log");
    Process vcam({VCAM_EXE, "--mode", "virtual", "--port", std::to_string(port), kSweep}, log);
    simtest::IspClient c(port);
    ASSERT_TRUE(c.connected()) << vcam.log();
    const int n = 2000;
    uint8_t buf[5504];
    const auto t0 = std::chrono::steady_clock::now();
    uint64_t first = 0, last = 0;
    for (int i = 0; i < n; ++i) {
        const uint8_t code = 1;
        ASSERT_EQ(send(c.fd(), &code, 1, 0), 1);
        ASSERT_EQ(recv(c.fd(), buf, sizeof buf, MSG_WAITALL), 5504);
        last = afdata::frame_stamp_decode(buf).time_us;
        if (i == 0)
            first = last;
    }
    const double wall =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    const double speedup = static_cast<double>(last - first) / 1e6 / wall;
    std::printf("virtual time: %d frames in %.3f s = %.0f frames/s, %.0fx real time at 30 fps\n", n,
                wall, n / wall, speedup);
    EXPECT_GT(speedup, 20.0);
}

}  // namespace
