// State shared by the autofocus files: the focus-value histories and zone helpers, the search
// state machine's bookkeeping, and the operations of the search phases. Everything here runs on
// the main thread inside the frame loop.
//
// Each concern keeps its state in one record with one global instance, and one reset that puts
// the whole record back to its power-on values. The phase resets (CoarseReset, ClimbReset,
// FineReset, clear_final_counters, ...) clear only the part a phase change needs.
//
// Directions: g_search.searchDir 1 moves towards smaller focus positions, 2 towards larger ones.
// Histories are indexed 0 = this frame ... 4 = four frames ago.
#pragma once

#include <sys/time.h>

#include <cstdint>

#include "af/auto_focus.h"
#include "isp/af_stat.h"

// ---- Focus value, histories and zone choice ----
// Five-frame histories of what the statistics showed, the focus value and the best value of the
// search, the AF copies of the highlight masks and the one-shot markers of the zone refinement.
struct FocusValueState {
    uint32_t winHist[5][kWindowCount] = {};
    uint32_t winIir2Hist[5][kWindowCount] = {};
    uint32_t gridHist[5][kGridBlocks] = {};
    uint32_t iir2GridHist[5][kGridBlocks] = {};
    // 50 is the floor of every sharpness: a frame without contrast reads 50, never 0.
    uint32_t fvHist[5] = {50, 50, 50, 50, 50};
    uint32_t sceneSharpHist[5] = {50, 50, 50, 50, 50};
    uint16_t posHist[5] = {};
    uint32_t fvQueue[5] = {50, 50, 50, 50, 50};  // oldest first
    uint16_t posQueue[5] = {};                   // oldest first
    uint32_t frameMaxWindow = 0;
    uint32_t searchMaxWindow = 0;
    uint16_t searchMaxWindowPos = 0;
    uint8_t highlightMask[kGridBlocks] = {};
    uint8_t excludedMask[kGridBlocks] = {};
    uint8_t markerA = 1;
    uint8_t markerC = 1;
    uint8_t rule3Acted = 0;
    // Best focus value of the search and where it was seen.
    uint32_t bestFv = 50;
    uint16_t bestFvPos = 0;
    // The centre window's last four values (the centre lock compares against them).
    uint32_t centreHist[4] = {};
};
extern FocusValueState g_focusValue;
// Back to the power-on values.
void focus_value_state_reset();

uint32_t ComputeFocusValue(const uint32_t* w25, const uint32_t* g225);
uint32_t ComputeSceneSharpness(const uint32_t* w25, const uint32_t* g225);
bool SampleFrame();
void SelectSearchZone();
void ResetZoneCross();
void CentreLock(uint8_t enable, uint32_t centre_value);
void RezoneHistories();
void SetBestFv(uint32_t value);
uint32_t BestFv();
uint16_t BestFvPos();
bool is_highlight_window(int z);
// A window too weak to lead the zone: at most 2800, and in low light at most 800 unless the zone
// type favours the inner windows and it reaches 501.
bool is_weak_window(uint32_t v);
// A window index with the value it is ranked by.
struct Ranked {
    uint32_t v;
    uint8_t z;
};
// The windows `keep` accepts, by value, largest first (stable on ties; no scratch buffer, so it
// allocates nothing). Returns how many were ranked.
uint8_t rank_windows(Ranked* out, const uint32_t* w, bool (*keep)(int));
// Mean window sharpness (this frame) over a set of windows, 50 for an empty set.
uint32_t WindowSetMean(const uint8_t* set25);
// Mean of the selected windows: without digital zoom each counts twice over all 25 windows;
// with it, the plain mean of the selected ones (50 when none).
uint32_t SelectedWindowsMean();
// Window sharpness of this frame, + 50 below 20000.
uint32_t window_value_now(int z);
// The search maximum of the largest window sharpness (value 0, position current).
void reset_search_max_window();
void focus_value_reset_for_testing();

