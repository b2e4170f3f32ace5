#include "isp/isp_link.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "base/dbgout.h"
#include "data/frame_stamp.h"
#include "isp/af_stat.h"
#include "isp/isp_inputs.h"
#include "platform/clock.h"
#include "platform/ports.h"

namespace {

constexpr uint8_t kCodeGetIspVd = 1;
constexpr uint8_t kCodeGetAfAttr = 2;
constexpr uint8_t kCodeSetAfAttr = 3;
constexpr uint8_t kCodeGetAeExpInfo = 4;

// A closed link is polled at this pace so the frame loop idles instead of spinning.
constexpr uint32_t kClosedPollUs = 100000;
// Reconnect attempts are at least this far apart (platform clock).
constexpr uint64_t kReconnectIntervalUs = 1000000;
// A reply not complete after this long means the service has hung (see the header).
constexpr uint32_t kDefaultReplyTimeoutMs = 3000;

// Filter parameter profiles (A, B, C, D). The low-noise profile uses the sharper filters; in low
// light the noise would dominate their sums, so the high-noise profile smooths more.
struct FilterProfile {
    uint8_t a, b;
    uint16_t c, d;
};
constexpr FilterProfile kLowNoise = {1, 2, 60, 80};
constexpr FilterProfile kHighNoise = {3, 3, 80, 80};

// Gain-ratio thresholds of the automatic profile switch: between them the current profile stays.
constexpr uint32_t kGainRatioToHighNoise = 200;  // above: high gain
constexpr uint32_t kGainRatioToLowNoise = 119;   // at or below: low gain
// At the tele end the filter switch would disturb a running search for little gain.
constexpr uint16_t kFilterZoomCutoff = 5682;
constexpr uint32_t kExposureModeLowGain = 3;
constexpr uint32_t kExposureModeHighGain = 20;

// Exposure-change test: a change counts as large from 200 up and beyond a factor of two, and has
// to last this many consecutive calls.
constexpr uint32_t kExposureChangeAbs = 200;
constexpr uint8_t kExposureChangeCalls = 46;

// Attribute record offsets written by the one-time set-up and by set_filter_param.
constexpr std::size_t kAttrWinMu = 69;
constexpr std::size_t kAttrCoeffB = 198;
constexpr std::size_t kAttrFilterC = 226;
constexpr std::size_t kAttrFilterD = 228;
constexpr std::size_t kAttrFilterA = 230;
constexpr std::size_t kAttrFilterB = 232;

struct AttrWrite16 {
    uint16_t offset;
    int16_t value;
};
// The ISP's AF filter coefficients for this lens: the two six-value groups, then the two
// twelve-value groups (each split into a first and a second half), then the filter parameters
// and the window set-up word.
constexpr AttrWrite16 kAttrSetup[] = {
    {128, 483},  {134, 28},   {140, 28},    {144, -1186}, {146, 0},    {148, 1186}, {150, 503},
    {152, 8},    {154, 9},    {156, -1997}, {158, 0},     {160, 1997}, {162, 512},  {164, 557},
    {166, -276}, {168, 460},  {170, 0},     {172, -460},  {174, 117},  {176, 863},  {178, -386},
    {180, 541},  {182, 0},    {184, -541},  {186, 100},   {188, 870},  {190, -399}, {192, 191},
    {194, 0},    {196, -191}, {198, 19},    {200, 986},   {202, -476}, {204, 766},  {206, 0},
    {208, -766}, {226, 80},   {228, 80},    {234, 960},
};
constexpr uint8_t kSetupFilterA = 3;
constexpr uint8_t kSetupFilterB = 3;

struct LinkState {
    std::mutex lock;
    std::atomic<int> sock{-1};
    uint32_t attr_done = 0;  // the attribute set-up ran on this connection

    // Code byte followed by the AF attribute record: a SET goes out as one 265-byte message
    // straight from here, a GET reply lands at offset 1.
    uint8_t attr_msg[1 + kAfAttrSize] = {};
    // The current statistics frame and the one being received.
    alignas(8) uint8_t frames[2][kAfStatFrameSize] = {};
    std::atomic<uint8_t> front{0};

