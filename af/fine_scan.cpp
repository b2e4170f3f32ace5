// Fine scan and final approach: the last two phases of a search.
//
// Once the climb has bracketed a peak, the fine scan walks with a small step inside a window
// around it, comparing the focus value with a reference taken when the scan began; a value that
// falls far below the reference means the scene changed or was never in the zone, and the search
// starts again. The final approach walks with a step of one to three, remembers the best value and
// where it was seen, and as soon as the value is seen to fall drives the lens straight back to
// that position: the peak is then under the lens, and the picture is declared focused.
#include <cstring>

#include "af/af_seams.h"
#include "af/af_state.h"
#include "af/focus_zone.h"
#include "base/frame_pacing.h"
#include "isp/highlight.h"
#include "lens_api/lens_position.h"
#include "platform/clock.h"

uint8_t g_fineGain = 9;
uint8_t g_fineRetries = 0;
uint8_t g_startedFine = 0;
uint8_t g_retryMarker = 0;
uint8_t g_lowContrastRetry = 0;
uint8_t g_finalStep = 1;

namespace {

uint8_t g_fineStep = 1;
uint16_t g_fineFrames = 0;
uint32_t g_fineMax = 0;
uint16_t g_fineMaxPos = 0;
uint32_t g_fineMin = 0;
uint16_t g_fineMinPos = 0;
uint8_t g_fineUps = 0;
uint8_t g_fineDowns = 0;
uint8_t g_fineFalls = 0;
uint8_t g_fineStarted = 0;
uint8_t g_fineDark = 0;
uint16_t g_fineLo = 0;
uint16_t g_fineHi = 0;
uint32_t g_refWindows[kWindowCount] = {};
uint32_t g_refGrid[kGridBlocks] = {};

uint8_t g_returnStep = 1;
uint32_t g_finalBest = 50;
uint16_t g_finalBestPos = 0;
uint16_t g_finalFrames = 0;
uint16_t g_finalCount = 0;
uint8_t g_finalFalls = 0;
uint32_t g_finalRef = 0;
uint8_t g_finalRefSet = 0;
uint32_t g_finalZoneBits = 0;
uint8_t g_prevQ[2] = {};

uint16_t g_anchorPos = 0;
uint16_t g_anchorFv = 0;
uint8_t g_anchorOn = 0;
uint8_t g_anchorPlateau = 0;

// Wait between the moves of the drive back to the best position.
constexpr uint32_t kReturnWaitUs = 30000;
constexpr uint16_t kReturnMaxStep = 40;

inline uint32_t absdiff(uint32_t a, uint32_t b) {
    return a > b ? a - b : b - a;
}

// Flat-scene check of a search that started in the fine phase.
bool flat_check() {
    if (!g_startedFine)
        return false;
    uint32_t hi = 0;
    uint32_t lo = 0xFFFFFFFFu;
    for (uint32_t v : g_fvQueue) {
        hi = v > hi ? v : hi;
        lo = v < lo ? v : lo;
    }
    if (g_framesInDir > 3 && hi - lo < 20)
        return true;
    for (uint32_t v : g_fvHist)
        if (v > 100)
            return false;
    return true;
}

uint8_t peak_by_history() {
    const uint32_t* fv = g_fvHist;
    const uint16_t* p = g_posHist;
    if (!(fv[0] < fv[1] && fv[1] < fv[2] && p[0] != p[2]))
        return 0;
    if (fv[2] - fv[0] > fv[0] / 16)
        return g_finalFrames > 2 ? 1 : 0;
    if (!(fv[3] > fv[2] && fv[3] - fv[0] > fv[0] / 16))
        return 0;
    if ((p[3] > p[2] && p[2] > p[1] && p[1] > p[0]) || (p[3] < p[2] && p[2] < p[1] && p[1] < p[0]))
        return g_finalFrames > 3 ? 2 : 0;
    return 0;
}

uint8_t anchor_test() {
    if (af_zoom() >= 5001 || g_anchorOn == 0)
        return 0;
    const uint32_t d = absdiff(g_posHist[0], g_anchorPos);
    const uint32_t A = g_anchorFv;
    const uint32_t fv0 = g_fvHist[0];
    if (g_posHist[0] != g_posHist[1] && fv0 > 600 && absdiff(fv0, g_fvHist[1]) < fv0 / 64) {
        g_anchorPlateau = 1;
    } else if ((d < 9 && fv0 > A * 3 / 2) || (d < 11 && fv0 > 2 * A)) {
        g_anchorPlateau = 1;
    } else if (d > 17 && fv0 > 4 * A) {
        g_anchorPlateau = 0;
    }
    if (d > 15 && fv0 < 4 * A)
        return 2;
    if (d > 7 && fv0 < 2 * A)
        return 1;
    return g_anchorPlateau == 1 ? 1 : 0;
}

void take_references() {
    for (int z = 0; z < kWindowCount; ++z)
        g_refWindows[z] = (g_winHist[0][z] + g_winHist[1][z] + g_winHist[2][z]) / 3;
    for (int b = 0; b < kGridBlocks; ++b)
        g_refGrid[b] = (g_gridHist[0][b] + g_gridHist[1][b] + g_gridHist[2][b]) / 3;
}

uint8_t small_step_for_zoom() {
    return af_zoom() < 3500 ? 1 : 2;
}

// Sets the final approach's return step and step from the last values.
void compute_final_steps() {
    const uint32_t* fv = g_fvHist;
    g_returnStep = (absdiff(fv[0], fv[1]) < 5 && absdiff(fv[1], fv[2]) < 5) ? g_fineStep : 1;
    uint8_t s = static_cast<uint8_t>(g_returnStep / 2);
    if (s < 1)
        s = 1;
    if (s == 1 && af_zoom() >= 3501)
        s = 2;
    g_finalStep = s;
}

void enter_final(bool turning) {
    g_fineStarted = 0;
    g_finalReturn = 0;
    g_searchPhase = 4;
    compute_final_steps();
    if (turning) {
        FlipDirection();
        StepMove(g_fineStep);
    }
    g_fineStep = small_step_for_zoom();
    g_fineDark = 0;
}

// Drives the lens back to the best position of the approach within this one frame.
void drive_to_best() {
    for (int guard = 0; guard < 400; ++guard) {
        const uint16_t p = af_focus();
        if (p == g_finalBestPos)
            break;
        g_searchDir = g_finalBestPos < p ? 1 : 2;
        uint32_t d = absdiff(g_finalBestPos, p);
        if (d > kReturnMaxStep)
            d = kReturnMaxStep;
        StepMove(static_cast<uint16_t>(d));
        if (af_focus() == p)
            break;  // pinned at a bound
        if (af_focus() != g_finalBestPos)
            platform::sleep_us(kReturnWaitUs);
    }
}

void final_reference_watch() {
    if (g_finalRefSet == 0 && g_afState == 1) {
        g_finalRef = g_fineGain * (g_fvHist[0] + g_fvHist[1] + g_fvHist[2]) / 64;
        g_finalRefSet = 1;
        g_finalZoneBits = g_focusZone.window_bits();
        return;
    }
    if (g_finalRefSet && g_fvHist[0] < g_finalRef && g_focusZone.window_bits() == g_finalZoneBits) {
        // The value fell far below what the approach started from: the subject is not where the
        // search thought it was. Search again.
        g_finalRefSet = 0;
        if (g_fineGain > 3)
            g_fineGain = static_cast<uint8_t>(g_fineGain - 2);
        g_hitLower = g_hitUpper = 0;
        g_trackLock = 0;
        g_focusZone.reset_block_mask();
        update_peak_map(0);
        SelectSearchZone();
        if (g_finalReturn == 0 && g_fvHist[0] < g_fvHist[1])
            FlipDirection();
        if (g_finalReturn == 1)
            g_searchDir = g_posHist[0] > g_searchStartPos ? 1 : 2;
        SnapshotReference();
        g_finalFalls = 0;
        g_restartReason = 3;
    }
}

uint32_t largest_selected_window() {
    uint32_t m = 0;
    for (int z = 0; z < kWindowCount; ++z)
        if (g_focusZone.windowMask[z] != 0 && g_winHist[0][z] > m)
            m = g_winHist[0][z];
    return m;
}

}  // namespace

