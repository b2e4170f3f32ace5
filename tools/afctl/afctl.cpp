// afctl: command-line client of the daemon's command channel, for engineers at a desk or a board.
//
// It speaks the same datagrams as the camera's control software (encoders in
// data/command_wire.h), sends writes to the command port and, for reads, listens on the reply port
// for the answer. `afctl watch` listens on the reply port for end-of-motion reports and electronic
// zoom notifications, and shows the positions the daemon publishes in shared memory.
//
// Ports and the file root come from the same environment variables as the daemon's.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "data/command_wire.h"
#include "platform/paths.h"
#include "platform/ports.h"
#include "tools/afctl/calib_report.h"
#include "tools/afctl/inputs_report.h"

namespace {

struct Options {
    bool json = false;
    int timeout_ms = 1000;
    std::vector<std::string> args;
};

int usage() {
    std::fprintf(
        stderr,
        "usage: afctl [--json] [--timeout MS] COMMAND [ARGS]\n"
        "  status                      positions, modes, calibration, iris, error\n"
        "  positions                   zoom/focus position record\n"
        "  zoom --to N [--speed 0-8] [--blind]   zoom to a position (tracked)\n"
        "  zoom --to N --focus F [--speed 0-8]   zoom, then focus to F (a preset)\n"
        "  zoom --in|--out [--speed 0-8] [--blind]\n"
        "  zoom --stop                 stop any motion\n"
        "  focus --to N [--speed 0-7]  focus to a position (autofocus off)\n"
        "  focus --near|--far [--speed 0-7]\n"
        "  focus --stop                focus-stop request\n"
        "  af --mode off|continuous|once|one-shot\n"
        "  iris --auto | --step 0-12 | --set VALUE | --move DELTA\n"
        "  zone --type 1-4 | region --preset 0-3\n"
        "  range --near 0-11 --far 0-11 | range --default\n"
        "  calib curve|curve-full|curve-ref|iris|hall [--wait]   (--wait: progress, result)\n"
        "  reset | rehome | pause | resume | pt-move | pt-stop\n"
        "  ezoom --enable|--disable | assist --on|--off | sensor N\n"
        "  param INDEX VALUE | roi X Y W H | fov | text | error | daynight\n"
        "  watch [--seconds N]         print reports as they arrive\n"
        "environment: AFD_CMD_PORT, AFD_REPLY_PORT, AFD_ROOT (see the README)\n");
    return 2;
}

bool parse_int(const std::string& s, long lo, long hi, long* out) {
    char* end = nullptr;
    const long v = std::strtol(s.c_str(), &end, 10);
    if (s.empty() || *end != '\0' || v < lo || v > hi)
        return false;
    *out = v;
    return true;
}

// Looks up "--name value" in the argument list.
bool opt_value(const Options& o, const char* name, long lo, long hi, long* out, bool* bad) {
    for (size_t i = 1; i < o.args.size(); ++i) {
        if (o.args[i] != name)
            continue;
        if (i + 1 >= o.args.size() || !parse_int(o.args[i + 1], lo, hi, out)) {
            std::fprintf(stderr, "afctl: %s needs a number in %ld..%ld\n", name, lo, hi);
            *bad = true;
            return false;
        }
        return true;
    }
    return false;
}
bool has(const Options& o, const char* flag) {
    for (size_t i = 1; i < o.args.size(); ++i) {
        if (o.args[i] == flag)
            return true;
    }
    return false;
}

class Channel {
  public:
    Channel() {
        const platform::PortConfig& p = platform::ports();
        fd_ = socket(AF_INET, SOCK_DGRAM, 0);
        daemon_.sin_family = AF_INET;
        daemon_.sin_port = htons(p.cmd_port);
        daemon_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }
    ~Channel() {
        if (fd_ >= 0)
            close(fd_);
        if (reply_fd_ >= 0)
            close(reply_fd_);
    }
    // Binds the reply port (replies to reads go there). Returns false with a message when taken.
    bool listen_replies() {
        const platform::PortConfig& p = platform::ports();
        reply_fd_ = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(p.reply_port);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (bind(reply_fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
            std::fprintf(stderr,
                         "afctl: cannot listen on the reply port %u (%s); another listener holds "
                         "it, or set AFD_REPLY_PORT\n",
                         p.reply_port, std::strerror(errno));
            return false;
        }
        return true;
    }
    bool send(const uint8_t* d, size_t n) {
        return sendto(fd_, d, n, 0, reinterpret_cast<const sockaddr*>(&daemon_), sizeof daemon_) ==
               static_cast<ssize_t>(n);
    }
    // Waits for a reply starting with the given two bytes, on the reply port or (to_sender) on
    // the sending socket.
    std::vector<uint8_t> await(uint8_t dir, uint8_t id, bool to_sender, int timeout_ms) {
        const int fd = to_sender ? fd_ : reply_fd_;
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        for (;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                                  deadline - std::chrono::steady_clock::now())
                                  .count();
            if (left <= 0)
                return {};
            pollfd pfd{fd, POLLIN, 0};
            if (poll(&pfd, 1, static_cast<int>(left)) <= 0)
                return {};
            uint8_t buf[512];
            const ssize_t n = recv(fd, buf, sizeof buf, 0);
            if (n >= 2 && (buf[0] | 0x20) == (dir | 0x20) && buf[1] == id) {
                return std::vector<uint8_t>(buf, buf + n);
            }
        }
    }
    int reply_fd() const { return reply_fd_; }

