// vcam as a separate program, driven by a plain client: a scenario in both time modes, the
// statistics peaking where the ground truth says, scenario errors and the telemetry plot.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "data/frame_stamp.h"
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

// vcam as a child process with its standard output and error in a log file; killed if it is still
// running at the end.
class Vcam {
  public:
    explicit Vcam(std::vector<std::string> args) : log_(simtest::temp_path("vcam.log")) {
        args.insert(args.begin(), {VCAM_EXE, "--port", std::to_string(port)});
        pid_ = fork();
        if (pid_ == 0) {
            FILE* f = std::fopen(log_.c_str(), "w");
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
    ~Vcam() {
        if (pid_ > 0 && !exited_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        std::remove(log_.c_str());
    }
    // Exit code, or -1 when it did not end within the timeout.
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

    const uint16_t port = free_port();

  private:
    pid_t pid_ = -1;
    bool exited_ = false;
    std::string log_;
};

const std::string kSweep = std::string(AFD_SOURCE_DIR) + "/sim/scenarios/focus_sweep.yaml";

TEST(VcamProgram, VirtualTimeSweepPeaksWhereTheTruthSaysAndPlots) {
    const std::string tel = simtest::temp_path("sweep.jsonl");
    Vcam vcam({"--mode", "virtual", "--frames", "150", "--telemetry", tel, kSweep});
    simtest::IspClient c(vcam.port);
    ASSERT_TRUE(c.connected()) << vcam.log();
    std::vector<double> v;
    for (uint32_t i = 1; i <= 150; ++i) {
        const std::vector<uint8_t> f = c.request(1, 5504);
        ASSERT_EQ(f.size(), 5504u);
        EXPECT_EQ(afdata::frame_stamp_decode(f.data()).sequence, i);
        v.push_back(simtest::centre_v(f.data()));
    }
    EXPECT_EQ(vcam.wait(), 0) << vcam.log();

    std::ifstream in(tel);
    std::vector<nlohmann::json> truth;
    for (std::string line; std::getline(in, line);)
        truth.push_back(nlohmann::json::parse(line));
    ASSERT_EQ(truth.size(), 150u);
    const size_t peak = static_cast<size_t>(std::max_element(v.begin(), v.end()) - v.begin());
    // The sweep moves 2 steps per frame and each frame shows half of the previous position.
    EXPECT_NEAR(truth[peak]["lens"]["focus"].get<double>(),
                truth[peak]["subject_focus"].get<double>(), 3.0);
    EXPECT_GT(v[peak], 2800);
    EXPECT_LT(v.front(), 0.1 * v[peak]) << "the sweep starts far out of focus";
    EXPECT_LT(v.back(), 0.1 * v[peak]);

    const std::string svg = simtest::temp_path("sweep.svg");
    ASSERT_EQ(std::system((std::string(TELEMETRY_PLOT_EXE) + " " + tel + " " + svg).c_str()), 0);
    const std::string s = simtest::read_file(svg);
    EXPECT_EQ(s.rfind("<svg", 0), 0u);
    EXPECT_NE(s.find("lens focus (true)"), std::string::npos);
    EXPECT_GE(std::count(s.begin(), s.end(), 'M'), 4) << "four plotted series";
    std::remove(tel.c_str());
    std::remove(svg.c_str());
}

TEST(VcamProgram, RealTimeModePacesFramesAtTheScenarioRate) {
    Vcam vcam({"--mode", "real", "--fps", "25", "--frames", "8", kSweep});
    simtest::IspClient c(vcam.port);
    ASSERT_TRUE(c.connected()) << vcam.log();
    uint32_t last = 0;
    for (int i = 0; i < 8; ++i) {
        // Frame k is complete at k periods after the start: never delivered before that, and only
        // late by the scheduling delay of a busy machine. A client that was late skips frames.
        const afdata::FrameStamp st = c.next_frame();
        ASSERT_GT(st.sequence, last) << "frame " << i;
        EXPECT_GE(st.time_us, st.sequence * 40000ull) << "frame " << i;
        EXPECT_LT(st.time_us, st.sequence * 40000ull + 30000) << "frame " << i;
        last = st.sequence;
    }
    EXPECT_EQ(vcam.wait(), 0) << vcam.log();
}

TEST(VcamProgram, ScenarioErrorNamesFileLineAndFieldAndExits) {
    const std::string bad = simtest::temp_path("bad.yaml");
    std::ofstream(bad) << "name: x\nfps: 30\nlatency:\n  frames: 0\n";
    Vcam vcam({bad});
    EXPECT_EQ(vcam.wait(), 1);
    EXPECT_NE(vcam.log().find(bad + ":4: latency.frames: value 0 outside 1 .. 16"),
              std::string::npos)
        << vcam.log();
    std::remove(bad.c_str());
}

}  // namespace
