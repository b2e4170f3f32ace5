// Simulation backends of the SPI and GPIO seams: every open, ioctl and close is forwarded to the
// virtual camera's hardware server over a Unix socket (wire format in platform/sim/hw_wire.h).
// The lens drivers above the seams are the same code that runs on the board.
//
// Each forwarded call is stamped with the daemon's time. On the virtual clock a call also costs
// kSimCallCostUs of virtual time, as a real bus transfer or GPIO syscall costs real time, so that a
// driver polling a busy flag without sleeping still sees the motor finish.
//
// A busy-wait costs one socket round trip per poll, and a homing run polls for seconds of motor
// time: at 10 us a poll that is as slow as the board itself. So when a read is the same as the
// one just before it (same call, same answer, within kSimPollGapUs, nothing else sent between:
// the driver is polling) and the emulator says the answer holds until a later time, the call
// costs the time up to then (at most kSimPollJumpUs) instead: the loop sees the flag fall at the
// same virtual time, in a few polls. A single read is always charged kSimCallCostUs.
#pragma once

#include <cstdint>
#include <mutex>

#include "platform/gpio.h"
#include "platform/sim/hw_wire.h"
#include "platform/spi.h"

namespace platform {

inline constexpr uint32_t kSimCallCostUs = 10;
inline constexpr uint32_t kSimPollGapUs = 100;
inline constexpr uint32_t kSimPollJumpUs = 5000;

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
    // down or the reply does not match (the call then fails as a syscall would). cost_us gets
    // the virtual time the call takes (see above).
    bool exchange(hwwire::HwRequest& req, hwwire::HwReply& reply, uint32_t* cost_us = nullptr);

  private:
    // True when req/reply repeat the previous exchange: a poll.
    bool repeats_last(const hwwire::HwRequest& req, const hwwire::HwReply& reply) const;

    std::mutex mu_;
    int fd_ = -1;
    uint32_t seq_ = 0;
    bool have_last_ = false;
    hwwire::HwRequest last_req_{};
    hwwire::HwReply last_reply_{};
    uint64_t last_end_us_ = 0;
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
