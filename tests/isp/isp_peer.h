// A scripted ISP service for the link tests: listens on a loopback port, answers the request codes
// from its records, records what the daemon sent, and misbehaves on request (split replies, a
// reply cut short by a closed connection, a stall, a restart on the same port).
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "isp/af_stat.h"

namespace isptest {

class IspPeer {
  public:
    enum class Fault {
        kNone,
        kShortReply,  // send half the reply, then close the connection
        kStall,       // never answer; keep the connection until the daemon drops it
        kLongReply,   // the reply and 9 bytes more, in one send
        kJunkFirst,   // 5 junk bytes, then the reply, in one send
    };

    IspPeer() : frame_(kAfStatFrameSize, 0) {
        codes_.reserve(1 << 16);  // no allocation while serving (the heap tests share the process)
        listen_on();
        thread_ = std::thread([this] { run(); });
    }
    ~IspPeer() {
        quit_ = true;
        thread_.join();
    }

    uint16_t port() const { return port_; }

    void set_attr_record(const std::array<uint8_t, 264>& rec) {
        std::lock_guard lk(mu_);
        attr_ = rec;
    }
    // The exposure record: brightness, exposure time and gain as little-endian floats.
    void set_exposure(float luma, float time_s, float gain) {
        std::lock_guard lk(mu_);
        std::memcpy(exposure_.data() + 8, &luma, 4);
        std::memcpy(exposure_.data() + 44, &time_s, 4);
        std::memcpy(exposure_.data() + 48, &gain, 4);
    }
    void set_frame(const std::vector<uint8_t>& frame) {
        std::lock_guard lk(mu_);
        frame_ = frame;
    }
    // Replies go out in chunks of this size, 1 ms apart (0: in one piece).
    void set_split(std::size_t chunk) { chunk_ = chunk; }
    // The next request with this code gets the fault.
    void fail_next(uint8_t code, Fault fault) {
        std::lock_guard lk(mu_);
        fault_code_ = code;
        fault_ = fault;
    }

    // Service restart: stop() drops the connection and closes the port; start() listens on the
    // same port again.
    void stop() { switch_listening(false); }
    void start() { switch_listening(true); }

    // The requests received (a SET once its record has arrived) and the records the SETs carried.
    std::vector<uint8_t> codes() {
        std::lock_guard lk(mu_);
        return codes_;
    }
    std::vector<std::vector<uint8_t>> set_payloads() {
        std::lock_guard lk(mu_);
        return sets_;
    }
    // Waits until n requests have arrived, at most 2 s.
    bool wait_codes(std::size_t n) {
        for (int i = 0; i < 400 && codes().size() < n; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        return codes().size() >= n;
    }
    void clear_log() {
        std::lock_guard lk(mu_);
        codes_.clear();
        sets_.clear();
    }

  private:
    void listen_on() {
        listen_fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int one = 1;
        setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(port_);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        bind(listen_fd_, reinterpret_cast<sockaddr*>(&a), len);
        listen(listen_fd_, 4);
        getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&a), &len);
        port_ = ntohs(a.sin_port);
    }
    void switch_listening(bool on) {
        want_listen_ = on;
        while (listening_ != on)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    // Waits for fd to become readable while the service is up.
    bool readable(int fd) {
        while (!quit_ && want_listen_) {
            pollfd p{fd, POLLIN, 0};
            const int r = poll(&p, 1, 10);
            if (r != 0)
                return r > 0;
        }
        return false;
    }
    bool read_exact(int fd, uint8_t* buf, std::size_t n) {
        for (std::size_t done = 0; done < n;) {
            const ssize_t r = readable(fd) ? recv(fd, buf + done, n - done, 0) : -1;
            if (r <= 0)
                return false;
            done += static_cast<std::size_t>(r);
        }
        return true;
    }

    // The service thread owns both sockets.
    void run() {
        while (!quit_) {
            if (want_listen_ != (listen_fd_ >= 0)) {
                if (listen_fd_ >= 0)
                    close(listen_fd_);
                listen_fd_ = -1;
                if (want_listen_)
                    listen_on();
            }
            listening_ = listen_fd_ >= 0;
            const int fd =
                listening_ && readable(listen_fd_) ? accept(listen_fd_, nullptr, nullptr) : -1;
            if (fd < 0) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
                continue;
            }
            const int one = 1;
            setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            serve(fd);
            close(fd);
        }
        close(listen_fd_);
    }

    void serve(int fd) {
        std::vector<uint8_t> out;
        uint8_t code = 0;
        while (read_exact(fd, &code, 1)) {
            Fault fault = Fault::kNone;
            {
                std::lock_guard lk(mu_);
                if (fault_code_ == code) {
                    fault = fault_;
                    fault_code_ = 0;
                }
                if (code == 1)
                    out = frame_;
                else if (code == 2)
                    out.assign(attr_.begin(), attr_.end());
                else if (code == 4)
                    out.assign(exposure_.begin(), exposure_.end());
                if (code != 3)
                    codes_.push_back(code);
            }
            if (code == 3) {
                std::array<uint8_t, 264> rec;
                if (!read_exact(fd, rec.data(), rec.size()))
                    return;
                std::lock_guard lk(mu_);
                codes_.push_back(code);
                attr_ = rec;
                sets_.emplace_back(rec.begin(), rec.end());
            } else if (code < 1 || code > 4 || !reply(fd, out, fault)) {
                return;  // an unknown code is a protocol error: drop the client
            }
        }
    }

    bool reply(int fd, std::vector<uint8_t>& data, Fault fault) {
        if (fault == Fault::kStall) {
            uint8_t b;
            while (readable(fd) && recv(fd, &b, 1, 0) > 0) {
            }
            return false;
        }
        // Stray bytes go out with the reply in one send, so that they are there when it is whole.
        if (fault == Fault::kLongReply)
            data.insert(data.end(), 9, 0xA5);
        if (fault == Fault::kJunkFirst)
            data.insert(data.begin(), 5, 0xA5);
        const bool whole = fault == Fault::kLongReply || fault == Fault::kJunkFirst;
        const std::size_t end = fault == Fault::kShortReply ? data.size() / 2 : data.size();
        const std::size_t chunk = chunk_ != 0 && !whole ? chunk_.load() : data.size();
        for (std::size_t off = 0; off < end; off += chunk) {
            if (off != 0)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            const std::size_t len = std::min(chunk, end - off);
            if (send(fd, data.data() + off, len, MSG_NOSIGNAL) != static_cast<ssize_t>(len))
                return false;
        }
        return fault != Fault::kShortReply;
    }

    uint16_t port_ = 0;
    int listen_fd_ = -1;
    std::atomic<bool> quit_{false}, listening_{true}, want_listen_{true};
    std::atomic<std::size_t> chunk_{0};
    std::thread thread_;

    std::mutex mu_;
    std::array<uint8_t, 264> attr_{};
    std::array<uint8_t, 292> exposure_{};
    std::vector<uint8_t> frame_;
    uint8_t fault_code_ = 0;
    Fault fault_ = Fault::kNone;
    std::vector<uint8_t> codes_;
    std::vector<std::vector<uint8_t>> sets_;
};

}  // namespace isptest
