#include "platform/paths.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include "platform/ports.h"
#include "tests/support/test_env.h"

namespace {

bool is_dir(const std::string& p) {
    struct stat st {};
    return stat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

TEST(FileRoot, BoardRootLeavesPathsAsTheyAre) {
    platform::set_file_root("/");
    char out[64];
    ASSERT_EQ(platform::resolve_path("/dev/af_dbg.log", out, sizeof out), 0);
    EXPECT_STREQ(out, "/dev/af_dbg.log");
    platform::set_file_root(nullptr);
    EXPECT_STREQ(platform::file_root(), "/");
}

TEST(FileRoot, SandboxRootPrefixesAndCreatesParents) {
    testsupport::SandboxRoot root;
    char out[platform::kPathMax];
    ASSERT_EQ(platform::resolve_path("/data/sub/curve.dat", out, sizeof out), 0);
    EXPECT_EQ(std::string(out), root.path() + "/data/sub/curve.dat");
    EXPECT_TRUE(is_dir(root.path() + "/data/sub"));
    struct stat st {};
    EXPECT_NE(stat(out, &st), 0) << "only parents are created, never the file";
}

TEST(FileRoot, TrailingSlashesOfTheRootAreIgnored) {
    testsupport::SandboxRoot root;
    std::string with_slash = root.path() + "//";
    platform::set_file_root(with_slash.c_str());
    platform::Path p("/dev/x");
    EXPECT_EQ(std::string(p.c_str()), root.path() + "/dev/x");
}

TEST(FileRoot, RejectsRelativeAndOversizedPaths) {
    testsupport::SandboxRoot root;
    char out[32];
    EXPECT_EQ(platform::resolve_path("data/x", out, sizeof out), -1);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(platform::resolve_path("/data/a-name-that-cannot-fit-in-32-bytes", out, sizeof out),
              -1);
    platform::Path bad("relative");
    EXPECT_FALSE(bad.ok());
}

TEST(Ports, DefaultsAndEnvironmentOverrides) {
    unsetenv("AFD_ISP_PORT");
    unsetenv("AFD_CMD_PORT");
    unsetenv("AFD_CMD_BIND");
    unsetenv("AFD_REPLY_PORT");
    unsetenv("AFD_TUNING_PORT");
    unsetenv("AFD_ISP_ADDR");
    unsetenv("AFD_REPLY_ADDR");
    platform::reload_ports();
    const platform::PortConfig& p = platform::ports();
    EXPECT_STREQ(p.isp_addr, "127.0.0.1");
    EXPECT_EQ(p.isp_port, 6888);
    EXPECT_STREQ(p.cmd_bind, "0.0.0.0");
    EXPECT_EQ(p.cmd_port, 6789);
    EXPECT_STREQ(p.reply_addr, "127.0.0.1");
    EXPECT_EQ(p.reply_port, 7000);
    EXPECT_EQ(p.tuning_port, 1207);

    setenv("AFD_ISP_PORT", "16888", 1);
    setenv("AFD_CMD_BIND", "127.0.0.1", 1);
    setenv("AFD_TUNING_PORT", "70000", 1);  // out of range: default kept
    setenv("AFD_REPLY_PORT", "7x", 1);      // not a number: default kept
    platform::reload_ports();
    EXPECT_EQ(p.isp_port, 16888);
    EXPECT_STREQ(p.cmd_bind, "127.0.0.1");
    EXPECT_EQ(p.tuning_port, 1207);
    EXPECT_EQ(p.reply_port, 7000);

    unsetenv("AFD_ISP_PORT");
    unsetenv("AFD_CMD_BIND");
    unsetenv("AFD_TUNING_PORT");
    unsetenv("AFD_REPLY_PORT");
    platform::reload_ports();
}

}  // namespace
