// The afd executable itself, started as the run script starts it: under a sandbox root, on the
// virtual clock, with nothing to talk to. It must come up, log its start-up, keep running, and
// write only inside its root.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "tests/support/test_env.h"

#ifndef AFD_BINARY
#error "AFD_BINARY must name the afd executable"
#endif

namespace {

std::string read_file(const std::string& path) {
    std::ifstream f(path);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

TEST(AfdProcess, StartsUnderASandboxRootAndRunsItsLoop) {
    testsupport::SandboxRoot root;
    const std::string out_path = root.path() + "-stdout.txt";

    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        FILE* out = std::freopen(out_path.c_str(), "w", stdout);
        if (out == nullptr)
            _exit(2);
        setenv("AFD_ROOT", root.path().c_str(), 1);
        setenv("AFD_CLOCK", "virtual", 1);
        setenv("AFD_SYSLOG", "0", 1);
        // Ports nobody listens on, so a stray service on the desktop cannot answer.
        setenv("AFD_ISP_PORT", "1", 1);
        setenv("AFD_CMD_PORT", "0", 1);
        setenv("AFD_TUNING_PORT", "0", 1);
        execl(AFD_BINARY, AFD_BINARY, "isp0", "spi", nullptr);
        _exit(3);
    }

    // Give it real time to start up and run its loop; it must still be alive afterwards.
    usleep(700 * 1000);
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, WNOHANG), 0) << "the daemon exited on its own";
    kill(pid, SIGQUIT);  // logged, not fatal
    usleep(200 * 1000);
    EXPECT_EQ(waitpid(pid, &status, WNOHANG), 0) << "SIGQUIT must not stop the daemon";
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);

    const std::string out = read_file(out_path);
    std::remove(out_path.c_str());
    EXPECT_NE(out.find(": af thread start \n"), std::string::npos) << out;
    EXPECT_NE(out.find("HandleExitSig signo: 3 \n"), std::string::npos) << out;
    const std::string log = read_file(root.host("/dev/af_dbg.log"));
    EXPECT_NE(log.find("2026-01-01 "), std::string::npos)
        << "the virtual clock dates the start-up line: " << log;
    EXPECT_NE(log.find(": af thread start"), std::string::npos);
}

}  // namespace
