// Pin file lookup, pin set-up and the GPIO device requests.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "lens_api/gpio_pins.h"
#include "lens_api/spi_link.h"
#include "platform/sim/virtual_clock.h"
#include "tests/lens_api/fake_devices.h"
#include "tests/support/test_env.h"

namespace {

using lensfake::FakeGpio;
using testsupport::capture_stdout;

TEST(IniGetValueTest, FindsTheNumberBehindTheKey) {
    const char* text = "zoom1_pi = 50\nreset =38\nvd = 12abc\npls = 70000\nfocus_pi = x\n";
    EXPECT_EQ(ini_get_value(text, "zoom1_pi =", 1), 50u);
    EXPECT_EQ(ini_get_value(text, "reset =", 1), 38u) << "no blank after the equals sign";
    EXPECT_EQ(ini_get_value(text, "vd =", 1), 12u) << "letters after the value";
    EXPECT_EQ(ini_get_value(text, "pls =", 1), 4464u) << "taken modulo 65536";
    EXPECT_EQ(ini_get_value(text, "focus_pi =", 1), 0u) << "no digits give 0";
    EXPECT_EQ(ini_get_value(text, "spi_bus_id =", 4), 4u) << "missing key gives the default";
    EXPECT_EQ(ini_get_value("", "vd =", 112), 112u);
}

TEST(IniGetValueTest, AKeyGivenTwiceCountsAsAbsent) {
    EXPECT_EQ(ini_get_value("vd = 1\npls = 2\nvd = 3\n", "vd =", 112), 112u);
    EXPECT_EQ(ini_get_value("vd = 1\npls = 2\n", "pls =", 62), 2u);
    // Last line without a newline is still found.
    EXPECT_EQ(ini_get_value("pls = 2\nvd = 9", "vd =", 112), 9u);
}

class GpioPinsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        gpio_reset_for_testing();
        spi_reset_for_testing();
        platform::select_gpio(&gpio);
        platform::select_clock(&clock);
    }
    void TearDown() override {
        gpio_reset_for_testing();
        spi_reset_for_testing();
        platform::select_gpio(nullptr);
        platform::select_clock(nullptr);
    }
    void write_pin_file(const std::string& text) {
        std::filesystem::create_directories(root.host("/data"));
        std::ofstream(root.host("/data/af_gpio_pin.ini")) << text;
    }

    testsupport::SandboxRoot root;
    FakeGpio gpio;
    platform::VirtualClock clock;
};

TEST_F(GpioPinsTest, PinFileValuesReplaceTheDefaultsAndADuplicateKeyKeepsItsDefault) {
    write_pin_file(
        "zoom1_pi = 5\nfocus_pi = 6\nvd = 7\npls = 8\nreset = 9\nspi_bus_id = 2\nvd = 1\n");
    gpio_load_pins();
    const GpioPins p = gpio_get_pins();
    EXPECT_EQ(p.zoom_pi, 5);
    EXPECT_EQ(p.focus_pi, 6);
    EXPECT_EQ(p.vd, 112);
    EXPECT_EQ(p.pls, 8);
    EXPECT_EQ(p.reset, 9);
    EXPECT_EQ(spi_get_bus_number(), 2u);
    ASSERT_EQ(gpio.opened.size(), 1u);
    EXPECT_EQ(gpio.opened[0], "/dev/vhd_gpio");
}

TEST_F(GpioPinsTest, MissingPinFileGivesDefaultsAndKeepsTheBusNumber) {
    spi_set_bus_number(3);
    gpio_load_pins();
    const GpioPins p = gpio_get_pins();
    EXPECT_EQ(p.zoom_pi, 50);
    EXPECT_EQ(p.focus_pi, 111);
    EXPECT_EQ(p.vd, 112);
    EXPECT_EQ(p.pls, 62);
    EXPECT_EQ(p.reset, 38);
    EXPECT_EQ(spi_get_bus_number(), 3u);
}

