#include "sim/hw/hw_server.h"

#include <linux/spi/spidev.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vcam::hw {
namespace {

using hwwire::HwReply;
using hwwire::HwRequest;
using hwwire::Op;

constexpr int kFirstHandle = 3;  // descriptors 0..2 are never handed out
constexpr int kEio = -5;
constexpr int kEnoent = -2;
constexpr int kEbadf = -9;
constexpr int kEinval = -22;

bool parse_double(const std::string& s, double* out) {
    char* end = nullptr;
    const double v = std::strtod(s.c_str(), &end);
    if (s.empty() || end == s.c_str() || *end != '\0')
        return false;
    *out = v;
    return true;
}

bool parse_sensor(const std::string& v, SensorFault* out) {
    if (v == "none")
        *out = SensorFault::kNone;
    else if (v == "stuck_off")
        *out = SensorFault::kStuckOff;
    else if (v == "stuck_on")
        *out = SensorFault::kStuckOn;
    else
        return false;
    return true;
}

std::string trim(const std::string& s) {
    const auto b = s.find_first_not_of(" \t");
    const auto e = s.find_last_not_of(" \t");
    return b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
}

}  // namespace

bool hw_config_set(HwConfig& cfg, const std::string& key, const std::string& value,
                   std::string* error) {
    double d = 0;
    auto bad = [&](const char* why) {
        if (error != nullptr)
            *error = key + ": " + why + " ('" + value + "')";
        return false;
    };
    struct NumKey {
        const char* name;
        double* field;
        double* ms_field;
        bool non_negative;
    };
    // The mechanics are the lens's, whichever chip drives it: these keys set both chips.
    const NumKey nums[] = {
        {"time_unit_us", &cfg.lc.time_unit_us, &cfg.ms.time_unit_us, true},
        {"zoom_backlash", &cfg.lc.zoom_backlash, &cfg.ms.zoom_backlash, true},
        {"focus_backlash", &cfg.lc.focus_backlash, &cfg.ms.focus_backlash, true},
        {"zoom_home_edge", &cfg.lc.zoom_home_edge, &cfg.ms.zoom_home_edge, false},
        {"focus_home_edge", &cfg.lc.focus_home_edge, &cfg.ms.focus_home_edge, false},
        {"zoom_stop_min", &cfg.lc.zoom_stop_min, &cfg.ms.zoom_stop_min, false},
        {"zoom_stop_max", &cfg.lc.zoom_stop_max, &cfg.ms.zoom_stop_max, false},
        {"focus_stop_min", &cfg.lc.focus_stop_min, &cfg.ms.focus_stop_min, false},
        {"focus_stop_max", &cfg.lc.focus_stop_max, &cfg.ms.focus_stop_max, false},
        {"hall_centre", &cfg.lc.hall_centre, nullptr, false},
    };
    for (const NumKey& n : nums) {
        if (key != n.name)
            continue;
        if (!parse_double(value, &d) || (n.non_negative && d < 0))
            return bad("expected a number");
        if (key == "time_unit_us" && d <= 0)
            return bad("must be above 0");
        *n.field = d;
        if (n.ms_field != nullptr)
            *n.ms_field = d;
        return true;
    }
    if (key == "chip") {
        if (value == "lc898201")
            cfg.chip = ChipKind::kLc898201;
        else if (value == "ms41908")
            cfg.chip = ChipKind::kMs41908;
        else if (value == "none")
            cfg.chip = ChipKind::kNone;
        else
            return bad("expected lc898201, ms41908 or none");
        return true;
    }
    if (key == "spi_bus") {
        if (!parse_double(value, &d) || d < 0 || d > 4 || d != static_cast<int>(d))
            return bad("expected 0..4");
        cfg.spi_bus = static_cast<int>(d);
        return true;
    }
    if (key == "gpio") {
        if (value != "present" && value != "absent")
            return bad("expected present or absent");
        cfg.gpio_present = value == "present";
        return true;
    }
    if (key == "fault.zoom_home") {
        if (!parse_sensor(value, &cfg.lc.zoom_sensor))
            return bad("expected none/stuck_off/stuck_on");
        cfg.ms.zoom_sensor = cfg.lc.zoom_sensor;
        return true;
    }
    if (key == "fault.focus_home") {
        if (!parse_sensor(value, &cfg.lc.focus_sensor))
            return bad("expected none/stuck_off/stuck_on");
        cfg.ms.focus_sensor = cfg.lc.focus_sensor;
        return true;
    }
    if (key == "fault.zoom_busy" || key == "fault.focus_busy") {
        if (value != "none" && value != "stuck")
            return bad("expected none or stuck");
        (key == "fault.zoom_busy" ? cfg.lc.zoom_busy_stuck : cfg.lc.focus_busy_stuck) =
            value == "stuck";
        cfg.ms.busy_stuck = cfg.lc.zoom_busy_stuck || cfg.lc.focus_busy_stuck;
        return true;
    }
    if (key == "fault.spi_transfer" || key == "fault.spi_open") {
        if (value != "none" && value != "error")
            return bad("expected none or error");
        (key == "fault.spi_transfer" ? cfg.spi_transfer_error : cfg.spi_open_error) =
            value == "error";
        return true;
    }
    if (key == "fault.spi_ioctl") {
        const struct {
            const char* name;
            uint32_t req;
        } reqs[] = {{"none", 0},
                    {"wr_mode", SPI_IOC_WR_MODE},
                    {"rd_mode", SPI_IOC_RD_MODE},
                    {"wr_bits", SPI_IOC_WR_BITS_PER_WORD},
                    {"rd_bits", SPI_IOC_RD_BITS_PER_WORD},
                    {"wr_speed", SPI_IOC_WR_MAX_SPEED_HZ},
                    {"rd_speed", SPI_IOC_RD_MAX_SPEED_HZ}};
        for (const auto& r : reqs) {
            if (value == r.name) {
                cfg.spi_fail_ioctl = r.req;
                return true;
            }
        }
        return bad("unknown request");
    }
    if (error != nullptr)
        *error = "unknown key '" + key + "'";
    return false;
}

