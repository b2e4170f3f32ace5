#include "af/af_seams.h"

#include "af/af_state.h"
#include "af/focus_zone.h"
#include "base/frame_pacing.h"
#include "isp/frame_history.h"
#include "isp/isp_link.h"
#include "lens_api/lens_position.h"
#include "tracking/distance_table.h"

SeamState g_seams;

void seam_state_reset() {
    g_seams = SeamState{};
}

// ---- Distance assist and window refresh ----
uint8_t distance_assist_active() {
    return get_distance_assist_mode() == 1 && g_seams.fullMaskFlag == 1 &&
           g_seams.currentDistance != kDistanceUnknown;
}

uint16_t expected_focus_now() {
    return expected_focus(g_seams.currentDistance);
}

void refill_window_history(uint32_t rows[5][kWindowCount]) {
    // The zone's blocks, without the latched lights; the outer ring of blocks always counts, so a
    // subject that leaves the middle still registers in the border windows.
    uint8_t selection[kGridBlocks];
    const bool keep_zone = get_tracking_on() != 0 && g_seams.triggerKind == 2;
    for (int b = 0; b < kGridBlocks; ++b) {
        const int r = b / kGridCols;
        const int c = b % kGridCols;
        selection[b] = g_focusZone.blockMask[b];
        if (g_focusValue.excludedMask[b] != 0)
            selection[b] = 0;
        else if ((r < 3 || r > 11 || c < 3 || c > 11) && !keep_zone)
            selection[b] = 1;
    }
    const uint8_t kind = get_statistics_mode() == 0 ? 5 : 4;
    for (uint8_t k = 0; k < 5; ++k)
        fh_past_window_averages(rows[k], selection, kind, k);
}

void distance_assist_refresh() {}

uint8_t centre_has_signal() {
    return 0;
}

// ---- Highlight (point-light) scenes ----
uint8_t SceneHasDetail() {
    return 1;
}
bool IsDarkFlat(const uint32_t*) {
    return false;
}
void PointLightRecord(uint8_t) {}
void ChooseStartZone() {}
void point_light_start_zone_low_light() {}
void point_light_rearm_watch(uint8_t) {}
void point_light_clear_series() {}

// ---- Tracking-region focus ----
void ResetTrackBounds() {}

void PushRestartReason(uint32_t reason) {
    g_seams.reasons[2] = g_seams.reasons[1];
    g_seams.reasons[1] = g_seams.reasons[0];
    g_seams.reasons[0] = reason;
}

bool AllReasonsTwo() {
    return g_seams.reasons[0] == 2 && g_seams.reasons[1] == 2 && g_seams.reasons[2] == 2;
}

// ---- Focused watch ----
uint8_t watch_distance_check() {
    return 0;
}
void watch_jump_check() {}
void point_light_exposure_watch() {}
uint8_t point_light_take_chance() {
    return 0;
}
uint8_t ended_by_region_search() {
    return 0;
}
void tracking_region_bounds(uint8_t* r0, uint8_t* r1, uint8_t* c0, uint8_t* c1) {
    *r0 = 4;
    *r1 = 11;
    *c0 = 4;
    *c1 = 11;
}

// ---- Block peak map, region search and region checks ----
void update_peak_map(uint8_t) {}
uint8_t peak_map_state(int) {
    return 0;
}
void unlocked_region_check() {}
void locked_region_check() {}
void start_region_search() {}
void region_search(uint8_t) {}

void confirm_centre_region() {
    g_search.hitLower = 0;
    g_search.hitUpper = 0;
    g_afState = 2;
}

void af_seams_reset_for_testing() {
    seam_state_reset();
    watch_state_reset();
    focused_range_reset();
}
