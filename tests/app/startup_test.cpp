#include "app/startup.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <string>
#include <vector>

#include "lens_api/spi_link.h"
#include "tests/support/test_env.h"

namespace {

void parse(std::vector<std::string> words) {
    std::vector<char*> argv;
    static char prog[] = "afd";
    argv.push_back(prog);
    for (auto& w : words)
        argv.push_back(w.data());
    parse_command_line(static_cast<int>(argv.size()), argv.data());
}

TEST(CommandLine, SpiWordSetsTheBusNumber) {
    spi_set_bus_number(4);  // as if the pin file had said 4
    parse({"spi", "3"});
    EXPECT_EQ(spi_get_bus_number(), 3u);
    parse({"isp1", "spi", "x"});
    EXPECT_EQ(spi_get_bus_number(), 0u) << "a non-number converts to 0";
    EXPECT_EQ(get_isp_index(), 1);
    parse({"spi", "2abc", "isp0"});
    EXPECT_EQ(spi_get_bus_number(), 2u);
    EXPECT_EQ(get_isp_index(), 0);
    spi_set_bus_number(4);
}

TEST(CommandLine, TrailingSpiAndUnknownWordsAreIgnored) {
    spi_set_bus_number(1);
    parse({"verbose", "isp1", "spi"});
    EXPECT_EQ(spi_get_bus_number(), 1u);
    EXPECT_EQ(get_isp_index(), 1);
    // "spi" consumes the next word even if it looks like a keyword.
    parse({"spi", "isp0"});
    EXPECT_EQ(spi_get_bus_number(), 0u);
    EXPECT_EQ(get_isp_index(), 1);
    parse({"isp0"});
    spi_set_bus_number(4);
}

TEST(ExitSignal, QuitIsReportedAndTheProcessRunsOn) {
    std::string out = testsupport::capture_stdout([] { HandleExitSig(SIGQUIT); });
    EXPECT_EQ(out, "HandleExitSig signo: 3 \n");
}

}  // namespace
