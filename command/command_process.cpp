#include "command/command_process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "af/auto_focus.h"
#include "af/focus_zone.h"
#include "base/dbgout.h"
#include "base/frame_pacing.h"
#include "data/lens_tables.h"
#include "isp/track_input.h"
#include "lens_api/gpio_pins.h"
#include "lens_api/iris.h"
#include "lens_api/lc898201.h"
#include "lens_api/lens_driver.h"
#include "lens_api/lens_ms.h"
#include "lens_api/lens_position.h"
#include "platform/paths.h"
#include "platform/ports.h"
#include "store/lens_data.h"
#include "store/offsets.h"
#include "tracking/calibration.h"
#include "tracking/curves.h"
#include "tracking/zoom_track.h"

namespace {

constexpr size_t kMaxDatagram = 256;
constexpr const char* kPositionDevice = "/dev/sm_af_zoom_focus_value";
constexpr const char* kFile = "command_process";
constexpr const char* kFunc = "Message_Process";

// Field-of-view table: wide-end angles, magnification steps 1x..12x and their zoom positions.
constexpr float kFovAngles[3] = {78.1f, 70.1f, 40.7f};
constexpr uint32_t kMagSteps = 12;
constexpr uint16_t kMagZoom[kMagSteps] = {0,    2556, 3746, 4476, 4986, 5372,
                                          5682, 5938, 6160, 6354, 6532, 6624};
constexpr size_t kFovTableSize = 80;

// Far-curve rows of the distance bands used by the search range command (write 18).
constexpr uint8_t kDistanceIndexRows[12] = {0, 14, 24, 32, 36, 38, 40, 43, 45, 47, 48, 50};

enum : uint8_t {
    kCalNone = 0,
    kCalCurve = 1,
    kCalIris = 4,
    kCalHall = 5,
    kCalSix = 6,
};

struct CommandState {
    // The motion command is 18 bytes written by the command thread and copied by the frame loop
    // once per frame: a short lock keeps the copy from mixing two commands.
    std::mutex motion_lock;
    // Sockets.
    int reply_fd = -1;
    int cmd_fd = -1;
    sockaddr_in reply_addr{};

    // Records.
    MotionCommand motion{};
    std::atomic<uint8_t> prev_motion_active{0};
    uint8_t calibration_command = 0;
    uint8_t autoiris_en = 1;
    uint8_t fno = 0;
    uint32_t day_night[3] = {0, 200, 40};
    uint8_t mode_record[3] = {20, 4, 27};
    std::atomic<uint8_t> error{1};
    int16_t rehome_focus = 0;
    int16_t rehome_zoom = 0;
    uint16_t roi[6] = {1080, 1920, 0, 0, 1920, 1080};
    uint8_t fov[kFovTableSize] = {};
    float step_angle[kMagSteps] = {};
    uint16_t counter = 8192;
    std::atomic<uint8_t> zone_type4{0};
    std::atomic<int32_t> saved_zoom_target{-1};

    // Publishing.
    volatile uint8_t* publish_map = nullptr;
    bool publish_tried = false;

    // Datagram kinds already reported as too short: bit (direction * 32 + id).
    uint64_t short_logged = 0;
};

CommandState g_cmd;

void put16(uint8_t* p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v & 0xFF);
    p[1] = static_cast<uint8_t>(v >> 8);
}
void put32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<uint8_t>(v >> (8 * i));
}
uint16_t get16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}
uint32_t get32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

