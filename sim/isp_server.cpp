#include "sim/isp_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include "data/frame_stamp.h"
#include "sim/rng.h"

namespace vcam {
namespace {

constexpr int kPollMs = 200;

const char* code_name(int code) {
    switch (code) {
        case 1:
            return "Get_ISP_VD";
        case 2:
            return "GET_AF_ATTR";
        case 3:
            return "SET_AF_ATTR";
        case 4:
            return "GET_AE_EXP_INFO";
        default:
            return "?";
    }
}

}  // namespace

IspServer::IspServer(Camera* camera, ServerConfig cfg, TelemetryWriter* telemetry)
    : cam_(camera), cfg_(std::move(cfg)), tel_(telemetry) {}

IspServer::~IspServer() {
    if (listen_fd_ >= 0)
        close(listen_fd_);
    if (page_ != nullptr)
        munmap(const_cast<uint8_t*>(page_), afdata::kVirtualClockFileSize);
}

int IspServer::listen() {
    if (open_listener(cfg_.port) != 0)
        return -1;
    t0_ = std::chrono::steady_clock::now();
    std::fprintf(stderr, "vcam: ISP service on %s:%u, %s time, %.3g frames/s\n", cfg_.addr.c_str(),
                 port_, cfg_.mode == TimeMode::kVirtual ? "virtual" : "real", cam_->scenario().fps);
    return 0;
}

int IspServer::open_listener(uint16_t port) {
    listen_fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listen_fd_ < 0) {
        std::fprintf(stderr, "vcam: socket: %s\n", std::strerror(errno));
        return -1;
    }
    int one = 1;
    setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    if (inet_pton(AF_INET, cfg_.addr.c_str(), &a.sin_addr) != 1) {
        std::fprintf(stderr, "vcam: bad ISP address '%s'\n", cfg_.addr.c_str());
        return -1;
    }
    if (bind(listen_fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        ::listen(listen_fd_, 4) != 0) {
        std::fprintf(stderr, "vcam: cannot listen on %s:%u: %s\n", cfg_.addr.c_str(), port,
                     std::strerror(errno));
        close(listen_fd_);
        listen_fd_ = -1;
        return -1;
    }
    socklen_t len = sizeof a;
    getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&a), &len);
    port_ = ntohs(a.sin_port);
    return 0;
}

uint64_t IspServer::now_us() const {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                     std::chrono::steady_clock::now() - t0_)
                                     .count());
}

bool IspServer::read_virtual_now(uint64_t* now) {
    if (page_ == nullptr) {
        if (cfg_.vclock_path.empty())
            return false;
        // The client creates the page when it starts; until then there is no clock to follow.
        const int fd = open(cfg_.vclock_path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0)
            return false;
        struct stat st {};
        void* p = MAP_FAILED;
        if (fstat(fd, &st) == 0 && st.st_size >= static_cast<off_t>(afdata::kVirtualClockFileSize))
            p = mmap(nullptr, afdata::kVirtualClockFileSize, PROT_READ, MAP_SHARED, fd, 0);
        close(fd);
        if (p == MAP_FAILED)
            return false;
        page_ = static_cast<const volatile uint8_t*>(p);
        std::fprintf(stderr, "vcam: following the virtual clock in %s\n", cfg_.vclock_path.c_str());
    }
    uint64_t t = 0;
    for (int i = 0; i < 8; ++i)
        t |= static_cast<uint64_t>(page_[i]) << (8 * i);
    *now = t;
    return true;
}

double IspServer::scene_now() {
    uint64_t t = last_stamp_us_;
    if (cfg_.mode == TimeMode::kReal) {
        t = now_us();
    } else {
        uint64_t page_now = 0;
        if (read_virtual_now(&page_now))
            t = std::max(t, page_now);
    }
    return cam_->scene_clock(t);
}

bool IspServer::send_reply(int fd, const uint8_t* p, size_t n, const char* what, ReplyClass rc,
                           const std::atomic<bool>& stop) {
    if (faults_ != nullptr) {
        const IspAction a = faults_->on_reply(scene_now(), rc);
        if (a.kind != IspAction::kNormal)
            return send_faulty(fd, p, n, what, a, stop);
    }
    ++stats_.sends;
    const ssize_t sent = send(fd, p, n, MSG_NOSIGNAL);
    if (sent != static_cast<ssize_t>(n)) {
        std::fprintf(stderr, "vcam: %s reply: sent %zd of %zu bytes (%s); closing the connection\n",
                     what, sent, n, sent < 0 ? std::strerror(errno) : "short send");
        return false;
    }
    return true;
}

