#include "tuning/tuning_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "af/af_state.h"
#include "base/af_status.h"
#include "base/command_state.h"
#include "base/dbgout.h"
#include "isp/af_stat.h"
#include "isp/isp_link.h"
#include "lens_api/iris.h"
#include "lens_api/lens_position.h"
#include "platform/clock.h"
#include "platform/paths.h"
#include "platform/ports.h"

namespace {

constexpr const char* kSwitchFile = "/dev/af_debug";
constexpr const char* kFile = "tuning_server";
constexpr const char* kFunc = "recv_win_data";
constexpr int kSlots = 5;
constexpr int kBacklog = 5;
constexpr size_t kRequestSize = 24;
constexpr size_t kHeaderSize = 24;
constexpr uint32_t kCmdNop = 0;
constexpr uint32_t kCmdGrid = 1;
constexpr uint32_t kCmdFilter = 2;
constexpr uint32_t kCmdStatus = 3;
constexpr uint32_t kCmdFocus = 4;
constexpr uint32_t kReplyGrid = 2;
constexpr uint32_t kGridBytes = kGridBlocks * 4;
constexpr uint32_t kStatusBytes = 16;
constexpr uint32_t kDefaultPollUs = 1000000;
// A client that stops reading fills its socket buffer; after this long a send to it gives up, so
// that a grid broadcast does not stall every other client behind it.
constexpr int kSendTimeoutS = 2;

// Grid selectors of command 1, in the tool's numbering.
constexpr StatGrid kGridBySelector[] = {
    StatGrid::kSharpV, StatGrid::kSharpH, StatGrid::kIir1, StatGrid::kFirV,
    StatGrid::kIir2,   StatGrid::kFirH,   StatGrid::kLuma, StatGrid::kHighlight,
};
constexpr int kGridSelectors = sizeof kGridBySelector / sizeof kGridBySelector[0];

struct ClientSlot {
    // One transfer (header and payload, or a focus reply) at a time on this socket: grid
    // broadcasts come from every client thread.
    std::mutex send_lock;
    std::atomic<int> sockfd{-1};
    sockaddr_in addr{};
    // From a successful accept until the client thread ends.
    std::atomic<bool> in_use{false};
    int index = 0;
};

struct Server {
    ClientSlot slots[kSlots];
    std::atomic<int> listen_fd{-1};
    std::atomic<uint16_t> port{0};
    std::atomic<uint32_t> poll_us{kDefaultPollUs};
    std::atomic<bool> stopping{false};
    std::atomic<int> client_threads{0};
    std::atomic<bool> ended{false};
    pthread_t thread{};
    bool thread_started = false;
};

Server g_srv;

DbgRepeat g_shortRequest;
DbgRepeat g_unknownCommand;
DbgRepeat g_badSelector;
DbgRepeat g_sendFailed;

uint32_t get32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}
uint16_t get16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}
void put32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<uint8_t>(v >> (8 * i));
}

bool switch_file_present() {
    platform::Path p(kSwitchFile);
    return p.ok() && access(p.c_str(), F_OK) == 0;
}

