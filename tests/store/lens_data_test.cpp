// Lens data files: round trips, the fallbacks for missing and short files, and crash safety of
// the atomic saves.
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

std::string slurp(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), {});
}

class LensDataTest : public ::testing::Test {
  protected:
    void SetUp() override { platform::select_clock(&clock); }
    void TearDown() override { platform::select_clock(nullptr); }
    void put(const char* abs, const std::string& bytes) {
        const std::string path = root.host(abs);
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        std::ofstream(path, std::ios::binary) << bytes;
    }

    testsupport::SandboxRoot root;
    platform::VirtualClock clock;
};

TEST_F(LensDataTest, CurveRoundTripIsLittleEndianU16) {
    uint16_t curve[kCurveEntries];
    for (int i = 0; i < kCurveEntries; ++i)
        curve[i] = static_cast<uint16_t>(6000 - i * 20);
    curve[kCurveEntries - 1] = kCurveFullForm;
    ASSERT_EQ(curve_file_write(curve, kCurveEntries), 1);
    const std::string raw = slurp(root.host(kCurveFilePath));
    ASSERT_EQ(raw.size(), 418u);
    EXPECT_EQ(static_cast<uint8_t>(raw[0]), 6000 & 0xFF);
    EXPECT_EQ(static_cast<uint8_t>(raw[1]), 6000 >> 8);
    EXPECT_EQ(static_cast<uint8_t>(raw[416]), 0x44);
    EXPECT_EQ(static_cast<uint8_t>(raw[417]), 0xAA);

    uint16_t back[kCurveEntries] = {};
    curve_file_read(back, kCurveEntries);
    EXPECT_TRUE(std::equal(curve, curve + kCurveEntries, back));
}

TEST_F(LensDataTest, MissingOrShortCurveClearsTheFormMarker) {
    uint16_t back[kCurveEntries];
    std::fill(back, back + kCurveEntries, 0xAA44);
    curve_file_read(back, kCurveEntries);
    EXPECT_EQ(back[208], 0);
    put(kCurveFilePath, std::string(200, '\x11'));  // 100 entries
    std::fill(back, back + kCurveEntries, 0xAA44);
    curve_file_read(back, kCurveEntries);
    EXPECT_EQ(back[208], 0);
    EXPECT_EQ(back[0], 0x1111);
}

TEST_F(LensDataTest, CurveWriteWaits80msAndReportsAnUnwritableDirectory) {
    uint16_t curve[kCurveEntries] = {};
    const uint64_t t0 = clock.monotonic_us();
    ASSERT_EQ(curve_file_write(curve, kCurveEntries), 1);
    EXPECT_EQ(clock.monotonic_us() - t0, 80000u);

    // /data is a plain file: it can be neither opened as a directory nor created.
    ::unlink(root.host(kCurveFilePath).c_str());
    ASSERT_EQ(::rmdir(root.host("/data").c_str()), 0);
    put("/data", "not a directory");
    const std::string out = capture_stdout([&] { EXPECT_EQ(curve_file_write(curve, 209), 0); });
    EXPECT_EQ(out, "Can't make /data!!\n");
}

TEST_F(LensDataTest, CurveOpenFailureIsReported) {
    uint16_t curve[kCurveEntries] = {};
    ::mkdir(root.host("/data").c_str(), 0777);
    // A directory where the temporary file must go makes the open fail.
    ::mkdir(root.host("/data/curve.dat.tmp").c_str(), 0777);
    const std::string out = capture_stdout([&] { EXPECT_EQ(curve_file_write(curve, 209), 0); });
    EXPECT_EQ(out, "curve.dat Open Fail!\n");
}

TEST_F(LensDataTest, LensParamWriteStampsTheValidityMark) {
    uint16_t rec[kLensParamEntries] = {};
    rec[0] = 2500;
    rec[1] = static_cast<uint16_t>(~2500);
    ASSERT_EQ(lens_param_write(rec, kLensParamEntries), 1);
    EXPECT_EQ(rec[99], kLensParamValid);
    uint16_t back[kLensParamEntries] = {};
    EXPECT_EQ(lens_param_read(back, kLensParamEntries), 1);
    EXPECT_EQ(back[0], 2500);
    EXPECT_EQ(back[99], kLensParamValid);
}