void send_to(const uint8_t* buf, size_t len, const sockaddr_in& to) {
    if (g_cmd.reply_fd < 0)
        return;
    sendto(g_cmd.reply_fd, buf, len, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
}
// A re-home that fails (a dead home sensor, a stuck motor) leaves the counts at 0 and the lens
// unreferenced: said in the log and in the homing status the control software reads, as at
// start-up. A later re-home that succeeds sets the status back to OK.
void report_rehome(uint8_t result) {
    static const char* const kWhat[] = {"", "zoom fail", "focus fail", "focus fail, zoom fail"};
    static const uint8_t kStatus[] = {1, 2, 3, 4};
    result &= kZoomHomeFailed | kFocusHomeFailed;
    if (result != 0)
        traceout("%s: re-home: %s\n", dbg_timestamp(), kWhat[result]);
    command_set_homing_error(kStatus[result]);
}

void send_reply(const uint8_t* buf, size_t len) {
    send_to(buf, len, g_cmd.reply_addr);
}

// Position record, refreshed from the lens and the electronic zoom.
void position_record(uint8_t* out) {
    const uint16_t ez = static_cast<uint16_t>(command_get_ezoom());
    put16(out + 0, static_cast<uint16_t>(lens_get_zoom_pos() + ez));
    put16(out + 2, lens_get_focus_pos());
    put16(out + 4, static_cast<uint16_t>(lens_get_zoom_max() + command_get_max_ezoom()));
    put16(out + 6, lens_get_focus_max());
    put16(out + 8, lens_get_zoom_min());
    put16(out + 10, lens_get_focus_min());
    put16(out + 12, ez);
    put16(out + 14, command_get_max_ezoom());
}

// Refreshes the fields of the MotionCommand that mirror other state.
void refresh_move_and_af() {
    g_cmd.motion.move = command_zoom_motion_active();
    g_cmd.motion.autofocus_mode = command_autofocus_mode();
}
void refresh_zone(bool report_type4) {
    refresh_move_and_af();
    g_cmd.motion.region = get_window_preset();
    g_cmd.motion.zone_type = (report_type4 && g_cmd.zone_type4) ? 4 : g_zoneType;
}

// A motion ended by a command (stop, re-home) forgets its tracking set-up as one that runs out
// does: the next zoom picks the curve through the focus position as it is then. Kept, the set-up
// would pull the focus back towards the old object's curve.
void end_motion() {
    command_set_zoom_motion_active(0);
    zoom_track_clear_active();
}

void notify_ezoom(uint16_t value) {
    uint8_t msg[4] = {'w', 11, 0, 0};
    put16(msg + 2, value);
    send_reply(msg, sizeof msg);
}

void build_fov_table() {
    std::memset(g_cmd.fov, 0, sizeof g_cmd.fov);
    for (int i = 0; i < 3; ++i) {
        uint32_t bits = 0;
        std::memcpy(&bits, &kFovAngles[i], 4);
        put32(g_cmd.fov + 4 * i, bits);
    }
    put32(g_cmd.fov + 12, kMagSteps);
    put16(g_cmd.fov + 16, 0);
    for (uint32_t i = 0; i < kMagSteps; ++i)
        put16(g_cmd.fov + 18 + 2 * i, kMagZoom[i]);
    // Per-step horizontal angle: a magnification of i + 1 narrows the wide-end angle by
    // tan(a/2) / (i + 1).
    constexpr double kPi = 3.14159265358979323846;
    const double half = std::tan(kFovAngles[1] / 2.0 * kPi / 180.0);
    g_cmd.step_angle[0] = kFovAngles[1];
    for (uint32_t i = 1; i < kMagSteps; ++i) {
        g_cmd.step_angle[i] = static_cast<float>(2.0 * std::atan(half / (i + 1)) * 180.0 / kPi);
    }
}

// A datagram shorter than its message needs is never acted on; each kind is reported once.
bool long_enough(uint8_t dir, uint8_t id, size_t len, size_t need) {
    if (len >= need)
        return true;
    const unsigned bit = (dir == 'w' ? 32u : 0u) + (id & 31u);
    if ((g_cmd.short_logged & (1ull << bit)) == 0) {
        g_cmd.short_logged |= 1ull << bit;
        dbg_err(kFile, kFunc, 0, "short datagram '%c' %d: %zu bytes, %zu needed\n", dir, id, len,
                need);
    }
    return false;
}

// ---- Read requests ----

void handle_read(uint8_t* buf, size_t len, const sockaddr_in& from) {
    const uint8_t id = buf[1];
    switch (id) {
        case 0: {
            std::lock_guard<std::mutex> lock(g_cmd.motion_lock);
            refresh_zone(true);
            motion_command_encode(g_cmd.motion, buf + 2);
            send_reply(buf, 20);
            break;
        }
        case 1:
            position_record(buf + 2);
            send_reply(buf, 18);
            break;
        case 2:
            buf[2] = g_cmd.autoiris_en;
            buf[3] = g_cmd.fno;
            send_reply(buf, 4);
            break;
        case 3: {
            const bool to_sender = len >= 4 && buf[2] == 0xAA && buf[3] == 0x55;
            buf[2] = g_cmd.calibration_command;
            buf[3] = command_calibration_mode();
            if (to_sender) {
                send_to(buf, 4, from);
            } else {
                send_reply(buf, 4);
            }
            break;
        }
        case 4:
            for (int i = 0; i < 3; ++i)
                put32(buf + 2 + 4 * i, g_cmd.day_night[i]);
            send_reply(buf, 14);
            break;
        case 5:
            std::memcpy(buf + 2, g_cmd.mode_record, 3);
            send_reply(buf, 5);
            break;
        case 6:
            buf[2] = g_cmd.error;
            send_reply(buf, 3);
            break;
        case 7: {
            uint8_t* p = buf + 2;
            {
                std::lock_guard<std::mutex> lock(g_cmd.motion_lock);
                refresh_zone(false);
                motion_command_encode(g_cmd.motion, p);
            }
            p += 18;
            p[0] = g_cmd.calibration_command;
            p[1] = command_calibration_mode();
            p[2] = g_cmd.autoiris_en;
            p[3] = g_cmd.fno;
            p += 4;
            position_record(p);
            put16(p + 4, static_cast<uint16_t>(lens_get_zoom_max() + kMaxEzoom));
            p += 16;
            for (int i = 0; i < 3; ++i)
                put32(p + 4 * i, g_cmd.day_night[i]);
            p += 12;
            std::memcpy(p, g_cmd.mode_record, 3);
            p += 3;
            *p++ = g_cmd.error;
            put16(p, command_get_ezoom_enable());
            send_reply(buf, 58);
            break;
        }
        case 10:
            command_copy_status_text(reinterpret_cast<char*>(buf + 2));
            send_to(buf, 130, from);
            break;
        case 13:
            put16(buf + 2, command_get_ezoom_enable());
            send_reply(buf, 4);
            break;
        case 14: {
            // Re-home check: how far each motor travelled to its home sensor, compared with
            // where the counts said it was. Non-zero results mean lost steps.
            const uint16_t z0 = lens_get_zoom_pos();
            const uint16_t f0 = lens_get_focus_pos();
            command_set_autofocus_mode(0);
            end_motion();
            report_rehome(lens_motor_rehome());
            g_cmd.rehome_focus = static_cast<int16_t>(lc_focus_travel() + f0 - 2400);
            g_cmd.rehome_zoom = static_cast<int16_t>(lc_zoom_travel() + z0 - 6378);
            put16(buf + 2, static_cast<uint16_t>(g_cmd.rehome_focus));
            put16(buf + 4, static_cast<uint16_t>(g_cmd.rehome_zoom));
            send_reply(buf, 6);
            dbg_info(kFile, kFunc, 1439, "focus = %d\n", g_cmd.rehome_focus);
            dbg_info(kFile, kFunc, 1440, "zoom = %d\n", g_cmd.rehome_zoom);
            command_set_autofocus_mode(1);
            break;
        }
        case 20:
            g_cmd.counter = 0;
            put16(buf + 2, g_cmd.counter);
            send_reply(buf, 4);
            break;
        case 21:
            std::memcpy(buf + 2, g_cmd.fov, kFovTableSize);
            send_reply(buf, 2 + kFovTableSize);
            break;
        default:
            break;
    }
}

// ---- Write 0: motions and sub-commands ----

void motion_sub_command(const MotionCommand& m, const uint8_t* payload) {
    switch (m.mode) {
        case 8:
            traceout("%s: autofocus_en: %d \n", dbg_timestamp(), m.autofocus_mode);
            if (m.autofocus_mode != 1)
                g_refocusRequest = 1;
            if (m.autofocus_mode == 0)
                g_returnToLast = 1;
            command_set_autofocus_mode(m.autofocus_mode);
            break;
        case 9:
            end_motion();
            break;
        case 10:
            if (m.zone_type >= 1 && m.zone_type <= 3) {
                g_zoneType = m.zone_type;
                g_cmd.zone_type4 = 0;
            } else {
                g_cmd.zone_type4 = 1;
                g_zoneType = 3;
            }
            break;
        case 11:
            set_window_preset(m.region > 3 ? 1 : m.region);
            break;
        case 12: {
            std::lock_guard<std::mutex> lock(g_cmd.motion_lock);
            command_set_zoom_motion_active(1);
            g_cmd.motion = m;
            refresh_move_and_af();
            if (g_cmd.motion.zoom_speed > 7)
                g_cmd.motion.zoom_speed = 7;
            if (g_cmd.motion.focus_speed > 7)
                g_cmd.motion.focus_speed = 7;
            break;
        }
        case 13:
            command_set_focus_stop_request();
            break;
        case 14:
            traceout("%s: pt move\n", dbg_timestamp());
            command_set_pt_moving(1);
            break;
        case 15:
            traceout("%s: pt stop\n", dbg_timestamp());
            command_set_pt_moving(0);
            break;
        case 16:
            if (payload[1] == 0) {
                set_loop_paused(1);
            } else if (payload[1] == 100) {
                set_loop_paused(0);
            }
            break;
        default:
            break;
    }
}

void motion_command(MotionCommand m) {
    const uint16_t zoom = lens_get_zoom_pos();
    const uint16_t zmin = lens_get_zoom_min();
    const uint16_t zmax = lens_get_zoom_max();

    if (m.mode == 1)
        g_cmd.saved_zoom_target = m.zoom_target;
    bool clear_saved = false;
    if (m.mode == 5 && command_zoom_motion_active() == 1 && g_returnToLast == 1 &&
        g_cmd.saved_zoom_target >= 0) {
        // Focus-to-target during a return to the last position: finish the interrupted zoom.
        m.zoom_target = static_cast<uint16_t>(g_cmd.saved_zoom_target);
        m.mode = 7;
        clear_saved = true;
    }

    bool start = true;
    if (m.mode == 0) {
        if (m.zoom_dir == 0) {
            start = zoom != zmin;
        } else if (m.zoom_dir == 1) {
            start = zoom != zmax || command_get_ezoom() != command_get_max_ezoom();
        } else {
            start = false;
        }
    } else if (m.mode == 1) {
        start = zoom != m.zoom_target || command_get_ezoom() != m.ezoom_target;
    }
    std::lock_guard<std::mutex> lock(g_cmd.motion_lock);
    if (start)
        command_set_zoom_motion_active(1);

    g_cmd.motion = m;
    if (clear_saved)
        g_cmd.saved_zoom_target = -1;

    if (g_cmd.motion.zoom_target > zmax) {
        g_cmd.motion.ezoom_target = static_cast<uint16_t>(g_cmd.motion.zoom_target - zmax);
        g_cmd.motion.zoom_target = zmax;
    }
    refresh_move_and_af();
    if (command_autofocus_mode() == 0 && (m.mode == 4 || m.mode == 5))
        zoom_track_clear_active();
    if (g_cmd.motion.zoom_speed > 8)
        g_cmd.motion.zoom_speed = 8;
    if (g_cmd.motion.focus_speed > 7)
        g_cmd.motion.focus_speed = 7;

    traceout(
        "%s: mode: %d zoom_speed: %d zoom_target: %d zoom_dir: %d focus_target: %d nowZoom: %d "
        "nowFocus: %d\n",
        dbg_timestamp(), g_cmd.motion.mode, g_cmd.motion.zoom_speed, g_cmd.motion.zoom_target,
        g_cmd.motion.zoom_dir, g_cmd.motion.focus_target, lens_get_zoom_pos(),
        lens_get_focus_pos());
}

// ---- Other writes ----

void lens_reset(uint8_t value) {
    dbg_info(kFile, kFunc, 1279, "Lc_Reset = %d\n", value);
    if (value != 1)
        return;
    uint16_t zoom_target = 0;
    {
        std::lock_guard<std::mutex> lock(g_cmd.motion_lock);
        g_cmd.motion.mode = 1;
        g_cmd.motion.zoom_target = lens_get_zoom_pos();
        refresh_move_and_af();
        g_cmd.motion.zoom_speed = 7;
        zoom_target = g_cmd.motion.zoom_target;
    }
    gpio_reset_pulse();
    const uint8_t result = lens_motor_init();
    if (result == 2) {
        dbg_err(kFile, kFunc, 1294, "focus fail!\n");
        g_cmd.error = 3;
    } else if (result == 1) {
        dbg_err(kFile, kFunc, 1297, "focus OK,zoom fail!\n");
        g_cmd.error = 2;
    } else if (result == 3) {
        dbg_err(kFile, kFunc, 1300, "focus fail,zoom fail!\n");
        g_cmd.error = 4;
    }
    // The counts restart at the home positions: zoom back to where the lens was, along a curve
    // picked afresh from the homed focus position.
    zoom_track_clear_active();
    if (lens_get_zoom_pos() != zoom_target)
        command_set_zoom_motion_active(1);
    iris_drive_publish(2300);
}

void search_range_by_distance(uint8_t a, uint8_t b, uint8_t c) {
    if (a == 0) {
        g_refocusRequest = 1;
        curve_load();
        return;
    }
    if (get_tracking_on() == 1 || b > 11 || c > 11)
        return;
    if (b < c) {
        curve_load();
        return;
    }
    const uint8_t lo = kDistanceIndexRows[c];
    const uint8_t hi = kDistanceIndexRows[b];
    const int32_t k = zoom_track_get_trim();
    const auto& off = afdata::kFarCurveOffsets;
    for (uint16_t z = 0; z < kCurvePoints; ++z) {
        int32_t m_lo = 5;
        int32_t m_hi = 5;
        if (b != c) {
            const int32_t d_lo = off[lo + 1][z] - off[lo][z];
            m_lo = d_lo > 9 ? d_lo / 2 : 5;
            const int32_t d_hi = off[hi][z] - off[hi - 1][z];
            m_hi = d_hi > 9 ? d_hi / 2 : 5;
        }
        const int32_t base = curve_get_point(z);
        curve_set_bounds(z, static_cast<uint16_t>(base + off[lo][z] - k - m_lo),
                         static_cast<uint16_t>(base + off[hi][z] - k + m_hi));
    }
    g_refocusRequest = 1;
}

void handle_write(uint8_t* buf, size_t len) {
    const uint8_t id = buf[1];
    const uint8_t* p = buf + 2;
    switch (id) {
        case 0: {
            if (!long_enough('w', id, len, 2 + kMotionCommandWireSize))
                return;
            const MotionCommand m = motion_command_decode(p);
            if (m.mode >= 8) {
                motion_sub_command(m, p);
            } else {
                motion_command(m);
            }
            break;
        }
        case 1:
            if (!long_enough('w', id, len, 2 + 16))
                return;
            command_set_max_ezoom(get16(p + 14));
            lens_param_save();
            break;
        case 2:
            if (!long_enough('w', id, len, 4))
                return;
            g_cmd.autoiris_en = p[0];
            g_cmd.fno = p[1];
            iris_set_mode(g_cmd.autoiris_en);
            if (g_cmd.autoiris_en == 0)
                iris_goto_step(g_cmd.fno > 12 ? 12 : g_cmd.fno);
            break;
        case 3:
            if (!long_enough('w', id, len, 4))
                return;
            g_cmd.calibration_command = p[0];
            switch (p[0]) {
                case 1:
                    // The form follows "CURVE_OFFSET =" of the offsets just loaded.
                    lens_load_offsets();
                    curve_calibration_set_variant(offset_curve_form());
                    command_set_calibration_mode(kCalCurve);
                    break;
                case 2:
                    lens_load_offsets();
                    curve_calibration_set_variant(1);
                    command_set_calibration_mode(kCalCurve);
                    break;
                case 3:
                    lens_load_offsets();
                    curve_calibration_set_variant(0);
                    command_set_calibration_mode(kCalCurve);
                    break;
                case 4:
                    command_set_calibration_mode(kCalIris);
                    iris_correct_step(0);
                    break;
                case 5:
                    command_set_calibration_mode(kCalHall);
                    break;
                case 6:
                    lens_load_offsets();
                    command_set_calibration_mode(kCalSix);
                    break;
                default:
                    break;
            }
            break;
        case 4:
        case 15:
            if (!long_enough('w', id, len, 2 + 12))
                return;
            for (int i = 0; i < 3; ++i)
                g_cmd.day_night[i] = get32(p + 4 * i);
            break;
        case 8:
            if (!long_enough('w', id, len, 6))
                return;
            // An index past the record sets nothing, but the record is still written out: the
            // control software uses it to make the daemon save what it holds.
            if (p[0] < 100)
                lens_param_set(p[0], get16(p + 2));
            lens_param_save();
            break;
        case 9:
            if (!long_enough('w', id, len, 3))
                return;
            lens_reset(p[0]);
            break;
        case 13:
            if (!long_enough('w', id, len, 4))
                return;
            command_set_ezoom_enable(get16(p) > 1 ? 1 : get16(p));
            break;
        case 16:
            if (!long_enough('w', id, len, 3))
                return;
            ms_sensor_command(p[0]);
            break;
        case 18:
            if (!long_enough('w', id, len, 5))
                return;
            search_range_by_distance(p[0], p[1], p[2]);
            break;
        case 19:
            if (!long_enough('w', id, len, 3))
                return;
            set_distance_assist_mode(p[0] > 1 ? 1 : p[0]);
            break;
        case 22:
            if (!long_enough('w', id, len, 2 + 12))
                return;
            for (int i = 0; i < 6; ++i)
                g_cmd.roi[i] = get16(p + 2 * i);
            // Stored as height, width, x, y, w, h.
            track_set_roi(g_cmd.roi[1], g_cmd.roi[0], g_cmd.roi[2], g_cmd.roi[3], g_cmd.roi[4],
                          g_cmd.roi[5]);
            break;
        case 23: {
            if (!long_enough('w', id, len, 8))
                return;
            const uint16_t absolute = get16(p + 2);
            const int16_t delta = static_cast<int16_t>(get16(p + 4));
            // A relative move from the driven value; one that would pass either end stops at
            // it instead of wrapping round to the other (the driver then limits it to its chip).
            int32_t target = absolute;
            if (p[0] == 0) {
                target = static_cast<int32_t>(iris_get_value()) + delta;
                target = target < 0 ? 0 : (target > 0xFFFF ? 0xFFFF : target);
            }
            iris_drive_publish(static_cast<uint16_t>(target));
            break;
        }
        default:
            break;
    }
}

void* message_thread(void*) {
    prctl(PR_SET_NAME, "Message_Process", 0, 0, 0);
    uint8_t buf[kMaxDatagram];
    for (;;) {
        sockaddr_in from{};
        socklen_t flen = sizeof from;
        std::memset(buf, 0, sizeof buf);
        const ssize_t n =
            recvfrom(g_cmd.cmd_fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &flen);
        if (n <= 0)
            continue;
        command_process_datagram(buf, static_cast<size_t>(n), from);
    }
    return nullptr;
}

}  // namespace

