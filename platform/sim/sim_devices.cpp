#include "platform/sim/sim_devices.h"

#include <linux/spi/spidev.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/clock.h"

namespace platform {
namespace {

using hwwire::HwReply;
using hwwire::HwRequest;
using hwwire::Op;

HwRequest make_request(Op op, int handle) {
    HwRequest req;
    std::memset(&req, 0, sizeof req);
    req.op = static_cast<uint16_t>(op);
    req.handle = handle;
    return req;
}

void copy_path(HwRequest& req, const char* path) {
    std::snprintf(req.path, sizeof req.path, "%s", path != nullptr ? path : "");
}

// A bus transfer or GPIO syscall takes time on the board; on the virtual clock it is charged here.
void charge_call(uint32_t cost_us) {
    if (clock().is_virtual())
        sleep_us(cost_us);
}

int simple_call(SimHwLink& link, HwRequest& req) {
    HwReply reply;
    uint32_t cost = kSimCallCostUs;
    const bool ok = link.exchange(req, reply, &cost);
    charge_call(cost);
    return ok ? reply.result : -1;
}

}  // namespace

SimHwLink::~SimHwLink() {
    disconnect();
}

int SimHwLink::connect(const char* socket_path) {
    std::lock_guard<std::mutex> lock(mu_);
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd_ < 0) {
        std::printf("sim hw: socket failed: %s\n", std::strerror(errno));
        return -1;
    }
    sockaddr_un addr;
    std::memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (socket_path == nullptr || std::strlen(socket_path) >= sizeof addr.sun_path) {
        std::printf("sim hw: bad socket path\n");
        ::close(fd_);
        fd_ = -1;
        return -1;
    }
    std::strcpy(addr.sun_path, socket_path);
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        std::printf("sim hw: cannot connect to %s: %s\n", socket_path, std::strerror(errno));
        ::close(fd_);
        fd_ = -1;
        return -1;
    }
    return 0;
}

void SimHwLink::disconnect() {
    std::lock_guard<std::mutex> lock(mu_);
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
}

bool SimHwLink::repeats_last(const HwRequest& req, const HwReply& reply) const {
    // Measured from the end of the previous call, which may itself have been a jump.
    if (!have_last_ || req.time_us < last_end_us_ || req.time_us - last_end_us_ > kSimPollGapUs)
        return false;
    const HwRequest& a = last_req_;
    const HwReply& b = last_reply_;
    const std::size_t n = req.len <= hwwire::kMaxFrame ? req.len : hwwire::kMaxFrame;
    const std::size_t m = reply.len <= hwwire::kMaxFrame ? reply.len : hwwire::kMaxFrame;
    return a.op == req.op && a.handle == req.handle && a.request == req.request &&
           a.value == req.value && a.len == req.len && std::memcmp(a.tx, req.tx, n) == 0 &&
           b.result == reply.result && b.value == reply.value && b.len == reply.len &&
           std::memcmp(b.rx, reply.rx, m) == 0;
}

bool SimHwLink::exchange(HwRequest& req, HwReply& reply, uint32_t* cost_us) {
    std::lock_guard<std::mutex> lock(mu_);
    if (cost_us != nullptr)
        *cost_us = kSimCallCostUs;
    if (fd_ < 0)
        return false;
    req.magic = hwwire::kMagic;
    req.version = hwwire::kVersion;
    req.seq = ++seq_;
    req.time_us = monotonic_us();
    if (::send(fd_, &req, sizeof req, MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof req))
        return false;
    ssize_t n;
    do {
        n = ::recv(fd_, &reply, sizeof reply, 0);
    } while (n < 0 && errno == EINTR);
    if (n != static_cast<ssize_t>(sizeof reply) || !hwwire::header_ok(reply.magic, reply.version) ||
        reply.seq != req.seq) {
        // A broken or confused server: stop talking to it rather than misread every later reply.
        ::close(fd_);
        fd_ = -1;
        std::printf("sim hw: link lost\n");
        std::fflush(stdout);
        have_last_ = false;
        return false;
    }
    uint32_t cost = kSimCallCostUs;
    if (reply.steady_until_us > req.time_us + kSimCallCostUs && repeats_last(req, reply)) {
        const uint64_t ahead = reply.steady_until_us - req.time_us;
        cost = static_cast<uint32_t>(ahead < kSimPollJumpUs ? ahead : kSimPollJumpUs);
    }
    if (cost_us != nullptr)
        *cost_us = cost;
    last_end_us_ = req.time_us + cost;
    last_req_ = req;
    last_reply_ = reply;
    have_last_ = true;
    return true;
}

