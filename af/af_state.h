// State shared by the autofocus files: the focus-value histories and zone helpers, the search
// state machine's bookkeeping, and the operations of the search phases. Everything here runs on
// the main thread inside the frame loop.
//
// Directions: g_searchDir 1 moves towards smaller focus positions, 2 towards larger ones.
// Histories are indexed 0 = this frame ... 4 = four frames ago.
#pragma once

#include <cstdint>

#include "af/auto_focus.h"
#include "isp/af_stat.h"

// ---- Focus value, histories and zone choice ----
extern uint32_t g_winHist[5][kWindowCount];
extern uint32_t g_winIir2Hist[5][kWindowCount];
extern uint32_t g_gridHist[5][kGridBlocks];
extern uint32_t g_iir2GridHist[5][kGridBlocks];
extern uint32_t g_fvHist[5];
extern uint32_t g_sceneSharpHist[5];
extern uint16_t g_posHist[5];
extern uint32_t g_fvQueue[5];   // oldest first
extern uint16_t g_posQueue[5];  // oldest first
extern uint32_t g_frameMaxWindow;
extern uint32_t g_searchMaxWindow;
extern uint16_t g_searchMaxWindowPos;
extern uint8_t g_highlightMask[kGridBlocks];
extern uint8_t g_excludedMask[kGridBlocks];
extern uint8_t g_markerA;
extern uint8_t g_markerC;
extern uint8_t g_rule3Acted;

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
// Window sharpness of this frame, + 50 below 20000.
uint32_t window_value_now(int z);
// The search maximum of the largest window sharpness (value 0, position current).
void reset_search_max_window();
void focus_value_reset_for_testing();

// ---- AF state machine ----
extern uint32_t g_searchPhase;
extern uint32_t g_searchDir;
extern uint16_t g_lastDirSeen;
extern uint16_t g_framesInDir;
extern uint16_t g_dirChangePos;
extern uint16_t g_lowerBound;
extern uint16_t g_upperBound;
extern uint16_t g_nearThreshold;
extern uint16_t g_farThreshold;
extern uint16_t g_visitMin;
extern uint16_t g_visitMax;
extern uint32_t g_hitLower;
extern uint32_t g_hitUpper;
extern uint16_t g_lastZoom;
extern uint16_t g_lastDigitalZoom;
extern uint16_t g_searchStartPos;
extern uint8_t g_failCount;
extern uint8_t g_giveUp;
extern uint8_t g_ptMoveFrames;
extern uint8_t g_ptHold;
extern uint32_t g_refocusCause;
extern uint32_t g_restartReason;
extern uint8_t g_firstAfterZoom;
extern uint8_t g_dirCheckArmed;
extern uint8_t g_startFresh;
extern uint8_t g_focusDone;
extern uint8_t g_noPeak;

// 1 while the ISP's statistics mode is low-light.
uint8_t af_low_light();
void FlipDirection();
void SetSearchBounds();
void CountDirectionFrames();
// Puts the slow (1) or fast (0) AF frame divider in force.
void af_set_slow_divider(bool slow);
uint16_t af_zoom();
uint16_t af_focus();
// Base focus curve at the current zoom step (no interpolation) and a far-curve offset row there.
uint16_t af_curve_base();
int32_t af_far_offset(uint8_t row);

// ---- Contrast search: step move, trend tests, coarse approach, climb ----
extern int8_t g_coarseStep;
extern uint16_t g_coarseFrames;
extern uint32_t g_finalReturn;
extern uint32_t g_nearEndTried;
extern uint32_t g_farEndTried;

void StepMove(uint16_t step);
void GoTo(uint16_t position);
uint8_t TrendOf(const uint32_t* series, uint8_t n, float rel_thr, float slope_thr);
uint8_t TrendOfRaw(const uint32_t* series, uint8_t n, float rel_thr, float slope_thr);
bool AllAgree(uint8_t kind, uint8_t a, uint8_t b, uint8_t c, uint8_t d = 0, uint8_t e = 0);
bool PeakTest(uint8_t kind);
bool WindowTrend(uint8_t kind, uint8_t w);
bool PositionsMonotone(uint8_t n);
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
extern uint8_t g_fineGain;
extern uint8_t g_fineRetries;
extern uint8_t g_startedFine;
extern uint8_t g_retryMarker;
extern uint8_t g_lowContrastRetry;
extern uint8_t g_finalStep;

void FineReset(uint8_t mode);
void FineStep();
void FinalStep();
void AnchorSet(uint8_t on);
void clear_final_counters();
uint16_t fine_window_lo_for_testing();
uint16_t fine_window_hi_for_testing();
void fine_scan_reset_for_testing();
