// Simulation backends of the SPI and GPIO seams: every open, ioctl and close is forwarded to the
// virtual camera's hardware server over a Unix socket (wire format in platform/sim/hw_wire.h).
// The lens drivers above the seams are the same code that runs on the board.
//
// Each forwarded call is stamped with the daemon's time. On the virtual clock a call also costs
// kSimCallCostUs of virtual time, as a real bus transfer or GPIO syscall costs real time, so that a
// driver polling a busy flag without sleeping still sees the motor finish.
#pragma once

#include <cstdint>
#include <mutex>

#include "platform/gpio.h"
#include "platform/sim/hw_wire.h"
#include "platform/spi.h"

namespace platform {

inline constexpr uint32_t kSimCallCostUs = 10;

// One connection to the hardware server, shared by both backends and all daemon threads.
class SimHwLink {
  public:
    SimHwLink() = default;
    ~SimHwLink();
    SimHwLink(const SimHwLink&) = delete;
    SimHwLink& operator=(const SimHwLink&) = delete;

    // Connects to the server's socket. 0, or -1 with a message.
    int connect(const char* socket_path);
    void disconnect();
    bool connected() const { return fd_ >= 0; }

    // One request/reply exchange; fills seq, magic, version and time. False when the link is
    // down or the reply does not match (the call then fails as a syscall would).
    bool exchange(hwwire::HwRequest& req, hwwire::HwReply& reply);

  private:
    std::mutex mu_;
    int fd_ = -1;
    uint32_t seq_ = 0;
};

class SimSpi final : public SpiBackend {
  public:
    explicit SimSpi(SimHwLink& link) : link_(link) {}
    int open(const char* dev_path, int flags) override;
    int ioctl(int fd, unsigned long request, void* arg) override;
    int close(int fd) override;

  private:
    SimHwLink& link_;
};

class SimGpio final : public GpioBackend {
  public:
    explicit SimGpio(SimHwLink& link) : link_(link) {}
    int open(const char* dev_path, int flags) override;
    int ioctl(int fd, unsigned long request, void* arg) override;
    int close(int fd) override;

  private:
    SimHwLink& link_;
};

}  // namespace platform
