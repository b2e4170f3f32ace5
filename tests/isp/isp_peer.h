// A scripted ISP service for the link tests: listens on a loopback port, answers the four request
// codes from its records, records what the daemon sent, and misbehaves on request (split replies,
// a dropped connection, a short reply, a stall, a restart).
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

namespace isptest {

class IspPeer {
  public:
    enum class Fault {
        kNone,
        kCloseOnRequest,  // close the connection instead of answering
        kShortReply,      // send half the reply, then close
        kStall,           // never answer; keep the connection open
    };

    IspPeer();
    ~IspPeer();
    IspPeer(const IspPeer&) = delete;
    IspPeer& operator=(const IspPeer&) = delete;

    uint16_t port() const { return port_; }

    // Records served.
    void set_attr_record(const std::array<uint8_t, 264>& rec);
    std::array<uint8_t, 264> attr_record();
    void set_exposure(float luma, float time_s, float gain);
    void set_frame(const std::vector<uint8_t>& frame);
    // When period_us is non-zero every frame served gets the stamp (n, start_us + n x period_us),
    // n counting from 1.
    void set_frame_stamps(uint64_t start_us, uint64_t period_us);

    // Replies go out in chunks of this size with a pause between them (0: in one piece).
    void set_split(std::size_t chunk, uint32_t pause_us);
    // The next request with this code gets the fault (one-shot).
    void fail_next(uint8_t code, Fault fault);

    // Service restart: drops the connection and stops listening; start() listens again on the
    // same port.
    void stop();
    void start();

    // Observations.
    std::vector<uint8_t> codes();
    std::vector<std::vector<uint8_t>> set_payloads();
    int connections() const { return connections_.load(); }
    // Waits until n requests have been seen (max 2 s). Returns true when they have.
    bool wait_codes(std::size_t n);
    void clear_log();

  private:
    void listen_on(uint16_t port);
    void run();
    void serve(int fd);
    bool reply(int fd, const uint8_t* data, std::size_t n, Fault fault);

    uint16_t port_ = 0;
    int listen_fd_ = -1;
    std::atomic<int> conn_fd_{-1};
    std::atomic<bool> quit_{false};
    std::atomic<bool> listening_{false};
    std::atomic<bool> want_listen_{true};
    std::atomic<int> connections_{0};
    std::thread thread_;

    std::mutex mu_;
    std::array<uint8_t, 264> attr_{};
    std::array<uint8_t, 292> exposure_{};
    std::vector<uint8_t> frame_;
    uint64_t stamp_start_ = 0;
    uint64_t stamp_period_ = 0;
    uint32_t frames_served_ = 0;
    std::size_t split_chunk_ = 0;
    uint32_t split_pause_us_ = 0;
    uint8_t fault_code_ = 0;
    Fault fault_ = Fault::kNone;
    std::vector<uint8_t> codes_;
    std::vector<std::vector<uint8_t>> sets_;
};

}  // namespace isptest
