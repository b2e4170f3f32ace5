// Focused watch: once a search has ended, the watch lets the picture settle, hands the scene
// analysis its reference, and from then on decides on every focused AF frame whether the picture
// is still in focus: by the scene decision, by the reference-sharpness check, or by a small
// wobble of the focus lens around its position. When focus is lost it restarts the search.
//
// Main thread only, inside AfFrame.
#pragma once

#include <cstdint>

#include "isp/af_stat.h"

struct FocusReference;
struct SceneInput;
struct SceneResult;

struct WatchState {
    uint8_t watchBegun = 0;  // the first focused frame has been handled
    // The luma of the picture changed while the search ran (in the selected windows); with the
    // window preset off this also asks the next decision for a new search (recheck).
    uint8_t changedDuringSearch = 0;
    uint8_t recheck = 0;
    // Something moved: decide by the focus itself (wobble or reference sharpness), not by the
    // scene's change analysis. hintAtSettle raises it at the end of the settle period.
    uint8_t motionHint = 0;
    uint8_t hintAtSettle = 0;
    uint8_t lumaCheckArmed = 0;
    uint16_t focusedRange[3] = {};  // lowest, highest, last position at which the watch began

    uint16_t watchFrames = 0;
    uint8_t settleFrames = 12;
    uint8_t lowTextureFrames = 0;
    uint8_t watchSkip = 0;
    uint8_t wobbleStage = 0;
    // Frames a point-light scene waits at focus before it is watched.
    uint8_t plSettle = 0;
    // Distance margin of the distance assist at this focus (zoom / 512 within 4..8).
    uint16_t distanceMargin = 5;
    uint16_t focusPosition = 0;
    // The monitoring reference windows, and what was kept at focus.
    uint32_t refWindows[kWindowCount] = {};
    uint8_t windowMask[kWindowCount] = {};
    uint8_t refBlockMask[kGridBlocks] = {};
    uint8_t watchMask[kGridBlocks] = {};
    uint32_t focusGrid[kGridBlocks] = {};
    uint32_t laterGrid[kGridBlocks] = {};
    uint32_t focusLuma[kGridBlocks] = {};
    uint32_t startLuma[kGridBlocks] = {};
};
extern WatchState g_watch;
// Back to the power-on values.
void watch_state_reset();

// focused: 1 on AF frames in the focused state, 0 on search frames (it only clears counters).
void FocusWatch(uint8_t focused);
// Mode 0: one stage of the wobble; 0 not finished, 1 enough blocks still peak at the focus
// position, 2 too few. Mode 1: the number of peaking blocks over the slots as they are.
uint32_t WobbleCheck(uint8_t mode);

// The focused-position range back to empty (zoom change, pan/tilt movement).
void focused_range_reset();
void focused_range_record(uint16_t p);
// The monitoring reference := the current window sharpness (a search that ended without a peak).
void watch_set_reference_windows();
// At a search start: forget the subject blocks of the last reference, keep the luma to tell
// whether the picture changes while the search runs.
void watch_clear_reference_mask();
// The subject blocks of the reference last handed to the scene analysis (kept across searches).
const uint8_t* watch_reference_block_mask();

// Replaces the reference capture, the scene decision and the reference-sharpness check (nullptr:
// the scene analysis's own), so that the watch's rules can be driven without a scene (tests).
struct WatchSceneHooks {
    void (*capture)(const FocusReference&) = nullptr;
    uint32_t (*step)(SceneResult&, const SceneInput&) = nullptr;
    uint32_t (*check)(const FocusReference&) = nullptr;
};
void watch_set_scene_hooks_for_testing(const WatchSceneHooks& hooks);
