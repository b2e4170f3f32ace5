// The virtual camera's lens hardware: the SPI bus with its lens-driver chip and the GPIO device,
// served to the daemon's simulation backend over a Unix-domain socket (platform/sim/hw_wire.h).
//
// The server keeps the state of every descriptor the daemon opens (SPI mode, word size, speed),
// hands each SPI frame with its mode to the chip on that bus, and runs the chip's mechanics on the
// time stamp of each request. Requests are handled one at a time in arrival order, whichever
// daemon thread sends them.
//
// Both chips move the same lens mechanics; the mechanical settings below apply to whichever chip
// is configured. With the MS41908 the GPIO device carries its strobe (vd), busy line (pls) and the
// two home sensors; with the LC898201 only the reset line.
//
// Configuration (HwConfig) comes as "key = value" settings, from a scenario or from the VCAM_HW
// environment variable ("key=value,key=value"):
//   chip                 lc898201 | ms41908 | none    chip on the bus (default lc898201)
//   spi_bus              0..4                         bus of the chip (default 4: /dev/spidev4.0)
//   gpio                 present | absent             /dev/vhd_gpio (default present)
//   time_unit_us         > 0                          pulse period unit (default LC898201 0.2,
//                                                     MS41908 0.4)
//   zoom_backlash        steps >= 0                   mechanical play (default 0)
//   focus_backlash       steps >= 0
//   zoom_home_edge       steps                        zoom sensor on at or above (default 6378)
//   focus_home_edge      steps                        focus sensor on at or below (default 2400)
//   zoom_stop_min/max    steps                        end stops (default -300 / 6900)
//   focus_stop_min/max   steps                        end stops (default -300 / 6400)
//   hall_centre          Hall offset units            unit's Hall centre (default 150)
//   fault.zoom_home      none | stuck_off | stuck_on  zoom home sensor
//   fault.focus_home     none | stuck_off | stuck_on
//   fault.zoom_busy      none | stuck                 zoom start/busy flag never clears (the
//   fault.focus_busy     none | stuck                 MS41908 has one busy line, pls, for both)
//   fault.spi_transfer   none | error                 every transfer fails (EIO)
//   fault.spi_open       none | error                 the spidev node cannot be opened
//   fault.spi_ioctl      none | wr_mode | rd_mode | wr_bits | rd_bits | wr_speed | rd_speed
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/sim/hw_wire.h"
#include "sim/hw/gpio_emu.h"
#include "sim/hw/lc898201_emu.h"
#include "sim/hw/lens_mechanics.h"
#include "sim/hw/ms41908_emu.h"

namespace vcam::hw {

enum class ChipKind : uint8_t { kNone, kLc898201, kMs41908 };

struct HwConfig {
    ChipKind chip = ChipKind::kLc898201;
    int spi_bus = 4;
    bool gpio_present = true;
    GpioPinMap pins;
    Lc898201Config lc;
    Ms41908Config ms;
    bool spi_transfer_error = false;
    bool spi_open_error = false;
    uint32_t spi_fail_ioctl = 0;  // SPI_IOC_* request that fails (0: none)
};

// Applies one setting. False with *error set for an unknown key or a bad value.
bool hw_config_set(HwConfig& cfg, const std::string& key, const std::string& value,
                   std::string* error);
// Applies "key=value,key=value" (VCAM_HW). False at the first bad setting.
bool hw_config_parse_list(HwConfig& cfg, const std::string& list, std::string* error);

class HwServer {
  public:
    HwServer(LensMechanics& mech, const HwConfig& cfg);
    ~HwServer();
    HwServer(const HwServer&) = delete;
    HwServer& operator=(const HwServer&) = delete;

    // Power-on carriage positions (steps).
    void power_on(double zoom, double focus);
    // Listens on socket_path (replacing a stale socket file) and serves in a thread. 0 or -1.
    int start(const std::string& socket_path);
    void stop();

    // Runs the chip's motors and iris up to now_us (the camera calls it at each frame).
    void advance_to(uint64_t now_us) {
        std::lock_guard<std::mutex> lock(mu_);
        advance_chip(now_us);
    }

    // Switches a fault.* setting while running (the same keys and values as the configuration),
    // for faults that come and go mid-run. False with *error set for a bad key or value.
    bool set_fault(const std::string& key, const std::string& value, std::string* error);

    // Handles one request (also used directly by tests without a socket).
    hwwire::HwReply handle(const hwwire::HwRequest& req);

    // Under the server lock: fault switches and inspection while running.
    template <typename Fn>
    void with_lock(Fn fn) {
        std::lock_guard<std::mutex> lock(mu_);
        fn(cfg_, lc_.get(), gpio_);
    }

    // The same for the MS41908 (nullptr when the other chip is configured).
    template <typename Fn>
    void with_ms(Fn fn) {
        std::lock_guard<std::mutex> lock(mu_);
        fn(cfg_, ms_.get(), gpio_);
    }

    uint64_t requests() const { return requests_.load(); }

  private:
    struct Handle {
        bool used = false;
        bool gpio = false;
        bool has_chip = false;
        uint8_t mode = 0;
        uint8_t bits = 8;
        uint32_t speed = 500000;
    };

    void serve();
    void serve_client(int fd);
    int open_spi(const char* path);
    int spi_ioctl(Handle& h, uint32_t request, uint32_t value, uint32_t* out);
    void advance_chip(uint64_t now_us);
    int gpio_input(uint16_t pin) const;
    std::string chip_path() const;

    LensMechanics& mech_;
    HwConfig cfg_;
    std::unique_ptr<Lc898201Emu> lc_;
    std::unique_ptr<Ms41908Emu> ms_;
    GpioEmu gpio_;
    std::mutex mu_;
    std::vector<Handle> handles_;
    std::atomic<uint64_t> requests_{0};
    std::atomic<bool> running_{false};
    int listen_fd_ = -1;
    std::string socket_path_;
    std::thread thread_;
    std::vector<std::thread> clients_;
    std::vector<int> client_fds_;
};

}  // namespace vcam::hw