void command_sockets_open() {
    const platform::PortConfig& cfg = platform::ports();
    command_set_ezoom_notifier(notify_ezoom);
    g_cmd.reply_addr = sockaddr_in{};
    g_cmd.reply_addr.sin_family = AF_INET;
    g_cmd.reply_addr.sin_port = htons(cfg.reply_port);
    if (inet_pton(AF_INET, cfg.reply_addr, &g_cmd.reply_addr.sin_addr) != 1) {
        g_cmd.reply_addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }
    g_cmd.reply_fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (g_cmd.reply_fd < 0)
        dbg_err(kFile, "command_sockets_open", 0, "reply socket failed\n");

    g_cmd.cmd_fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (g_cmd.cmd_fd < 0) {
        dbg_err(kFile, "command_sockets_open", 0, "command socket failed\n");
        return;
    }
    int one = 1;
    setsockopt(g_cmd.cmd_fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(cfg.cmd_port);
    if (inet_pton(AF_INET, cfg.cmd_bind, &local.sin_addr) != 1)
        local.sin_addr.s_addr = INADDR_ANY;
    if (bind(g_cmd.cmd_fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
        dbg_err(kFile, "command_sockets_open", 0, "bind %s:%d failed\n", cfg.cmd_bind,
                cfg.cmd_port);
    }
}

uint16_t command_get_port() {
    if (g_cmd.cmd_fd < 0)
        return 0;
    sockaddr_in local{};
    socklen_t len = sizeof local;
    if (getsockname(g_cmd.cmd_fd, reinterpret_cast<sockaddr*>(&local), &len) != 0)
        return 0;
    return ntohs(local.sin_port);
}

void command_state_init() {
    // Electronic zoom back to none, and the control software told so.
    command_reset_ezoom();
    notify_ezoom(0);

    // The start-up motion: the default command zooms to the wide end.
    command_set_zoom_motion_active(1);
    std::unique_lock<std::mutex> motion_lock(g_cmd.motion_lock);
    g_cmd.motion = MotionCommand{};
    g_cmd.motion.focus_speed = 7;
    g_cmd.motion.zoom_speed = 7;
    g_cmd.motion.autofocus_mode = 1;
    g_cmd.motion.zone_type = 2;
    g_cmd.motion.region = 3;
    motion_lock.unlock();
    g_zoneType = 2;
    set_window_preset(3);
    command_set_autofocus_mode(1);

    g_cmd.autoiris_en = 1;
    g_cmd.fno = 0;
    g_cmd.calibration_command = 0;
    command_set_calibration_mode(0);
    g_cmd.mode_record[0] = 20;
    g_cmd.mode_record[1] = 4;
    g_cmd.mode_record[2] = 27;
    g_cmd.day_night[0] = 0;
    g_cmd.day_night[1] = 200;
    g_cmd.day_night[2] = 40;
    iris_set_day_night(g_cmd.day_night[0], g_cmd.day_night[1], g_cmd.day_night[2]);
    command_set_ezoom_enable(1);
    g_cmd.error = 1;
    g_cmd.counter = 8192;
    iris_table_load();
    g_refocusRequest = 1;
    if (version_check() != 1)
        version_write();
    lens_load_offsets();

    const uint16_t roi[6] = {1080, 1920, 0, 0, 1920, 1080};
    std::memcpy(g_cmd.roi, roi, sizeof roi);
    build_fov_table();
}

int command_thread_start() {
    pthread_t t;
    if (pthread_create(&t, nullptr, message_thread, nullptr) != 0)
        return -1;
    pthread_detach(t);
    return 0;
}

void command_process_datagram(const uint8_t* data, size_t len, const sockaddr_in& from) {
    if (len < 2)
        return;
    // The reply is built in a copy of the datagram: every sender has its own buffer, and a short
    // datagram is zero-padded rather than mixed with an earlier one.
    uint8_t buf[kMaxDatagram + 2] = {};
    std::memcpy(buf, data, len > kMaxDatagram ? kMaxDatagram : len);
    if (buf[0] == 'w' || buf[0] == 'W') {
        handle_write(buf, len);
    } else if (buf[0] == 'r' || buf[0] == 'R') {
        handle_read(buf, len, from);
    }
}

void command_publish_positions() {
    if (!g_cmd.publish_tried) {
        g_cmd.publish_tried = true;
        platform::Path path(kPositionDevice);
        const int fd = open(path.c_str(), O_RDWR | O_CREAT, 0777);
        if (fd >= 0) {
            const uint8_t zero = 0;
            void* map = MAP_FAILED;
            if (pwrite(fd, &zero, 1, 16) == 1) {
                map = mmap(nullptr, 16, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
            }
            close(fd);
            if (map != MAP_FAILED)
                g_cmd.publish_map = static_cast<volatile uint8_t*>(map);
        }
    }
    if (g_cmd.publish_map != nullptr) {
        uint8_t rec[16];
        position_record(rec);
        for (int i = 0; i < 16; ++i)
            g_cmd.publish_map[i] = rec[i];
    }
    const uint8_t now = command_zoom_motion_active();
    if (g_cmd.prev_motion_active == 1 && now == 0) {
        uint8_t msg[2 + kMotionCommandWireSize] = {'r', 0};
        {
            std::lock_guard<std::mutex> lock(g_cmd.motion_lock);
            refresh_zone(false);
            motion_command_encode(g_cmd.motion, msg + 2);
        }
        send_reply(msg, sizeof msg);
    }
    g_cmd.prev_motion_active = now;
}

MotionCommand command_motion_copy() {
    std::lock_guard<std::mutex> lock(g_cmd.motion_lock);
    return g_cmd.motion;
}

uint8_t command_zone_type4() {
    return g_cmd.zone_type4;
}

void command_set_homing_error(uint8_t error) {
    g_cmd.error = error;
}
uint8_t command_homing_error() {
    return g_cmd.error;
}

float command_angle_of_view(uint16_t z) {
    if (g_cmd.step_angle[0] == 0.0f)
        build_fov_table();
    uint32_t i = 0;
    while (i < kMagSteps && kMagZoom[i] < z)
        ++i;
    if (i == 0)
        return g_cmd.step_angle[0];
    if (i == kMagSteps)
        return g_cmd.step_angle[kMagSteps - 1];
    const float span = static_cast<float>(kMagZoom[i] - kMagZoom[i - 1]);
    const float t = static_cast<float>(z - kMagZoom[i - 1]) / span;
    return g_cmd.step_angle[i - 1] + (g_cmd.step_angle[i] - g_cmd.step_angle[i - 1]) * t;
}

int32_t command_saved_zoom_target() {
    return g_cmd.saved_zoom_target;
}
