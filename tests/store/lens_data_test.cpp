// Lens data files: the on-disk byte layout, the fallbacks for missing and short files, the
// failure messages of a curve save, and crash safety of the atomic saves.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "platform/sim/virtual_clock.h"
#include "store/atomic_file.h"
#include "store/lens_data.h"
#include "tests/support/test_env.h"

namespace {

using testsupport::capture_stdout;

class LensDataTest : public ::testing::Test {
  protected:
    void SetUp() override { platform::select_clock(&clock); }
    void TearDown() override { platform::select_clock(nullptr); }
    void put(const char* abs, const std::string& bytes) {
        const std::string path = root.host(abs);
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        std::ofstream(path, std::ios::binary) << bytes;
    }
    std::string get(const char* abs) {
        std::ifstream f(root.host(abs), std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(f), {});
    }

    testsupport::SandboxRoot root;
    platform::VirtualClock clock;
};

// The files are little-endian u16 arrays whatever the host; what is written reads back.
TEST_F(LensDataTest, BinaryFilesAreLittleEndianU16ArraysThatRoundTrip) {
    uint16_t curve[kCurveEntries];
    for (int i = 0; i < kCurveEntries; ++i)
        curve[i] = static_cast<uint16_t>(0x1234 + i * 20);
    curve[kCurveEntries - 1] = kCurveFullForm;
    ASSERT_EQ(capture_stdout([&] { EXPECT_EQ(curve_file_write(curve, kCurveEntries), 1); }), "");
    const std::string c = get(kCurveFilePath);
    ASSERT_EQ(c.size(), 2u * kCurveEntries);
    EXPECT_EQ(c.substr(0, 2), "\x34\x12");
    EXPECT_EQ(c.substr(2 * kCurveEntries - 2), "\x44\xAA");
    uint16_t back[kCurveEntries] = {};
    curve_file_read(back, kCurveEntries);
    EXPECT_TRUE(std::equal(curve, curve + kCurveEntries, back));
}

TEST_F(LensDataTest, MissingOrShortCurveClearsTheFormMarkerAndKeepsWhatWasRead) {
    uint16_t back[kCurveEntries];
    std::fill(back, back + kCurveEntries, kCurveFullForm);
    curve_file_read(back, kCurveEntries);
    EXPECT_EQ(back[kCurveEntries - 1], 0) << "missing";
    put(kCurveFilePath, std::string("\x01\x02", 2) + std::string(198, '\x11'));  // 100 entries
    std::fill(back, back + kCurveEntries, kCurveFullForm);
    curve_file_read(back, kCurveEntries);
    EXPECT_EQ(back[kCurveEntries - 1], 0) << "short";
    EXPECT_EQ(back[0], 0x0201);
    EXPECT_EQ(back[99], 0x1111);
}

TEST_F(LensDataTest, CurveSavePausesForTheSupplyAndReportsEachFailure) {
    uint16_t curve[kCurveEntries] = {};
    const uint64_t t0 = clock.monotonic_us();
    ASSERT_EQ(curve_file_write(curve, kCurveEntries), 1);
    EXPECT_EQ(clock.monotonic_us() - t0, 80000u);
    auto failed_save = [&] {
        return capture_stdout([&] { EXPECT_EQ(curve_file_write(curve, kCurveEntries), 0); });
    };
    // A directory where the temporary file must go makes the open fail.
    ::mkdir(root.host("/data/curve.dat.tmp").c_str(), 0777);
    EXPECT_EQ(failed_save(), "curve.dat Open Fail!\n");
    // /data is a plain file: it can be neither opened as a directory nor created.
    std::filesystem::remove_all(root.host("/data"));
    put("/data", "x");
    EXPECT_EQ(failed_save(), "Can't make /data!!\n");
}

TEST_F(LensDataTest, LensParamRecordInMemoryLoadsSavesAndRejectsTruncation) {
    lens_param_set(8, 6600);
    lens_param_set(kLensParamEntries, 1234);
    EXPECT_EQ(lens_param_get(kLensParamEntries), 0) << "out of range";
    ASSERT_EQ(lens_param_save(), 1);
    lens_param_set(8, 1);
    lens_param_load();
    EXPECT_EQ(lens_param_get(8), 6600);
    EXPECT_EQ(lens_param_get(kLensParamEntries - 1), kLensParamValid);
    put(kLensParamPath, std::string(150, '\x01'));
    lens_param_load();
    EXPECT_EQ(lens_param_get(kLensParamEntries - 1), 0) << "a truncated record loads as invalid";
    uint16_t rec[kLensParamEntries];
    EXPECT_EQ(lens_param_read(rec, kLensParamEntries), 0);
}

// The iris table is one decimal number per line; a short file fills what it has, a missing one
// leaves the values.
TEST_F(LensDataTest, TextFilesAndTheirFallbacks) {
    const uint16_t table[3] = {1984, 900, 0};
    ASSERT_EQ(iris_file_write(table, 3), 0);
    EXPECT_EQ(get(kIrisFilePath), "1984\n900\n0\n");
    put(kIrisFilePath, "11\n22\n33\n44\n55\n");
    uint16_t part[13];
    std::fill(part, part + 13, 7);
    iris_file_read(part, 13);
    EXPECT_EQ(part[4], 55);
    EXPECT_EQ(part[5], 7);
    ::unlink(root.host(kIrisFilePath).c_str());
    iris_file_read(part, 13);
    EXPECT_EQ(part[0], 11);
    EXPECT_EQ(marker_present(), 0) << "the alternate set-up marker";
    put(kMarkerFilePath, "");
    EXPECT_EQ(marker_present(), 1);
}

// A save interrupted after any of its steps (power cut, kill) leaves a complete file: the old one
// before the rename, the new one after it.
TEST_F(LensDataTest, KillAtEveryStepOfASaveLeavesTheOldOrTheNewRecord) {
    uint16_t old_rec[kLensParamEntries];
    uint16_t new_rec[kLensParamEntries];
    for (int i = 0; i < kLensParamEntries; ++i) {
        old_rec[i] = static_cast<uint16_t>(i);
        new_rec[i] = static_cast<uint16_t>(1000 + i);
    }
    old_rec[99] = new_rec[99] = kLensParamValid;
    for (int step = kStepTempOpened; step <= kStepCount; ++step) {
        ASSERT_EQ(lens_param_write(old_rec, kLensParamEntries), 1);
        std::fflush(nullptr);
        const pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            atomic_file_exit_after_step_for_testing(step, 42);
            lens_param_write(new_rec, kLensParamEntries);
            _exit(0);  // not reached: the save exits at the step
        }
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 42) << "step " << step;

        uint16_t back[kLensParamEntries];
        EXPECT_EQ(lens_param_read(back, kLensParamEntries), 1) << "step " << step;
        const bool is_old = std::equal(old_rec, old_rec + 100, back);
        const bool is_new = std::equal(new_rec, new_rec + 100, back);
        EXPECT_TRUE(is_old || is_new) << "torn file after step " << step;
        EXPECT_EQ(is_new, step >= kStepRenamed) << "step " << step;
    }
    // A stale temporary left by a cut does not disturb the next save.
    ASSERT_EQ(lens_param_write(new_rec, kLensParamEntries), 1);
    uint16_t back[kLensParamEntries];
    EXPECT_EQ(lens_param_read(back, kLensParamEntries), 1);
    EXPECT_EQ(back[5], 1005);
}

}  // namespace
