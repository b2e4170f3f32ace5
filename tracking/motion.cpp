#include "tracking/motion.h"

#include "base/af_status.h"
#include "base/command_state.h"
#include "lens_api/lens_position.h"
#include "tracking/zoom_track.h"

namespace {

constexpr uint8_t kFocusSteps[8] = {1, 2, 4, 6, 8, 10, 12, 16};
constexpr uint32_t kEzoomStep = 8;

volatile uint8_t g_teleLatch = 0;

void stop() {
    command_set_zoom_motion_active(0);
}

uint32_t absdiff(uint32_t a, uint32_t b) {
    return a > b ? a - b : b - a;
}

uint8_t zoom_steps(const MotionCommand& c) {
    return c.zoom_speed <= 7 ? zoom_speed_steps(static_cast<uint8_t>(c.zoom_speed + 1), 0) : 80;
}

uint8_t focus_steps(uint8_t speed) {
    return kFocusSteps[speed > 7 ? 7 : speed];
}

// The zoom is at its end for the direction: the optical and electronic maximum going in, the
// minimum going out. Any non-zero direction counts as in.
bool at_end(uint8_t zoom_dir) {
    if (zoom_dir != 0) {
        return lens_get_zoom_pos() == lens_get_zoom_max() &&
               command_get_ezoom() == command_get_max_ezoom();
    }
    return lens_get_zoom_pos() == lens_get_zoom_min();
}

// Targets within the bounds; an electronic target only when the optical target is the maximum.
void clamp_targets(MotionCommand& c) {
    const uint16_t zmax = lens_get_zoom_max();
    const uint16_t zmin = lens_get_zoom_min();
    if (c.ezoom_target > command_get_max_ezoom())
        c.ezoom_target = command_get_max_ezoom();
    if (c.zoom_target > zmax)
        c.zoom_target = zmax;
    if (c.zoom_target < zmax)
        c.ezoom_target = 0;
    if (c.zoom_target < zmin)
        c.zoom_target = zmin;
    const uint16_t z = lens_get_zoom_pos();
    if (c.zoom_target > z)
        c.zoom_dir = 1;
    if (c.zoom_target < z)
        c.zoom_dir = 0;
}

void track(uint8_t dir, uint8_t speed, uint8_t fallback) {
    zoom_track_step(dir, speed, fallback);
}

void track_latching(uint8_t dir, uint8_t speed, uint8_t fallback) {
    track(dir, speed, fallback);
    if (lens_get_zoom_pos() == lens_get_zoom_max())
        g_teleLatch = 1;
}

void zoom_only(uint8_t dir, uint32_t n) {
    lens_move(dir, static_cast<uint8_t>(n), 0, 0);
}

uint16_t clamp_focus(uint16_t f) {
    if (f < lens_get_focus_min())
        return lens_get_focus_min();
    if (f > lens_get_focus_max())
        return lens_get_focus_max();
    return f;
}

bool focus_at_end(uint8_t focus_dir) {
    const uint16_t f = lens_get_focus_pos();
    return focus_dir != 0 ? f == lens_get_focus_max() : f == lens_get_focus_min();
}

void mode_continuous_zoom(const MotionCommand& c) {
    if (at_end(c.zoom_dir))
        stop();
    const uint8_t n = zoom_steps(c);
    const uint8_t speed = static_cast<uint8_t>(c.zoom_speed + 1);
    if (c.zoom_dir == 1) {
        if (lens_get_zoom_pos() < lens_get_zoom_max()) {
            track_latching(1, speed, n);
        } else if (g_teleLatch) {
            g_teleLatch = 0;
        } else {
            ezoom_step(0, c);
        }
    } else if (command_get_ezoom() > 0) {
        ezoom_step(1, c);
    } else {
        track(c.zoom_dir, speed, n);
    }
}

void mode_zoom_to_target(MotionCommand c) {
    clamp_targets(c);
    const uint16_t z = lens_get_zoom_pos();
    const uint32_t e = command_get_ezoom();
    const uint32_t t = c.ezoom_target;
    if (c.zoom_target == z && t == e)
        stop();
    const uint8_t n = zoom_steps(c);
    const uint8_t speed = static_cast<uint8_t>(c.zoom_speed + 1);
    const uint32_t dist = absdiff(c.zoom_target, z);
    if (t > e) {
        if (dist > n) {
            track_latching(c.zoom_dir, speed, n);
        } else if (c.zoom_target == z) {
            if (g_teleLatch) {
                g_teleLatch = 0;
            } else {
                ezoom_step(2, c);
            }
        } else {
            track_latching(c.zoom_dir, 0, static_cast<uint8_t>(dist));
        }
    } else if (t < e) {
        ezoom_step(3, c);
        if (command_get_ezoom() < 5 && !g_teleLatch) {
            track(c.zoom_dir, speed, n);
            g_teleLatch = 1;
        }
    } else if (dist > n) {
        track(c.zoom_dir, speed, n);
    } else if (dist != 0) {
        track(c.zoom_dir, 0, static_cast<uint8_t>(dist));
        if (lens_get_zoom_pos() == c.zoom_target)
            stop();
    }
}

void mode_blind_zoom(const MotionCommand& c) {
    if (command_autofocus_mode() != 0) {
        stop();
        return;
    }
    if (at_end(c.zoom_dir))
        stop();
    const uint8_t n = zoom_steps(c);
    if (c.zoom_dir == 1) {
        if (lens_get_zoom_pos() < lens_get_zoom_max()) {
            zoom_only(1, n);
        } else {
            ezoom_step(0, c);
        }
    } else if (command_get_ezoom() > 0) {
        ezoom_step(1, c);
    } else {
        zoom_only(c.zoom_dir, n);
    }
}

void mode_blind_zoom_to_target(MotionCommand c) {
    if (command_autofocus_mode() != 0) {
        stop();
        return;
    }
    clamp_targets(c);
    const uint16_t z = lens_get_zoom_pos();
    const uint32_t e = command_get_ezoom();
    const uint32_t t = c.ezoom_target;
    if (c.zoom_target == z && t == e)
        stop();
    const uint8_t n = zoom_steps(c);
    const uint32_t dist = absdiff(c.zoom_target, z);
    if (t > e) {
        if (c.zoom_target != z) {
            zoom_only(c.zoom_dir, n);
        } else {
            ezoom_step(2, c);
        }
    } else if (t < e) {
        ezoom_step(3, c);
    } else if (dist > n) {
        zoom_only(c.zoom_dir, n);
    } else if (dist != 0) {
        zoom_only(c.zoom_dir, dist);
        if (lens_get_zoom_pos() == c.zoom_target)
            stop();
    }
}

void mode_continuous_focus(const MotionCommand& c) {
    if (command_autofocus_mode() != 0 || command_focus_stop_request() == 1) {
        stop();
        return;
    }
    if (focus_at_end(c.focus_dir))
        stop();
    lens_move(0, 0, c.focus_dir, focus_steps(c.focus_speed));
}

void mode_focus_to_target(MotionCommand c) {
    if (command_autofocus_mode() != 0 || command_focus_stop_request() == 1) {
        stop();
        command_clear_focus_stop_request();
        return;
    }
    const uint16_t f = lens_get_focus_pos();
    c.focus_target = clamp_focus(c.focus_target);
    if (c.focus_target > f)
        c.focus_dir = 1;
    if (c.focus_target < f)
        c.focus_dir = 0;
    if (c.focus_target == f)
        stop();
    uint32_t steps = focus_steps(c.focus_speed);
    const uint32_t dist = absdiff(c.focus_target, f);
    if (dist <= steps)
        steps = dist;
    lens_move(0, 0, c.focus_dir, static_cast<uint8_t>(steps));
}

void mode_zoom_and_focus(const MotionCommand& c) {
    if (command_autofocus_mode() != 0) {
        stop();
        command_clear_focus_stop_request();
        return;
    }
    const bool focus_done = command_focus_stop_request() == 1 || focus_at_end(c.focus_dir);
    const bool zoom_done = at_end(c.zoom_dir);
    if (focus_done && zoom_done) {
        stop();
        command_clear_focus_stop_request();
    }
    const uint8_t n = zoom_steps(c);
    const uint8_t fs = focus_steps(c.focus_speed);
    if (!focus_done) {
        if (c.zoom_dir != 0 || command_get_ezoom() == 0) {
            lens_move(c.zoom_dir, n, c.focus_dir, fs);
        } else {
            ezoom_step(1, c);
        }
    } else if (c.zoom_dir != 0) {
        if (lens_get_zoom_pos() < lens_get_zoom_max()) {
            lens_move(c.zoom_dir, n, c.focus_dir, 0);
        } else {
            ezoom_step(0, c);
        }
    } else if (command_get_ezoom() > 0) {
        ezoom_step(1, c);
    } else {
        lens_move(c.zoom_dir, n, c.focus_dir, 0);
    }
}

void mode_zoom_then_focus(MotionCommand c) {
    g_manualFocusMove = 0;
    if (c.ezoom_target > command_get_max_ezoom())
        c.ezoom_target = command_get_max_ezoom();
    const uint16_t f = lens_get_focus_pos();
    const bool reached =
        c.zoom_target == lens_get_zoom_pos() && c.ezoom_target == command_get_ezoom();
    uint32_t fsteps = 0;
    if (reached) {
        c.focus_target = clamp_focus(c.focus_target);
        if (c.focus_target > f)
            c.focus_dir = 1;
        if (c.focus_target < f)
            c.focus_dir = 0;
        if (command_focus_stop_request() == 1) {
            c.focus_target = f;
            command_clear_focus_stop_request();
        }
        fsteps = focus_steps(c.focus_speed);
        const uint32_t dist = absdiff(c.focus_target, f);
        if (dist <= fsteps)
            fsteps = dist;
    }
    clamp_targets(c);
    const uint16_t z = lens_get_zoom_pos();
    uint32_t n = zoom_steps(c);
    const uint32_t dist = absdiff(c.zoom_target, z);
    if (dist < n)
        n = dist;
    const uint32_t e = command_get_ezoom();
    const uint32_t t = c.ezoom_target;
    if (c.zoom_target == z && t == e && c.focus_target == f) {
        stop();
        zoom_track_clear_active();
    }
    if (t > e) {
        if (c.zoom_target != z) {
            track(c.zoom_dir, 0, static_cast<uint8_t>(n));
        } else {
            ezoom_step(2, c);
        }
    } else if (t < e) {
        ezoom_step(3, c);
    } else if (reached) {
        lens_move(c.zoom_dir, static_cast<uint8_t>(n), c.focus_dir, static_cast<uint8_t>(fsteps));
    } else {
        track(c.zoom_dir, 0, static_cast<uint8_t>(n));
    }
}

void mode_ezoom_to_target(const MotionCommand& c) {
    const uint32_t e = command_get_ezoom();
    if (lens_get_zoom_pos() == lens_get_zoom_max() && e != c.ezoom_target) {
        ezoom_step(e < c.ezoom_target ? 2 : 3, c);
    } else {
        stop();
    }
}

}  // namespace