    std::atomic<uint32_t> exp_luma{0};
    std::atomic<uint32_t> exp_gain_ratio{0};
    std::atomic<uint32_t> exp_index{100};
    std::atomic<uint8_t> statistics_mode{2};
    std::atomic<uint32_t> exposure_mode{kExposureModeHighGain};
    uint8_t fast_statistics = 1;
    uint32_t change_ref = 0;
    uint8_t change_count = 0;
    std::atomic<void (*)(uint8_t)> low_light_listener{nullptr};

    uint64_t next_retry_us = 0;
    bool retry_logged = false;
    DbgRepeat out_of_step;  // "out of step" lines of a service that keeps sending wrong sizes
    uint32_t reply_timeout_ms = kDefaultReplyTimeoutMs;
};

LinkState g_link;

uint8_t* attr_record() {
    return g_link.attr_msg + 1;
}

void put_u16(std::size_t off, uint16_t v) {
    attr_record()[off] = static_cast<uint8_t>(v);
    attr_record()[off + 1] = static_cast<uint8_t>(v >> 8);
}

int16_t get_s16(std::size_t off) {
    return static_cast<int16_t>(attr_record()[off] | (attr_record()[off + 1] << 8));
}

float load_le_float(const uint8_t* p) {
    uint32_t v;
    std::memcpy(&v, p, sizeof v);
    if constexpr (std::endian::native == std::endian::big)
        v = __builtin_bswap32(v);
    return std::bit_cast<float>(v);
}

// Float-to-integer conversions as the board's FPU performs them: saturating at the ends of the
// range, NaN giving 0. Written out so the desktop build gives the same values and never hits an
// undefined conversion on a corrupt record.
uint32_t to_u32_saturated(float x) {
    if (!(x > 0.0f))
        return 0;
    if (x >= 4294967296.0f)
        return 0xFFFFFFFFu;
    return static_cast<uint32_t>(x);
}

int32_t to_i32_saturated(float x) {
    if (x != x)
        return 0;
    if (x >= 2147483648.0f)
        return INT32_MAX;
    if (x < -2147483648.0f)
        return INT32_MIN;
    return static_cast<int32_t>(x);
}

// Sends all n bytes. Returns n, or the result of the failing send call.
ssize_t send_all(int fd, const uint8_t* buf, std::size_t n) {
    std::size_t done = 0;
    while (done < n) {
        const ssize_t r = send(fd, buf + done, n - done, MSG_NOSIGNAL);
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0)
            return r;
        done += static_cast<std::size_t>(r);
    }
    return static_cast<ssize_t>(n);
}

// Receives exactly n bytes. Returns n, or the result of the failing recv call: 0 when the service
// closed the connection, -1 on an error or when the reply timeout expired.
ssize_t recv_all(int fd, uint8_t* buf, std::size_t n) {
    std::size_t done = 0;
    while (done < n) {
        const ssize_t r = recv(fd, buf + done, n - done, 0);
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0)
            return r;
        done += static_cast<std::size_t>(r);
    }
    return static_cast<ssize_t>(n);
}

// The link is strict request/reply: once a reply is complete, nothing more can be waiting. Bytes
// that are mean the stream is out of step (a reply longer than its record, junk from a confused
// service) and every later reply would be read from the wrong offset, so the reply just read is
// suspect too. Returns the number of stray bytes seen (0: in step). Costs one non-blocking peek.
ssize_t stray_bytes(int fd) {
    uint8_t peek[64];
    const ssize_t r = recv(fd, peek, sizeof peek, MSG_PEEK | MSG_DONTWAIT);
    return r > 0 ? r : 0;
}

void report_out_of_step(const char* request, ssize_t stray) {
    uint32_t held = 0;
    if (!g_link.out_of_step.admit(&held))
        return;
    if (held == 0)
        traceout("%s %s: ISP link out of step (%d stray bytes after the reply), need reconnect \n",
                 dbg_timestamp(), request, static_cast<int>(stray));
    else
        traceout(
            "%s %s: ISP link out of step (%d stray bytes after the reply), need reconnect "
            "(%u more since the last report)\n",
            dbg_timestamp(), request, static_cast<int>(stray), held);
}

