// Plain ISP client: connects to an ISP service (the camera's or vcam), fetches frames the way the
// daemon does (one request byte, one 5504-byte reply) and reports the delivered frame rate and,
// from the frame stamps, how fast the frame clock ran against the wall clock.
//
//   isp_fetch [--addr A] [--port P] [--frames N] [--print]
//
// --print writes one line per frame: sequence, stamp (µs) and the centre sharpness
// (mean of (fir_v + iir1) / 2 over blocks 6..9 x 6..9).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "data/frame_stamp.h"

namespace {

uint32_t word(const uint8_t* f, int i) {
    const uint8_t* p = f + 4 * i;
    return static_cast<uint32_t>(p[0] | p[1] << 8 | p[2] << 16) | static_cast<uint32_t>(p[3]) << 24;
}

}  // namespace

int main(int argc, char** argv) {
    std::string addr = "127.0.0.1";
    int port = 6888;
    long frames = 1000;
    bool print = false;
    if (const char* p = std::getenv("AFD_ISP_PORT"))
        port = std::atoi(p);
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--addr" && i + 1 < argc)
            addr = argv[++i];
        else if (a == "--port" && i + 1 < argc)
            port = std::atoi(argv[++i]);
        else if (a == "--frames" && i + 1 < argc)
            frames = std::atol(argv[++i]);
        else if (a == "--print")
            print = true;
        else {
            std::fprintf(stderr, "usage: %s [--addr A] [--port P] [--frames N] [--print]\n",
                         argv[0]);
            return 2;
        }
    }
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, addr.c_str(), &sa.sin_addr);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) {
        std::fprintf(stderr, "isp_fetch: cannot connect to %s:%d\n", addr.c_str(), port);
        return 1;
    }
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    static uint8_t buf[5504];
    uint64_t first_stamp = 0;
    uint64_t last_stamp = 0;
    const auto t0 = std::chrono::steady_clock::now();
    long got = 0;
    for (; got < frames; ++got) {
        const uint8_t code = 1;
        if (send(fd, &code, 1, 0) != 1)
            break;
        if (recv(fd, buf, sizeof buf, MSG_WAITALL) != static_cast<ssize_t>(sizeof buf))
            break;
        const afdata::FrameStamp st = afdata::frame_stamp_decode(buf);
        if (got == 0)
            first_stamp = st.time_us;
        last_stamp = st.time_us;
        if (print) {
            double v = 0;
            for (int r = 6; r <= 9; ++r)
                for (int c = 6; c <= 9; ++c)
                    v += (word(buf, 228 + r * 15 + c) + word(buf, 678 + r * 15 + c)) / 2.0;
            std::printf("%u %llu %.1f\n", st.sequence, static_cast<unsigned long long>(st.time_us),
                        v / 16);
        }
    }
    const double wall =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    close(fd);
    if (got == 0) {
        std::fprintf(stderr, "isp_fetch: no frame received\n");
        return 1;
    }
    const double span = static_cast<double>(last_stamp - first_stamp) / 1e6;
    std::fprintf(stderr,
                 "isp_fetch: %ld frames in %.3f s wall: %.0f frames/s; frame clock %.3f s "
                 "(%.1fx real time)\n",
                 got, wall, static_cast<double>(got) / wall, span, wall > 0 ? span / wall : 0.0);
    return got == frames ? 0 : 1;
}