void clear_final_counters() {
    g_finalFrames = 0;
    g_finalCount = 0;
    g_finalFalls = 0;
    g_finalRefSet = 0;
}

void FineReset(uint8_t mode) {
    g_fineStarted = 0;
    g_fineDark = 0;
    g_fineStep = 1;
    g_fineFrames = 0;
    std::memset(g_refWindows, 0, sizeof g_refWindows);
    std::memset(g_refGrid, 0, sizeof g_refGrid);
    if (mode == 0)
        g_fineFalls = 0;
    if (mode == 2 || mode == 3)
        g_fineGain = 9;
    if (mode == 3) {
        const uint16_t p0 = g_posHist[0];
        g_fineLo = p0 < 51 ? 0 : static_cast<uint16_t>(p0 - 50);
        const uint16_t fmax = lens_get_focus_max();
        g_fineHi = p0 + 49 >= fmax ? fmax : static_cast<uint16_t>(p0 + 50);
    } else {
        g_fineLo = g_lowerBound;
        g_fineHi = g_upperBound;
    }
}

uint16_t fine_window_lo_for_testing() {
    return g_fineLo;
}
uint16_t fine_window_hi_for_testing() {
    return g_fineHi;
}

void AnchorSet(uint8_t on) {
    g_anchorPlateau = 0;
    if (af_zoom() > 2555 && on) {
        g_anchorPos = g_posHist[0];
        g_anchorFv = static_cast<uint16_t>(g_fvHist[0]);
        g_anchorOn = 1;
    } else {
        g_anchorOn = 0;
    }
}

