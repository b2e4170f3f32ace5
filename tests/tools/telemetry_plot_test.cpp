// telemetry_plot on a long run: the chart stays small and still shows a one-frame excursion.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>

namespace {

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

class TelemetryPlotTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // 60000 frames at focus 3000, one frame at 9000 in the middle, a gap in the subject.
        std::ofstream out(tel_);
        for (int i = 0; i < 60000; ++i) {
            const int focus = i == 31234 ? 9000 : 3000 + i % 7;
            out << "{\"frame\":" << i << ",\"lens\":{\"zoom\":0,\"focus\":" << focus
                << "},\"subject_focus\":" << (i > 100 && i < 200 ? "null" : "3003")
                << ",\"object_focus\":[],\"best_centre_v\":5000,\"centre_v\":" << 4000 + i % 11
                << "}\n";
        }
    }
    void TearDown() override {
        for (const std::string& p : {tel_, svg_, png_})
            std::remove(p.c_str());
    }
    int plot(const std::string& out) {
        return std::system((std::string(TELEMETRY_PLOT_BINARY) + " " + tel_ + " " + out).c_str());
    }
    std::string tel_ = testing::TempDir() + "plot_test.jsonl";
    std::string svg_ = testing::TempDir() + "plot_test.svg";
    std::string png_ = testing::TempDir() + "plot_test.png";
};

TEST_F(TelemetryPlotTest, LongRunGivesABoundedChartThatKeepsTheSpike) {
    ASSERT_EQ(plot(svg_), 0);
    const std::string s = slurp(svg_);
    EXPECT_LT(s.size(), 200u * 1024u);
    // The focus panel's axis spans the data drawn: its top label is at least the spike. Its
    // labels come before its axis title.
    const size_t title = s.find("focus position (steps)");
    ASSERT_NE(title, std::string::npos);
    int top = 0;
    const std::regex label("text-anchor='end'>([0-9]+)<");
    for (std::sregex_iterator it(s.begin(), s.begin() + static_cast<long>(title), label), end;
         it != end; ++it)
        top = std::max(top, std::stoi((*it)[1]));
    EXPECT_GE(top, 9000);

    if (std::system("command -v gnuplot >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "gnuplot not installed: PNG output not checked";
    ASSERT_EQ(plot(png_), 0);
    EXPECT_EQ(slurp(png_).substr(0, 4), "\x89PNG");
}

}  // namespace