bool hw_config_parse_list(HwConfig& cfg, const std::string& list, std::string* error) {
    std::size_t pos = 0;
    while (pos <= list.size()) {
        std::size_t comma = list.find(',', pos);
        if (comma == std::string::npos)
            comma = list.size();
        const std::string item = trim(list.substr(pos, comma - pos));
        pos = comma + 1;
        if (item.empty())
            continue;
        const std::size_t eq = item.find('=');
        if (eq == std::string::npos) {
            if (error != nullptr)
                *error = "expected key=value: '" + item + "'";
            return false;
        }
        if (!hw_config_set(cfg, trim(item.substr(0, eq)), trim(item.substr(eq + 1)), error))
            return false;
    }
    return true;
}

HwServer::HwServer(LensMechanics& mech, const HwConfig& cfg)
    : mech_(mech), cfg_(cfg), gpio_(cfg.pins) {
    if (cfg_.chip == ChipKind::kLc898201)
        lc_ = std::make_unique<Lc898201Emu>(mech_, cfg_.lc);
    else if (cfg_.chip == ChipKind::kMs41908)
        ms_ = std::make_unique<Ms41908Emu>(mech_, cfg_.ms);
    // The reset line reaches the chip: asserting it clears its registers.
    gpio_.on_reset = [this](bool asserted, uint64_t now_us) {
        if (asserted && lc_)
            lc_->reset(now_us);
        if (asserted && ms_)
            ms_->reset(now_us);
    };
    // The MS41908 takes its strobe from vd and drives pls; the lens's home sensors are wired to
    // GPIO inputs on that board.
    gpio_.on_vd_rise = [this](uint64_t now_us) {
        if (ms_)
            ms_->vd_rise(now_us);
    };
    gpio_.input = [this](uint16_t pin, uint64_t) { return gpio_input(pin); };
    handles_.resize(kFirstHandle);
}

HwServer::~HwServer() {
    stop();
}

void HwServer::power_on(double zoom, double focus) {
    std::lock_guard<std::mutex> lock(mu_);
    if (lc_)
        lc_->power_on(zoom, focus, mech_.snapshot().time_us);
    if (ms_)
        ms_->power_on(zoom, focus, mech_.snapshot().time_us);
}

