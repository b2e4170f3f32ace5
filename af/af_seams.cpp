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

// ---- Focused watch ----
void point_light_exposure_watch() {}
uint8_t point_light_take_chance() {
    return 0;
}
uint8_t ended_by_region_search() {
    return 0;
}

// ---- Block peak map, region search and region checks ----
void update_peak_map(uint8_t) {}
uint8_t peak_map_state(int) {
    return 0;
}
void unlocked_region_check() {}
void locked_region_check() {}
void start_region_search() {}
// Until the region search exists, a search handed to it (the lens already driven to the
// distance's position) goes on as a fine scan from there.
void region_search(uint8_t) {
    g_search.searchPhase = 3;
}

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