int SimSpi::open(const char* dev_path, int flags) {
    HwRequest req = make_request(Op::kSpiOpen, -1);
    copy_path(req, dev_path);
    req.value = static_cast<uint32_t>(flags);
    return simple_call(link_, req);
}

int SimSpi::ioctl(int fd, unsigned long request, void* arg) {
    if (arg == nullptr)
        return -1;
    if (request == SPI_IOC_MESSAGE(1)) {
        auto* tr = static_cast<spi_ioc_transfer*>(arg);
        if (tr->len == 0 || tr->len > hwwire::kMaxFrame)
            return -1;
        HwRequest req = make_request(Op::kSpiTransfer, fd);
        req.len = tr->len;
        if (tr->tx_buf != 0)
            std::memcpy(req.tx, reinterpret_cast<const void*>(static_cast<uintptr_t>(tr->tx_buf)),
                        tr->len);
        req.value = tr->rx_buf != 0 ? 1 : 0;
        HwReply reply;
        uint32_t cost = kSimCallCostUs;
        const bool ok = link_.exchange(req, reply, &cost);
        charge_call(cost);
        if (!ok)
            return -1;
        if (reply.result >= 0 && tr->rx_buf != 0 && reply.len <= tr->len)
            std::memcpy(reinterpret_cast<void*>(static_cast<uintptr_t>(tr->rx_buf)), reply.rx,
                        reply.len);
        return reply.result;
    }

    HwRequest req = make_request(Op::kSpiIoctl, fd);
    req.request = static_cast<uint32_t>(request);
    // The set-up requests carry a u8 (mode, word size) or a u32 (speed).
    const bool is_u32 = request == SPI_IOC_WR_MAX_SPEED_HZ || request == SPI_IOC_RD_MAX_SPEED_HZ;
    const bool is_u8 = request == SPI_IOC_WR_MODE || request == SPI_IOC_RD_MODE ||
                       request == SPI_IOC_WR_BITS_PER_WORD || request == SPI_IOC_RD_BITS_PER_WORD;
    if (!is_u32 && !is_u8)
        return -1;
    if (is_u32)
        std::memcpy(&req.value, arg, sizeof(uint32_t));
    else
        req.value = *static_cast<uint8_t*>(arg);
    HwReply reply;
    uint32_t cost = kSimCallCostUs;
    const bool ok = link_.exchange(req, reply, &cost);
    charge_call(cost);
    if (!ok)
        return -1;
    const bool is_read = request == SPI_IOC_RD_MODE || request == SPI_IOC_RD_BITS_PER_WORD ||
                         request == SPI_IOC_RD_MAX_SPEED_HZ;
    if (reply.result >= 0 && is_read) {
        if (is_u32)
            std::memcpy(arg, &reply.value, sizeof(uint32_t));
        else
            *static_cast<uint8_t*>(arg) = static_cast<uint8_t>(reply.value);
    }
    return reply.result;
}

int SimSpi::close(int fd) {
    HwRequest req = make_request(Op::kSpiClose, fd);
    return simple_call(link_, req);
}

int SimGpio::open(const char* dev_path, int flags) {
    HwRequest req = make_request(Op::kGpioOpen, -1);
    copy_path(req, dev_path);
    req.value = static_cast<uint32_t>(flags);
    return simple_call(link_, req);
}

int SimGpio::ioctl(int fd, unsigned long request, void* arg) {
    if (arg == nullptr)
        return -1;
    HwRequest req = make_request(Op::kGpioIoctl, fd);
    req.request = static_cast<uint32_t>(request);
    int v;
    std::memcpy(&v, arg, sizeof v);
    req.value = static_cast<uint32_t>(v);
    HwReply reply;
    uint32_t cost = kSimCallCostUs;
    const bool ok = link_.exchange(req, reply, &cost);
    charge_call(cost);
    if (!ok)
        return -1;
    // Like the device, a failed request leaves the argument untouched.
    if (reply.result >= 0) {
        v = static_cast<int>(reply.value);
        std::memcpy(arg, &v, sizeof v);
    }
    return reply.result;
}

int SimGpio::close(int fd) {
    HwRequest req = make_request(Op::kGpioClose, fd);
    return simple_call(link_, req);
}

}  // namespace platform