bool HwServer::set_fault(const std::string& key, const std::string& value, std::string* error) {
    if (key.rfind("fault.", 0) != 0) {
        *error = key + ": not a fault setting";
        return false;
    }
    std::lock_guard<std::mutex> lock(mu_);
    if (!hw_config_set(cfg_, key, value, error))
        return false;
    // The chips keep their own copy of the settings; the fault switches are read on every access.
    if (lc_) {
        Lc898201Config& c = lc_->config();
        c.zoom_sensor = cfg_.lc.zoom_sensor;
        c.focus_sensor = cfg_.lc.focus_sensor;
        c.zoom_busy_stuck = cfg_.lc.zoom_busy_stuck;
        c.focus_busy_stuck = cfg_.lc.focus_busy_stuck;
    }
    if (ms_) {
        Ms41908Config& c = ms_->config();
        c.zoom_sensor = cfg_.ms.zoom_sensor;
        c.focus_sensor = cfg_.ms.focus_sensor;
        c.busy_stuck = cfg_.ms.busy_stuck;
    }
    return true;
}

void HwServer::advance_chip(uint64_t now_us) {
    if (lc_)
        lc_->advance(now_us);
    if (ms_)
        ms_->advance(now_us);
}

int HwServer::gpio_input(uint16_t pin) const {
    if (!ms_)
        return -1;
    if (pin == cfg_.pins.pls)
        return ms_->pls() ? 1 : 0;
    if (pin == cfg_.pins.zoom_pi)
        return ms_->zoom_sensor() ? 1 : 0;
    if (pin == cfg_.pins.focus_pi)
        return ms_->focus_sensor() ? 1 : 0;
    return -1;
}

std::string HwServer::chip_path() const {
    return "/dev/spidev" + std::to_string(cfg_.spi_bus) + ".0";
}

int HwServer::open_spi(const char* path) {
    // Every bus of the board has its spidev node; only the chip's bus has a device on it.
    int bus = -1;
    if (std::sscanf(path, "/dev/spidev%d.0", &bus) != 1 || bus < 0 || bus > 4)
        return kEnoent;
    if (cfg_.spi_open_error)
        return kEnoent;
    Handle h;
    h.used = true;
    h.has_chip = (chip_path() == path) && cfg_.chip != ChipKind::kNone;
    handles_.push_back(h);
    return static_cast<int>(handles_.size() - 1);
}

int HwServer::spi_ioctl(Handle& h, uint32_t request, uint32_t value, uint32_t* out) {
    if (request == cfg_.spi_fail_ioctl)
        return kEinval;
    switch (request) {
        case SPI_IOC_WR_MODE:
            h.mode = static_cast<uint8_t>(value);
            return 0;
        case SPI_IOC_RD_MODE:
            *out = h.mode;
            return 0;
        case SPI_IOC_WR_BITS_PER_WORD:
            h.bits = static_cast<uint8_t>(value);
            return 0;
        case SPI_IOC_RD_BITS_PER_WORD:
            *out = h.bits;
            return 0;
        case SPI_IOC_WR_MAX_SPEED_HZ:
            h.speed = value;
            return 0;
        case SPI_IOC_RD_MAX_SPEED_HZ:
            *out = h.speed;
            return 0;
        default:
            return kEinval;
    }
}