void close_link_locked() {
    const int fd = g_link.sock.exchange(-1);
    if (fd >= 0)
        close(fd);
    // The first reconnect attempt comes on the next frame request.
    g_link.next_retry_us = 0;
    g_link.retry_logged = false;
}

// connect() with the signal case handled. On a socket with a send timeout (the link sets one),
// Linux never restarts an interrupted connect, even for handlers installed with SA_RESTART, nor
// after a stop and continue (a debugger). The connection carries on in the background and must be
// waited for, not reported as a refused service. The wait is bounded by the reply timeout.
int connect_whole(int fd, const sockaddr_in& addr) {
    if (connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0)
        return 0;
    if (errno != EINTR)
        return -1;
    pollfd p{fd, POLLOUT, 0};
    int r = 0;
    do {
        r = poll(&p, 1, static_cast<int>(g_link.reply_timeout_ms));
    } while (r < 0 && errno == EINTR);
    if (r <= 0)
        return -1;
    int err = 0;
    socklen_t len = sizeof err;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0 || err != 0)
        return -1;
    return 0;
}

// Creates and connects the link socket. Returns the socket, or -1 with *what naming the step.
int open_link(const char** what) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        *what = "socket";
        return -1;
    }
    // Requests are single bytes that must leave at once: with Nagle's algorithm a request sent
    // right after a SET (which has no reply to carry the acknowledgement) waits for a delayed ACK.
    const int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    // The timeouts bound a stalled service: every recv, every send and, on Linux, the connect.
    timeval tv{};
    tv.tv_sec = g_link.reply_timeout_ms / 1000;
    tv.tv_usec = static_cast<suseconds_t>((g_link.reply_timeout_ms % 1000) * 1000);
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);

    const platform::PortConfig& pc = platform::ports();
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(pc.isp_port);
    if (inet_pton(AF_INET, pc.isp_addr, &addr.sin_addr) != 1 || connect_whole(fd, addr) != 0) {
        close(fd);
        *what = "connect";
        return -1;
    }
    // With no service listening on a port inside the ephemeral range, a loopback connect can pick
    // that very port as its source and connect to itself. Such a link talks to nobody and holds
    // the port against the service coming back: refuse it.
    sockaddr_in local{};
    socklen_t len = sizeof local;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &len) == 0 &&
        local.sin_port == addr.sin_port && local.sin_addr.s_addr == addr.sin_addr.s_addr) {
        close(fd);
        *what = "connect";
        return -1;
    }
    return fd;
}

// The attribute set-up proper, with the lock held.
int attr_setup_locked() {
    const int fd = g_link.sock.load();
    if (fd < 0)
        return -1;
    if (g_link.attr_done)
        return 0;
    g_link.attr_done = 1;

    g_link.attr_msg[0] = kCodeGetAfAttr;
    if (send_all(fd, g_link.attr_msg, 1) != 1) {
        close_link_locked();
        traceout("%s send GET_AF_ATTR failed \n", dbg_timestamp());
        return -1;
    }
    if (recv_all(fd, attr_record(), kAfAttrSize) != static_cast<ssize_t>(kAfAttrSize)) {
        close_link_locked();
        traceout("%s recv GET_AF_ATTR failed \n", dbg_timestamp());
        return -1;
    }
    if (const ssize_t stray = stray_bytes(fd); stray > 0) {
        close_link_locked();
        report_out_of_step("GET_AF_ATTR", stray);
        return -1;
    }
    std::printf("AF win_mu: %d  %d\n", attr_record()[kAttrWinMu], get_s16(kAttrCoeffB));
    std::fflush(stdout);

    for (const AttrWrite16& w : kAttrSetup)
        put_u16(w.offset, static_cast<uint16_t>(w.value));
    attr_record()[kAttrFilterA] = kSetupFilterA;
    attr_record()[kAttrFilterB] = kSetupFilterB;
    // The set-up's filter parameters are the high-noise profile, which the power-on statistics
    // mode (low-light) assumes. A set-up after a reconnect must not leave the ISP filtering with
    // them while the daemon believes the low-noise profile is in force: the automatic update
    // sends nothing as long as the gain stays low, so the two would stay apart.
    if (g_link.statistics_mode.load() == 0) {
        attr_record()[kAttrFilterA] = kLowNoise.a;
        attr_record()[kAttrFilterB] = kLowNoise.b;
        put_u16(kAttrFilterC, kLowNoise.c);
        put_u16(kAttrFilterD, kLowNoise.d);
    }

    g_link.attr_msg[0] = kCodeSetAfAttr;
    const ssize_t sent = send_all(fd, g_link.attr_msg, sizeof g_link.attr_msg);
    if (sent != static_cast<ssize_t>(sizeof g_link.attr_msg)) {
        close_link_locked();
        std::printf("SET_AF_ATTR error! ret %d\n", static_cast<int>(sent));
        std::fflush(stdout);
        return -1;
    }
    std::printf("SET_AF_ATTR success! ret %d\n", static_cast<int>(sent));
    std::fflush(stdout);
    return 0;
}

