#include "lens_api/lens_position.h"

#include <cstdio>

namespace {

constexpr uint16_t kDefaultFocusHome = 2400;

struct LensPosition {
    volatile uint16_t zoom = 0;
    volatile uint16_t focus = 0;
    uint8_t zoom_dir = 0;
    uint8_t focus_dir = 0;
    uint16_t focus_home = kDefaultFocusHome;
    uint16_t focus_min = 0;
    uint16_t zoom_min = 0;
    uint16_t zoom_max = 6624;
    uint16_t focus_max = 6120;
    uint8_t focus_backlash = 2;
    uint8_t zoom_backlash = 1;
};

LensPosition g_lens;

}  // namespace

void lens_apply_parameters() {}

uint16_t lens_get_zoom_pos() {
    return g_lens.zoom;
}
uint16_t lens_get_focus_pos() {
    return g_lens.focus;
}
void lens_set_positions(uint16_t zoom, uint16_t focus) {
    g_lens.zoom = zoom;
    g_lens.focus = focus;
}
void lens_clear_directions() {
    g_lens.zoom_dir = 0;
    g_lens.focus_dir = 0;
}
uint16_t lens_get_focus_home() {
    return g_lens.focus_home;
}
uint16_t lens_get_zoom_min() {
    return g_lens.zoom_min;
}
uint16_t lens_get_zoom_max() {
    return g_lens.zoom_max;
}
uint16_t lens_get_focus_min() {
    return g_lens.focus_min;
}
uint16_t lens_get_focus_max() {
    return g_lens.focus_max;
}

void lens_set_focus_backlash(uint8_t steps) {
    g_lens.focus_backlash = steps;
    std::printf("focus offset %d\n", steps);
    std::fflush(stdout);
}
void lens_set_zoom_backlash(uint8_t steps) {
    g_lens.zoom_backlash = steps;
    std::printf("zoom offset %d\n", steps);
    std::fflush(stdout);
}
uint8_t lens_get_focus_backlash() {
    return g_lens.focus_backlash;
}
uint8_t lens_get_zoom_backlash() {
    return g_lens.zoom_backlash;
}
