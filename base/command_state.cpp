#include "base/command_state.h"

#include <atomic>
#include <cstring>
#include <mutex>

namespace {

struct CommandSettings {
    std::atomic<uint8_t> zoom_motion_active{0};
    std::atomic<uint8_t> calibration_mode{0};
    std::atomic<uint8_t> autofocus_mode{0};
    std::atomic<uint8_t> pt_moving{0};
    std::atomic<uint8_t> focus_stop{0};
    std::atomic<uint16_t> ezoom_enable{1};
    std::atomic<uint32_t> ezoom_current{0};
    std::atomic<uint16_t> max_ezoom{0};
    std::atomic<uint8_t> window_preset{3};
    void (*ezoom_notifier)(uint16_t) = nullptr;
    std::mutex status_lock;
    char status_text[kStatusTextSize + 1] = {};  // always terminated
};

CommandSettings g_settings;

}  // namespace

uint8_t command_zoom_motion_active() {
    return g_settings.zoom_motion_active;
}
void command_set_zoom_motion_active(uint8_t on) {
    g_settings.zoom_motion_active = on;
}

uint8_t command_calibration_mode() {
    return g_settings.calibration_mode;
}
void command_set_calibration_mode(uint8_t mode) {
    g_settings.calibration_mode = mode;
}

void command_end_calibration(uint8_t mode) {
    uint8_t expected = mode;
    g_settings.calibration_mode.compare_exchange_strong(expected, 0);
}

void command_set_status_text(const char* text) {
    std::lock_guard<std::mutex> lock(g_settings.status_lock);
    std::memset(g_settings.status_text, 0, sizeof g_settings.status_text);
    if (text != nullptr)
        std::strncpy(g_settings.status_text, text, kStatusTextSize);
}
void command_copy_status_text(char* out) {
    std::lock_guard<std::mutex> lock(g_settings.status_lock);
    std::memcpy(out, g_settings.status_text, kStatusTextSize);
}
const char* command_status_text() {
    return g_settings.status_text;
}

uint8_t command_autofocus_mode() {
    return g_settings.autofocus_mode;
}
void command_set_autofocus_mode(uint8_t mode) {
    g_settings.autofocus_mode = mode;
}

uint8_t command_pt_moving() {
    return g_settings.pt_moving;
}
void command_set_pt_moving(uint8_t on) {
    g_settings.pt_moving = on;
}
uint8_t command_focus_stop_request() {
    return g_settings.focus_stop;
}
void command_set_focus_stop_request() {
    g_settings.focus_stop = 1;
}
void command_clear_focus_stop_request() {
    g_settings.focus_stop = 0;
}

void command_set_ezoom(uint32_t value) {
    if (g_settings.ezoom_enable == 0)
        return;
    if (value > kMaxEzoom)
        value = kMaxEzoom;
    if (value != g_settings.ezoom_current && g_settings.ezoom_notifier != nullptr)
        g_settings.ezoom_notifier(static_cast<uint16_t>(value));
    g_settings.ezoom_current = value;
}
uint32_t command_get_ezoom() {
    return g_settings.ezoom_current;
}
uint16_t command_get_max_ezoom() {
    return g_settings.max_ezoom;
}
void command_set_max_ezoom(uint16_t value) {
    if (value > kMaxEzoom)
        value = kMaxEzoom;
    if (value < g_settings.ezoom_current)
        command_set_ezoom(value);
    g_settings.max_ezoom = value;
}
uint16_t command_get_ezoom_enable() {
    return g_settings.ezoom_enable;
}
void command_set_ezoom_enable(uint16_t on) {
    g_settings.ezoom_enable = on;
}
void command_reset_ezoom() {
    g_settings.ezoom_current = 0;
    g_settings.max_ezoom = 0;
}
void command_set_ezoom_notifier(void (*notify)(uint16_t value)) {
    g_settings.ezoom_notifier = notify;
}

uint8_t get_window_preset() {
    return g_settings.window_preset;
}
void set_window_preset(uint8_t preset) {
    g_settings.window_preset = preset;
}
