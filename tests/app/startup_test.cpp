// Start-up: the command line, and the afd executable itself started as the run script starts it
// (under a sandbox root, on the virtual clock, with nothing to talk to). It must come up, log its
// start-up to the log file under its root, and survive SIGQUIT and writes past its file-size limit.
#include "app/startup.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "lens_api/spi_link.h"
#include "tests/support/test_env.h"

#ifndef AFD_BINARY
#error "AFD_BINARY must name the afd executable"
#endif

namespace {

void parse(std::vector<std::string> words) {
    std::vector<char*> argv;
    static char prog[] = "afd";
    argv.push_back(prog);
    for (auto& w : words)
        argv.push_back(w.data());
    parse_command_line(static_cast<int>(argv.size()), argv.data());
}

TEST(CommandLine, WordsSetTheIspIndexAndTheSpiBus) {
    struct Case {
        std::vector<std::string> words;
        uint32_t bus;
        uint8_t isp;
    };
    // Every case starts from bus 4 (as if the pin file had said 4) and ISP index 0.
    const Case cases[] = {
        {{"spi", "3"}, 3, 0},
        {{"isp1", "spi", "x"}, 0, 1},  // no digits convert to 0
        {{"isp1", "spi", "2abc", "isp0"}, 2, 0},
        {{"verbose", "isp1", "spi"}, 4, 1},  // unknown words and a trailing "spi" are ignored
        {{"isp1", "spi", "isp0"}, 0, 1},     // "spi" takes the next word, whatever it is
    };
    for (const Case& c : cases) {
        spi_set_bus_number(4);
        parse({"isp0"});
        parse(c.words);
        EXPECT_EQ(std::pair(spi_get_bus_number(), get_isp_index()), std::pair(c.bus, c.isp))
            << c.words.size() << " words from " << c.words[0];
    }
    parse({"isp0"});
    spi_set_bus_number(4);
}

std::string read_file(const std::string& path) {
    std::ifstream f(path);
    return {std::istreambuf_iterator<char>(f), {}};
}

// A port of the given socket type that is free right now, so the daemon under test never binds
// the camera's fixed ports on the desktop.
std::string free_port(int type) {
    const int fd = socket(AF_INET, type, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    socklen_t len = sizeof a;
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    close(fd);
    return std::to_string(ntohs(a.sin_port));
}

TEST(AfdProcess, StartsUnderASandboxRootAndRunsItsLoop) {
    testsupport::SandboxRoot root;
    const std::string out_path = root.path() + "-stdout.txt";
    const std::string cmd_port = free_port(SOCK_DGRAM), tuning_port = free_port(SOCK_STREAM);

    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        if (std::freopen(out_path.c_str(), "w", stdout) == nullptr)
            _exit(2);
        setenv("AFD_ROOT", root.path().c_str(), 1);
        setenv("AFD_CLOCK", "virtual", 1);
        setenv("AFD_SYSLOG", "0", 1);
        setenv("AFD_ISP_PORT", "1", 1);  // nobody listens there
        setenv("AFD_CMD_PORT", cmd_port.c_str(), 1);
        setenv("AFD_TUNING_PORT", tuning_port.c_str(), 1);
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
    // Past its file-size limit a write fails; the daemon must not die of it (SIGXFSZ), here while
    // it logs the next SIGQUIT to its standard output, a file already longer than the limit.
    const rlimit tiny{1, 1};
    ASSERT_EQ(prlimit(pid, RLIMIT_FSIZE, &tiny, nullptr), 0);
    kill(pid, SIGQUIT);
    usleep(200 * 1000);
    EXPECT_EQ(waitpid(pid, &status, WNOHANG), 0) << "the file-size limit must not stop the daemon";
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);

    const std::string out = read_file(out_path);
    std::remove(out_path.c_str());
    EXPECT_NE(out.find("HandleExitSig signo: 3 \n"), std::string::npos) << out;
    const std::string log = read_file(root.host("/dev/af_dbg.log"));
    EXPECT_NE(log.find("2026-01-01 "), std::string::npos)
        << "the virtual clock dates the start-up line: " << log;
    EXPECT_NE(log.find(": af thread start"), std::string::npos);
}

}  // namespace
