// Wire format between the daemon's simulation backend (platform/sim/sim_devices) and the virtual
// camera's hardware server (sim/hw/hw_server).
//
// Header-only and free of daemon dependencies on purpose: the virtual camera includes it without
// linking any daemon code. Both programs run on the same machine, so the records are sent as they
// lie in memory (little-endian, no padding: every field is naturally aligned and the sizes are
// checked below).
//
// Transport: a Unix-domain SOCK_SEQPACKET socket (path in AFD_SIM_SOCKET), so each record is one
// message. The daemon sends one HwRequest and waits for its HwReply; requests from several daemon
// threads are serialised by the backend. Every request carries the daemon's current time
// (platform::monotonic_us()), on which the emulators run their mechanics: a motor started at t
// is still busy at t + 5 us and has finished at t + its pulse train.
//
// The operations are the system calls of the SPI and GPIO seams: open, ioctl and close of
// /dev/spidevN.0 and /dev/vhd_gpio. The server keeps the state of each descriptor (SPI mode, word
// size, speed), so a chip sees every frame together with the mode it was sent in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace hwwire {

inline constexpr const char* kSocketEnv = "AFD_SIM_SOCKET";
inline constexpr uint32_t kMagic = 0x57484641;  // "AFHW"
inline constexpr uint16_t kVersion = 2;
inline constexpr std::size_t kPathLen = 32;
inline constexpr std::size_t kMaxFrame = 16;  // longest SPI frame carried (the daemon sends <= 6)

enum class Op : uint16_t {
    kSpiOpen = 1,      // path, value = open flags                  -> result = handle or -1
    kSpiIoctl = 2,     // handle, request, value = argument (WR)     -> result, value (RD)
    kSpiTransfer = 3,  // handle, len, tx, value = 1 when rx wanted  -> result = len or < 0, rx
    kSpiClose = 4,     // handle                                     -> result
    kGpioOpen = 5,     // path, value = open flags                   -> result = handle or -1
    kGpioIoctl = 6,    // handle, request, value = the int argument  -> result, value (int after)
    kGpioClose = 7,    // handle                                     -> result
};

struct HwRequest {
    uint32_t magic;
    uint16_t version;
    uint16_t op;       // Op
    uint32_t seq;      // echoed in the reply
    int32_t handle;    // descriptor returned by an open
    uint64_t time_us;  // daemon time of the call
    uint32_t request;  // ioctl request number
    uint32_t value;    // open flags, ioctl argument, or "rx wanted" for a transfer
    uint32_t len;      // transfer length
    uint32_t reserved;
    char path[kPathLen];    // device path as the daemon names it, NUL-terminated
    uint8_t tx[kMaxFrame];  // transfer bytes
};

struct HwReply {
    uint32_t magic;
    uint16_t version;
    uint16_t op;
    uint32_t seq;
    int32_t result;  // as the system call would return it (< 0: failure)
    uint32_t value;  // RD ioctl value, GPIO int after the request
    uint32_t len;    // bytes in rx
    uint8_t rx[kMaxFrame];
    // For a read (a transfer, a GPIO level): the daemon time before which the same read gives
    // the same answer as long as the daemon sends nothing else, e.g. the end of the pulse train
    // a busy flag stands for. 0 when the emulator promises nothing (the answer may change at any
    // time, or a fault holds it). The backend uses it to let a busy-wait loop jump ahead on the
    // virtual clock instead of spending one socket round trip per poll.
    uint64_t steady_until_us;
};

static_assert(sizeof(HwRequest) == 88, "request layout");
static_assert(sizeof(HwReply) == 48, "reply layout");
static_assert(std::is_trivially_copyable_v<HwRequest> && std::is_trivially_copyable_v<HwReply>);

inline bool header_ok(uint32_t magic, uint16_t version) {
    return magic == kMagic && version == kVersion;
}

}  // namespace hwwire
