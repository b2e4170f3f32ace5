// Hooks of the autofocus parts that build on the core search: highlight (point-light) scenes,
// the focused watch and the block-level region logic. The search calls them where they act; each
// is kept to the neutral behaviour of a daylight scene with no point lights, so that the core
// search runs end to end and the full rules can replace these bodies one by one. (Distance
// assist: af/distance_assist.h; tracking-region focus: af/track_region.h.)
#pragma once

#include <cstdint>

#include "af/focus_watch.h"
#include "isp/af_stat.h"
#include "tracking/distance_table.h"

// What the hooks below keep between frames, outside the focused watch (WatchState).
struct SeamState {
    // Distance assist: 1 while every AF window reports to the ISP (the distance assist needs the
    // full mask); the current object distance and the distance remembered at the search start.
    uint8_t fullMaskFlag = 1;
    uint16_t currentDistance = kDistanceUnknown;
    uint16_t distanceAtStart = kDistanceUnknown;
    // The object distance when the picture was last focused (the focused watch records it).
    uint16_t distanceAtLastFocus = kDistanceUnknown;
    // The search ended by jumping to the position of the current distance (a flat scene).
    uint8_t jumped = 0;
    // Highlight scenes. pointLightZone is set to the detail test at every search start: the scene
    // has detail outside its lights.
    uint8_t pointLightZone = 1;
    uint8_t detailTestOn = 1;
    uint8_t zoneChoiceArmed = 0;
    uint8_t pointLightStartMarker = 0;
    uint8_t plSeriesArmed = 0;
    uint8_t plNoDetail = 0;
    // Lets the start-zone choice take a weak centre window by its IIR2 response once; set by
    // the restarts after a zoom, a request or a pan/tilt movement.
    uint8_t centreChance = 0;
    // Tracking-region focus, and the last three restart reasons, newest first.
    uint8_t trackLock = 0;
    uint8_t triggerKind = 0;
    uint8_t zoneResetCountdown = 0;
    uint32_t reasons[3] = {5, 5, 5};
    // Block peak map, region search and region checks.
    uint8_t dirHold = 0;
    uint8_t regionCollapseCount = 0;
    uint8_t regionCount2 = 0;
};
extern SeamState g_seams;
// Back to the power-on values.
void seam_state_reset();

// ---- Highlight (point-light) scenes ----
uint8_t SceneHasDetail();
bool IsDarkFlat(const uint32_t* grid225);
void PointLightRecord(uint8_t add);
void PrepareWatch();
void ChooseStartZone();
// The zone a search starts with, from the picture as it is now (af/start_zone.cpp).
void RefineStartZone();
// A zone for a scene with detail: every window without lights in the normal statistics mode; in
// low light the point-light rules below choose it.
void PointLightStartZone();
void point_light_start_zone_low_light();
void point_light_rearm_watch(uint8_t chances);
void point_light_clear_series();

// ---- Focused watch ----
// The watch itself is af/focus_watch.h; the watch's calls into the parts above that are not
// built yet are these.
// Point-light exposure watch, run on the watch's frames before the rest of the watch.
void point_light_exposure_watch();
// Uses one of the point-light watch's chances to restart on an exposure change; 0: none left.
uint8_t point_light_take_chance();
// 1 when the search just ended through the region search.
uint8_t ended_by_region_search();

// ---- Block peak map, region search and region checks ----
void update_peak_map(uint8_t mode);
// Peak-map state of a block: 0 none, 1 peak found, 2 peak above, 3 peak below.
uint8_t peak_map_state(int block);
void unlocked_region_check();
void locked_region_check();
void start_region_search();
void region_search(uint8_t run);
// Enters phase 8 from where the lens is: remembers the phase and direction to give back,
// prepares the zone and resets the search.
void enter_region_search();
// Decides the end of a final approach in the block path: ends the search focused, or narrows
// the zone to the centre and starts again.
void confirm_centre_region();

void af_seams_reset_for_testing();
