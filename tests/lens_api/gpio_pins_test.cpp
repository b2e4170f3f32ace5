// Pin file lookup, pin set-up and the GPIO device requests.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "tests/lens_api/fake_devices.h"

namespace {

using lensfake::Call;
using testsupport::capture_stdout;

TEST(GpioIniGetValueTest, FindsTheNumberBehindAKeyGivenOnce) {
    const char* text =
        "zoom1_pi = 50\nreset =38\nvd = 12abc\npls = 70000\nfocus_pi = x\nneg = -1\n"
        "twice = 1\nother = 2\ntwice = 3\n";
    const struct {
        const char* key;
        uint32_t value;
    } cases[] = {
        {"zoom1_pi =", 50}, {"reset =", 38},  {"vd =", 12},     {"pls =", 4464},  // modulo 65536
        {"focus_pi =", 0},  {"neg =", 65535}, {"twice =", 777}, {"missing =", 777},
    };
    for (const auto& c : cases)
        EXPECT_EQ(ini_get_value(text, c.key, 777), c.value) << c.key;
    EXPECT_EQ(ini_get_value("pls = 2\nvd = 9", "vd =", 777), 9u) << "last line without newline";
    EXPECT_EQ(ini_get_value("", "vd =", 777), 777u);
}

class GpioPinsTest : public lensfake::Rig<> {
  protected:
    void write_pin_file(const std::string& text) {
        std::filesystem::create_directories(root.host("/data"));
        std::ofstream(root.host("/data/af_gpio_pin.ini")) << text;
    }
    static std::vector<int> pins() {
        const GpioPins p = gpio_get_pins();
        return {p.zoom_pi, p.focus_pi, p.vd, p.pls, p.reset};
    }
};

TEST_F(GpioPinsTest, PinFileReplacesTheDefaultsAndAMissingFileRestoresThem) {
    const std::vector<int> defaults = pins();
    write_pin_file(
        "zoom1_pi = 5\nfocus_pi = 6\nvd = 7\npls = 8\nreset = 9\nspi_bus_id = 2\nvd = 1\n");
    gpio_load_pins();
    EXPECT_EQ(pins(), (std::vector<int>{5, 6, defaults[2], 8, 9})) << "vd given twice: default";
    EXPECT_EQ(spi_get_bus_number(), 2u);
    EXPECT_EQ(board.calls(Call::kGpioOpen).at(0).path, "/dev/vhd_gpio");

    std::filesystem::remove(root.host("/data/af_gpio_pin.ini"));
    gpio_load_pins();
    EXPECT_EQ(pins(), defaults);
    EXPECT_EQ(spi_get_bus_number(), 2u) << "the bus number stays";

    // Only the first 256 bytes count.
    std::string big(1000, '\xff');
    big.replace(300, 9, "reset = 7");
    write_pin_file(big);
    gpio_load_pins();
    EXPECT_EQ(pins(), defaults);
}

TEST_F(GpioPinsTest, UnopenableDeviceIsReportedAndLaterRequestsFailQuietly) {
    board.gpio_open_fails = true;
    EXPECT_EQ(capture_stdout([] { gpio_load_pins(); }), "open vhd_gpio failed \n");
    EXPECT_EQ(gpio_read_home(1), 0);
    EXPECT_EQ(gpio_read_busy(), 62) << "a failed read leaves the pin number in the result";
}

TEST_F(GpioPinsTest, ResetPulseIsHighLowHighWith100msSteps) {
    gpio_load_pins();
    gpio_reset_pulse();
    EXPECT_EQ(clock.monotonic_us(), 200000u);
    std::vector<std::pair<unsigned long, uint32_t>> calls;
    for (const Call& c : board.calls(Call::kGpio))
        calls.emplace_back(c.request, c.value);
    EXPECT_EQ(calls, (decltype(calls){
                         {kGpioReqOutHigh, 38}, {kGpioReqResetMid, 38}, {kGpioReqOutHigh, 38}}));
}

TEST_F(GpioPinsTest, VdLevelsAndSensorReads) {
    gpio_load_pins();
    for (int level : {0, -3, 1, 5})
        gpio_set_vd(level);
    std::vector<unsigned long> requests;
    for (const Call& c : board.calls(Call::kGpio))
        requests.push_back(c.request);
    EXPECT_EQ(requests, (std::vector<unsigned long>{kGpioReqVdLow, kGpioReqVdLow, kGpioReqVdHigh,
                                                    kGpioReqVdHigh}));

    // A home sensor reads 16 only for level exactly 1; channel 1 is the zoom, any other the focus.
    board.levels = {{50, 1}, {111, 0}, {62, 1}};
    EXPECT_EQ(gpio_read_home(1), 16);
    EXPECT_EQ(gpio_read_home(0), 0);
    board.levels[111] = 1;
    EXPECT_EQ(gpio_read_home(5), 16);
    board.levels[50] = 2;
    EXPECT_EQ(gpio_read_home(1), 0);
    EXPECT_EQ(gpio_read_busy(), 1);
}

}  // namespace
