#include "af/focus_zone.h"

#include <cstring>

#include "isp/highlight.h"

FocusZone g_focusZone;

volatile uint8_t g_zoneType = 2;
uint8_t g_blockPath = 1;
uint8_t g_windowAverage = 0;
uint8_t g_pointLightMeasure = 0;
uint8_t g_presetFlag = 1;

namespace {

struct WindowPreset {
    uint8_t number = 3;
    uint32_t digital_zoom = 0;
    uint8_t flags[kWindowCount] = {};
    uint8_t first = 5;
    uint8_t last = 20;
    bool built = false;
};

WindowPreset g_preset;

constexpr uint8_t kInner[9] = {6, 7, 8, 11, 12, 13, 16, 17, 18};

void build_preset() {
    g_preset.built = true;
    std::memset(g_preset.flags, 0, sizeof g_preset.flags);
    switch (g_preset.number) {
        case 0:
            g_preset.first = 0;
            g_preset.last = 15;
            for (int z = 0; z < 15; ++z)
                g_preset.flags[z] = 1;
            break;
        case 2:
            g_preset.first = 10;
            g_preset.last = 25;
            for (int z = 10; z < 25; ++z)
                g_preset.flags[z] = 1;
            break;
        default:  // 1 and 3
            g_preset.first = 5;
            g_preset.last = 20;
            for (uint8_t z : kInner)
                g_preset.flags[z] = 1;
            break;
    }
    // A digital zoom crops the picture: only the middle of the sensor is seen.
    if (g_preset.digital_zoom > 431) {
        std::memset(g_preset.flags, 0, sizeof g_preset.flags);
        g_preset.flags[12] = 1;
    } else if (g_preset.digital_zoom >= 1) {
        std::memset(g_preset.flags, 0, sizeof g_preset.flags);
        for (uint8_t z : kInner)
            g_preset.flags[z] = 1;
    }
}

void sync_preset() {
    const uint8_t written = get_window_preset();
    const uint8_t requested = written > 3 ? 1 : written;
    if (requested != g_preset.number) {
        g_preset.number = requested;
        g_blockPath = requested == 3 ? 1 : 0;
        build_preset();
    } else if (!g_preset.built) {
        build_preset();
    }
}

}  // namespace

FocusZone::FocusZone() {
    std::memset(blockMask, 1, sizeof blockMask);
}

void FocusZone::reset_block_mask() {
    std::memset(blockMask, 1, sizeof blockMask);
}

void FocusZone::clear_window_mask() {
    std::memset(windowMask, 0, sizeof windowMask);
}

void FocusZone::set_window(uint8_t index, uint8_t weight) {
    if (index < kWindowCount)
        windowMask[index] = weight;
}

void FocusZone::set_windows(const uint8_t* list25) {
    std::memcpy(windowMask, list25, sizeof windowMask);
}

void FocusZone::copy_block_mask_in(const uint8_t* mask) {
    std::memcpy(blockMask, mask, sizeof blockMask);
}

void FocusZone::copy_block_mask_out(uint8_t* mask) const {
    std::memcpy(mask, blockMask, sizeof blockMask);
}

void FocusZone::windows_from_block_mask(const uint8_t* mask) {
    for (int z = 0; z < kWindowCount; ++z) {
        const int r0 = (z / 5) * 3;
        const int c0 = (z % 5) * 3;
        uint8_t any = 0;
        for (int r = r0; r < r0 + 3; ++r)
            for (int c = c0; c < c0 + 3; ++c)
                if (mask[r * kGridCols + c] == 1)
                    any = 1;
        windowMask[z] = any;
    }
}

void FocusZone::select_list(const uint8_t* indices, uint8_t n, const uint8_t* weights,
                            uint8_t nweights, bool clear_first) {
    if (clear_first)
        clear_window_mask();
    for (uint8_t i = 0; i < n; ++i)
        set_window(indices[i], i < nweights ? weights[i] : 1);
}

uint32_t FocusZone::window_bits() const {
    uint32_t bits = 0;
    for (int z = 0; z < kWindowCount; ++z)
        if (windowMask[z] != 0)
            bits |= 1u << z;
    return bits;
}

uint8_t FocusZone::selected_count() const {
    uint8_t n = 0;
    for (uint8_t w : windowMask)
        if (w != 0)
            ++n;
    return n;
}

const uint8_t* window_preset_flags() {
    sync_preset();
    return g_preset.flags;
}
uint8_t window_preset_first() {
    sync_preset();
    return g_preset.first;
}
uint8_t window_preset_last() {
    sync_preset();
    return g_preset.last;
}

void window_preset_rebuild(uint32_t digital_zoom) {
    sync_preset();
    if (digital_zoom != g_preset.digital_zoom) {
        g_preset.digital_zoom = digital_zoom;
        build_preset();
    }
}

void focus_zone_reset_for_testing() {
    g_focusZone = FocusZone();
    g_zoneType = 2;
    g_blockPath = 1;
    g_windowAverage = 0;
    g_pointLightMeasure = 0;
    g_presetFlag = 1;
    set_window_preset(3);
    g_preset = WindowPreset();
    build_preset();
    highlight_set_block_weights(g_focusZone.blockMask);
}
