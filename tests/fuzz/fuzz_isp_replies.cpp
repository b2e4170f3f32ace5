// The ISP link reading an arbitrary reply stream: the service's side of the connection holds the
// fuzz input and then ends, so replies arrive short, concatenated or not at all. The client must
// read each reply whole or mark the link down, never read past what arrived, and never
// desynchronise into undefined behaviour. The first input byte picks the order of the requests.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "base/dbgout.h"
#include "isp/af_stat.h"
#include "isp/isp_link.h"
#include "platform/clock.h"
#include "platform/paths.h"
#include "platform/ports.h"
#include "platform/sim/virtual_clock.h"

namespace {

int g_listen = -1;
platform::VirtualClock g_clock;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The daemon's log lines would drown the fuzzer's own output (which goes to stderr).
    if (std::freopen("/dev/null", "w", stdout) == nullptr)
        return 0;
    static char root[] = "/tmp/afd-fuzz-XXXXXX";
    if (mkdtemp(root) != nullptr)
        platform::set_file_root(root);
    dbg_set_syslog(false);
    platform::select_clock(&g_clock);

    g_listen = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (bind(g_listen, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        listen(g_listen, 4) != 0 ||
        getsockname(g_listen, reinterpret_cast<sockaddr*>(&a), &len) != 0)
        std::abort();
    setenv("AFD_ISP_ADDR", "127.0.0.1", 1);
    setenv("AFD_ISP_PORT", std::to_string(ntohs(a.sin_port)).c_str(), 1);
    platform::reload_ports();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size == 0)
        return 0;
    const uint8_t script = data[0];
    isp_link_reset_for_testing();
    if (socket_to_soc_init() != 0)
        std::abort();
    // libFuzzer's timeout alarm interrupts blocking calls now and then.
    int svc = -1;
    do {
        svc = accept(g_listen, nullptr, nullptr);
    } while (svc < 0 && errno == EINTR);
    if (svc < 0)
        std::abort();
    // Everything the service will ever say, then the end of its stream. A non-blocking write
    // keeps a huge input from blocking the run; what does not fit is simply not sent.
    fcntl(svc, F_SETFL, O_NONBLOCK);
    const ssize_t w = write(svc, data + 1, size - 1);
    (void)w;
    shutdown(svc, SHUT_WR);

    isp_af_attr_setup();
    for (int step = 0; step < 12 && isp_link_up(); ++step) {
        switch ((script >> (2 * (step % 4))) & 3) {
            case 0:
                if (Get_ISP_VD() == 0)
                    af_stat_fetch(1);
                break;
            case 1:
                isp_read_exposure();
                break;
            case 2:
                set_filter_param(1, 2, 60, 80);
                break;
            default:
                if (Get_ISP_VD() == 0)
                    af_stat_fetch(0);
                break;
        }
    }
    isp_link_reset_for_testing();
    close(svc);
    return 0;
}