void FineStep() {
    const uint32_t* fv = g_fvHist;
    const uint16_t p0 = g_posHist[0];
    const uint16_t z = af_zoom();
    // 1-2. Bookkeeping.
    g_finalFrames = 0;
    g_finalBest = 50;
    if (g_fineFrames == 0) {
        g_fineMax = g_fineMin = fv[0];
        g_fineMaxPos = g_fineMinPos = p0;
        g_fineUps = g_fineDowns = 0;
    }
    if (fv[0] > g_fineMax) {
        g_fineMax = fv[0];
        g_fineMaxPos = p0;
    }
    if (fv[0] < g_fineMin) {
        g_fineMin = fv[0];
        g_fineMinPos = p0;
    }
    if (g_fineFrames > 0) {
        if (fv[0] > fv[1])
            ++g_fineUps;
        if (fv[0] < fv[1])
            ++g_fineDowns;
    }
    g_fineFalls = fv[0] < fv[1] ? static_cast<uint8_t>(g_fineFalls + 1) : 0;
    ++g_fineFrames;
    // 3. A flat scene goes back to the coarse approach.
    if (g_pointLightMeasure == 0 &&
        ((g_fineFrames >= 5 && flat_check()) ||
         (z <= 4985 && g_pointLightZone && g_startedFine && g_fineFrames >= 6 &&
          g_fineMax <= 1799 && g_fineMax - g_fineMin < g_fineMax / 2))) {
        g_afState = 1;
        g_searchPhase = 1;
        CoarseReset();
        g_startedFine = 0;
        g_windowAverage = 0;
        return;
    }
    // 4. First frame: step off and take the reference.
    if (g_fineStarted == 0) {
        StepMove(g_fineStep);
        take_references();
        g_fineStarted = 1;
        return;
    }
    // 5. Fell far below the reference: search again.
    const uint32_t R = ComputeFocusValue(g_refWindows, g_refGrid);
    if (fv[0] < R * g_fineGain / 64 || (fv[0] == 50 && g_fineRetries < 3)) {
        g_afState = 0;
        ++g_fineRetries;
        if (fv[0] < fv[1])
            FlipDirection();
        if (g_fineGain > 3)
            g_fineGain = static_cast<uint8_t>(g_fineGain - 2);
        SelectSearchZone();
        return;
    }
    // 6-7. The peak has been passed.
    if (PeakTest(1) || PeakTest(2) ||
        (fv[0] < g_fineMax && fv[0] > 2000 && g_fineMax - fv[0] > fv[0] / 8 &&
         absdiff(g_fineMaxPos, p0) > 5 && g_fineFrames > 4)) {
        enter_final(true);
        return;
    }
    // 8. Inside the scan window.
    if (g_fineLo < p0 && p0 < g_fineHi) {
        if (g_fineFrames < 10) {
            if (g_retryMarker == 0 && g_lowContrastRetry == 0) {
                g_fineDark = fv[0] < 52 ? static_cast<uint8_t>(g_fineDark + 1) : 0;
                if (g_fineDark >= 5) {
                    g_fineDark = 0;
                    g_lowContrastRetry = 1;
                    SelectSearchZone();
                    g_afState = 0;
                }
            } else {
                g_fineDark = 0;
            }
            if (absdiff(fv[0], fv[1]) < 3 && g_retryMarker == 0) {
                g_fineStep = g_fineStep < 4 ? static_cast<uint8_t>(g_fineStep * 2) : 8;
            } else if (g_pointLightMeasure == 0) {
                if (g_fineStep < 3)
                    g_fineStep = z < 3500 ? 1 : 2;
                else
                    --g_fineStep;
            } else {
                g_fineStep = z >= 6355   ? 6
                             : z >= 5939 ? 5
                             : z >= 5373 ? 4
                             : z >= 4477 ? 3
                             : z >= 2557 ? 2
                                         : 1;
            }
            StepMove(g_fineStep);
            return;
        }
        if (g_pointLightMeasure != 0) {
            if (g_fineFalls > 4 && g_fineMax > fv[0] && g_fineMax - fv[0] > 100) {
                g_searchPhase = 4;
                FlipDirection();
                StepMove(static_cast<uint16_t>(absdiff(g_fineMaxPos, g_posHist[3])));
                g_fineDark = 0;
            } else {
                StepMove(g_fineStep);
            }
            return;
        }
        const int half = g_fineFrames / 2;
        if (g_fineUps >= g_fineDowns && g_fineUps - g_fineDowns >= half) {
            const uint8_t keep = g_returnStep;
            enter_final(false);
            g_returnStep = keep;
            StepMove(g_finalStep);
        } else if (g_fineDowns > g_fineUps && g_fineDowns - g_fineUps >= half) {
            const uint8_t keep = g_returnStep;
            enter_final(false);
            g_returnStep = keep;
            FlipDirection();
            StepMove(static_cast<uint16_t>(absdiff(g_fineMaxPos, p0)));
        } else {
            StepMove(g_fineStep);
        }
        return;
    }
    // 9. Outside the window: walk back into it.
    g_fineStarted = 0;
    g_finalReturn = 0;
    compute_final_steps();
    g_searchDir = p0 > g_fineLo ? 1 : 2;
    StepMove(g_finalStep);
    g_fineStep = small_step_for_zoom();
    g_fineDark = 0;
}

