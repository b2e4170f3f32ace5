// Tuning requests from a desktop tool, or from anything else that reaches port 1207 on a camera
// switched into tuning: arbitrary bytes on one connection, then the client closes its side. The
// server must answer only whole 24-byte requests, frame every reply (a 24-byte header whose type
// says what follows: 2 a 900-byte grid, 3 a 16-byte status record, 4 nothing more), never answer
// more requests than it got, and free the client's slot once the client has gone.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "base/dbgout.h"
#include "isp/isp_inputs.h"
#include "platform/paths.h"
#include "platform/ports.h"
#include "tuning/tuning_server.h"

namespace {

const IspInputs kInputs = {[] { return uint16_t{0}; }, [] { return uint8_t{3}; }};

bool set_up() {
    char dir[] = "/tmp/afd-fuzz-tuning-XXXXXX";
    if (mkdtemp(dir) == nullptr)
        return false;
    platform::set_file_root(dir);
    // The switch file that puts the camera into tuning.
    const int fd = open(platform::Path("/dev/af_debug").c_str(), O_CREAT | O_WRONLY, 0644);
    if (fd < 0)
        return false;
    close(fd);
    setenv("AFD_TUNING_BIND", "127.0.0.1", 1);
    setenv("AFD_TUNING_PORT", "0", 1);
    setenv("AFD_ISP_PORT", "1", 1);  // no ISP service: filter writes find the link down
    platform::reload_ports();
    isp_set_inputs_for_testing(&kInputs);
    dbg_set_syslog(false);
    if (std::freopen("/dev/null", "w", stdout) == nullptr)
        return false;
    tuning_set_poll_us_for_testing(200);
    if (win_socket_start() != 0)
        return false;
    for (int i = 0; i < 5000 && tuning_server_port() == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return tuning_server_port() != 0;
}

void fail(const char* what, std::size_t a, std::size_t b) {
    std::fprintf(stderr, "%s: %zu %zu\n", what, a, b);
    std::abort();
}

// libFuzzer's timer signal can interrupt this side's calls: those are retried (an interrupted
// connect goes on in the background, so it is waited for), and only a real failure counts.
bool connect_to(int fd, const sockaddr_in& a) {
    if (connect(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) == 0)
        return true;
    if (errno != EINTR)
        return false;
    pollfd p{fd, POLLOUT, 0};
    while (poll(&p, 1, 5000) < 0 && errno == EINTR) {
    }
    int err = 0;
    socklen_t len = sizeof err;
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) == 0 && err == 0 &&
           (p.revents & POLLOUT) != 0;
}

bool send_all(int fd, const uint8_t* data, std::size_t size) {
    while (size > 0) {
        const ssize_t n = send(fd, data, size, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        data += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

uint32_t u32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0] | (p[1] << 8) | (p[2] << 16) | (p[3] << 24));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    static const bool ready = set_up();
    if (!ready)
        std::abort();
    if (size > 24 * 40)
        return 0;

    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(tuning_server_port());
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (!connect_to(fd, a))
        fail("connect", errno, 0);
    if (!send_all(fd, data, size))
        fail("send", size, 0);
    shutdown(fd, SHUT_WR);

    // Everything the server says until it closes the connection.
    static std::vector<uint8_t> in;
    in.clear();
    uint8_t buf[4096];
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 100) <= 0) {
            if (std::chrono::steady_clock::now() > deadline)
                fail("the server kept a closed client's connection open", in.size(), size);
            continue;
        }
        const ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        in.insert(in.end(), buf, buf + n);
    }
    close(fd);

    std::size_t at = 0;
    std::size_t replies = 0;
    while (at < in.size()) {
        if (in.size() - at < 24)
            fail("a reply header cut short", in.size() - at, at);
        const uint32_t type = u32(&in[at]);
        std::size_t payload = 0;
        if (type == 2 || type == 3) {
            payload = type == 2 ? 900 : 16;
            if (u32(&in[at + 4]) != payload)
                fail("a payload length that does not fit the reply type", type, u32(&in[at + 4]));
        } else if (type != 4) {
            fail("an unframed reply", type, at);
        }
        at += 24 + payload;
        if (at > in.size())
            fail("a reply payload cut short", at, in.size());
        ++replies;
    }
    if (replies > size / 24)
        fail("more replies than whole requests", replies, size / 24);

    // The slot is freed on the server's next poll: look often, so that an execution does not
    // cost a whole millisecond of sleep.
    for (int i = 0; i < 40000 && tuning_clients_in_use() != 0; ++i)
        std::this_thread::sleep_for(std::chrono::microseconds(50));
    if (tuning_clients_in_use() != 0)
        fail("a departed client still holds its slot", tuning_clients_in_use(), 0);
    return 0;
}
