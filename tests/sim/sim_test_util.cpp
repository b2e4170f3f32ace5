#include "sim_test_util.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include "sim/isp_records.h"

namespace simtest {

vcam::Scenario scenario_from(const std::string& yaml) {
    vcam::Scenario sc;
    std::string err;
    EXPECT_TRUE(vcam::parse_scenario(yaml, "test.yaml", &sc, &err)) << err;
    return sc;
}

vcam::Scenario chart_scenario(double distance, double zoom, double texture) {
    std::ostringstream y;
    y << "subject: chart\n"
      << "lens: {zoom: " << zoom << ", focus: 3000}\n"
      << "scene:\n"
      << "  background: {distance: 100000, texture: 0, reflectance: 0.3}\n"
      << "  objects:\n"
      << "    - {name: chart, rect: [0.1, 0.1, 0.8, 0.8], distance: " << distance
      << ", texture: " << texture << ", texture_variation: 0, luma_contrast: 0.3}\n"
      << "noise: {enabled: false}\n";
    return scenario_from(y.str());
}

double centre_v(const uint8_t* f) {
    double v = 0;
    for (int r = 6; r <= 9; ++r)
        for (int c = 6; c <= 9; ++c) {
            const size_t b = static_cast<size_t>(r * 15 + c);
            v += (vcam::get_u32(f + 4 * (vcam::kFirVWord + b)) +
                  vcam::get_u32(f + 4 * (vcam::kIir1Word + b))) /
                 2.0;
        }
    return v / 16;
}

IspClient::IspClient(uint16_t port) {
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    inet_pton(AF_INET, "127.0.0.1", &a.sin_addr);
    for (int i = 0; i < 100; ++i) {
        if (connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) {
            int one = 1;
            setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    close(fd_);
    fd_ = -1;
}

IspClient::~IspClient() {
    if (fd_ >= 0)
        close(fd_);
}

bool IspClient::send_bytes(const std::vector<uint8_t>& b) {
    return send(fd_, b.data(), b.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(b.size());
}

std::vector<uint8_t> IspClient::recv_once(size_t n, int timeout_ms) {
    // Wait for the whole reply to be queued, so a reply sent in pieces shows up as a short read.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    int avail = 0;
    while (std::chrono::steady_clock::now() < deadline) {
        pollfd p{fd_, POLLIN, 0};
        poll(&p, 1, 10);
        ioctl(fd_, FIONREAD, &avail);
        if (avail >= static_cast<int>(n))
            break;
        if ((p.revents & (POLLHUP | POLLERR)) != 0)
            break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    std::vector<uint8_t> buf(n + 64);
    const ssize_t got = recv(fd_, buf.data(), buf.size(), MSG_DONTWAIT);
    buf.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return buf;
}

bool IspClient::closed_by_peer(int timeout_ms) {
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) <= 0)
        return false;
    uint8_t b;
    return recv(fd_, &b, 1, 0) == 0;
}

std::vector<uint8_t> IspClient::request(uint8_t code, size_t reply_size) {
    if (!send_bytes({code}))
        return {};
    return recv_once(reply_size);
}

afdata::FrameStamp IspClient::next_frame() {
    uint8_t f[vcam::kStatFrameSize];
    const bool ok = send_bytes({1}) && recv(fd_, f, sizeof f, MSG_WAITALL) == sizeof f;
    return ok ? afdata::frame_stamp_decode(f) : afdata::FrameStamp{};
}

std::string read_file(const std::string& path) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

std::string temp_path(const std::string& name) {
    const char* t = std::getenv("TMPDIR");
    return std::string(t != nullptr ? t : "/tmp") + "/vcam_test_" + std::to_string(getpid()) + "_" +
           name;
}

}  // namespace simtest