// A reply as a fault makes it. False when the connection is to be closed.
bool IspServer::send_faulty(int fd, const uint8_t* p, size_t n, const char* what,
                            const IspAction& a, const std::atomic<bool>& stop) {
    const FaultSpec& f = *a.fault;
    std::vector<uint8_t> out;
    switch (a.kind) {
        case IspAction::kDrop:
            std::fprintf(stderr, "vcam: fault: dropping the connection instead of the %s reply\n",
                         what);
            return false;
        case IspAction::kSplit: {
            // Pieces a few milliseconds apart leave as separate segments (TCP_NODELAY).
            const size_t parts = std::min(static_cast<size_t>(f.parts), n);
            size_t done = 0;
            for (size_t i = 0; i < parts; ++i) {
                const size_t len = (n - done) / (parts - i);
                ++stats_.sends;
                if (send(fd, p + done, len, MSG_NOSIGNAL) != static_cast<ssize_t>(len))
                    return false;
                done += len;
                if (i + 1 < parts)
                    std::this_thread::sleep_for(std::chrono::milliseconds(3));
            }
            return true;
        }
        case IspAction::kStall: {
            std::fprintf(stderr, "vcam: fault: holding the %s reply back for %.1f s\n", what,
                         f.stall_s);
            const auto until = std::chrono::steady_clock::now() +
                               std::chrono::milliseconds(static_cast<int64_t>(f.stall_s * 1000));
            while (std::chrono::steady_clock::now() < until && !stop.load())
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            out.assign(p, p + n);
            break;
        }
        case IspAction::kWrongSize:
            std::fprintf(stderr, "vcam: fault: %s reply of %d bytes instead of %zu\n", what, f.size,
                         n);
            out.assign(p, p + std::min(n, static_cast<size_t>(f.size)));
            out.resize(static_cast<size_t>(f.size), 0);
            break;
        default: {
            std::fprintf(stderr, "vcam: fault: %d junk bytes in front of the %s reply\n", f.bytes,
                         what);
            Rng rng(mix64(static_cast<uint64_t>(f.bytes) ^ stats_.sends));
            for (int i = 0; i < f.bytes; ++i)
                out.push_back(static_cast<uint8_t>(rng.uniform() * 256.0));
            out.insert(out.end(), p, p + n);
            break;
        }
    }
    ++stats_.sends;
    if (out.empty())
        return true;
    // A client that gave up during a stall has closed its end: the send may fail, which simply
    // ends this connection.
    return send(fd, out.data(), out.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(out.size());
}

bool IspServer::send_frame(int fd, const std::atomic<bool>& stop) {
    uint64_t k = 0;
    uint64_t stamp = 0;
    if (cfg_.mode == TimeMode::kVirtual) {
        uint64_t now = 0;
        if (read_virtual_now(&now))
            k = cam_->first_frame_after(now);
        else
            k = have_last_ ? last_k_ + 1 : cam_->first_frame_after(0);
        if (have_last_)
            k = std::max(k, last_k_ + 1);
        stamp = cam_->grid_time_us(k);
    } else {
        k = cam_->first_frame_after(now_us());
        if (have_last_)
            k = std::max(k, last_k_ + 1);
        double due = static_cast<double>(cam_->grid_time_us(k));
        const double jitter = cam_->scenario().jitter_us;
        if (jitter > 0) {
            Rng rng(mix64(cam_->scenario().noise.seed ^ 0xA5A5A5A5ULL) ^ k);
            due += (2.0 * rng.uniform() - 1.0) * jitter;
        }
        for (;;) {
            const double left = due - static_cast<double>(now_us());
            if (left <= 0 || stop.load())
                break;
            std::this_thread::sleep_for(
                std::chrono::microseconds(static_cast<int64_t>(std::min(left, 50000.0))));
        }
        stamp = now_us();
    }
    uint8_t buf[kStatFrameSize];
    FrameTruth truth;
    const bool want_truth = tel_ != nullptr && tel_->is_open();
    cam_->frame(k, stamp, buf, want_truth ? &truth : nullptr);
    have_last_ = true;
    last_k_ = k;
    last_stamp_us_ = stamp;
    if (!send_reply(fd, buf, sizeof buf, "Get_ISP_VD", ReplyClass::kFrame, stop))
        return false;
    ++stats_.frames;
    if (want_truth) {
        tel_->write(truth);
        // A reader follows the truth frame by frame (the benchmarks decide what to command next
        // from it): no row may wait in the buffer.
        tel_->flush();
    }
    return true;
}

bool IspServer::serve_client(int fd, const std::atomic<bool>& stop) {
    uint64_t requests = 0;
    for (;;) {
        if (cfg_.max_frames != 0 && stats_.frames >= cfg_.max_frames)
            return false;
        pollfd p{fd, POLLIN, 0};
        const int pr = poll(&p, 1, kPollMs);
        if (stop.load())
            return false;
        if (faults_ != nullptr)
            faults_->update(scene_now());
        if (pr <= 0)
            continue;
        uint8_t code = 0;
        const ssize_t n = recv(fd, &code, 1, 0);
        if (n == 0) {
            std::fprintf(stderr, "vcam: client closed the connection after %llu requests\n",
                         static_cast<unsigned long long>(requests));
            return true;
        }
        if (n < 0) {
            std::fprintf(stderr, "vcam: receive failed: %s; closing the connection\n",
                         std::strerror(errno));
            return true;
        }
        ++requests;
        if (code >= 1 && code <= 4)
            ++stats_.requests[code];
        else
            ++stats_.requests[0];
        switch (code) {
            case 1:
                if (!send_frame(fd, stop))
                    return true;
                break;
            case 2: {
                uint8_t rec[kAfAttrSize];
                cam_->af_attr(rec);
                if (!send_reply(fd, rec, sizeof rec, code_name(code), ReplyClass::kAttr, stop))
                    return true;
                break;
            }
            case 3: {
                uint8_t rec[kAfAttrSize];
                size_t got = 0;
                const auto deadline =
                    std::chrono::steady_clock::now() +
                    std::chrono::milliseconds(static_cast<int64_t>(cfg_.body_timeout_s * 1000));
                while (got < sizeof rec) {
                    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                                          deadline - std::chrono::steady_clock::now())
                                          .count();
                    pollfd q{fd, POLLIN, 0};
                    if (left <= 0 || poll(&q, 1, static_cast<int>(left)) <= 0) {
                        std::fprintf(stderr,
                                     "vcam: protocol error: SET_AF_ATTR carried %zu of %zu "
                                     "bytes and then nothing for %.1f s; closing the "
                                     "connection\n",
                                     got, sizeof rec, cfg_.body_timeout_s);
                        ++stats_.protocol_errors;
                        return true;
                    }
                    const ssize_t m = recv(fd, rec + got, sizeof rec - got, 0);
                    if (m <= 0) {
                        std::fprintf(stderr,
                                     "vcam: protocol error: SET_AF_ATTR carried %zu of %zu "
                                     "bytes before the client %s; closing the connection\n",
                                     got, sizeof rec, m == 0 ? "closed" : "failed");
                        ++stats_.protocol_errors;
                        return true;
                    }
                    got += static_cast<size_t>(m);
                }
                cam_->set_af_attr(rec);
                break;
            }
            case 4: {
                uint8_t rec[kExposureRecordSize];
                cam_->exposure_record(rec);
                if (!send_reply(fd, rec, sizeof rec, code_name(code), ReplyClass::kExposure, stop))
                    return true;
                break;
            }
            default:
                std::fprintf(stderr,
                             "vcam: protocol error: unknown request code %u (0x%02x); closing "
                             "the connection\n",
                             code, code);
                ++stats_.protocol_errors;
                return true;
        }
    }
}