// With the lock held and the link down: one connection attempt when the retry interval allows.
// Returns true when the link is up again (with its attributes set).
bool reconnect_locked() {
    const uint64_t now = platform::monotonic_us();
    if (now < g_link.next_retry_us)
        return false;
    g_link.next_retry_us = now + kReconnectIntervalUs;

    const char* what = "";
    const int fd = open_link(&what);
    if (fd < 0) {
        if (!g_link.retry_logged) {
            traceout("%s ISP link down (%s failed), retrying once a second \n", dbg_timestamp(),
                     what);
            g_link.retry_logged = true;
        }
        return false;
    }
    g_link.sock.store(fd);
    g_link.attr_done = 0;
    g_link.retry_logged = false;
    traceout("%s ISP link reconnected, soc_client_sockfd = %d \n", dbg_timestamp(), fd);
    attr_setup_locked();  // closes the link again if the service fails it
    if (g_link.sock.load() < 0) {
        // A service that accepts the connection and then fails the set-up is not retried on every
        // frame: the next attempt waits out the interval like a refused connection.
        g_link.next_retry_us = now + kReconnectIntervalUs;
        return false;
    }
    return true;
}

void send_profile(const FilterProfile& p) {
    set_filter_param(p.a, p.b, p.c, p.d);
}

}  // namespace

void isp_link_lock_init() {}

int socket_to_soc_init() {
    traceout("%s socket_to_soc_init called ", dbg_timestamp());
    const char* what = "";
    const int fd = open_link(&what);
    if (fd < 0) {
        if (std::strcmp(what, "socket") == 0)
            traceout("socket error\n");
        else
            traceout("connect error\n");
        return -1;
    }
    const int old = g_link.sock.exchange(fd);
    if (old >= 0)
        close(old);
    g_link.attr_done = 0;
    traceout("soc_client_sockfd = %d \n", fd);
    return 0;
}

int isp_af_attr_setup() {
    af_stat_clear_blocks();
    std::lock_guard<std::mutex> lk(g_link.lock);
    return attr_setup_locked();
}

int Get_ISP_VD() {
    std::unique_lock<std::mutex> lk(g_link.lock);
    if (g_link.sock.load() < 0 && !reconnect_locked()) {
        // Idle without the lock: the tuning threads' requests fail at once meanwhile.
        lk.unlock();
        platform::idle_us(kClosedPollUs);
        return 1;
    }
    const int fd = g_link.sock.load();
    const uint8_t back = static_cast<uint8_t>(g_link.front.load(std::memory_order_relaxed) ^ 1);
    uint8_t* frame = g_link.frames[back];

    const uint8_t code = kCodeGetIspVd;
    if (send_all(fd, &code, 1) != 1) {
        close_link_locked();
        traceout("Get_ISP_VD: send to soc failed, need reconnect \n");
        return 1;
    }
    if (recv_all(fd, frame, kAfStatFrameSize) != static_cast<ssize_t>(kAfStatFrameSize)) {
        close_link_locked();
        traceout("Get_ISP_VD: recv from soc failed, need reconnect \n");
        return 1;
    }
    // The frame is not used: the service's stream cannot be trusted up to this point.
    if (const ssize_t stray = stray_bytes(fd); stray > 0) {
        close_link_locked();
        report_out_of_step("Get_ISP_VD", stray);
        return 1;
    }
    g_link.front.store(back, std::memory_order_release);

    // On virtual time the frame's capture time, carried in the header, is "now".
    platform::Clock& clk = platform::clock();
    if (clk.is_virtual())
        clk.on_frame(afdata::frame_stamp_decode(frame));
    return 0;
}