HwReply HwServer::handle(const HwRequest& req) {
    HwReply reply;
    std::memset(&reply, 0, sizeof reply);
    reply.magic = hwwire::kMagic;
    reply.version = hwwire::kVersion;
    reply.op = req.op;
    reply.seq = req.seq;
    if (!hwwire::header_ok(req.magic, req.version)) {
        reply.result = kEinval;
        return reply;
    }
    ++requests_;
    std::lock_guard<std::mutex> lock(mu_);
    const uint64_t now = req.time_us;
    char path[hwwire::kPathLen + 1];
    std::memcpy(path, req.path, hwwire::kPathLen);
    path[hwwire::kPathLen] = '\0';

    auto handle_at = [&](bool gpio) -> Handle* {
        if (req.handle < kFirstHandle || req.handle >= static_cast<int>(handles_.size()))
            return nullptr;
        Handle& h = handles_[static_cast<std::size_t>(req.handle)];
        return (h.used && h.gpio == gpio) ? &h : nullptr;
    };

    switch (static_cast<Op>(req.op)) {
        case Op::kSpiOpen:
            reply.result = open_spi(path);
            break;
        case Op::kSpiIoctl: {
            Handle* h = handle_at(false);
            reply.result = h ? spi_ioctl(*h, req.request, req.value, &reply.value) : kEbadf;
            break;
        }
        case Op::kSpiTransfer: {
            Handle* h = handle_at(false);
            if (h == nullptr) {
                reply.result = kEbadf;
            } else if (req.len == 0 || req.len > hwwire::kMaxFrame) {
                reply.result = kEinval;
            } else if (cfg_.spi_transfer_error) {
                reply.result = kEio;
            } else {
                // A bus without the chip (or a frame the chip ignores) reads back zeros.
                if (h->has_chip && lc_) {
                    lc_->transfer(now, h->mode, req.tx, reply.rx, req.len);
                    reply.steady_until_us = lc_->steady_until_us();
                } else if (h->has_chip && ms_)
                    ms_->transfer(now, h->mode, req.tx, reply.rx, req.len);
                else
                    advance_chip(now);
                reply.len = req.value != 0 ? req.len : 0;
                reply.result = static_cast<int32_t>(req.len);
            }
            break;
        }
        case Op::kSpiClose:
        case Op::kGpioClose: {
            Handle* h = handle_at(static_cast<Op>(req.op) == Op::kGpioClose);
            if (h != nullptr)
                h->used = false;
            reply.result = h ? 0 : kEbadf;
            break;
        }
        case Op::kGpioOpen:
            if (!cfg_.gpio_present || std::strcmp(path, "/dev/vhd_gpio") != 0) {
                reply.result = kEnoent;
            } else {
                Handle h;
                h.used = true;
                h.gpio = true;
                handles_.push_back(h);
                reply.result = static_cast<int>(handles_.size() - 1);
            }
            break;
        case Op::kGpioIoctl: {
            Handle* h = handle_at(true);
            int arg = static_cast<int>(req.value);
            advance_chip(now);
            const uint16_t pin = static_cast<uint16_t>(arg);
            reply.result = h ? gpio_.request(req.request, &arg, now) : kEbadf;
            reply.value = static_cast<uint32_t>(arg);
            if (reply.result == 0 && ms_ && req.request == GpioEmu::kReqRead &&
                pin == cfg_.pins.pls && arg == 1)
                reply.steady_until_us = ms_->pls_steady_until_us();
            break;
        }
        default:
            reply.result = kEinval;
            break;
    }
    return reply;
}

int HwServer::start(const std::string& socket_path) {
    sockaddr_un addr;
    std::memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (socket_path.size() >= sizeof addr.sun_path)
        return -1;
    std::strcpy(addr.sun_path, socket_path.c_str());
    listen_fd_ = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (listen_fd_ < 0)
        return -1;
    ::unlink(socket_path.c_str());
    if (::bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(listen_fd_, 4) != 0) {
        std::fprintf(stderr, "vcam hw: cannot listen on %s: %s\n", socket_path.c_str(),
                     std::strerror(errno));
        ::close(listen_fd_);
        listen_fd_ = -1;
        return -1;
    }
    socket_path_ = socket_path;
    running_ = true;
    thread_ = std::thread([this] { serve(); });
    return 0;
}

void HwServer::serve() {
    while (running_) {
        pollfd p{listen_fd_, POLLIN, 0};
        const int n = ::poll(&p, 1, 100);
        if (n <= 0)
            continue;
        const int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            continue;
        std::lock_guard<std::mutex> lock(mu_);
        client_fds_.push_back(fd);
        clients_.emplace_back([this, fd] { serve_client(fd); });
    }
}

void HwServer::serve_client(int fd) {
    while (running_) {
        pollfd p{fd, POLLIN, 0};
        const int n = ::poll(&p, 1, 100);
        if (n == 0)
            continue;
        if (n < 0 && errno == EINTR)
            continue;
        HwRequest req;
        const ssize_t got = n > 0 ? ::recv(fd, &req, sizeof req, 0) : -1;
        if (got != static_cast<ssize_t>(sizeof req))
            break;  // peer gone or not speaking this protocol
        const HwReply reply = handle(req);
        if (::send(fd, &reply, sizeof reply, MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof reply))
            break;
    }
}

void HwServer::stop() {
    if (!running_.exchange(false))
        return;
    if (thread_.joinable())
        thread_.join();
    std::vector<std::thread> clients;
    {
        std::lock_guard<std::mutex> lock(mu_);
        clients.swap(clients_);
    }
    for (auto& t : clients)
        if (t.joinable())
            t.join();
    for (int fd : client_fds_)
        ::close(fd);
    client_fds_.clear();
    if (listen_fd_ >= 0)
        ::close(listen_fd_);
    listen_fd_ = -1;
    if (!socket_path_.empty())
        ::unlink(socket_path_.c_str());
}

}  // namespace vcam::hw