// Sends all of buf. False when the client is gone or has stopped reading (send timeout).
bool send_all(int fd, const uint8_t* buf, size_t len) {
    while (len > 0) {
        const ssize_t n = send(fd, buf, len, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        buf += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

// One transfer to a client: the header, then the payload if any, under the client's send lock.
// A transfer cut short would leave the client's stream out of step for good, so a client that
// cannot take one is disconnected; its own thread then ends and frees the slot.
void send_to_slot(ClientSlot& s, const uint8_t* head, size_t head_len, const uint8_t* payload,
                  size_t payload_len) {
    std::lock_guard<std::mutex> lk(s.send_lock);
    const int fd = s.sockfd.load();
    if (!s.in_use.load() || fd < 0)
        return;
    if (!send_all(fd, head, head_len) || (payload_len > 0 && !send_all(fd, payload, payload_len))) {
        dbg_err_limited(g_sendFailed, kFile, kFunc, 0, "client %d not reachable, disconnected\n",
                        s.index);
        shutdown(fd, SHUT_RDWR);
    }
}

void grid_request(int16_t selector) {
    if (selector < 0 || selector >= kGridSelectors) {
        dbg_err_limited(g_badSelector, kFile, kFunc, 0, "grid selector %d out of range 0..%d\n",
                        selector, kGridSelectors - 1);
        return;
    }
    af_stat_fetch(1);
    uint32_t grid[kGridBlocks];
    af_stat_copy_grid(kGridBySelector[selector], grid);

    // The ISP numbers the block columns as the sensor reads them out; the tool shows the picture
    // as the viewer sees it, which is the mirror image.
    uint8_t payload[kGridBytes];
    for (int r = 0; r < kGridRows; ++r)
        for (int c = 0; c < kGridCols; ++c)
            put32(payload + 4 * (r * kGridCols + c), grid[r * kGridCols + (kGridCols - 1 - c)]);
    uint8_t head[kHeaderSize] = {};
    put32(head, kReplyGrid);
    put32(head + 4, kGridBytes);
    for (ClientSlot& s : g_srv.slots)
        send_to_slot(s, head, sizeof head, payload, sizeof payload);
}

void put16(uint8_t* p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v & 0xFF);
    p[1] = static_cast<uint8_t>(v >> 8);
}

// The autofocus as the frame loop left it, for a tuning view: single bytes and words the main
// thread writes, read here without a lock like every flag shared between the daemon's threads.
void status_request(ClientSlot& slot) {
    uint8_t head[kHeaderSize] = {};
    put32(head, kCmdStatus);
    put32(head + 4, kStatusBytes);
    uint8_t st[kStatusBytes] = {};
    st[0] = g_afState;
    st[1] = static_cast<uint8_t>(g_search.searchPhase);
    st[2] = static_cast<uint8_t>(g_search.searchDir);
    st[3] = command_autofocus_mode();
    put32(st + 4, g_focusValue.fvHist[0]);
    put16(st + 8, lens_get_zoom_pos());
    put16(st + 10, lens_get_focus_pos());
    put16(st + 12, iris_get_value());
    st[14] = iris_get_mode();
    st[15] = command_calibration_mode();
    send_to_slot(slot, head, sizeof head, st, sizeof st);
}

void execute(ClientSlot& slot, const uint8_t* req) {
    const uint32_t command = get32(req);
    const uint32_t flag = get32(req + 4);
    const int16_t p0 = static_cast<int16_t>(get16(req + 8));
    const int16_t p1 = static_cast<int16_t>(get16(req + 10));
    const uint16_t p4 = get16(req + 16);
    const uint16_t p5 = get16(req + 18);
    switch (command) {
        case kCmdNop:
            break;
        case kCmdGrid:
            grid_request(p0);
            break;
        case kCmdFilter:
            set_filter_param(static_cast<uint8_t>(p4 & 0xFF), static_cast<uint8_t>(p5 & 0xFF),
                             static_cast<uint16_t>(p0), static_cast<uint16_t>(p1));
            break;
        case kCmdStatus:
            status_request(slot);
            break;
        case kCmdFocus:
            if (flag == 1) {
                uint8_t reply[kHeaderSize] = {};
                put32(reply, kCmdFocus);
                const uint16_t focus = lens_get_focus_pos();
                reply[4] = static_cast<uint8_t>(focus & 0xFF);
                reply[5] = static_cast<uint8_t>(focus >> 8);
                send_to_slot(slot, reply, sizeof reply, nullptr, 0);
            }
            break;
        default:
            dbg_err_limited(g_unknownCommand, kFile, kFunc, 0,
                            "client %d: unknown command %u ignored\n", slot.index, command);
            break;
    }
}

// Reads one whole request. False when the client has gone (or the connection failed) first.
bool read_request(ClientSlot& slot, uint8_t* req) {
    size_t got = 0;
    while (got < kRequestSize) {
        const ssize_t n = recv(slot.sockfd.load(), req + got, kRequestSize - got, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        got += static_cast<size_t>(n);
    }
    if (got == kRequestSize)
        return true;
    if (got > 0)
        dbg_err_limited(g_shortRequest, kFile, kFunc, 0,
                        "client %d left after %zu of %zu request bytes; request dropped\n",
                        slot.index, got, kRequestSize);
    return false;
}

void* recv_win_data(void* arg) {
    ClientSlot& slot = *static_cast<ClientSlot*>(arg);
    prctl(PR_SET_NAME, "recv_win_data", 0, 0, 0);
    uint8_t req[kRequestSize];
    while (read_request(slot, req))
        execute(slot, req);
    {
        std::lock_guard<std::mutex> lk(slot.send_lock);
        close(slot.sockfd.exchange(-1));
    }
    slot.in_use.store(false);
    g_srv.client_threads.fetch_sub(1);
    return nullptr;
}

// Waits one poll interval. False when the server is being stopped (tests).
bool poll_wait() {
    platform::pause_real_us(g_srv.poll_us.load());
    return !g_srv.stopping.load();
}

int open_listening_socket() {
    const platform::PortConfig& cfg = platform::ports();
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        std::perror("socket error");
        return -1;
    }
    const int one = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0) {
        close(fd);
        return -1;
    }
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(cfg.tuning_port);
    if (inet_pton(AF_INET, cfg.tuning_bind, &local.sin_addr) != 1)
        local.sin_addr.s_addr = htonl(INADDR_ANY);
    if (bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
        std::perror("bind error");
        close(fd);
        return -1;
    }
    if (listen(fd, kBacklog) != 0) {
        std::perror("listen error");
        close(fd);
        return -1;
    }
    socklen_t len = sizeof local;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &len) == 0)
        g_srv.port.store(ntohs(local.sin_port));
    return fd;
}

