// Hooks of the autofocus parts that build on the core search: distance assist, highlight
// (point-light) scenes, tracking-region focus, the focused watch and the block-level region
// logic. The search calls them where they act; each is kept to the neutral behaviour of a
// daylight scene with no distance input, no tracker and no point lights, so that the core search
// runs end to end and the full rules can replace these bodies one by one.
#pragma once

#include <cstdint>

#include "isp/af_stat.h"

// ---- Distance assist and window refresh ----
// 1 while every AF window reports to the ISP (the distance assist needs the full mask).
extern uint8_t g_fullMaskFlag;
// Current object distance (8192 = unknown) and the distance remembered at the search start.
extern uint16_t g_currentDistance;
extern uint16_t g_distanceAtStart;
// 1 when distance assist is switched on and usable.
uint8_t distance_assist_active();
// Focus position the current distance should be in focus at.
uint16_t expected_focus_now();
// Refills the five window-history rows from the statistics frame ring over the zone's blocks
// (outer blocks always included, excluded blocks never).
void refill_window_history(uint32_t rows[5][kWindowCount]);
void distance_assist_refresh();

// ---- Highlight (point-light) scenes ----
// Set to the detail test at every search start: the scene has detail outside its lights.
extern uint8_t g_pointLightZone;
extern uint8_t g_detailTestOn;
extern uint8_t g_zoneChoiceArmed;
extern uint8_t g_pointLightStartMarker;
extern uint8_t g_plSeriesArmed;
extern uint8_t g_plNoDetail;
uint8_t SceneHasDetail();
bool IsDarkFlat(const uint32_t* grid225);
void PointLightRecord(uint8_t add);
void PrepareWatch();
void ChooseStartZone();
void RefineStartZone();
void point_light_rearm_watch(uint8_t chances);
void point_light_clear_series();

// ---- Tracking-region focus ----
extern uint8_t g_trackLock;
extern uint8_t g_triggerKind;
extern uint8_t g_zoneResetCountdown;
void ResetTrackBounds();
void PushRestartReason(uint32_t reason);
bool AllReasonsTwo();

// ---- Focused watch ----
extern uint8_t g_watchBegun;
extern uint8_t g_changedDuringSearch;
extern uint8_t g_motionHint;
extern uint8_t g_hintAtSettle;
extern uint8_t g_lumaCheckArmed;
extern uint16_t g_focusedRange[3];  // lowest, highest, last position at which the watch began
void FocusWatch(uint8_t focused);
void focused_range_reset();
void watch_set_reference_windows();
void watch_clear_reference_mask();

// ---- Block peak map, region search and region checks ----
extern uint8_t g_dirHold;
extern uint8_t g_regionCollapseCount;
extern uint8_t g_regionCount2;
void update_peak_map(uint8_t mode);
void unlocked_region_check();
void locked_region_check();
void start_region_search();
void region_search(uint8_t run);
// Decides the end of a final approach in the block path: ends the search focused, or narrows
// the zone to the centre and starts again.
void confirm_centre_region();

void af_seams_reset_for_testing();