TEST_F(GpioPinsTest, GarbageAndOversizedPinFilesNeverCrash) {
    std::string junk(1000, '\xff');
    junk.replace(300, 9, "reset = 7");  // beyond the 256 bytes read: not seen
    write_pin_file(junk);
    gpio_load_pins();
    EXPECT_EQ(gpio_get_pins().reset, 38);
    EXPECT_EQ(gpio_get_pins().zoom_pi, 50);
    write_pin_file("zoom1_pi = abc\nspi_bus_id = -1\n");
    gpio_load_pins();
    EXPECT_EQ(gpio_get_pins().zoom_pi, 0);
    EXPECT_EQ(spi_get_bus_number(), 65535u);
}

TEST_F(GpioPinsTest, UnopenableDeviceIsReportedAndLaterRequestsFailQuietly) {
    gpio.open_fails = true;
    const std::string out = capture_stdout([] { gpio_load_pins(); });
    EXPECT_EQ(out, "open vhd_gpio failed \n");
    EXPECT_EQ(gpio_read_home(1), 0);
    EXPECT_EQ(gpio_read_busy(), 62) << "a failed read leaves the pin number in the result";
}

TEST_F(GpioPinsTest, ResetPulseIsHighLowHighWith100msSteps) {
    gpio_load_pins();
    const uint64_t t0 = clock.monotonic_us();
    gpio_reset_pulse();
    EXPECT_EQ(clock.monotonic_us() - t0, 200000u);
    ASSERT_EQ(gpio.calls.size(), 3u);
    EXPECT_EQ(gpio.calls[0].request, kGpioReqOutHigh);
    EXPECT_EQ(gpio.calls[1].request, kGpioReqResetMid);
    EXPECT_EQ(gpio.calls[2].request, kGpioReqOutHigh);
    for (const auto& c : gpio.calls)
        EXPECT_EQ(c.pin, 38);
}

TEST_F(GpioPinsTest, Ms41908SetUpAndPinRequests) {
    gpio_load_pins();
    const std::string out = capture_stdout([] { gpio_init_ms(); });
    EXPECT_EQ(out, "init gpio \n");
    ASSERT_EQ(gpio.calls.size(), 4u);
    EXPECT_EQ(gpio.calls[0].request, kGpioReqOutHigh);
    EXPECT_EQ(gpio.calls[0].pin, 112);
    EXPECT_EQ(gpio.calls[1].pin, 111);
    EXPECT_EQ(gpio.calls[2].pin, 50);
    EXPECT_EQ(gpio.calls[3].pin, 62);
    EXPECT_EQ(gpio.calls[3].request, kGpioReqInput);

    gpio.calls.clear();
    gpio_set_vd(0);
    gpio_set_vd(-3);
    gpio_set_vd(1);
    gpio_set_vd(5);
    EXPECT_EQ(gpio.calls[0].request, kGpioReqVdLow);
    EXPECT_EQ(gpio.calls[1].request, kGpioReqVdLow);
    EXPECT_EQ(gpio.calls[2].request, kGpioReqVdHigh);
    EXPECT_EQ(gpio.calls[3].request, kGpioReqVdHigh);
}

TEST_F(GpioPinsTest, HomeSensorReadsGive16OnlyForLevelExactlyOne) {
    gpio_load_pins();
    gpio.levels[50] = 1;
    gpio.levels[111] = 0;
    EXPECT_EQ(gpio_read_home(1), 16);
    EXPECT_EQ(gpio_read_home(0), 0);
    gpio.levels[111] = 1;
    EXPECT_EQ(gpio_read_home(0), 16);
    EXPECT_EQ(gpio_read_home(5), 16) << "any channel but 1 reads the focus sensor";
    EXPECT_EQ(gpio.calls.back().pin, 111);
    gpio.levels[50] = 2;
    EXPECT_EQ(gpio_read_home(1), 0);
    gpio.levels[62] = 1;
    EXPECT_EQ(gpio_read_busy(), 1);
}

}  // namespace