ExposureValues isp_decode_exposure(const uint8_t* rec) {
    const float l = load_le_float(rec + 8);
    const float t = load_le_float(rec + 44);
    float g = load_le_float(rec + 48);
    if (g == 0.0f)
        g = 1.0f;
    ExposureValues v;
    v.gain_ratio = to_u32_saturated(l / g * 100.0f);
    v.index = static_cast<uint32_t>(to_i32_saturated((t * 1000.0f) * (g * 10.0f)));
    v.luma = to_u32_saturated(l);
    return v;
}

int isp_read_exposure() {
    std::lock_guard<std::mutex> lk(g_link.lock);
    const int fd = g_link.sock.load();
    if (fd < 0)
        return -1;
    const uint8_t code = kCodeGetAeExpInfo;
    if (send_all(fd, &code, 1) != 1) {
        close_link_locked();
        traceout("%s sedn GET_AE_EXP_INFO failed \n", dbg_timestamp());
        return -1;
    }
    uint8_t rec[kExposureRecordSize];
    if (recv_all(fd, rec, sizeof rec) != static_cast<ssize_t>(sizeof rec)) {
        close_link_locked();
        traceout("%s recv GET_AE_EXP_INFO failed \n", dbg_timestamp());
        return -1;
    }
    if (const ssize_t stray = stray_bytes(fd); stray > 0) {
        close_link_locked();
        report_out_of_step("GET_AE_EXP_INFO", stray);
        return -1;
    }
    const ExposureValues v = isp_decode_exposure(rec);
    g_link.exp_gain_ratio.store(v.gain_ratio, std::memory_order_relaxed);
    g_link.exp_index.store(v.index, std::memory_order_relaxed);
    g_link.exp_luma.store(v.luma, std::memory_order_relaxed);
    return 0;
}

void set_filter_param(uint8_t a, uint8_t b, uint16_t c, uint16_t d) {
    if (g_link.sock.load() < 0)
        return;
    std::lock_guard<std::mutex> lk(g_link.lock);
    const int fd = g_link.sock.load();
    if (fd < 0)
        return;  // lost while waiting for the lock

    // The failure points keep the numbers the field logs have always shown.
    int line = 0;
    ssize_t r = 0;
    g_link.attr_msg[0] = kCodeGetAfAttr;
    if ((r = send_all(fd, g_link.attr_msg, 1)) != 1) {
        line = 372;
    } else if ((r = recv_all(fd, attr_record(), kAfAttrSize)) !=
               static_cast<ssize_t>(kAfAttrSize)) {
        line = 381;
    } else if (const ssize_t stray = stray_bytes(fd); stray > 0) {
        // Writing back a record read out of step would set the ISP's filters from junk.
        close_link_locked();
        report_out_of_step("set_filter_param", stray);
        return;
    } else {
        attr_record()[kAttrFilterA] = a;
        attr_record()[kAttrFilterB] = b;
        put_u16(kAttrFilterC, c);
        put_u16(kAttrFilterD, d);
        g_link.attr_msg[0] = kCodeSetAfAttr;
        if ((r = send_all(fd, g_link.attr_msg, sizeof g_link.attr_msg)) !=
            static_cast<ssize_t>(sizeof g_link.attr_msg))
            line = 405;
    }
    if (line != 0) {
        close_link_locked();
        traceout("%s set_filter_param: line %d, send error: %d \n", dbg_timestamp(), line,
                 static_cast<int>(r));
    }
}

const uint8_t* isp_stat_frame() {
    return g_link.frames[g_link.front.load(std::memory_order_acquire)];
}

const uint8_t* isp_af_attr_record() {
    return attr_record();
}

uint8_t isp_link_up() {
    return g_link.sock.load() >= 0 ? 1 : 0;
}

uint32_t get_exp_luma() {
    return g_link.exp_luma.load(std::memory_order_relaxed);
}
uint32_t get_exp_gain_ratio() {
    return g_link.exp_gain_ratio.load(std::memory_order_relaxed);
}
uint32_t get_exp_index() {
    return g_link.exp_index.load(std::memory_order_relaxed);
}