// ---- AF state machine ----
// The search's bookkeeping: phase, direction, range, visited range, bound hits, and what the
// restart paths and the pan/tilt handling remember between frames.
struct SearchState {
    // 1 coarse, 2 climb, 3 fine, 4 final, 8 region search, 9 finished.
    uint32_t searchPhase = 1;
    uint32_t searchDir = 2;
    uint16_t lastDirSeen = 2;
    uint16_t framesInDir = 0;
    uint16_t dirChangePos = 0;
    uint16_t lowerBound = 0;
    uint16_t upperBound = 6120;
    uint16_t nearThreshold = 0;
    uint16_t farThreshold = 6120;
    uint16_t visitMin = 6120;
    uint16_t visitMax = 0;
    uint32_t hitLower = 0;
    uint32_t hitUpper = 0;
    // 10000: no zoom position seen yet, so the first restart never counts as a zoom across the
    // filter split.
    uint16_t lastZoom = 10000;
    uint16_t lastDigitalZoom = 0;
    uint16_t searchStartPos = 0;
    uint8_t failCount = 0;
    uint8_t giveUp = 0;
    uint8_t ptMoveFrames = 0;
    uint8_t ptHold = 0;
    uint32_t refocusCause = 0;
    uint32_t restartReason = 0;
    uint8_t firstAfterZoom = 0;
    uint8_t dirCheckArmed = 0;
    uint8_t startFresh = 0;
    uint8_t focusDone = 0;
    uint8_t noPeak = 0;
    // Frames in AF state 1; the first takes a fresh reference from a settled picture.
    uint16_t stateOneFrames = 0;
    uint8_t returnEpisode = 0;
    timeval searchStartTime{};
    // Exposure and iris at the search start, for the watches.
    uint32_t startExposure = 0;
    uint16_t startIris = 0;
    uint8_t upwardMarker = 0;
    // The direction CountDirectionFrames last counted (its own memory, see there).
    uint32_t countedDir = 0;
};
extern SearchState g_search;
// Back to the power-on values.
void search_state_reset();

// 1 while the ISP's statistics mode is low-light.
uint8_t af_low_light();
void FlipDirection();
// The direction a search starts in (the last step of the search start's preparation).
void ChooseStartDirection();
void SetSearchBounds();
// True: the search starts with the coarse approach; false: straight in the fine scan.
bool StartPhaseIsCoarse();
void CountDirectionFrames();
// Puts the slow (1) or fast (0) AF frame divider in force.
void af_set_slow_divider(bool slow);
uint16_t af_zoom();
uint16_t af_focus();
// Base focus curve at the current zoom step (no interpolation) and a far-curve offset row there.
uint16_t af_curve_base();
int32_t af_far_offset(uint8_t row);

// The blocks a block-level search looks at: rows firstRow..endRow-1, columns firstCol..endCol-1
// (the middle of the picture, a little taller than wide).
struct BlockSearchWindow {
    uint8_t firstRow = 4;
    uint8_t endRow = 11;
    uint8_t firstCol = 5;
    uint8_t endCol = 10;
};
extern BlockSearchWindow g_blockSearchWindow;

// ---- Contrast search: step move, trend tests, coarse approach, climb ----
// Coarse approach: its step, the return from an end of the range, and the trend series its stop
// tests read.
struct CoarseState {
    int8_t coarseStep = 2;
    int8_t coarseMin = 2;
    uint16_t coarseFrames = 0;
    uint16_t endReturn = 0;
    uint16_t endTarget = 0;
    uint32_t nearEndTried = 0;
    uint32_t farEndTried = 0;
    // Trend series, oldest first: focus value, and the zone's vertical and horizontal block
    // statistics.
    uint32_t seriesF[5] = {};
    uint32_t seriesV[5] = {};
    uint32_t seriesH[5] = {};
    uint8_t seriesN = 0;
};
extern CoarseState g_coarse;
// Back to the power-on values.
void coarse_state_reset();

// Hill climb: counters, the candidate peak it walks back to, the multiplier's slope memory, and
// the running extremes since the last direction change.
struct ClimbState {
    uint8_t climbMult = 1;
    uint8_t climbUps = 0;
    uint8_t climbDowns = 0;
    uint16_t climbFrames = 0;
    uint8_t climbFalls = 0;
    uint32_t climbMax = 50;
    uint16_t climbMaxPos = 0;
    uint8_t returns = 0;
    uint8_t returning = 0;
    uint8_t armed = 0;
    uint8_t farJump = 0;
    uint8_t tries = 0;
    uint16_t candPos = 0;
    uint16_t prevCandPos = 0;
    uint32_t candThreshold = 0;
    // 1 while the climb returns to its candidate; the final approach uses it for its own drive
    // back to the best position.
    uint32_t finalReturn = 0;
    uint16_t flatFrames = 0;
    uint16_t rateHist[3] = {};
    uint16_t riseHist[3] = {};
    uint8_t unconfirmed = 0;
    uint32_t runMin = 0xFFFF;
    uint16_t runMinPos = 0;
    uint32_t runMax = 0;
    uint16_t runMaxPos = 0;
    uint16_t runFrames = 0;
};
extern ClimbState g_climb;
// Back to the power-on values.
void climb_state_reset();