void IspServer::run(const std::atomic<bool>& stop) {
    while (!stop.load()) {
        if (cfg_.max_frames != 0 && stats_.frames >= cfg_.max_frames)
            break;
        // A service that is down has no listening socket: connections are refused outright.
        if (faults_ != nullptr && faults_->refusing(scene_now())) {
            if (listen_fd_ >= 0) {
                std::fprintf(stderr, "vcam: fault: ISP service down\n");
                close(listen_fd_);
                listen_fd_ = -1;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            continue;
        }
        if (listen_fd_ < 0) {
            if (open_listener(port_) != 0) {
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
                continue;
            }
            std::fprintf(stderr, "vcam: ISP service up again\n");
        }
        pollfd p{listen_fd_, POLLIN, 0};
        const int pr = poll(&p, 1, kPollMs);
        if (faults_ != nullptr)
            faults_->update(scene_now());
        if (pr <= 0)
            continue;
        const int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            continue;
        int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        int buf = 1 << 18;
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &buf, sizeof buf);
        ++stats_.connections;
        std::fprintf(stderr, "vcam: client connected\n");
        const bool go_on = serve_client(fd, stop);
        close(fd);
        if (tel_ != nullptr)
            tel_->flush();
        if (!go_on)
            break;
    }
    if (tel_ != nullptr)
        tel_->flush();
}

}  // namespace vcam
