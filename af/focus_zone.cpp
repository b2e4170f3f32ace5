#include "af/focus_zone.h"

volatile uint8_t g_zoneType = 2;

namespace {
volatile uint8_t g_windowPreset = 3;
}

uint8_t get_window_preset() {
    return g_windowPreset;
}
void set_window_preset(uint8_t preset) {
    g_windowPreset = preset;
}