void FinalStep() {
    const uint32_t* fv = g_fvHist;
    if (g_finalReturn == 1) {
        // The frame after the drive back: the lens stands at the best position.
        g_finalRefSet = 0;
        SetBestFv(50);
        g_finalStep = 2;
        g_finalReturn = 0;
        g_finalCount = 0;
        if (g_blockPath == 0 || get_tracking_on() != 0) {
            g_hitLower = g_hitUpper = 0;
            g_afState = 2;
        } else {
            confirm_centre_region();
        }
        return;
    }
    const uint16_t p0 = g_posHist[0];
    const uint16_t z = af_zoom();
    // 1. Best value of the approach.
    if (g_finalFrames == 0) {
        g_finalBest = fv[0];
        g_finalBestPos = p0;
        g_finalFalls = 0;
    }
    if (fv[0] > g_finalBest) {
        g_finalBest = fv[0];
        g_finalBestPos = p0;
    }
    if (g_finalBestPos < g_lowerBound)
        g_finalBestPos = g_lowerBound;
    if (g_finalBestPos > g_upperBound)
        g_finalBestPos = g_upperBound;
    ++g_finalCount;
    ++g_finalFrames;
    // 2. Consecutive falls (a rise of less than 1/256 counts as a fall).
    if (fv[0] < fv[1] || (g_pointLightMeasure == 0 && fv[0] < fv[1] + fv[1] / 256))
        ++g_finalFalls;
    else
        g_finalFalls = 0;
    // 3. Turn back to the best position.
    const bool turn =
        peak_by_history() != 0 ||
        (fv[0] > 800 && fv[0] < g_finalBest && g_finalBest - fv[0] > fv[0] / 8 &&
         absdiff(g_finalBestPos, p0) > 10) ||
        (g_finalFalls > 4 && (g_pointLightMeasure != 0 ||
                              (g_finalBest > fv[0] && g_finalBest - fv[0] > fv[0] * 3 / 64))) ||
        PeakTest(2);
    if (turn) {
        g_finalReturn = 1;
        FlipDirection();
        AnchorSet(0);
        g_finalCount = 0;
        drive_to_best();
        final_reference_watch();
        return;
    }
    // 4. Step review.
    if (fv[0] < 400) {
        if (z >= 4500) {
            if (g_finalStep <= 2)
                g_finalStep = 3;
        } else if (g_finalStep == 1 && fv[0] > 90) {
            g_finalStep = 2;
        } else if (g_finalStep <= 2 && fv[0] <= 90) {
            g_finalStep = 3;
        }
    }
    if (g_finalCount == 15 || g_finalCount > 29) {
        const uint32_t m = largest_selected_window();
        const bool strong = m > 400 || (g_zoneType >= 2 && m >= 301);
        const bool at15 = g_finalCount == 15;
        if (strong) {
            g_finalCount = 0;
            if (m <= 9999)
                ++g_finalStep;
        } else if (at15) {
            if (g_lowContrastRetry) {
                ++g_finalStep;
            } else {
                g_finalCount = 0;
                g_lowContrastRetry = 1;
                SnapshotReference();
                g_finalFalls = 0;
            }
        } else {
            g_finalCount = 0;
            if (g_lowContrastRetry) {
                SnapshotReference();
                g_finalFalls = 0;
            } else {
                ++g_finalStep;
            }
        }
        if (g_afState == 0)
            return;
    }
    // 5. The move: larger when the value sits on a plateau or far below the anchor.
    const uint32_t big = fv[0] > fv[1] ? fv[0] : fv[1];
    const uint8_t q = static_cast<uint8_t>(big ? absdiff(fv[0], fv[1]) * 64 / big : 0);
    if (g_finalStep > 1 && fv[0] > 2000 && fv[0] < fv[1])
        g_finalStep = 1;
    uint16_t move = g_finalStep;
    if ((q == g_prevQ[0] && q != 0 && fv[0] < 300) ||
        (g_prevQ[0] == g_prevQ[1] && g_prevQ[0] != 0 && 2 * g_prevQ[0] < q && fv[0] < 300)) {
        const uint8_t a = anchor_test();
        move = static_cast<uint16_t>(a == 1   ? 2 * g_finalStep + 1
                                     : a == 2 ? 3 * g_finalStep + 1
                                              : g_finalStep + 1);
    } else if (fv[0] > fv[1]) {
        if (!(q > 14 && (absdiff(g_posHist[0], g_posHist[1]) < 2 || q > 19))) {
            const uint8_t a = anchor_test();
            move = static_cast<uint16_t>(a == 1   ? 2 * g_finalStep
                                         : a == 2 ? 3 * g_finalStep
                                                  : g_finalStep);
        }
    }
    g_prevQ[1] = g_prevQ[0];
    g_prevQ[0] = q;
    StepMove(move);
    // 6. Reference watch.
    final_reference_watch();
}

void fine_scan_reset_for_testing() {
    g_fineGain = 9;
    g_fineRetries = 0;
    g_startedFine = 0;
    g_retryMarker = 0;
    g_lowContrastRetry = 0;
    g_finalStep = 1;
    FineReset(2);
    g_fineFalls = 0;
    g_returnStep = 1;
    g_finalBest = 50;
    g_finalBestPos = 0;
    clear_final_counters();
    std::memset(g_prevQ, 0, sizeof g_prevQ);
    g_anchorOn = 0;
    g_anchorPlateau = 0;
}