void StepMove(uint16_t step);
void GoTo(uint16_t position);
uint8_t TrendOf(const uint32_t* series, uint8_t n, float rel_thr, float slope_thr);
uint8_t TrendOfRaw(const uint32_t* series, uint8_t n, float rel_thr, float slope_thr);
bool AllAgree(uint8_t kind, uint8_t a, uint8_t b, uint8_t c, uint8_t d = 0, uint8_t e = 0);
bool PeakTest(uint8_t kind);
bool WindowTrend(uint8_t kind, uint8_t w);
bool PositionsMonotone(uint8_t n);
// Low-light guard against a noise dip passing for the fall after a peak.
bool DropConfirmed();
// Whether the fall the climb sees is a real peak behind it (running extremes, direction).
bool ClimbPeakReal();
// The climb's next multiplier for base step `base` from the current g_climb.climbMult.
uint8_t ClimbMultiplier(uint8_t base);
// Near/far end test: true when the current side is not clearly sharper than the best place.
bool EndTest();
// The end test as the climb runs it: a still-rising current side fails it.
bool EndTestClimb();
void CoarseStep();
void CoarseReset();
void ClimbStep();
void ClimbReset();
void ClearCandidate();
void update_running_extremes();
void reset_running_extremes();
// Rebuilds the F, V and H series from the histories (called by SampleFrame).
void update_trend_series();
void clear_trend_series();
void clear_fine_counters();
void contrast_search_reset_for_testing();

// ---- Fine scan and final approach ----
// Fine scan: its step and counters, the scan window, the reference taken when it began, and the
// retry markers of the search.
struct FineState {
    uint8_t fineStep = 1;
    uint16_t fineFrames = 0;
    uint32_t fineMax = 0;
    uint16_t fineMaxPos = 0;
    uint32_t fineMin = 0;
    uint16_t fineMinPos = 0;
    uint8_t fineUps = 0;
    uint8_t fineDowns = 0;
    uint8_t fineFalls = 0;
    uint8_t fineStarted = 0;
    uint8_t fineDark = 0;
    uint16_t fineLo = 0;
    uint16_t fineHi = 0;
    uint32_t refWindows[kWindowCount] = {};
    uint32_t refGrid[kGridBlocks] = {};
    // Share of the reference, in 64ths, below which the scan gives up.
    uint8_t fineGain = 9;
    uint8_t fineRetries = 0;
    uint8_t startedFine = 0;
    uint8_t retryMarker = 0;
    uint8_t lowContrastRetry = 0;
};
extern FineState g_fine;
// Back to the power-on values.
void fine_state_reset();

// Final approach: its step, the best value and where it was seen, the reference it watches, the
// last two rise ratios and the rise anchor set when the fine scan began.
struct FinalState {
    uint8_t finalStep = 1;
    uint8_t returnStep = 1;
    uint32_t finalBest = 50;
    uint16_t finalBestPos = 0;
    uint16_t finalFrames = 0;
    uint16_t finalCount = 0;
    uint8_t finalFalls = 0;
    uint32_t finalRef = 0;
    uint8_t finalRefSet = 0;
    uint32_t finalZoneBits = 0;
    uint8_t prevQ[2] = {};
    uint16_t anchorPos = 0;
    uint16_t anchorFv = 0;
    uint8_t anchorOn = 0;
    uint8_t anchorPlateau = 0;
};
extern FinalState g_final;
// Back to the power-on values.
void final_state_reset();

void FineReset(uint8_t mode);
void FineStep();
void FinalStep();
void AnchorSet(uint8_t on);
void clear_final_counters();
uint16_t fine_window_lo_for_testing();
uint16_t fine_window_hi_for_testing();
void fine_scan_reset_for_testing();