TEST_F(LensDataTest, LensParamRecordInMemoryLoadsSavesAndIgnoresBadIndices) {
    lens_param_set(8, 6600);
    lens_param_set(100, 1234);
    EXPECT_EQ(lens_param_get(8), 6600);
    EXPECT_EQ(lens_param_get(100), 0);
    ASSERT_EQ(lens_param_save(), 1);
    lens_param_set(8, 1);
    lens_param_load();
    EXPECT_EQ(lens_param_get(8), 6600);
    EXPECT_EQ(lens_param_get(99), kLensParamValid);

    // A truncated record loads as invalid.
    put(kLensParamPath, std::string(150, '\x01'));
    lens_param_load();
    EXPECT_EQ(lens_param_get(99), 0);
    uint16_t rec[kLensParamEntries];
    EXPECT_EQ(lens_param_read(rec, kLensParamEntries), 0);
    EXPECT_EQ(rec[99], 0);
}

TEST_F(LensDataTest, IrisTableIsOneNumberPerLineAndShortFilesFillWhatTheyHave) {
    const uint16_t table[13] = {1984, 1600, 1300, 1100, 1000, 900, 800, 700, 600, 500, 400, 300, 0};
    ASSERT_EQ(iris_file_write(table, 13), 0);
    EXPECT_EQ(slurp(root.host(kIrisFilePath)),
              "1984\n1600\n1300\n1100\n1000\n900\n800\n700\n600\n500\n400\n300\n0\n");
    uint16_t back[13] = {};
    iris_file_read(back, 13);
    EXPECT_TRUE(std::equal(table, table + 13, back));

    put(kIrisFilePath, "11\n22\n33\n44\n55\n");
    uint16_t part[13];
    std::fill(part, part + 13, 7);
    iris_file_read(part, 13);
    EXPECT_EQ(part[0], 11);
    EXPECT_EQ(part[4], 55);
    EXPECT_EQ(part[5], 7);
    EXPECT_EQ(part[12], 7);

    ::unlink(root.host(kIrisFilePath).c_str());
    iris_file_read(part, 13);
    EXPECT_EQ(part[0], 11) << "missing file leaves the values";
}

TEST_F(LensDataTest, TextFilesAndMarker) {
    char buf[201] = {};
    EXPECT_EQ(offset_file_read(buf, 200), -1);
    EXPECT_EQ(buf[0], '\0');
    ASSERT_EQ(offset_file_write("ZOOM_OFFSET = 3\n", 16), 0);
    EXPECT_EQ(offset_file_read(buf, 200), 0);
    EXPECT_STREQ(buf, "ZOOM_OFFSET = 3\n");

    char pins[257] = {};
    EXPECT_EQ(pin_file_read(pins, 256), -1);
    EXPECT_EQ(marker_present(), 0);
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

namespace {

// The binary files are little-endian u16 arrays whatever the host: fixed bytes on disk.
TEST_F(LensDataTest, BinaryFilesAreLittleEndianOnDisk) {
    uint16_t curve[kCurveEntries] = {};
    curve[0] = 0x1234;
    curve[kCurveEntries - 1] = kCurveFullForm;
    ASSERT_EQ(capture_stdout([&] { EXPECT_EQ(curve_file_write(curve, kCurveEntries), 1); }), "");
    const std::string c = slurp(root.host(kCurveFilePath));
    ASSERT_EQ(c.size(), 2u * kCurveEntries);
    EXPECT_EQ(static_cast<uint8_t>(c[0]), 0x34);
    EXPECT_EQ(static_cast<uint8_t>(c[1]), 0x12);
    EXPECT_EQ(static_cast<uint8_t>(c[416]), 0x44);
    EXPECT_EQ(static_cast<uint8_t>(c[417]), 0xAA);

    uint16_t params[kLensParamEntries] = {};
    params[8] = 6500;
    ASSERT_EQ(lens_param_write(params, kLensParamEntries), 1);
    const std::string p = slurp(root.host(kLensParamPath));
    ASSERT_EQ(p.size(), 200u);
    EXPECT_EQ(static_cast<uint8_t>(p[198]), 0xAA) << "validity mark 0x55AA, low byte first";
    EXPECT_EQ(static_cast<uint8_t>(p[199]), 0x55);
    EXPECT_EQ(static_cast<uint8_t>(p[16]) | (static_cast<uint8_t>(p[17]) << 8), 6500);

    put(kCurveFilePath, std::string("\x01\x02", 2) + std::string(2 * kCurveEntries - 2, '\0'));
    uint16_t back[kCurveEntries] = {};
    curve_file_read(back, kCurveEntries);
    EXPECT_EQ(back[0], 0x0201);
}

}  // namespace