  private:
    int fd_ = -1;
    int reply_fd_ = -1;
    sockaddr_in daemon_{};
};

int no_answer(uint8_t id) {
    std::fprintf(stderr,
                 "afctl: no answer to read request %u from the daemon on port %u "
                 "(is afd running? AFD_CMD_PORT/AFD_REPLY_PORT)\n",
                 id, platform::ports().cmd_port);
    return 1;
}

std::vector<uint8_t> read_request(const Options& o, uint8_t id, size_t want,
                                  const uint8_t* extra = nullptr, size_t extra_len = 0,
                                  bool to_sender = false) {
    Channel ch;
    if (!to_sender && !ch.listen_replies())
        return {};
    uint8_t d[8] = {'r', id};
    if (extra_len > 0)
        std::memcpy(d + 2, extra, extra_len);
    ch.send(d, 2 + extra_len);
    std::vector<uint8_t> r = ch.await('r', id, to_sender, o.timeout_ms);
    if (!r.empty() && r.size() < want) {
        std::fprintf(stderr, "afctl: short reply to request %u: %zu bytes\n", id, r.size());
        return {};
    }
    return r;
}

int send_write(const uint8_t* d, size_t n) {
    Channel ch;
    if (!ch.send(d, n)) {
        std::fprintf(stderr, "afctl: send failed: %s\n", std::strerror(errno));
        return 1;
    }
    return 0;
}

int send_motion(const MotionCommand& m) {
    uint8_t d[32];
    return send_write(d, afdata::build_motion(d, m));
}

int sub_command(uint8_t mode, MotionCommand m = MotionCommand{}) {
    uint8_t d[32];
    return send_write(d, afdata::build_sub_command(d, mode, m));
}

void print_positions(const afdata::PositionRecord& p, bool json, const char* indent) {
    if (json) {
        std::printf(
            "{\"zoom\":%u,\"focus\":%u,\"max_zoom\":%u,\"focus_max\":%u,\"min_zoom\":%u,"
            "\"focus_min\":%u,\"ezoom\":%u,\"max_ezoom\":%u}",
            p.zoom, p.focus, p.max_zoom, p.focus_max, p.min_zoom, p.focus_min, p.ezoom,
            p.max_ezoom);
        return;
    }
    std::printf("%szoom %u (electronic %u of %u), range %u..%u\n", indent, p.zoom, p.ezoom,
                p.max_ezoom, p.min_zoom, p.max_zoom);
    std::printf("%sfocus %u, range %u..%u\n", indent, p.focus, p.focus_min, p.focus_max);
}

const char* af_mode_name(uint8_t m) {
    switch (m) {
        case 0:
            return "off";
        case 1:
            return "continuous";
        case 2:
            return "once";
        case 3:
            return "one-shot";
        default:
            return "?";
    }
}

int cmd_status(const Options& o) {
    const std::vector<uint8_t> r = read_request(o, 7, 58);
    if (r.empty())
        return no_answer(7);
    const MotionCommand m = motion_command_decode(r.data() + 2);
    const afdata::PositionRecord p = afdata::position_record_decode(r.data() + 24);
    const uint8_t error = r[55];
    // The status block's slot 2 always shows the full electronic range; the position record
    // gives the live values.
    const std::vector<uint8_t> pos = read_request(o, 1, 18);
    const afdata::PositionRecord live =
        pos.empty() ? p : afdata::position_record_decode(pos.data() + 2);
    if (o.json) {
        std::printf("{\"positions\":");
        print_positions(live, true, "");
        std::printf(
            ",\"motion\":{\"mode\":%u,\"moving\":%u,\"zoom_target\":%u,\"focus_target\":%u},"
            "\"autofocus\":\"%s\",\"zone_type\":%u,\"region\":%u,\"calibration\":{\"command\":%u,"
            "\"mode\":%u},\"iris\":{\"auto\":%u,\"step\":%u},\"homing_error\":%u,"
            "\"ezoom_enable\":%u,\"calibration_data\":",
            m.mode, m.move, m.zoom_target, m.focus_target, af_mode_name(m.autofocus_mode),
            m.zone_type, m.region, r[20], r[21], r[22], r[23], error, afdata::get_u16(&r[56]));
        print_calibration_files(true);
        std::printf(",\"inputs\":");
        print_camera_inputs(true);
        std::printf("}\n");
        return 0;
    }
    print_positions(live, false, "");
    std::printf("motion: mode %u, %s, zoom target %u, focus target %u\n", m.mode,
                m.move ? "moving" : "idle", m.zoom_target, m.focus_target);
    std::printf("autofocus: %s, zone type %u, region %u\n", af_mode_name(m.autofocus_mode),
                m.zone_type, m.region);
    std::printf("calibration: command %u, mode %u\n", r[20], r[21]);
    std::printf("iris: %s, step %u\n", r[22] ? "auto" : "fixed", r[23]);
    static const char* kHoming[] = {"?", "ok", "zoom failed", "focus failed", "both failed"};
    std::printf("homing: %s\n", kHoming[error <= 4 ? error : 0]);
    print_camera_inputs(false);
    print_calibration_files(false);

    // What the daemon publishes every frame.
    platform::Path shm("/dev/sm_af_zoom_focus_value");
    const int fd = open(shm.c_str(), O_RDONLY);
    if (fd >= 0) {
        uint8_t rec[16];
        if (pread(fd, rec, sizeof rec, 0) == static_cast<ssize_t>(sizeof rec)) {
            std::printf("shared memory (%s):\n", shm.c_str());
            print_positions(afdata::position_record_decode(rec), false, "  ");
        }
        close(fd);
    }
    return 0;
}

int cmd_positions(const Options& o) {
    const std::vector<uint8_t> r = read_request(o, 1, 18);
    if (r.empty())
        return no_answer(1);
    print_positions(afdata::position_record_decode(r.data() + 2), o.json, "");
    if (o.json)
        std::printf("\n");
    return 0;
}

int cmd_zoom(const Options& o) {
    bool bad = false;
    long speed = 5;
    opt_value(o, "--speed", 0, 8, &speed, &bad);
    long target = 0;
    const bool to = opt_value(o, "--to", 0, 65535, &target, &bad);
    long focus = 0;
    const bool then_focus = opt_value(o, "--focus", 0, 65535, &focus, &bad);
    if (bad)
        return 2;
    MotionCommand m{};
    m.zoom_speed = static_cast<uint8_t>(speed);
    m.focus_speed = 7;
    const bool blind = has(o, "--blind");
    if (has(o, "--stop"))
        return sub_command(9);
    if (to && then_focus) {
        // Zoom to the target with tracking, then drive the focus to F: allowed with autofocus on.
        m.mode = 7;
        m.zoom_target = static_cast<uint16_t>(target);
        m.focus_target = static_cast<uint16_t>(focus);
    } else if (to) {
        m.mode = blind ? 3 : 1;
        m.zoom_target = static_cast<uint16_t>(target);
    } else if (has(o, "--in") || has(o, "--out")) {
        m.mode = blind ? 2 : 0;
        m.zoom_dir = has(o, "--in") ? 1 : 0;
    } else {
        std::fprintf(stderr, "afctl zoom: give --to N, --in, --out or --stop\n");
        return 2;
    }
    return send_motion(m);
}

int cmd_focus(const Options& o) {
    bool bad = false;
    long speed = 3;
    opt_value(o, "--speed", 0, 7, &speed, &bad);
    long target = 0;
    const bool to = opt_value(o, "--to", 0, 65535, &target, &bad);
    if (bad)
        return 2;
    if (has(o, "--stop"))
        return sub_command(13);
    MotionCommand m{};
    m.focus_speed = static_cast<uint8_t>(speed);
    if (to) {
        m.mode = 5;
        m.focus_target = static_cast<uint16_t>(target);
    } else if (has(o, "--near") || has(o, "--far")) {
        // Larger focus positions focus farther away.
        m.mode = 4;
        m.focus_dir = has(o, "--far") ? 1 : 0;
    } else {
        std::fprintf(stderr, "afctl focus: give --to N, --near, --far or --stop\n");
        return 2;
    }
    return send_motion(m);
}

int cmd_af(const Options& o) {
    static const char* kModes[] = {"off", "continuous", "once", "one-shot"};
    for (size_t i = 1; i + 1 < o.args.size(); ++i) {
        if (o.args[i] != "--mode")
            continue;
        for (uint8_t k = 0; k < 4; ++k) {
            if (o.args[i + 1] == kModes[k]) {
                MotionCommand m{};
                m.autofocus_mode = k;
                return sub_command(8, m);
            }
        }
    }
    std::fprintf(stderr, "afctl af: --mode off|continuous|once|one-shot\n");
    return 2;
}

int cmd_iris(const Options& o) {
    bool bad = false;
    long v = 0;
    uint8_t d[16] = {'w'};
    if (has(o, "--auto")) {
        d[1] = 2;
        d[2] = 1;
        return send_write(d, 4);
    }
    if (opt_value(o, "--step", 0, 12, &v, &bad)) {
        d[1] = 2;
        d[2] = 0;
        d[3] = static_cast<uint8_t>(v);
        return send_write(d, 4);
    }
    if (opt_value(o, "--set", 0, 65535, &v, &bad)) {
        d[1] = 23;
        d[2] = 1;
        afdata::put_u16(d + 4, static_cast<uint16_t>(v));
        return send_write(d, 8);
    }
    if (opt_value(o, "--move", -32768, 32767, &v, &bad)) {
        d[1] = 23;
        d[2] = 0;
        afdata::put_u16(d + 6, static_cast<uint16_t>(static_cast<int16_t>(v)));
        return send_write(d, 8);
    }
    if (!bad)
        std::fprintf(stderr, "afctl iris: --auto, --step N, --set VALUE or --move DELTA\n");
    return 2;
}

// Follows a calibration the daemon runs until its calibration mode falls back to 0: progress as
// the lens moves (the curve calibration sweeps the zoom from wide to tele), then the result: the
// daemon's status text and the calibration values, saved or not.
int wait_calibration(const Options& o, uint8_t kind) {
    using clock = std::chrono::steady_clock;
    const auto t0 = clock::now();
    bool seen_running = false;
    int last_shown = -1;
    for (;;) {
        const std::vector<uint8_t> r = read_request(o, 3, 4);
        if (r.empty())
            return no_answer(3);
        const double secs = std::chrono::duration<double>(clock::now() - t0).count();
        if (r[3] != 0) {
            seen_running = true;
        } else if (seen_running || secs > 3.0) {
            break;
        }
        if (secs > 3600.0) {
            std::fprintf(stderr, "afctl calib: still running after an hour; stopped waiting\n");
            return 1;
        }
        const std::vector<uint8_t> p = read_request(o, 1, 18);
        if (!p.empty() && r[3] != 0 && !o.json) {
            const afdata::PositionRecord pos = afdata::position_record_decode(p.data() + 2);
            const int shown = kind <= 3 && pos.max_zoom > 0 ? pos.zoom * 20 / pos.max_zoom
                                                            : static_cast<int>(secs / 5);
            if (shown != last_shown) {
                if (kind <= 3)
                    std::printf("curve calibration: zoom %u of %u, focus %u (%.0f s)\n", pos.zoom,
                                pos.max_zoom, pos.focus, secs);
                else
                    std::printf("calibration mode %u running (%.0f s)\n", r[3], secs);
                std::fflush(stdout);
                last_shown = shown;
            }
        }
        usleep(500000);
    }
    const std::vector<uint8_t> t = read_request(o, 10, 130, nullptr, 0, true);
    std::string text =
        t.empty() ? "" : std::string(reinterpret_cast<const char*>(t.data() + 2), 128);
    text = text.c_str();
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
        text.pop_back();
    if (o.json) {
        std::printf("{\"finished\":true,\"status_text\":\"%s\",\"calibration_data\":",
                    text.c_str());
        print_calibration_files(true);
        std::printf("}\n");
        return 0;
    }
    std::printf("calibration ended%s%s\n", text.empty() ? "" : ": ", text.c_str());
    print_calibration_files(false);
    return 0;
}

int cmd_calib(const Options& o) {
    static const char* kKinds[] = {"", "curve", "curve-full", "curve-ref", "iris", "hall"};
    if (o.args.size() >= 2) {
        for (uint8_t k = 1; k <= 5; ++k) {
            if (o.args[1] == kKinds[k]) {
                uint8_t d[4] = {'w', 3, k, 0};
                const int rc = send_write(d, 4);
                if (rc != 0 || !has(o, "--wait"))
                    return rc;
                return wait_calibration(o, k);
            }
        }
    }
    std::fprintf(stderr, "afctl calib: curve|curve-full|curve-ref|iris|hall [--wait]\n");
    return 2;
}

int cmd_range(const Options& o) {
    uint8_t d[5] = {'w', 18, 0, 0, 0};
    if (has(o, "--default"))
        return send_write(d, 5);
    bool bad = false;
    long near = 0;
    long far = 0;
    const bool n = opt_value(o, "--near", 0, 11, &near, &bad);
    const bool f = opt_value(o, "--far", 0, 11, &far, &bad);
    if (bad || !n || !f) {
        std::fprintf(stderr, "afctl range: --near I --far J (0..11, far >= near) or --default\n");
        return 2;
    }
    d[2] = 1;
    d[3] = static_cast<uint8_t>(far);
    d[4] = static_cast<uint8_t>(near);
    return send_write(d, 5);
}

int cmd_watch(const Options& o) {
    bool bad = false;
    long secs = 0;
    opt_value(o, "--seconds", 1, 86400, &secs, &bad);
    if (bad)
        return 2;
    Channel ch;
    if (!ch.listen_replies())
        return 1;
    platform::Path shm("/dev/sm_af_zoom_focus_value");
    const int shm_fd = open(shm.c_str(), O_RDONLY);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(secs);
    uint8_t last[16] = {};
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    while (secs == 0 || std::chrono::steady_clock::now() < end) {
        pollfd pfd{ch.reply_fd(), POLLIN, 0};
        if (poll(&pfd, 1, 200) > 0) {
            uint8_t buf[512];
            const ssize_t n = recv(ch.reply_fd(), buf, sizeof buf, 0);
            if (n == 20 && buf[0] == 'r' && buf[1] == 0) {
                const MotionCommand m = motion_command_decode(buf + 2);
                if (o.json) {
                    std::printf(
                        "{\"event\":\"motion_end\",\"mode\":%u,\"zoom_target\":%u,"
                        "\"focus_target\":%u}\n",
                        m.mode, m.zoom_target, m.focus_target);
                } else {
                    std::printf("motion end: mode %u, zoom target %u, focus target %u\n", m.mode,
                                m.zoom_target, m.focus_target);
                }
            } else if (n == 4 && buf[0] == 'w' && buf[1] == 11) {
                const unsigned ez = afdata::get_u16(buf + 2);
                if (o.json) {
                    std::printf("{\"event\":\"ezoom\",\"value\":%u}\n", ez);
                } else {
                    std::printf("electronic zoom: %u\n", ez);
                }
            }
        }
        uint8_t rec[16];
        if (shm_fd >= 0 && pread(shm_fd, rec, 16, 0) == 16 && std::memcmp(rec, last, 16) != 0) {
            std::memcpy(last, rec, 16);
            const afdata::PositionRecord p = afdata::position_record_decode(rec);
            if (o.json) {
                std::printf("{\"event\":\"positions\",\"value\":");
                print_positions(p, true, "");
                std::printf("}\n");
            } else {
                std::printf("positions: zoom %u focus %u ezoom %u\n", p.zoom, p.focus, p.ezoom);
            }
        }
    }
    if (shm_fd >= 0)
        close(shm_fd);
    return 0;
}

int run(const Options& o) {
    const std::string& c = o.args[0];
    bool bad = false;
    long v = 0;
    if (c == "status")
        return cmd_status(o);
    if (c == "positions")
        return cmd_positions(o);
    if (c == "zoom")
        return cmd_zoom(o);
    if (c == "focus")
        return cmd_focus(o);
    if (c == "af")
        return cmd_af(o);
    if (c == "iris")
        return cmd_iris(o);
    if (c == "calib")
        return cmd_calib(o);
    if (c == "range")
        return cmd_range(o);
    if (c == "watch")
        return cmd_watch(o);
    if (c == "pause" || c == "resume") {
        MotionCommand m{};
        m.focus_speed = c == "pause" ? 0 : 100;
        return sub_command(16, m);
    }
    if (c == "pt-move")
        return sub_command(14);
    if (c == "pt-stop")
        return sub_command(15);
    if (c == "reset") {
        const uint8_t d[3] = {'w', 9, 1};
        return send_write(d, 3);
    }
    if (c == "zone" && opt_value(o, "--type", 1, 4, &v, &bad)) {
        MotionCommand m{};
        m.zone_type = static_cast<uint8_t>(v);
        return sub_command(10, m);
    }
    if (c == "region" && opt_value(o, "--preset", 0, 3, &v, &bad)) {
        MotionCommand m{};
        m.region = static_cast<uint8_t>(v);
        return sub_command(11, m);
    }
    if (c == "ezoom" && (has(o, "--enable") || has(o, "--disable"))) {
        const uint8_t d[4] = {'w', 13, static_cast<uint8_t>(has(o, "--enable") ? 1 : 0), 0};
        return send_write(d, 4);
    }
    if (c == "assist" && (has(o, "--on") || has(o, "--off"))) {
        const uint8_t d[3] = {'w', 19, static_cast<uint8_t>(has(o, "--on") ? 1 : 0)};
        return send_write(d, 3);
    }
    if (c == "sensor" && o.args.size() == 2 && parse_int(o.args[1], 0, 255, &v)) {
        const uint8_t d[3] = {'w', 16, static_cast<uint8_t>(v)};
        return send_write(d, 3);
    }
    long idx = 0;
    if (c == "param" && o.args.size() == 3 && parse_int(o.args[1], 0, 99, &idx) &&
        parse_int(o.args[2], 0, 65535, &v)) {
        uint8_t d[6] = {'w', 8, static_cast<uint8_t>(idx), 0};
        afdata::put_u16(d + 4, static_cast<uint16_t>(v));
        return send_write(d, 6);
    }
    if (c == "roi" && o.args.size() == 5) {
        long r[4];
        for (int i = 0; i < 4; ++i) {
            if (!parse_int(o.args[1 + i], 0, 65535, &r[i]))
                return usage();
        }
        uint8_t d[14] = {'w', 22};
        afdata::put_u16(d + 2, 1080);
        afdata::put_u16(d + 4, 1920);
        for (int i = 0; i < 4; ++i)
            afdata::put_u16(d + 6 + 2 * i, static_cast<uint16_t>(r[i]));
        return send_write(d, 14);
    }
    if (c == "rehome") {
        const std::vector<uint8_t> r = read_request(o, 14, 6);
        if (r.empty())
            return no_answer(14);
        const int f = static_cast<int16_t>(afdata::get_u16(&r[2]));
        const int z = static_cast<int16_t>(afdata::get_u16(&r[4]));
        std::printf(o.json ? "{\"focus_lost_steps\":%d,\"zoom_lost_steps\":%d}\n"
                           : "re-home: focus off by %d steps, zoom off by %d steps\n",
                    f, z);
        return 0;
    }
    if (c == "error") {
        const std::vector<uint8_t> r = read_request(o, 6, 3);
        if (r.empty())
            return no_answer(6);
        std::printf(o.json ? "{\"homing_error\":%u}\n" : "homing status %u\n", r[2]);
        return 0;
    }
    if (c == "text") {
        const std::vector<uint8_t> r = read_request(o, 10, 130, nullptr, 0, true);
        if (r.empty())
            return no_answer(10);
        std::string t(reinterpret_cast<const char*>(r.data() + 2), 128);
        t = t.c_str();
        std::printf(o.json ? "{\"status_text\":\"%s\"}\n" : "%s\n", t.c_str());
        return 0;
    }
    if (c == "fov") {
        const std::vector<uint8_t> r = read_request(o, 21, 82);
        if (r.empty())
            return no_answer(21);
        float a[3];
        std::memcpy(a, r.data() + 2, 12);
        std::printf("angles at the wide end: %.1f %.1f %.1f degrees; zoom positions of 1x..12x:",
                    a[0], a[1], a[2]);
        for (int i = 0; i < 12; ++i)
            std::printf(" %u", afdata::get_u16(r.data() + 20 + 2 * i));
        std::printf("\n");
        return 0;
    }
    if (c == "daynight") {
        const std::vector<uint8_t> r = read_request(o, 4, 14);
        if (r.empty())
            return no_answer(4);
        std::printf("day/night: enable %u, upper %u, lower %u\n", afdata::get_u32(&r[2]),
                    afdata::get_u32(&r[6]), afdata::get_u32(&r[10]));
        return 0;
    }
    if (bad)
        return 2;
    return usage();
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        long v = 0;
        if (a == "--json") {
            o.json = true;
        } else if (a == "--timeout" && i + 1 < argc && parse_int(argv[i + 1], 1, 600000, &v)) {
            o.timeout_ms = static_cast<int>(v);
            ++i;
        } else if (a == "-h" || a == "--help") {
            return usage();
        } else {
            o.args.push_back(a);
        }
    }
    if (o.args.empty())
        return usage();
    return run(o);
}