static void execute_mode(const MotionCommand& cmd);

void ezoom_step(uint8_t kind, const MotionCommand& cmd) {
    const uint32_t e = command_get_ezoom();
    const uint32_t t = cmd.ezoom_target;
    switch (kind) {
        case 0: {
            const uint32_t emax = command_get_max_ezoom();
            command_set_ezoom(e + kEzoomStep < emax ? e + kEzoomStep : emax);
            break;
        }
        case 1:
            command_set_ezoom(e > kEzoomStep ? e - kEzoomStep : 0);
            break;
        case 2:
            if (e + kEzoomStep > t) {
                command_set_ezoom(t);
                stop();
            } else {
                command_set_ezoom(e + kEzoomStep);
            }
            break;
        case 3:
            // Out towards the target: the last step lands on it.
            if (e < t + kEzoomStep) {
                command_set_ezoom(t);
            } else {
                command_set_ezoom(e - kEzoomStep);
            }
            break;
        default:
            break;
    }
}

void motion_execute(const MotionCommand& cmd) {
    execute_mode(cmd);
    // A finished motion forgets its tracking set-up: the next zoom picks the curve through the
    // focus position as it is then (after autofocus has had its say), instead of carrying on with
    // the curve of a motion that ended long ago.
    if (command_zoom_motion_active() == 0)
        zoom_track_clear_active();
}

static void execute_mode(const MotionCommand& cmd) {
    switch (cmd.mode) {
        case 0:
            mode_continuous_zoom(cmd);
            break;
        case 1:
            mode_zoom_to_target(cmd);
            break;
        case 2:
            mode_blind_zoom(cmd);
            break;
        case 3:
            mode_blind_zoom_to_target(cmd);
            break;
        case 4:
            mode_continuous_focus(cmd);
            break;
        case 5:
            mode_focus_to_target(cmd);
            break;
        case 6:
            mode_zoom_and_focus(cmd);
            break;
        case 7:
            mode_zoom_then_focus(cmd);
            break;
        case 12:
            mode_ezoom_to_target(cmd);
            break;
        default:
            break;
    }
}

uint8_t motion_tele_latch() {
    return g_teleLatch;
}
void motion_reset_for_testing() {
    g_teleLatch = 0;
}
