// afctl: command-line client of the daemon's command channel, for engineers at a desk or a board.
//
// It speaks the same datagrams as the camera's control software (encoders in
// data/command_wire.h), sends writes to the command port and, for reads, listens on the reply port
// for the answer. `afctl watch` listens on the reply port for end-of-motion reports and electronic
// zoom notifications, and shows the positions the daemon publishes in shared memory.
//
// The daemon answers no write, and drops some of them silently depending on its state (focus
// moves and blind zooms with autofocus on, electronic zoom targets away from the optical end).
// For those afctl reads the state first and refuses with the reason; --force sends regardless.
//
// Ports and the file root come from the same environment variables as the daemon's.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "base/command_state.h"
#include "data/command_wire.h"
#include "platform/paths.h"
#include "platform/ports.h"
#include "tools/afctl/calib_report.h"
#include "tools/afctl/inputs_report.h"

namespace {

// Exit statuses: 0 done, 1 the daemon did not answer or would ignore the command, 2 bad arguments.
constexpr int kExitNoEffect = 1;
constexpr int kExitUsage = 2;

struct Options {
    bool json = false;
    bool force = false;
    int timeout_ms = 1000;
    std::vector<std::string> args;
};

constexpr const char* kUsage =
    "usage: afctl [--json] [--timeout MS] [--force] COMMAND [ARGS]\n"
    "reads:\n"
    "  status                      positions, modes, calibration, iris, homing status\n"
    "  positions                   zoom/focus position record\n"
    "  motion                      the motion command record in force (read 0)\n"
    "  calib status                last calibration command and the calibration mode\n"
    "  modes                       mode record (read 5)\n"
    "  counter                     read (and reset) the counter (read 20)\n"
    "  fov | text | error | daynight | rehome\n"
    "  watch [--seconds N]         print reports as they arrive\n"
    "motion (the daemon follows the newest one):\n"
    "  zoom --to N [--speed 0-8] [--blind]   zoom to a position (tracked; --blind: no tracking)\n"
    "  zoom --to N --focus F [--speed 0-8]   zoom, then focus to F (a preset)\n"
    "  zoom --in|--out [--speed 0-8] [--blind]\n"
    "  zoom --stop                 stop any motion\n"
    "  focus --to N [--speed 0-7]  focus to a position\n"
    "  focus --near|--far [--speed 0-7]\n"
    "  focus --stop                focus-stop request\n"
    "  move --zoom in|out --focus near|far [--speed 0-8] [--focus-speed 0-7]\n"
    "                              zoom and focus together, no tracking\n"
    "  ezoom --to 0-1012 [--speed 0-7]   electronic zoom to a value (zoom at its optical end)\n"
    "  --blind zooms, focus and move need autofocus off: afctl reads the mode first and refuses\n"
    "  (exit 1) when the daemon would ignore the command; --force sends it anyway.\n"
    "settings:\n"
    "  af --mode off|continuous|once|one-shot\n"
    "  iris                        iris control record (read 2)\n"
    "  iris --auto | --step 0-12 | --set VALUE | --move DELTA\n"
    "  zone --type 1-4 | region --preset 0-3\n"
    "  range --near 0-11 --far 0-11 (far >= near) | range --default\n"
    "  calib curve|curve-full|curve-ref|iris|hall [--wait]   (--wait: progress, result)\n"
    "  calib offsets               reload the calibration-offset file\n"
    "  reset | pause | resume | pt-move | pt-stop\n"
    "  ezoom                       electronic zoom enabled? (read 13)\n"
    "  ezoom --enable|--disable | ezoom --max 0-1012\n"
    "  assist --on|--off | sensor N | param INDEX VALUE | roi X Y W H\n"
    "  daynight --set ENABLE UPPER LOWER [--id 4|15]\n"
    "exit status: 0 done, 1 no answer or ignored by the daemon, 2 bad arguments\n"
    "environment: AFD_CMD_PORT, AFD_REPLY_PORT, AFD_ROOT (see the README)\n";

int usage_error(const char* fmt, const char* a = "", const char* b = "") {
    std::fprintf(stderr, "afctl: ");
    std::fprintf(stderr, fmt, a, b);
    std::fprintf(stderr, "\n(afctl --help lists the commands)\n");
    return kExitUsage;
}

bool parse_int(const std::string& s, long lo, long hi, long* out) {
    char* end = nullptr;
    const long v = std::strtol(s.c_str(), &end, 10);
    if (s.empty() || *end != '\0' || v < lo || v > hi)
        return false;
    *out = v;
    return true;
}

// The options a command takes: flags, options with a value, and how many plain words may follow
// the command name. Anything else is refused, so that a typing error never sends a command the
// user did not mean.
struct Grammar {
    std::vector<std::string> flags;
    std::vector<std::string> valued;
    size_t max_words = 0;
};

bool contains(const std::vector<std::string>& v, const std::string& s) {
    for (const std::string& x : v)
        if (x == s)
            return true;
    return false;
}

bool check_grammar(const Options& o, const Grammar& g) {
    size_t words = 0;
    for (size_t i = 1; i < o.args.size(); ++i) {
        const std::string& a = o.args[i];
        if (contains(g.valued, a)) {
            if (i + 1 >= o.args.size()) {
                usage_error("%s %s needs a value", o.args[0].c_str(), a.c_str());
                return false;
            }
            ++i;
        } else if (contains(g.flags, a)) {
        } else if (a.size() > 1 && a[0] == '-' && !std::isdigit(static_cast<unsigned char>(a[1]))) {
            usage_error("%s: unknown option %s", o.args[0].c_str(), a.c_str());
            return false;
        } else if (++words > g.max_words) {
            usage_error("%s: unexpected argument %s", o.args[0].c_str(), a.c_str());
            return false;
        }
    }
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
const std::string* opt_word(const Options& o, const char* name) {
    for (size_t i = 1; i + 1 < o.args.size(); ++i)
        if (o.args[i] == name)
            return &o.args[i + 1];
    return nullptr;
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
    return kExitNoEffect;
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
        return kExitNoEffect;
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
            return "unknown";
    }
}

const char* motion_mode_name(uint8_t m) {
    static const char* kNames[] = {
        "zoom (tracked)",
        "zoom to target (tracked)",
        "zoom (blind)",
        "zoom to target (blind)",
        "focus",
        "focus to target",
        "zoom and focus (blind)",
        "zoom to target, then focus",
    };
    if (m < 8)
        return kNames[m];
    return m == 12 ? "electronic zoom to target" : "unknown";
}

const char* homing_name(uint8_t e) {
    static const char* kHoming[] = {"unknown", "ok", "zoom failed", "focus failed",
                                    "zoom and focus failed"};
    return kHoming[e <= 4 ? e : 0];
}

const char* calib_mode_name(uint8_t m) {
    switch (m) {
        case 0:
            return "none";
        case 1:
            return "curve";
        case 4:
            return "iris";
        case 5:
            return "hall";
        case 6:
            return "offsets reloaded";
        default:
            return "unknown";
    }
}

// Calibration commands by name, in command-byte order (byte 1..6).
constexpr const char* kCalibKinds[] = {"curve", "curve-full", "curve-ref",
                                       "iris",  "hall",       "offsets"};
const char* calib_command_name(uint8_t c) {
    return c >= 1 && c <= 6 ? kCalibKinds[c - 1] : (c == 0 ? "none" : "unknown");
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

void print_motion(const MotionCommand& m, bool json) {
    if (json) {
        std::printf(
            "{\"mode\":%u,\"mode_name\":\"%s\",\"moving\":%s,\"zoom_speed\":%u,\"focus_speed\":%u,"
            "\"zoom_direction\":\"%s\",\"focus_direction\":\"%s\",\"zoom_target\":%u,"
            "\"focus_target\":%u,\"ezoom_target\":%u,\"autofocus\":\"%s\",\"zone_type\":%u,"
            "\"region\":%u}",
            m.mode, motion_mode_name(m.mode), m.move ? "true" : "false", m.zoom_speed,
            m.focus_speed, m.zoom_dir ? "in" : "out", m.focus_dir ? "far" : "near", m.zoom_target,
            m.focus_target, m.ezoom_target, af_mode_name(m.autofocus_mode), m.zone_type, m.region);
        return;
    }
    std::printf("motion: mode %u (%s), %s\n", m.mode, motion_mode_name(m.mode),
                m.move ? "moving" : "idle");
    std::printf("  zoom: target %u, electronic target %u, speed %u, direction %s\n", m.zoom_target,
                m.ezoom_target, m.zoom_speed, m.zoom_dir ? "in" : "out");
    std::printf("  focus: target %u, speed %u, direction %s\n", m.focus_target, m.focus_speed,
                m.focus_dir ? "far" : "near");
    std::printf("autofocus: %s, zone type %u, region %u\n", af_mode_name(m.autofocus_mode),
                m.zone_type, m.region);
}

int cmd_status(const Options& o) {
    if (!check_grammar(o, {}))
        return kExitUsage;
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
    const bool ezoom_on = afdata::get_u16(&r[56]) != 0;
    if (o.json) {
        std::printf("{\"positions\":");
        print_positions(live, true, "");
        std::printf(
            ",\"motion\":{\"mode\":%u,\"mode_name\":\"%s\",\"moving\":%s,"
            "\"zoom_target\":%u,\"focus_target\":%u},",
            m.mode, motion_mode_name(m.mode), m.move ? "true" : "false", m.zoom_target,
            m.focus_target);
        std::printf(
            "\"autofocus\":\"%s\",\"zone_type\":%u,\"region\":%u,"
            "\"calibration\":{\"last_command\":\"%s\",\"mode\":\"%s\"},"
            "\"iris\":{\"mode\":\"%s\",\"step\":%u},\"homing\":\"%s\","
            "\"electronic_zoom\":\"%s\",\"calibration_data\":",
            af_mode_name(m.autofocus_mode), m.zone_type, m.region, calib_command_name(r[20]),
            calib_mode_name(r[21]), r[22] ? "auto" : "fixed", r[23], homing_name(error),
            ezoom_on ? "enabled" : "disabled");
        print_calibration_files(true);
        std::printf(",\"inputs\":");
        print_camera_inputs(true);
        std::printf("}\n");
        return 0;
    }
    print_positions(live, false, "");
    std::printf("motion: mode %u (%s), %s, zoom target %u, focus target %u\n", m.mode,
                motion_mode_name(m.mode), m.move ? "moving" : "idle", m.zoom_target,
                m.focus_target);
    std::printf("autofocus: %s, zone type %u, region %u\n", af_mode_name(m.autofocus_mode),
                m.zone_type, m.region);
    std::printf("calibration: last command %s, mode %s\n", calib_command_name(r[20]),
                calib_mode_name(r[21]));
    std::printf("iris: %s, step %u\n", r[22] ? "auto" : "fixed", r[23]);
    std::printf("homing: %s\n", homing_name(error));
    std::printf("electronic zoom: %s\n", ezoom_on ? "enabled" : "disabled");
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
    if (!check_grammar(o, {}))
        return kExitUsage;
    const std::vector<uint8_t> r = read_request(o, 1, 18);
    if (r.empty())
        return no_answer(1);
    print_positions(afdata::position_record_decode(r.data() + 2), o.json, "");
    if (o.json)
        std::printf("\n");
    return 0;
}

int cmd_motion(const Options& o) {
    if (!check_grammar(o, {}))
        return kExitUsage;
    const std::vector<uint8_t> r = read_request(o, 0, 20);
    if (r.empty())
        return no_answer(0);
    print_motion(motion_command_decode(r.data() + 2), o.json);
    if (o.json)
        std::printf("\n");
    return 0;
}

// The daemon carries out blind zooms and focus moves only with autofocus off, and otherwise
// ends them at once without a word. Reads the mode first and says so instead. When the mode
// cannot be read (no daemon answer, or another program holds the reply port) the command is
// sent with a note.
bool autofocus_allows(const Options& o, const char* what) {
    if (o.force)
        return true;
    const std::vector<uint8_t> r = read_request(o, 0, 20);
    if (r.empty()) {
        std::fprintf(stderr,
                     "afctl: could not read the autofocus mode; sending anyway (%s needs "
                     "autofocus off)\n",
                     what);
        return true;
    }
    const uint8_t af = motion_command_decode(r.data() + 2).autofocus_mode;
    if (af == 0)
        return true;
    std::fprintf(stderr,
                 "afctl: not sent: the daemon ignores %s while autofocus is on (mode %s); run "
                 "'afctl af --mode off' first, or use --force\n",
                 what, af_mode_name(af));
    return false;
}

int cmd_zoom(const Options& o) {
    if (!check_grammar(o, {{"--blind", "--in", "--out", "--stop"}, {"--speed", "--to", "--focus"}}))
        return kExitUsage;
    bool bad = false;
    long speed = 5;
    opt_value(o, "--speed", 0, 8, &speed, &bad);
    long target = 0;
    const bool to = opt_value(o, "--to", 0, 65535, &target, &bad);
    long focus = 0;
    const bool then_focus = opt_value(o, "--focus", 0, 65535, &focus, &bad);
    if (bad)
        return kExitUsage;
    const bool blind = has(o, "--blind");
    const int kinds = (has(o, "--stop") ? 1 : 0) + (to ? 1 : 0) + (has(o, "--in") ? 1 : 0) +
                      (has(o, "--out") ? 1 : 0);
    if (kinds != 1)
        return usage_error("zoom: give exactly one of --to N, --in, --out or --stop");
    if (then_focus && (!to || blind))
        return usage_error("zoom: --focus goes with --to (and without --blind)");
    MotionCommand m{};
    m.zoom_speed = static_cast<uint8_t>(speed);
    m.focus_speed = 7;
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
    } else {
        m.mode = blind ? 2 : 0;
        m.zoom_dir = has(o, "--in") ? 1 : 0;
    }
    if (blind && !autofocus_allows(o, "a blind zoom"))
        return kExitNoEffect;
    return send_motion(m);
}

int cmd_focus(const Options& o) {
    if (!check_grammar(o, {{"--near", "--far", "--stop"}, {"--speed", "--to"}}))
        return kExitUsage;
    bool bad = false;
    long speed = 3;
    opt_value(o, "--speed", 0, 7, &speed, &bad);
    long target = 0;
    const bool to = opt_value(o, "--to", 0, 65535, &target, &bad);
    if (bad)
        return kExitUsage;
    const int kinds = (has(o, "--stop") ? 1 : 0) + (to ? 1 : 0) + (has(o, "--near") ? 1 : 0) +
                      (has(o, "--far") ? 1 : 0);
    if (kinds != 1)
        return usage_error("focus: give exactly one of --to N, --near, --far or --stop");
    if (has(o, "--stop"))
        return sub_command(13);
    MotionCommand m{};
    m.focus_speed = static_cast<uint8_t>(speed);
    if (to) {
        m.mode = 5;
        m.focus_target = static_cast<uint16_t>(target);
    } else {
        // Larger focus positions focus farther away.
        m.mode = 4;
        m.focus_dir = has(o, "--far") ? 1 : 0;
    }
    if (!autofocus_allows(o, "a focus move"))
        return kExitNoEffect;
    return send_motion(m);
}

// Motion mode 6: zoom and focus at once, each at its own speed, neither following the other.
int cmd_move(const Options& o) {
    if (!check_grammar(o, {{}, {"--zoom", "--focus", "--speed", "--focus-speed"}}))
        return kExitUsage;
    bool bad = false;
    long speed = 5;
    long fspeed = 3;
    opt_value(o, "--speed", 0, 8, &speed, &bad);
    opt_value(o, "--focus-speed", 0, 7, &fspeed, &bad);
    if (bad)
        return kExitUsage;
    const std::string* z = opt_word(o, "--zoom");
    const std::string* f = opt_word(o, "--focus");
    if (z == nullptr || f == nullptr || (*z != "in" && *z != "out") ||
        (*f != "near" && *f != "far"))
        return usage_error("move: give --zoom in|out and --focus near|far");
    MotionCommand m{};
    m.mode = 6;
    m.zoom_speed = static_cast<uint8_t>(speed);
    m.focus_speed = static_cast<uint8_t>(fspeed);
    m.zoom_dir = *z == "in" ? 1 : 0;
    m.focus_dir = *f == "far" ? 1 : 0;
    if (!autofocus_allows(o, "a zoom-and-focus move"))
        return kExitNoEffect;
    return send_motion(m);
}

int cmd_af(const Options& o) {
    if (!check_grammar(o, {{}, {"--mode"}}))
        return kExitUsage;
    static const char* kModes[] = {"off", "continuous", "once", "one-shot"};
    if (const std::string* w = opt_word(o, "--mode")) {
        for (uint8_t k = 0; k < 4; ++k) {
            if (*w == kModes[k]) {
                MotionCommand m{};
                m.autofocus_mode = k;
                return sub_command(8, m);
            }
        }
    }
    return usage_error("af: --mode off|continuous|once|one-shot");
}

int cmd_iris(const Options& o) {
    if (!check_grammar(o, {{"--auto"}, {"--step", "--set", "--move"}}))
        return kExitUsage;
    bool bad = false;
    long v = 0;
    uint8_t d[16] = {'w'};
    if (o.args.size() == 1) {
        const std::vector<uint8_t> r = read_request(o, 2, 4);
        if (r.empty())
            return no_answer(2);
        std::printf(o.json ? "{\"mode\":\"%s\",\"step\":%u}\n" : "iris: %s, step %u\n",
                    r[2] ? "auto" : "fixed", r[3]);
        return 0;
    }
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
        return usage_error("iris: --auto, --step N, --set VALUE or --move DELTA");
    return kExitUsage;
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
            return kExitNoEffect;
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
    if (!check_grammar(o, {{"--wait"}, {}, 1}))
        return kExitUsage;
    const bool wait = has(o, "--wait");
    const size_t words = o.args.size() - (wait ? 1 : 0);
    if (words == 2 && o.args[1] == "status" && !wait) {
        // Read 3 in the form answered to the sender: no reply port needed.
        const uint8_t tag[2] = {0xAA, 0x55};
        const std::vector<uint8_t> r = read_request(o, 3, 4, tag, 2, true);
        if (r.empty())
            return no_answer(3);
        std::printf(o.json ? "{\"last_command\":\"%s\",\"mode\":\"%s\"}\n"
                           : "calibration: last command %s, mode %s\n",
                    calib_command_name(r[2]), calib_mode_name(r[3]));
        return 0;
    }
    for (uint8_t k = 1; words == 2 && k <= 6; ++k) {
        if (o.args[1] == kCalibKinds[k - 1]) {
            uint8_t d[4] = {'w', 3, k, 0};
            const int rc = send_write(d, 4);
            if (rc != 0 || !wait || k == 6)
                return rc;
            return wait_calibration(o, k);
        }
    }
    return usage_error("calib: curve|curve-full|curve-ref|iris|hall [--wait] | offsets | status");
}

int cmd_range(const Options& o) {
    if (!check_grammar(o, {{"--default"}, {"--near", "--far"}}))
        return kExitUsage;
    uint8_t d[5] = {'w', 18, 0, 0, 0};
    bool bad = false;
    long near = 0;
    long far = 0;
    const bool n = opt_value(o, "--near", 0, 11, &near, &bad);
    const bool f = opt_value(o, "--far", 0, 11, &far, &bad);
    if (bad)
        return kExitUsage;
    if (has(o, "--default")) {
        if (n || f)
            return usage_error("range: --default takes no --near/--far");
        return send_write(d, 5);
    }
    if (!n || !f)
        return usage_error("range: --near I --far J (0..11, far >= near) or --default");
    // The daemon takes a band whose far end is nearer than its near end as a request for the
    // default range: refuse it here rather than reset the range by surprise.
    if (far < near)
        return usage_error(
            "range: --far must not be below --near (the daemon would restore the "
            "default range instead)");
    d[2] = 1;
    d[3] = static_cast<uint8_t>(far);
    d[4] = static_cast<uint8_t>(near);
    return send_write(d, 5);
}

int cmd_ezoom(const Options& o) {
    if (!check_grammar(o, {{"--enable", "--disable"}, {"--max", "--to", "--speed"}}))
        return kExitUsage;
    bool bad = false;
    long v = 0;
    long speed = 7;
    opt_value(o, "--speed", 0, 7, &speed, &bad);
    const bool max = opt_value(o, "--max", 0, kMaxEzoom, &v, &bad);
    const bool to = !max && opt_value(o, "--to", 0, kMaxEzoom, &v, &bad);
    if (bad)
        return kExitUsage;
    if (o.args.size() == 1) {
        const std::vector<uint8_t> e = read_request(o, 13, 4);
        if (e.empty())
            return no_answer(13);
        const bool on = afdata::get_u16(e.data() + 2) != 0;
        std::printf(o.json ? "{\"electronic_zoom\":\"%s\"}\n" : "electronic zoom: %s\n",
                    on ? "enabled" : "disabled");
        return 0;
    }
    const int kinds = (has(o, "--enable") ? 1 : 0) + (has(o, "--disable") ? 1 : 0) + (max ? 1 : 0) +
                      (has(o, "--to") ? 1 : 0);
    if (kinds != 1)
        return usage_error("ezoom: give exactly one of --enable, --disable, --max N or --to N");
    if (max) {
        // Write 1: the daemon takes the electronic zoom maximum from slot 7 of a position
        // record and fills the other slots from its own counts.
        uint8_t d[2 + kPositionRecordSize] = {'w', 1};
        afdata::put_u16(d + 2 + 14, static_cast<uint16_t>(v));
        return send_write(d, sizeof d);
    }
    if (to) {
        // Sub-command 12 drives the electronic zoom only with the zoom at its optical end, and
        // only while electronic zoom is enabled; it ends at once otherwise.
        if (!o.force) {
            const std::vector<uint8_t> p = read_request(o, 1, 18);
            const std::vector<uint8_t> e = read_request(o, 13, 4);
            if (!p.empty() && !e.empty()) {
                const afdata::PositionRecord r = afdata::position_record_decode(p.data() + 2);
                const unsigned optical = r.zoom - r.ezoom;
                const unsigned optical_max = r.max_zoom - r.max_ezoom;
                const char* why = nullptr;
                char buf[160];
                if (afdata::get_u16(e.data() + 2) == 0) {
                    why = "electronic zoom is disabled ('afctl ezoom --enable')";
                } else if (optical != optical_max) {
                    std::snprintf(buf, sizeof buf,
                                  "the zoom is at %u, not at its optical end %u ('afctl zoom "
                                  "--to %u' first)",
                                  optical, optical_max, optical_max);
                    why = buf;
                } else if (static_cast<unsigned>(v) > r.max_ezoom) {
                    std::snprintf(buf, sizeof buf,
                                  "the electronic zoom maximum is %u ('afctl ezoom --max N')",
                                  r.max_ezoom);
                    why = buf;
                }
                if (why != nullptr) {
                    std::fprintf(stderr,
                                 "afctl: not sent: the daemon ignores an electronic zoom target "
                                 "now: %s; --force sends it anyway\n",
                                 why);
                    return kExitNoEffect;
                }
            } else {
                std::fprintf(stderr, "afctl: could not read the zoom state; sending anyway\n");
            }
        }
        MotionCommand m{};
        m.zoom_speed = static_cast<uint8_t>(speed);
        m.focus_speed = 7;
        m.ezoom_target = static_cast<uint16_t>(v);
        return sub_command(12, m);
    }
    const uint8_t d[4] = {'w', 13, static_cast<uint8_t>(has(o, "--enable") ? 1 : 0), 0};
    return send_write(d, 4);
}

int cmd_daynight(const Options& o) {
    const Grammar g{{}, {"--id"}, 0};
    // "--set E U L": three numbers after --set.
    long v[3] = {0, 0, 0};
    size_t set_at = 0;
    for (size_t i = 1; i < o.args.size(); ++i)
        if (o.args[i] == "--set")
            set_at = i;
    if (set_at == 0) {
        if (!check_grammar(o, g))
            return kExitUsage;
        const std::vector<uint8_t> r = read_request(o, 4, 14);
        if (r.empty())
            return no_answer(4);
        std::printf(o.json ? "{\"enable\":%u,\"upper\":%u,\"lower\":%u}\n"
                           : "day/night: enable %u, upper %u, lower %u\n",
                    afdata::get_u32(&r[2]), afdata::get_u32(&r[6]), afdata::get_u32(&r[10]));
        return 0;
    }
    if (set_at + 3 >= o.args.size() + 0 || !parse_int(o.args[set_at + 1], 0, 1, &v[0]) ||
        !parse_int(o.args[set_at + 2], 0, 4294967295L, &v[1]) ||
        !parse_int(o.args[set_at + 3], 0, 4294967295L, &v[2]))
        return usage_error("daynight: --set ENABLE(0|1) UPPER LOWER [--id 4|15]");
    Options rest = o;
    rest.args.erase(rest.args.begin() + static_cast<long>(set_at),
                    rest.args.begin() + static_cast<long>(set_at) + 4);
    if (!check_grammar(rest, g))
        return kExitUsage;
    long id = 4;
    bool bad = false;
    if (opt_value(rest, "--id", 4, 15, &id, &bad) && id != 4 && id != 15)
        bad = true;
    if (bad)
        return usage_error("daynight: --id is 4 or 15");
    uint8_t d[14] = {'w', static_cast<uint8_t>(id)};
    for (int i = 0; i < 3; ++i)
        afdata::put_u32(d + 2 + 4 * i, static_cast<uint32_t>(v[i]));
    return send_write(d, sizeof d);
}

int cmd_watch(const Options& o) {
    if (!check_grammar(o, {{}, {"--seconds"}}))
        return kExitUsage;
    bool bad = false;
    long secs = 0;
    opt_value(o, "--seconds", 1, 86400, &secs, &bad);
    if (bad)
        return kExitUsage;
    Channel ch;
    if (!ch.listen_replies())
        return kExitNoEffect;
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

// Commands without options of their own.
int run_simple(const Options& o) {
    const std::string& c = o.args[0];
    long v = 0;
    const Grammar none{};
    if (c == "pause" || c == "resume" || c == "pt-move" || c == "pt-stop" || c == "reset" ||
        c == "rehome" || c == "error" || c == "text" || c == "fov" || c == "modes" ||
        c == "counter") {
        if (!check_grammar(o, none))
            return kExitUsage;
    }
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
    if (c == "zone" || c == "region") {
        const bool zone = c == "zone";
        if (!check_grammar(o, {{}, {zone ? "--type" : "--preset"}}))
            return kExitUsage;
        bool bad = false;
        if (!opt_value(o, zone ? "--type" : "--preset", zone ? 1 : 0, zone ? 4 : 3, &v, &bad))
            return bad ? kExitUsage
                       : usage_error(zone ? "zone: --type 1-4" : "region: --preset 0-3");
        MotionCommand m{};
        if (zone)
            m.zone_type = static_cast<uint8_t>(v);
        else
            m.region = static_cast<uint8_t>(v);
        return sub_command(zone ? 10 : 11, m);
    }
    if (c == "assist") {
        if (!check_grammar(o, {{"--on", "--off"}, {}}) || has(o, "--on") == has(o, "--off"))
            return usage_error("assist: --on or --off");
        const uint8_t d[3] = {'w', 19, static_cast<uint8_t>(has(o, "--on") ? 1 : 0)};
        return send_write(d, 3);
    }
    if (c == "sensor") {
        if (o.args.size() != 2 || !parse_int(o.args[1], 0, 255, &v))
            return usage_error("sensor: one number 0..255");
        const uint8_t d[3] = {'w', 16, static_cast<uint8_t>(v)};
        return send_write(d, 3);
    }
    if (c == "param") {
        long idx = 0;
        if (o.args.size() != 3 || !parse_int(o.args[1], 0, 99, &idx) ||
            !parse_int(o.args[2], 0, 65535, &v))
            return usage_error("param: INDEX (0..99) VALUE (0..65535)");
        uint8_t d[6] = {'w', 8, static_cast<uint8_t>(idx), 0};
        afdata::put_u16(d + 4, static_cast<uint16_t>(v));
        return send_write(d, 6);
    }
    if (c == "roi") {
        long r[4];
        for (int i = 0; i < 4; ++i) {
            if (o.args.size() != 5 || !parse_int(o.args[1 + i], 0, 65535, &r[i]))
                return usage_error("roi: X Y W H (0..65535)");
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
        if (o.json)
            std::printf("{\"homing\":\"%s\",\"homing_code\":%u}\n", homing_name(r[2]), r[2]);
        else
            std::printf("homing status %u (%s)\n", r[2], homing_name(r[2]));
        return 0;
    }
    if (c == "text") {
        const std::vector<uint8_t> r = read_request(o, 10, 130, nullptr, 0, true);
        if (r.empty())
            return no_answer(10);
        std::string t(reinterpret_cast<const char*>(r.data() + 2), 128);
        t = t.c_str();
        while (!t.empty() && t.back() == '\n')
            t.pop_back();
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
    if (c == "modes") {
        const std::vector<uint8_t> r = read_request(o, 5, 5);
        if (r.empty())
            return no_answer(5);
        std::printf(o.json ? "{\"mode\":%u,\"big\":%u,\"little\":%u}\n"
                           : "mode record: mode %u, big %u, little %u\n",
                    r[2], r[3], r[4]);
        return 0;
    }
    if (c == "counter") {
        const std::vector<uint8_t> r = read_request(o, 20, 4);
        if (r.empty())
            return no_answer(20);
        std::printf(o.json ? "{\"counter\":%u}\n" : "counter: %u (reset by this read)\n",
                    afdata::get_u16(&r[2]));
        return 0;
    }
    return usage_error("unknown command '%s'", c.c_str());
}

int run(const Options& o) {
    const std::string& c = o.args[0];
    if (c == "status")
        return cmd_status(o);
    if (c == "positions")
        return cmd_positions(o);
    if (c == "motion")
        return cmd_motion(o);
    if (c == "zoom")
        return cmd_zoom(o);
    if (c == "focus")
        return cmd_focus(o);
    if (c == "move")
        return cmd_move(o);
    if (c == "af")
        return cmd_af(o);
    if (c == "iris")
        return cmd_iris(o);
    if (c == "calib")
        return cmd_calib(o);
    if (c == "range")
        return cmd_range(o);
    if (c == "ezoom")
        return cmd_ezoom(o);
    if (c == "daynight")
        return cmd_daynight(o);
    if (c == "watch")
        return cmd_watch(o);
    return run_simple(o);
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        long v = 0;
        if (a == "--json") {
            o.json = true;
        } else if (a == "--force") {
            o.force = true;
        } else if (a == "--timeout") {
            if (i + 1 >= argc || !parse_int(argv[i + 1], 1, 600000, &v))
                return usage_error("--timeout needs milliseconds (1..600000)");
            o.timeout_ms = static_cast<int>(v);
            ++i;
        } else if (a == "-h" || a == "--help" || a == "help") {
            std::fputs(kUsage, stdout);
            return 0;
        } else {
            o.args.push_back(a);
        }
    }
    if (o.args.empty()) {
        std::fputs(kUsage, stderr);
        return kExitUsage;
    }
    return run(o);
}
