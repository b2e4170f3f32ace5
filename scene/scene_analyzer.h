// Scene analysis: change analysis of the block grids against the reference captured at focus.
//
// Autofocus hands the analyzer its reference when a search ends (capture_reference) and, on
// every monitoring frame, the current grids (scene_step). The analyzer answers whether the
// picture changed enough to need a new search, and where. It lives below autofocus: whatever it
// needs to know of the autofocus state comes in through the SceneContext that autofocus fills
// before each call, and what it asks of autofocus goes back through SceneContext's out fields.
#pragma once

#include <cstdint>

#include "isp/af_stat.h"
#include "scene/scene_types.h"

// Object event codes.
inline constexpr uint32_t kObjectIn = 0;
inline constexpr uint32_t kObjectOut = 1;
inline constexpr uint32_t kObjectShake = 2;
inline constexpr uint32_t kObjectOutEn = 3;
inline constexpr uint32_t kObjectConFar = 4;
inline constexpr uint32_t kObjectNon = 5;

// Decision codes of scene_step and reference_sharpness_check.
inline constexpr uint32_t kSceneNothing = 0;
inline constexpr uint32_t kSceneRefocus = 1;
inline constexpr uint32_t kSceneReport = 2;  // refocus, with region and event in SceneResult

// What autofocus owns and scene analysis fills.
struct SceneResult {
    uint8_t pending = 0;   // the report region passed its region tests
    uint8_t decision = 0;  // 1: the analysis asks for a new search
    uint8_t busy = 0;      // a trigger threshold is above its busy limit
    uint32_t event = kObjectNon;
    uint8_t region[kGridBlocks] = {};   // blocks autofocus should focus on
    uint8_t changed[kGridBlocks] = {};  // blocks found changed against the reference
    uint32_t sharpnessMeans[4] =
        {};                   // reference centre, current centre, reference whole, current whole
    ComponentSet components;  // the newest accepted motion components (object map, centroid)
    TrackedObject target;     // the object the report is about
};

extern SceneResult g_sceneResult;

// Filled by autofocus when a search completes.
struct FocusReference {
    uint8_t flag = 0;
    uint8_t windowMask[kWindowCount] = {};
    uint32_t windowValues[kWindowCount] = {};
    uint32_t sharpness[kGridBlocks] = {};
    uint32_t luma[kGridBlocks] = {};
    uint16_t focusPosition = 0;
    uint16_t distance = 8192;  // 8192: no distance
    uint16_t windowRecord[3] = {};
    uint8_t blockMask[kGridBlocks] = {};  // blocks autofocus marked as the subject
};

// One monitoring frame's grids.
struct SceneInput {
    uint32_t kind = 4;
    uint32_t sharpness[kGridBlocks] = {};  // (first + second filter word) / 2 + 50
    uint8_t windowData[100] = {};          // not read by scene analysis
    uint32_t luma[kGridBlocks] = {};
};

// The autofocus state scene analysis reads, filled by autofocus before each call, and the
// requests it hands back.
struct SceneContext {
    // In.
    uint8_t searchPhase = 0;        // 9: the last search finished
    uint8_t pointLightMeasure = 0;  // a point-light measure is running
    uint8_t motionHint = 0;
    uint8_t distanceAssist = 0;  // distance assist switched on and not overridden
    uint16_t distance = 8192;    // current object distance, 8192 unknown
    uint16_t distanceMargin = 4;
    uint16_t lowerBound = 0;  // search bounds
    uint16_t upperBound = 0;
    uint8_t trackingOn = 0;
    uint8_t lastSearchNoPeak = 0;  // the last search ended without a peak
    // Distance-assist tests of autofocus; null while they are not available (answer 0).
    uint8_t (*distanceStillValid)(uint16_t atCapture, uint16_t now) = nullptr;
    uint8_t (*distanceTrend)(uint8_t frames) = nullptr;
    // Out.
    uint8_t refreshReport = 0;  // the last report was a timed refresh: refocus cause 2
};

extern SceneContext g_sceneContext;

// Clears the whole result (no decision, no region, event OBJECTNON).
void scene_clear_result();
// Forgets the tracked objects and their events.
void scene_clear_events();
// Takes a new focus reference and resets the decision state.
void capture_reference(const FocusReference& ref);
// One monitoring frame: kSceneNothing, kSceneRefocus or kSceneReport (result filled).
uint32_t scene_step(SceneResult& result, const SceneInput& in);
// Whether the blocks of the reference still peak at the focus position: kSceneRefocus (1, stay)
// or kSceneReport (2, refocus).
uint32_t reference_sharpness_check(const FocusReference& ref);
// Back to the power-on state (tests).
void scene_reset();
// Largest relative sharpness spread the transient-change check has seen since the capture (the
// focused watch reads it).
float scene_sharpness_drop_max();
