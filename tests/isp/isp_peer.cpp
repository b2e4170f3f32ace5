#include "tests/isp/isp_peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

#include "data/frame_stamp.h"
#include "isp/af_stat.h"

namespace isptest {

namespace {

bool wait_readable(int fd, const std::atomic<bool>& quit) {
    while (!quit.load()) {
        pollfd p{fd, POLLIN, 0};
        const int r = poll(&p, 1, 20);
        if (r > 0)
            return true;
        if (r < 0)
            return false;
    }
    return false;
}

bool read_exact(int fd, uint8_t* buf, std::size_t n, const std::atomic<bool>& quit) {
    std::size_t done = 0;
    while (done < n) {
        if (!wait_readable(fd, quit))
            return false;
        const ssize_t r = recv(fd, buf + done, n - done, 0);
        if (r <= 0)
            return false;
        done += static_cast<std::size_t>(r);
    }
    return true;
}

}  // namespace

IspPeer::IspPeer() : frame_(kAfStatFrameSize, 0) {
    codes_.reserve(1 << 16);  // no allocation while serving (the heap test shares the process)
    listen_on(0);
    thread_ = std::thread([this] { run(); });
}

IspPeer::~IspPeer() {
    quit_.store(true);
    const int c = conn_fd_.load();
    if (c >= 0)
        shutdown(c, SHUT_RDWR);
    thread_.join();
}

void IspPeer::listen_on(uint16_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    listen(fd, 4);
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    port_ = ntohs(a.sin_port);
    listen_fd_ = fd;
    listening_.store(true);
}

void IspPeer::stop() {
    want_listen_.store(false);
    const int c = conn_fd_.load();
    if (c >= 0)
        shutdown(c, SHUT_RDWR);
    // The service thread closes the listener itself; wait until it has.
    while (listening_.load() && thread_.joinable() && !quit_.load())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

void IspPeer::start() {
    want_listen_.store(true);
    while (!listening_.load())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

void IspPeer::run() {
    while (!quit_.load()) {
        if (!want_listen_.load()) {
            if (listen_fd_ >= 0) {
                close(listen_fd_);
                listen_fd_ = -1;
            }
            listening_.store(false);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            continue;
        }
        if (listen_fd_ < 0)
            listen_on(port_);
        pollfd p{listen_fd_, POLLIN, 0};
        if (poll(&p, 1, 20) <= 0)
            continue;
        const int fd = accept(listen_fd_, nullptr, nullptr);
        if (fd < 0)
            continue;
        const int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        connections_.fetch_add(1);
        conn_fd_.store(fd);
        serve(fd);
        conn_fd_.store(-1);
        close(fd);
    }
    if (listen_fd_ >= 0)
        close(listen_fd_);
}

bool IspPeer::reply(int fd, const uint8_t* data, std::size_t n, Fault fault) {
    if (fault == Fault::kCloseOnRequest)
        return false;
    if (fault == Fault::kStall) {
        // Keep the connection but never answer, until the daemon gives up and closes it.
        uint8_t b;
        while (wait_readable(fd, quit_)) {
            if (recv(fd, &b, 1, 0) <= 0)
                break;
        }
        return false;
    }
    if (fault == Fault::kShortReply) {
        send(fd, data, n / 2, MSG_NOSIGNAL);
        return false;
    }
    std::size_t chunk;
    uint32_t pause;
    {
        std::lock_guard<std::mutex> lk(mu_);
        chunk = split_chunk_ == 0 ? n : split_chunk_;
        pause = split_pause_us_;
    }
    for (std::size_t off = 0; off < n; off += chunk) {
        const std::size_t len = n - off < chunk ? n - off : chunk;
        if (send(fd, data + off, len, MSG_NOSIGNAL) != static_cast<ssize_t>(len))
            return false;
        if (pause != 0 && off + len < n)
            std::this_thread::sleep_for(std::chrono::microseconds(pause));
    }
    return true;
}

void IspPeer::serve(int fd) {
    std::vector<uint8_t> out;
    while (!quit_.load()) {
        uint8_t code;
        if (!read_exact(fd, &code, 1, quit_))
            return;
        Fault fault = Fault::kNone;
        {
            std::lock_guard<std::mutex> lk(mu_);
            codes_.push_back(code);
            if (fault_ != Fault::kNone && fault_code_ == code) {
                fault = fault_;
                fault_ = Fault::kNone;
            }
            switch (code) {
                case 1:
                    out = frame_;
                    if (stamp_period_ != 0) {
                        ++frames_served_;
                        afdata::frame_stamp_encode(
                            {frames_served_, stamp_start_ + frames_served_ * stamp_period_},
                            out.data());
                    }
                    break;
                case 2:
                    out.assign(attr_.begin(), attr_.end());
                    break;
                case 4:
                    out.assign(exposure_.begin(), exposure_.end());
                    break;
                default:
                    out.clear();
                    break;
            }
        }
        if (code == 3) {
            std::array<uint8_t, 264> rec;
            if (fault == Fault::kCloseOnRequest || !read_exact(fd, rec.data(), rec.size(), quit_))
                return;
            std::lock_guard<std::mutex> lk(mu_);
            attr_ = rec;
            sets_.emplace_back(rec.begin(), rec.end());
            continue;
        }
        if (out.empty())
            return;  // unknown code: a protocol error, drop the client
        if (!reply(fd, out.data(), out.size(), fault))
            return;
    }
}

void IspPeer::set_attr_record(const std::array<uint8_t, 264>& rec) {
    std::lock_guard<std::mutex> lk(mu_);
    attr_ = rec;
}

std::array<uint8_t, 264> IspPeer::attr_record() {
    std::lock_guard<std::mutex> lk(mu_);
    return attr_;
}

void IspPeer::set_exposure(float luma, float time_s, float gain) {
    std::lock_guard<std::mutex> lk(mu_);
    std::memcpy(exposure_.data() + 8, &luma, 4);
    std::memcpy(exposure_.data() + 44, &time_s, 4);
    std::memcpy(exposure_.data() + 48, &gain, 4);
}

void IspPeer::set_frame(const std::vector<uint8_t>& frame) {
    std::lock_guard<std::mutex> lk(mu_);
    frame_ = frame;
}

void IspPeer::set_frame_stamps(uint64_t start_us, uint64_t period_us) {
    std::lock_guard<std::mutex> lk(mu_);
    stamp_start_ = start_us;
    stamp_period_ = period_us;
    frames_served_ = 0;
}

void IspPeer::set_split(std::size_t chunk, uint32_t pause_us) {
    std::lock_guard<std::mutex> lk(mu_);
    split_chunk_ = chunk;
    split_pause_us_ = pause_us;
}

void IspPeer::fail_next(uint8_t code, Fault fault) {
    std::lock_guard<std::mutex> lk(mu_);
    fault_code_ = code;
    fault_ = fault;
}

std::vector<uint8_t> IspPeer::codes() {
    std::lock_guard<std::mutex> lk(mu_);
    return codes_;
}

std::vector<std::vector<uint8_t>> IspPeer::set_payloads() {
    std::lock_guard<std::mutex> lk(mu_);
    return sets_;
}

bool IspPeer::wait_codes(std::size_t n) {
    for (int i = 0; i < 400; ++i) {
        {
            std::lock_guard<std::mutex> lk(mu_);
            if (codes_.size() >= n)
                return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
}

void IspPeer::clear_log() {
    std::lock_guard<std::mutex> lk(mu_);
    codes_.clear();
    sets_.clear();
}

}  // namespace isptest
