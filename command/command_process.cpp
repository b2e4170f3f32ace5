#include "command/command_process.h"

#include <cstring>

namespace {

struct CommandState {
    volatile uint8_t zoom_motion_active = 0;
    volatile uint8_t calibration_mode = 0;
    volatile uint8_t autofocus_mode = 0;
    uint8_t homing_error = 1;
    MotionCommand motion{};
    char status_text[128] = {};
};

CommandState g_cmd;

}  // namespace

void command_sockets_open() {}

void command_state_init() {
    g_cmd.motion = MotionCommand{};
    g_cmd.motion.focus_speed = 7;
    g_cmd.motion.zoom_speed = 7;
    g_cmd.motion.autofocus_mode = 1;
    g_cmd.motion.zone_type = 2;
    g_cmd.motion.region = 3;
    g_cmd.autofocus_mode = 1;
    g_cmd.homing_error = 1;
    // The motion executor is not built yet, so the start-up motion is not armed here: nothing
    // would ever end it.
}

int command_thread_start() {
    return 0;
}

uint8_t command_zoom_motion_active() {
    return g_cmd.zoom_motion_active;
}
void command_set_zoom_motion_active(uint8_t on) {
    g_cmd.zoom_motion_active = on;
}
MotionCommand command_motion_copy() {
    return g_cmd.motion;
}

uint8_t command_calibration_mode() {
    return g_cmd.calibration_mode;
}
void command_set_calibration_mode(uint8_t mode) {
    g_cmd.calibration_mode = mode;
}

uint8_t command_autofocus_mode() {
    return g_cmd.autofocus_mode;
}
void command_set_autofocus_mode(uint8_t mode) {
    g_cmd.autofocus_mode = mode;
}

void command_set_homing_error(uint8_t error) {
    g_cmd.homing_error = error;
}
uint8_t command_homing_error() {
    return g_cmd.homing_error;
}

void command_set_status_text(const char* text) {
    std::strncpy(g_cmd.status_text, text, sizeof g_cmd.status_text - 1);
    g_cmd.status_text[sizeof g_cmd.status_text - 1] = '\0';
}
const char* command_status_text() {
    return g_cmd.status_text;
}

void command_publish_positions() {}