ClientSlot* free_slot() {
    for (ClientSlot& s : g_srv.slots)
        if (!s.in_use.load())
            return &s;
    return nullptr;
}

void* win_socket(void*) {
    prctl(PR_SET_NAME, "win_socket", 0, 0, 0);
    while (!switch_file_present()) {
        if (!poll_wait()) {
            g_srv.ended.store(true);
            return nullptr;
        }
    }
    const int lfd = open_listening_socket();
    if (lfd < 0) {
        g_srv.ended.store(true);
        return nullptr;
    }
    g_srv.listen_fd.store(lfd);

    for (int i = 0; i < kSlots; ++i) {
        ClientSlot& s = g_srv.slots[i];
        s.index = i;
        s.sockfd.store(-1);
        s.addr = sockaddr_in{};
        s.in_use.store(false);
    }
    while (!g_srv.stopping.load()) {
        ClientSlot* slot = free_slot();
        if (slot == nullptr) {
            poll_wait();
            continue;
        }
        socklen_t len = sizeof slot->addr;
        const int fd = accept4(lfd, reinterpret_cast<sockaddr*>(&slot->addr), &len, SOCK_CLOEXEC);
        if (fd < 0) {
            // A signal, or a client that reset its connection while it waited in the queue, is
            // not a failure of the server.
            if (!g_srv.stopping.load() && (errno == EINTR || errno == ECONNABORTED))
                continue;
            break;
        }
        const timeval send_timeout{kSendTimeoutS, 0};
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &send_timeout, sizeof send_timeout);
        // A reply is a header and a payload in two sends: without this the payload waits for
        // the client's delayed acknowledgement of the header, some 40 ms per grid.
        const int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        char addr[INET_ADDRSTRLEN] = "?";
        inet_ntop(AF_INET, &slot->addr.sin_addr, addr, sizeof addr);
        std::printf("accept success\n");
        std::printf("cliend id: %d client->client_sockfd: %d accept client: %s \n", slot->index, fd,
                    addr);
        std::fflush(stdout);

        slot->sockfd.store(fd);
        slot->in_use.store(true);
        g_srv.client_threads.fetch_add(1);
        pthread_t t;
        if (pthread_create(&t, nullptr, recv_win_data, slot) != 0) {
            // The slot stays taken: the connection is kept open but never read.
            g_srv.client_threads.fetch_sub(1);
            dbg_line("Create recv_win_data failed ");
            continue;
        }
        pthread_detach(t);
    }
    if (g_srv.stopping.load())
        std::fputs("accept error\n", stderr);
    else
        std::perror("accept error");
    g_srv.listen_fd.store(-1);
    g_srv.port.store(0);
    close(lfd);
    g_srv.ended.store(true);
    return nullptr;
}

}  // namespace

int win_socket_start() {
    if (g_srv.thread_started)
        return 0;
    g_srv.stopping.store(false);
    g_srv.ended.store(false);
    if (pthread_create(&g_srv.thread, nullptr, win_socket, nullptr) != 0)
        return -1;
    g_srv.thread_started = true;
    return 0;
}

uint16_t tuning_server_port() {
    return g_srv.port.load();
}

int tuning_clients_in_use() {
    int n = 0;
    for (const ClientSlot& s : g_srv.slots)
        n += s.in_use.load() ? 1 : 0;
    return n;
}

void tuning_set_poll_us_for_testing(uint32_t us) {
    g_srv.poll_us.store(us == 0 ? kDefaultPollUs : us);
}

void tuning_server_stop_for_testing() {
    if (!g_srv.thread_started)
        return;
    g_srv.stopping.store(true);
    // The thread may be between opening the socket and its accept: keep waking it until it ends.
    while (!g_srv.ended.load()) {
        const int lfd = g_srv.listen_fd.load();
        if (lfd >= 0)
            shutdown(lfd, SHUT_RDWR);
        platform::pause_real_us(1000);
    }
    pthread_join(g_srv.thread, nullptr);
    g_srv.thread_started = false;
    for (ClientSlot& s : g_srv.slots) {
        std::lock_guard<std::mutex> lk(s.send_lock);
        const int fd = s.sockfd.load();
        if (fd >= 0)
            shutdown(fd, SHUT_RDWR);
    }
    for (int i = 0; i < 5000 && g_srv.client_threads.load() > 0; ++i)
        platform::pause_real_us(1000);
    for (ClientSlot& s : g_srv.slots)
        s.in_use.store(false);
    g_shortRequest.reset();
    g_unknownCommand.reset();
    g_badSelector.reset();
    g_sendFailed.reset();
}
