// Debug log: the copies on stdout and in the log file, the size cap with rewrite from the start,
// re-creation after deletion, concurrent writers, the prefixed lines and the timestamp text.
#include "base/dbgout.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/sim/virtual_clock.h"
#include "tests/support/test_env.h"

namespace {

using testsupport::capture_stdout;

std::string read_file(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), {}};
}

class DbgLogTest : public ::testing::Test {
  protected:
    void SetUp() override { dbg_set_syslog(false); }
    testsupport::SandboxRoot root_;
    std::string log() const { return root_.host(kDbgLogPath); }
};

TEST_F(DbgLogTest, ExistingLogIsAppendedUntilPastTheCapThenRewrittenFromOffsetZero) {
    // Just under the cap: the next message is appended and crosses it, the one after lands at
    // offset 0 and the file keeps its size.
    std::filesystem::create_directories(root_.host("/dev"));
    std::ofstream(log()).put('x');
    std::filesystem::resize_file(log(), kDbgLogCap - 3);
    capture_stdout([] {
        traceout("crossing\n");
        traceout("wrapped\n");
    });
    const std::string all = read_file(log());
    EXPECT_EQ(static_cast<long>(all.size()), kDbgLogCap - 3 + 9);
    EXPECT_EQ(all.substr(0, 8), "wrapped\n");
    EXPECT_EQ(all.substr(all.size() - 9), "crossing\n");
}

TEST_F(DbgLogTest, MessageGoesToStdoutAndTheLogFileWhichIsRecreatedWithAStatErrorLine) {
    EXPECT_EQ(capture_stdout([] { traceout("%s link %d up\n", "isp", 3); }), "isp link 3 up\n");
    EXPECT_EQ(read_file(log()), "isp link 3 up\n") << "a new log file";
    ASSERT_EQ(unlink(log().c_str()), 0);
    EXPECT_EQ(capture_stdout([] { traceout("second\n"); }),
              "second\nDBG_ERR:dbgout traceout[0090] stat ERR\n");
    EXPECT_EQ(std::filesystem::file_size(log()), 0u) << "re-created empty right after the message";
    capture_stdout([] { traceout("third\n"); });
    EXPECT_EQ(read_file(log()), "third\n");
}

TEST_F(DbgLogTest, UnopenableLogStillReachesStdout) {
    // A directory where the log file should be: it cannot be opened as a file.
    std::filesystem::create_directories(log());
    EXPECT_EQ(capture_stdout([] { traceout("still here\n"); }), "still here\n");
}

TEST_F(DbgLogTest, ConcurrentWritersNeitherInterleaveNorLoseLines) {
    // Each thread writes lines of its own letter: a line of mixed letters was interleaved. Every
    // round starts without a log file, so the writers also race to create it.
    for (int round = 0; round < 50; ++round) {
        dbg_reset_for_testing();
        std::remove(log().c_str());
        std::atomic<bool> go{false};
        capture_stdout([&go] {
            std::vector<std::thread> threads;
            for (char ch = 'a'; ch < 'e'; ++ch) {
                threads.emplace_back([ch, &go] {
                    const std::string text(60, ch);
                    while (!go) {
                    }
                    for (int i = 0; i < 5; ++i)
                        traceout("%s\n", text.c_str());
                });
            }
            go = true;
            for (auto& th : threads)
                th.join();
        });
        std::istringstream in(read_file(log()));
        int count = 0;
        for (std::string line; std::getline(in, line); ++count)
            ASSERT_EQ(line, std::string(60, line[0])) << "round " << round << " line " << count;
        ASSERT_EQ(count, 4 * 5) << "round " << round;
    }
}

TEST(DbgLinePrefixes, CarryFileFunctionAndFourDigitLine) {
    EXPECT_EQ(capture_stdout([] {
                  dbg_err("command_process", "Message_Process", 7, "bad %d\n", 5);
                  dbg_info("lens_api/lens_ms", "ms_init", 1440, "zoom = %d\n", -3);
              }),
              "DBG_ERR:command_process Message_Process[0007] bad 5\n"
              "DBG_INFO:lens_api/lens_ms ms_init[1440] zoom = -3\n");
}

TEST(DbgTimestamp, LocalTimeWithTruncatedMillisecondsOrEmptyWithoutAClock) {
    const char* old_tz = std::getenv("TZ");
    const std::string saved = old_tz ? old_tz : "";
    setenv("TZ", "UTC", 1);
    tzset();

    platform::VirtualClock vc;
    vc.set_now_us(3723004999ULL);  // 1 h 2 min 3.004999 s after the virtual epoch
    platform::select_clock(&vc);
    EXPECT_STREQ(dbg_timestamp(), "2026-01-01 01:02:03.004");

    struct BrokenClock : platform::Clock {
        int wall_time(timeval*) override { return -1; }
        uint64_t monotonic_us() override { return 0; }
        void sleep_us(uint32_t) override {}
        void on_frame(const afdata::FrameStamp&) override {}
        bool is_virtual() const override { return true; }
    } broken;
    platform::select_clock(&broken);
    EXPECT_STREQ(dbg_timestamp(), "") << "no stale text when the time cannot be read";

    platform::select_clock(nullptr);
    if (old_tz)
        setenv("TZ", saved.c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
}

}  // namespace
