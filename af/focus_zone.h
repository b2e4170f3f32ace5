// Focus zone: which of the 5 x 5 AF windows (and which of the 225 blocks) the focus value is
// measured over, and with what weights. The control software picks the zone type and a window
// preset; autofocus chooses the zone at a search start and refines it from the scene.
//
// Windows are groups of 3 x 3 blocks; window (r, c) has index r x 5 + c, window 12 is the centre
// and windows 6, 7, 8, 11, 12, 13, 16, 17, 18 the inner ring. A border window has r or c at 0 or 4.
#pragma once

#include <cstdint>

#include "base/command_state.h"
#include "isp/af_stat.h"

struct FocusZone {
    uint8_t enabled = 1;
    uint8_t windowMask[kWindowCount] = {};
    uint8_t blockMask[kGridBlocks];
    FocusZone();

    void reset_block_mask();
    void clear_window_mask();
    void set_window(uint8_t index, uint8_t weight);
    void set_windows(const uint8_t* list25);
    void copy_block_mask_in(const uint8_t* mask225);
    void copy_block_mask_out(uint8_t* mask225) const;
    // A window is set when any of its 9 blocks is 1.
    void windows_from_block_mask(const uint8_t* mask225);
    // Selects the listed windows (weight 1 beyond the weight list), optionally clearing first.
    void select_list(const uint8_t* indices, uint8_t n, const uint8_t* weights, uint8_t nweights,
                     bool clear_first);
    // Bit i set when window i is selected.
    uint32_t window_bits() const;
    uint8_t selected_count() const;
};

extern FocusZone g_focusZone;

// Zone type 1..3 (start-up 2). Type 3 weights the inner windows more and turns off the block path
// and the zone refinement.
extern volatile uint8_t g_zoneType;

// 1: the focus value is taken over the zone's blocks instead of its windows.
extern uint8_t g_blockPath;
// 1: plain average of the selected windows.
extern uint8_t g_windowAverage;
// Point-light measurement: 0 normal; 1 frame highlight value in every window; 2 the mean window
// highlight value of the selected windows in every window.
extern uint8_t g_pointLightMeasure;
// 1 while the window preset limits the zone (low light); 0 lets every window take part.
extern uint8_t g_presetFlag;

// The window preset number (get_window_preset, set_window_preset) is the command channel's
// setting, in base/command_state.h; the preset's windows are built here from it.
// 25 window flags of the preset, and its window range [first, last).
const uint8_t* window_preset_flags();
uint8_t window_preset_first();
uint8_t window_preset_last();
// Rebuilds the preset for a digital zoom level (0 = none).
void window_preset_rebuild(uint32_t digital_zoom);

inline bool is_inner_window(int z) {
    const int r = z / 5;
    const int c = z % 5;
    return r >= 1 && r <= 3 && c >= 1 && c <= 3;
}

// Power-on state (tests).
void focus_zone_reset_for_testing();