void set_statistics_mode(uint8_t mode) {
    if (mode == g_link.statistics_mode.load())
        return;
    g_link.statistics_mode.store(mode);
    if (auto fn = g_link.low_light_listener.load())
        fn(mode == 2 ? 1 : 0);
}

uint8_t get_statistics_mode() {
    return g_link.statistics_mode.load();
}

void isp_set_low_light_listener(void (*listener)(uint8_t)) {
    g_link.low_light_listener.store(listener);
}

// The statistics mode tells which profile is in force. A gain ratio beyond the far threshold
// switches to the other profile and keeps re-sending it on every call while the gain stays there;
// between the thresholds (120..200) the current profile stays.
uint8_t isp_auto_filter_update() {
    const uint32_t ratio = get_exp_gain_ratio();
    if (g_link.statistics_mode.load() == 0) {
        if (ratio <= kGainRatioToHighNoise) {
            g_link.exposure_mode.store(kExposureModeLowGain);
            return 0;
        }
        g_link.exposure_mode.store(kExposureModeHighGain);
        if (isp_inputs().zoom_pos() > kFilterZoomCutoff)
            return 0;
        send_profile(kHighNoise);
        return 1;
    }
    if (ratio > kGainRatioToLowNoise) {
        g_link.exposure_mode.store(kExposureModeHighGain);
        return 0;
    }
    g_link.exposure_mode.store(kExposureModeLowGain);
    if (isp_inputs().zoom_pos() > kFilterZoomCutoff)
        return 0;
    send_profile(kLowNoise);
    return 1;
}

uint8_t isp_force_filter_profile(uint8_t flag) {
    if (flag != 0) {
        send_profile(kLowNoise);
        g_link.statistics_mode.store(0);  // without telling the autofocus side
    } else {
        send_profile(get_exp_gain_ratio() > kGainRatioToLowNoise ? kHighNoise : kLowNoise);
    }
    return 0;
}

uint32_t get_exposure_mode() {
    return g_link.exposure_mode.load();
}

uint8_t get_fast_statistics() {
    return g_link.fast_statistics;
}

void exposure_change_reset() {
    const uint32_t m = g_link.exposure_mode.load();
    g_link.change_ref = m != 0 ? m : 1;
}

uint8_t exposure_change_test(uint8_t active) {
    if (active == 0) {
        exposure_change_reset();
        return 0;
    }
    const uint32_t m = g_link.exposure_mode.load();
    const uint32_t c = m != 0 ? m : 1;
    const uint32_t ref = g_link.change_ref;
    const bool small = c <= ref ? (ref - c < kExposureChangeAbs || 2 * c >= ref)
                                : (c - ref < kExposureChangeAbs || c <= 2 * ref);
    if (small) {
        g_link.change_count = 0;
        return 0;
    }
    ++g_link.change_count;
    if (g_link.change_count < kExposureChangeCalls)
        return 0;
    exposure_change_reset();
    g_link.change_count = 0;
    return 1;
}

uint8_t isp_read_window_mask(uint8_t*) {
    return 1;
}

void isp_link_reset_for_testing() {
    std::lock_guard<std::mutex> lk(g_link.lock);
    close_link_locked();
    g_link.attr_done = 0;
    std::memset(g_link.attr_msg, 0, sizeof g_link.attr_msg);
    std::memset(g_link.frames, 0, sizeof g_link.frames);
    g_link.front.store(0);
    g_link.exp_luma.store(0);
    g_link.exp_gain_ratio.store(0);
    g_link.exp_index.store(100);
    g_link.statistics_mode.store(2);
    g_link.exposure_mode.store(kExposureModeHighGain);
    g_link.change_ref = 0;
    g_link.change_count = 0;
    g_link.low_light_listener.store(nullptr);
    g_link.reply_timeout_ms = kDefaultReplyTimeoutMs;
    g_link.out_of_step.reset();
}

void isp_set_reply_timeout_ms_for_testing(uint32_t ms) {
    std::lock_guard<std::mutex> lk(g_link.lock);
    g_link.reply_timeout_ms = ms;
}

void isp_set_exposure_mode_for_testing(uint32_t mode) {
    g_link.exposure_mode.store(mode);
}
