// Debug log: the three copies, the size cap with rewrite from the start, re-creation after
// deletion, concurrent writers, and the timestamp text.
#include "app/dbgout.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/sim/virtual_clock.h"
#include "tests/support/test_env.h"

namespace {

std::string read_file(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

long file_size(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? static_cast<long>(st.st_size) : -1;
}

void make_file(const std::string& path, long size, char fill) {
    std::string dir = path.substr(0, path.rfind('/'));
    mkdir(dir.c_str(), 0777);
    FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    std::string block(1 << 20, fill);
    long left = size;
    while (left > 0) {
        long n = left < static_cast<long>(block.size()) ? left : static_cast<long>(block.size());
        std::fwrite(block.data(), 1, static_cast<size_t>(n), f);
        left -= n;
    }
    std::fclose(f);
}

class DbgLogTest : public ::testing::Test {
  protected:
    void SetUp() override { dbg_set_syslog(false); }
    testsupport::SandboxRoot root_;
    std::string log() const { return root_.host(kDbgLogPath); }
};

TEST_F(DbgLogTest, MessageGoesToStdoutAndANewLogFile) {
    std::string out = testsupport::capture_stdout([] { traceout("%s link %d up\n", "isp", 3); });
    EXPECT_EQ(out, "isp link 3 up\n");
    EXPECT_EQ(read_file(log()), "isp link 3 up\n");
    traceout("second\n");
    EXPECT_EQ(read_file(log()), "isp link 3 up\nsecond\n");
}

TEST_F(DbgLogTest, ExistingLogUnderTheCapIsAppended) {
    make_file(log(), 10L << 20, 'x');
    testsupport::capture_stdout([] { traceout("tail\n"); });
    EXPECT_EQ(file_size(log()), (10L << 20) + 5);
    std::string all = read_file(log());
    EXPECT_EQ(all.substr(all.size() - 5), "tail\n");
}

TEST_F(DbgLogTest, ExistingLogOverTheCapIsOverwrittenFromItsStart) {
    make_file(log(), 30L << 20, 'x');
    testsupport::capture_stdout([] { traceout("head\n"); });
    EXPECT_EQ(file_size(log()), 30L << 20) << "the file keeps its size";
    std::string all = read_file(log());
    EXPECT_EQ(all.substr(0, 6), "head\nx");
}

TEST_F(DbgLogTest, WritingPastTheCapRestartsAtOffsetZero) {
    // Just under the cap: the next message crosses it, the one after lands at offset 0.
    make_file(log(), kDbgLogCap - 3, 'x');
    testsupport::capture_stdout([] {
        traceout("crossing\n");
        traceout("wrapped\n");
    });
    std::string all = read_file(log());
    EXPECT_EQ(static_cast<long>(all.size()), kDbgLogCap - 3 + 9);
    EXPECT_EQ(all.substr(0, 8), "wrapped\n");
    EXPECT_EQ(all.substr(all.size() - 9), "crossing\n");
}

TEST_F(DbgLogTest, DeletedLogIsRecreatedWithAStatErrorLine) {
    testsupport::capture_stdout([] { traceout("first\n"); });
    ASSERT_EQ(unlink(log().c_str()), 0);
    std::string out = testsupport::capture_stdout([] { traceout("second\n"); });
    EXPECT_EQ(out, "second\nDBG_ERR:dbgout traceout[0090] stat ERR\n");
    EXPECT_EQ(file_size(log()), 0) << "re-created empty right after the message";
    testsupport::capture_stdout([] { traceout("third\n"); });
    EXPECT_EQ(read_file(log()), "third\n");
}

TEST_F(DbgLogTest, UnopenableLogStillReachesStdout) {
    // A directory where the log file should be: it cannot be opened as a file.
    mkdir(root_.host("/dev").c_str(), 0777);
    mkdir(log().c_str(), 0777);
    std::string out = testsupport::capture_stdout([] { traceout("still here\n"); });
    EXPECT_EQ(out, "still here\n");
}

TEST_F(DbgLogTest, ConcurrentWritersNeverInterleaveWithinALine) {
    constexpr int kThreads = 4;
    constexpr int kLines = 200;
    testsupport::capture_stdout([] {
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([t] {
                for (int i = 0; i < kLines; ++i)
                    traceout("thread %d line %03d end\n", t, i);
            });
        }
        for (auto& th : threads)
            th.join();
    });
    std::istringstream in(read_file(log()));
    std::string line;
    int count = 0;
    int next[kThreads] = {};
    while (std::getline(in, line)) {
        int t = -1;
        int i = -1;
        char tail[8] = {};
        ASSERT_EQ(std::sscanf(line.c_str(), "thread %d line %d %3s", &t, &i, tail), 3) << line;
        ASSERT_STREQ(tail, "end");
        ASSERT_GE(t, 0);
        ASSERT_LT(t, kThreads);
        EXPECT_EQ(i, next[t]++) << "lines of one thread stay in order";
        ++count;
    }
    EXPECT_EQ(count, kThreads * kLines);
}

TEST(DbgLinePrefixes, CarryFileFunctionAndFourDigitLine) {
    std::string out = testsupport::capture_stdout([] {
        dbg_err("command_process", "Message_Process", 7, "bad %d\n", 5);
        dbg_info("lens_api/lens_ms", "ms_init", 1440, "zoom = %d\n", -3);
    });
    EXPECT_EQ(out,
              "DBG_ERR:command_process Message_Process[0007] bad 5\n"
              "DBG_INFO:lens_api/lens_ms ms_init[1440] zoom = -3\n");
}

TEST(DbgTimestamp, FormatsLocalTimeWithMilliseconds) {
    const char* old_tz = std::getenv("TZ");
    std::string saved = old_tz ? old_tz : "";
    setenv("TZ", "UTC", 1);
    tzset();

    // A clock that returns a fixed time of day, or fails.
    struct FixedClock : platform::Clock {
        timeval tv{};
        int fail = 0;
        int wall_time(timeval* out) override {
            *out = tv;
            return fail ? -1 : 0;
        }
        uint64_t monotonic_us() override { return 0; }
        void sleep_us(uint32_t) override {}
        void on_frame(const afdata::FrameStamp&) override {}
        bool is_virtual() const override { return true; }
    } fixed;
    fixed.tv.tv_sec = static_cast<time_t>(1709622489);  // 2024-03-05 07:08:09 UTC
    fixed.tv.tv_usec = 45999;
    platform::select_clock(&fixed);
    EXPECT_STREQ(dbg_timestamp(), "2024-03-05 07:08:09.045");

    fixed.fail = 1;
    EXPECT_STREQ(dbg_timestamp(), "") << "no time, empty text";

    platform::VirtualClock vc;
    vc.set_now_us(3723004000ULL);  // 1 h 2 min 3.004 s after the epoch
    platform::select_clock(&vc);
    EXPECT_STREQ(dbg_timestamp(), "2026-01-01 01:02:03.004");

    platform::select_clock(nullptr);
    if (old_tz) {
        setenv("TZ", saved.c_str(), 1);
    } else {
        unsetenv("TZ");
    }
    tzset();
}

}  // namespace
