// Scene analysis: change analysis of the block grids against the reference captured at focus.
//
// Autofocus hands the analyzer its reference when a search ends and reads back one SceneResult
// per focused frame. The grid model, labelling and object tracking that fill the result come
// later; until then the result stays at its neutral values (no decision, no object event), which
// makes every autofocus rule that depends on it take its plain path.
#pragma once

#include <cstdint>

#include "isp/af_stat.h"

// Object event codes.
inline constexpr uint32_t kObjectIn = 0;
inline constexpr uint32_t kObjectOut = 1;
inline constexpr uint32_t kObjectShake = 2;
inline constexpr uint32_t kObjectOutEn = 3;
inline constexpr uint32_t kObjectConFar = 4;
inline constexpr uint32_t kObjectNon = 5;

struct SceneResult {
    uint8_t decision = 0;  // 1: the analysis asks for a new search
    uint8_t pending = 0;   // a decision is being prepared
    uint32_t event = kObjectNon;
    uint8_t region[kGridBlocks] = {};  // blocks of the changed region
};

extern SceneResult g_sceneResult;

// Clears the whole result (no decision, no region, event OBJECTNON).
void scene_clear_result();
// Forgets the tracked objects and their events.
void scene_clear_events();
// Captures the focus reference (block sharpness and luma grids at focus).
void scene_capture_reference(const uint32_t* sharpness225, const uint32_t* luma225);
