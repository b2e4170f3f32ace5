// File root resolution and the network endpoints taken from the environment.
#include "platform/paths.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "platform/ports.h"
#include "tests/support/test_env.h"

namespace {

TEST(FileRoot, BoardRootLeavesPathsAsTheyAre) {
    platform::set_file_root("/");
    char out[64];
    ASSERT_EQ(platform::resolve_path("/dev/af_dbg.log", out, sizeof out), 0);
    EXPECT_STREQ(out, "/dev/af_dbg.log");
    platform::set_file_root(nullptr);
    EXPECT_STREQ(platform::file_root(), "/");
}

TEST(FileRoot, SandboxRootPrefixesCreatesParentsAndIgnoresTrailingSlashes) {
    testsupport::SandboxRoot root;
    const std::string with_slashes = root.path() + "//";
    platform::set_file_root(with_slashes.c_str());
    platform::Path p("/data/sub/curve.dat");
    EXPECT_EQ(std::string(p.c_str()), root.path() + "/data/sub/curve.dat");
    EXPECT_TRUE(std::filesystem::is_directory(root.path() + "/data/sub"));
    EXPECT_FALSE(std::filesystem::exists(p.c_str())) << "only parents are created, never the file";
}

TEST(FileRoot, RejectsRelativeAndOversizedPaths) {
    testsupport::SandboxRoot root;
    char out[32];
    EXPECT_EQ(platform::resolve_path("data/x", out, sizeof out), -1);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(platform::resolve_path("/data/a-name-that-cannot-fit-in-32-bytes", out, sizeof out),
              -1);
    EXPECT_FALSE(platform::Path("relative").ok());
}

TEST(Ports, CameraDefaultsUnlessTheEnvironmentGivesAValidPort) {
    const char* vars[] = {"AFD_ISP_ADDR",   "AFD_ISP_PORT",   "AFD_CMD_BIND",   "AFD_CMD_PORT",
                          "AFD_REPLY_ADDR", "AFD_REPLY_PORT", "AFD_TUNING_PORT"};
    for (const char* v : vars)
        unsetenv(v);
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
    setenv("AFD_CMD_PORT", "0", 1);         // a bound port: 0 lets the kernel pick a free one
    platform::reload_ports();
    EXPECT_EQ(p.isp_port, 16888);
    EXPECT_STREQ(p.cmd_bind, "127.0.0.1");
    EXPECT_EQ(p.tuning_port, 1207);
    EXPECT_EQ(p.reply_port, 7000);
    EXPECT_EQ(p.cmd_port, 0);
    setenv("AFD_ISP_PORT", "0", 1);  // a port the daemon connects to: 0 is not valid
    platform::reload_ports();
    EXPECT_EQ(p.isp_port, 6888);
    for (const char* v : vars)
        unsetenv(v);
    platform::reload_ports();
}

}  // namespace
