// The ISP service on TCP: one client at a time (the daemon keeps one connection for its whole
// life), strict request/reply, one code byte per request:
//   1  next frame's statistics (5504 bytes; this paces the client)
//   2  AF attribute record (264 bytes)
//   3  AF attribute record follows (264 bytes), stored; no reply
//   4  exposure record (292 bytes)
// Every reply leaves in one send() of its full size: the daemon reads it with one recv() and a
// reply split across segments would desynchronise the link for good. A protocol error (unknown
// code, a client that closes mid-request, a short SET) is logged and the connection closed;
// the service then waits for the next client.
//
// Faults (sim/faults.h): a plan handed in with set_faults makes chosen replies go out wrong: the
// connection closed instead of answering (and, for a window, the service down: its listening
// socket closed, so connections are refused), the reply
// split over several sends a few milliseconds apart, held back for a while, cut or padded to
// another size, or preceded by junk bytes in the same send. The plan's lens faults are switched
// from here too, on every request and every idle poll.
//
// Frame timing:
//   real time:    frames are captured on a grid of the scenario's frame period from the moment
//                 the service starts; a frame request is answered when the first frame after the
//                 request's arrival is complete (plus optional jitter), stamped with the real
//                 elapsed time in µs.
//   virtual time: no waiting. The client's virtual clock (a shared page of one u64 µs value) says
//                 what time it is; the answer is the first grid frame after that time, stamped
//                 with its grid time, so the client's clock jumps to it. Without the page the
//                 answer is simply the next grid frame.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

#include "sim/camera.h"
#include "sim/faults.h"
#include "sim/telemetry.h"

namespace vcam {

enum class TimeMode { kReal, kVirtual };

struct ServerConfig {
    std::string addr = "127.0.0.1";
    uint16_t port = 6888;  // 0 = any free port (tests)
    TimeMode mode = TimeMode::kReal;
    std::string vclock_path;      // virtual-clock page; "" = none
    uint64_t max_frames = 0;      // stop after this many frames (0 = run until stopped)
    double body_timeout_s = 2.0;  // how long a SET body may take to arrive
};

struct ServerStats {
    uint64_t frames = 0;
    uint64_t requests[5] = {0, 0, 0, 0, 0};  // by code 1..4 (index 0 = unknown)
    uint64_t sends = 0;
    uint64_t protocol_errors = 0;
    uint64_t connections = 0;
};

class IspServer {
  public:
    IspServer(Camera* camera, ServerConfig cfg, TelemetryWriter* telemetry);
    ~IspServer();
    IspServer(const IspServer&) = delete;
    IspServer& operator=(const IspServer&) = delete;

    // Binds and listens. Returns 0, or -1 after logging why.
    int listen();
    uint16_t port() const { return port_; }

    // Serves clients until `stop` becomes true or max_frames frames were delivered.
    void run(const std::atomic<bool>& stop);

    const ServerStats& stats() const { return stats_; }

    // Faults to inject (nullptr: none). The plan must outlive run().
    void set_faults(FaultPlan* plan) { faults_ = plan; }

  private:
    int open_listener(uint16_t port);
    bool serve_client(int fd, const std::atomic<bool>& stop);
    bool send_reply(int fd, const uint8_t* p, size_t n, const char* what, ReplyClass rc,
                    const std::atomic<bool>& stop);
    bool send_faulty(int fd, const uint8_t* p, size_t n, const char* what, const IspAction& a,
                     const std::atomic<bool>& stop);
    // Scene time now (s), -1 while the timeline is held.
    double scene_now();
    bool send_frame(int fd, const std::atomic<bool>& stop);
    uint64_t now_us() const;
    bool read_virtual_now(uint64_t* now);

    Camera* cam_;
    ServerConfig cfg_;
    TelemetryWriter* tel_;
    int listen_fd_ = -1;
    uint16_t port_ = 0;
    ServerStats stats_;
    bool have_last_ = false;
    uint64_t last_k_ = 0;
    std::chrono::steady_clock::time_point t0_;
    const volatile uint8_t* page_ = nullptr;
    FaultPlan* faults_ = nullptr;
    uint64_t last_stamp_us_ = 0;
};

}  // namespace vcam
