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

FineState g_fine;
FinalState g_final;

void fine_state_reset() {
    g_fine = FineState{};
}

void final_state_reset() {
    g_final = FinalState{};
}

namespace {

// Wait between the moves of the drive back to the best position.
constexpr uint32_t kReturnWaitUs = 30000;
constexpr uint16_t kReturnMaxStep = 40;

inline uint32_t absdiff(uint32_t a, uint32_t b) {
    return a > b ? a - b : b - a;
}

// Flat-scene check of a search that started in the fine phase.
bool flat_check() {
    if (!g_fine.startedFine)
        return false;
    uint32_t hi = 0;
    uint32_t lo = 0xFFFFFFFFu;
    for (uint32_t v : g_focusValue.fvQueue) {
        hi = v > hi ? v : hi;
        lo = v < lo ? v : lo;
    }
    if (g_search.framesInDir > 3 && hi - lo < 20)
        return true;
    for (uint32_t v : g_focusValue.fvHist)
        if (v > 100)
            return false;
    return true;
}

uint8_t peak_by_history() {
    const uint32_t* fv = g_focusValue.fvHist;
    const uint16_t* p = g_focusValue.posHist;
    if (!(fv[0] < fv[1] && fv[1] < fv[2] && p[0] != p[2]))
        return 0;
    if (fv[2] - fv[0] > fv[0] / 16)
        return g_final.finalFrames > 2 ? 1 : 0;
    if (!(fv[3] > fv[2] && fv[3] - fv[0] > fv[0] / 16))
        return 0;
    if ((p[3] > p[2] && p[2] > p[1] && p[1] > p[0]) || (p[3] < p[2] && p[2] < p[1] && p[1] < p[0]))
        return g_final.finalFrames > 3 ? 2 : 0;
    return 0;
}

uint8_t anchor_test() {
    if (af_zoom() >= 5001 || g_final.anchorOn == 0)
        return 0;
    const uint32_t d = absdiff(g_focusValue.posHist[0], g_final.anchorPos);
    const uint32_t A = g_final.anchorFv;
    const uint32_t fv0 = g_focusValue.fvHist[0];
    if (g_focusValue.posHist[0] != g_focusValue.posHist[1] && fv0 > 600 &&
        absdiff(fv0, g_focusValue.fvHist[1]) < fv0 / 64) {
        g_final.anchorPlateau = 1;
    } else if ((d < 9 && fv0 > A * 3 / 2) || (d < 11 && fv0 > 2 * A)) {
        g_final.anchorPlateau = 1;
    } else if (d > 17 && fv0 > 4 * A) {
        g_final.anchorPlateau = 0;
    }
    if (d > 15 && fv0 < 4 * A)
        return 2;
    if (d > 7 && fv0 < 2 * A)
        return 1;
    return g_final.anchorPlateau == 1 ? 1 : 0;
}

void take_references() {
    for (int z = 0; z < kWindowCount; ++z)
        g_fine.refWindows[z] =
            (g_focusValue.winHist[0][z] + g_focusValue.winHist[1][z] + g_focusValue.winHist[2][z]) /
            3;
    for (int b = 0; b < kGridBlocks; ++b)
        g_fine.refGrid[b] = (g_focusValue.gridHist[0][b] + g_focusValue.gridHist[1][b] +
                             g_focusValue.gridHist[2][b]) /
                            3;
}

uint8_t small_step_for_zoom() {
    return af_zoom() < 3500 ? 1 : 2;
}

// Sets the final approach's return step from the last values (the fine step on a plateau, else
// 1) unless the caller keeps the present one, and the final step from it.
void compute_final_steps(bool keep_return_step = false) {
    const uint32_t* fv = g_focusValue.fvHist;
    if (!keep_return_step)
        g_final.returnStep =
            (absdiff(fv[0], fv[1]) < 5 && absdiff(fv[1], fv[2]) < 5) ? g_fine.fineStep : 1;
    uint8_t s = static_cast<uint8_t>(g_final.returnStep / 2);
    if (s < 1)
        s = 1;
    if (s == 1 && af_zoom() >= 3501)
        s = 2;
    g_final.finalStep = s;
}

void enter_final(bool turning, bool keep_return_step = false) {
    g_fine.fineStarted = 0;
    g_climb.finalReturn = 0;
    g_search.searchPhase = 4;
    compute_final_steps(keep_return_step);
    if (turning) {
        FlipDirection();
        StepMove(g_fine.fineStep);
    }
    g_fine.fineStep = small_step_for_zoom();
    g_fine.fineDark = 0;
}

// Drives the lens back to the best position of the approach within this one frame.
void drive_to_best() {
    for (int guard = 0; guard < 400; ++guard) {
        const uint16_t p = af_focus();
        if (p == g_final.finalBestPos)
            break;
        g_search.searchDir = g_final.finalBestPos < p ? 1 : 2;
        uint32_t d = absdiff(g_final.finalBestPos, p);
        if (d > kReturnMaxStep)
            d = kReturnMaxStep;
        StepMove(static_cast<uint16_t>(d));
        if (af_focus() == p)
            break;  // pinned at a bound
        if (af_focus() != g_final.finalBestPos)
            platform::sleep_us(kReturnWaitUs);
    }
}

void final_reference_watch() {
    if (g_final.finalRefSet == 0 && g_afState == 1) {
        g_final.finalRef =
            g_fine.fineGain *
            (g_focusValue.fvHist[0] + g_focusValue.fvHist[1] + g_focusValue.fvHist[2]) / 64;
        g_final.finalRefSet = 1;
        g_final.finalZoneBits = g_focusZone.window_bits();
        return;
    }
    if (g_final.finalRefSet && g_focusValue.fvHist[0] < g_final.finalRef &&
        g_focusZone.window_bits() == g_final.finalZoneBits) {
        // The value fell far below what the approach started from: the subject is not where the
        // search thought it was. Search again.
        g_final.finalRefSet = 0;
        if (g_fine.fineGain > 3)
            g_fine.fineGain = static_cast<uint8_t>(g_fine.fineGain - 2);
        g_search.hitLower = g_search.hitUpper = 0;
        g_seams.trackLock = 0;
        g_focusZone.reset_block_mask();
        update_peak_map(0);
        SelectSearchZone();
        if (g_climb.finalReturn == 0 && g_focusValue.fvHist[0] < g_focusValue.fvHist[1])
            FlipDirection();
        if (g_climb.finalReturn == 1)
            g_search.searchDir = g_focusValue.posHist[0] > g_search.searchStartPos ? 1 : 2;
        SnapshotReference();
        g_final.finalFalls = 0;
        g_search.restartReason = 3;
    }
}

uint32_t largest_selected_window() {
    uint32_t m = 0;
    for (int z = 0; z < kWindowCount; ++z)
        if (g_focusZone.windowMask[z] != 0 && g_focusValue.winHist[0][z] > m)
            m = g_focusValue.winHist[0][z];
    return m;
}

}  // namespace

void clear_final_counters() {
    g_final.finalFrames = 0;
    g_final.finalCount = 0;
    g_final.finalFalls = 0;
    g_final.finalRefSet = 0;
}

void FineReset(uint8_t mode) {
    g_fine.fineStarted = 0;
    g_fine.fineDark = 0;
    g_fine.fineStep = 1;
    g_fine.fineFrames = 0;
    std::memset(g_fine.refWindows, 0, sizeof g_fine.refWindows);
    std::memset(g_fine.refGrid, 0, sizeof g_fine.refGrid);
    if (mode == 0)
        g_fine.fineFalls = 0;
    if (mode == 2 || mode == 3)
        g_fine.fineGain = 9;
    if (mode == 3) {
        const uint16_t p0 = g_focusValue.posHist[0];
        g_fine.fineLo = p0 < 51 ? 0 : static_cast<uint16_t>(p0 - 50);
        const uint16_t fmax = lens_get_focus_max();
        g_fine.fineHi = p0 + 49 >= fmax ? fmax : static_cast<uint16_t>(p0 + 50);
    } else {
        g_fine.fineLo = g_search.lowerBound;
        g_fine.fineHi = g_search.upperBound;
    }
}

uint16_t fine_window_lo_for_testing() {
    return g_fine.fineLo;
}
uint16_t fine_window_hi_for_testing() {
    return g_fine.fineHi;
}

void AnchorSet(uint8_t on) {
    g_final.anchorPlateau = 0;
    if (af_zoom() > 2555 && on) {
        g_final.anchorPos = g_focusValue.posHist[0];
        g_final.anchorFv = static_cast<uint16_t>(g_focusValue.fvHist[0]);
        g_final.anchorOn = 1;
    } else {
        g_final.anchorOn = 0;
    }
}

void FineStep() {
    const uint32_t* fv = g_focusValue.fvHist;
    const uint16_t p0 = g_focusValue.posHist[0];
    const uint16_t z = af_zoom();
    // 1-2. Bookkeeping.
    g_final.finalFrames = 0;
    g_final.finalBest = 50;
    if (g_fine.fineFrames == 0) {
        g_fine.fineMax = g_fine.fineMin = fv[0];
        g_fine.fineMaxPos = g_fine.fineMinPos = p0;
        g_fine.fineUps = g_fine.fineDowns = 0;
    }
    if (fv[0] > g_fine.fineMax) {
        g_fine.fineMax = fv[0];
        g_fine.fineMaxPos = p0;
    }
    if (fv[0] < g_fine.fineMin) {
        g_fine.fineMin = fv[0];
        g_fine.fineMinPos = p0;
    }
    if (g_fine.fineFrames > 0) {
        if (fv[0] > fv[1])
            ++g_fine.fineUps;
        if (fv[0] < fv[1])
            ++g_fine.fineDowns;
    }
    g_fine.fineFalls = fv[0] < fv[1] ? static_cast<uint8_t>(g_fine.fineFalls + 1) : 0;
    ++g_fine.fineFrames;
    // 3. A flat scene goes back to the coarse approach.
    if (g_pointLightMeasure == 0 &&
        ((g_fine.fineFrames >= 5 && flat_check()) ||
         (z <= 4985 && g_seams.pointLightZone && g_fine.startedFine && g_fine.fineFrames >= 6 &&
          g_fine.fineMax <= 1799 && g_fine.fineMax - g_fine.fineMin < g_fine.fineMax / 2))) {
        g_afState = 1;
        g_search.searchPhase = 1;
        CoarseReset();
        g_fine.startedFine = 0;
        g_windowAverage = 0;
        return;
    }
    // 4. First frame: step off and take the reference.
    if (g_fine.fineStarted == 0) {
        StepMove(g_fine.fineStep);
        take_references();
        g_fine.fineStarted = 1;
        return;
    }
    // 5. Fell far below the reference: search again.
    const uint32_t R = ComputeFocusValue(g_fine.refWindows, g_fine.refGrid);
    if (fv[0] < R * g_fine.fineGain / 64 || (fv[0] == 50 && g_fine.fineRetries < 3)) {
        g_afState = 0;
        ++g_fine.fineRetries;
        if (fv[0] < fv[1])
            FlipDirection();
        if (g_fine.fineGain > 3)
            g_fine.fineGain = static_cast<uint8_t>(g_fine.fineGain - 2);
        SelectSearchZone();
        return;
    }
    // 6-7. The peak has been passed.
    if (PeakTest(1) || PeakTest(2) ||
        (fv[0] < g_fine.fineMax && fv[0] > 2000 && g_fine.fineMax - fv[0] > fv[0] / 8 &&
         absdiff(g_fine.fineMaxPos, p0) > 5 && g_fine.fineFrames > 4)) {
        enter_final(true);
        return;
    }
    // 8. Inside the scan window.
    if (g_fine.fineLo < p0 && p0 < g_fine.fineHi) {
        if (g_fine.fineFrames < 10) {
            if (g_fine.retryMarker == 0 && g_fine.lowContrastRetry == 0) {
                g_fine.fineDark = fv[0] < 52 ? static_cast<uint8_t>(g_fine.fineDark + 1) : 0;
                if (g_fine.fineDark >= 5) {
                    g_fine.fineDark = 0;
                    g_fine.lowContrastRetry = 1;
                    SelectSearchZone();
                    g_afState = 0;
                }
            } else {
                g_fine.fineDark = 0;
            }
            if (absdiff(fv[0], fv[1]) < 3 && g_fine.retryMarker == 0) {
                g_fine.fineStep =
                    g_fine.fineStep < 4 ? static_cast<uint8_t>(g_fine.fineStep * 2) : 8;
            } else if (g_pointLightMeasure == 0) {
                if (g_fine.fineStep < 3)
                    g_fine.fineStep = z < 3500 ? 1 : 2;
                else
                    --g_fine.fineStep;
            } else {
                g_fine.fineStep = z >= 6355   ? 6
                                  : z >= 5939 ? 5
                                  : z >= 5373 ? 4
                                  : z >= 4477 ? 3
                                  : z >= 2557 ? 2
                                              : 1;
            }
            StepMove(g_fine.fineStep);
            return;
        }
        if (g_pointLightMeasure != 0) {
            if (g_fine.fineFalls > 4 && g_fine.fineMax > fv[0] && g_fine.fineMax - fv[0] > 100) {
                g_search.searchPhase = 4;
                FlipDirection();
                StepMove(
                    static_cast<uint16_t>(absdiff(g_fine.fineMaxPos, g_focusValue.posHist[3])));
                g_fine.fineDark = 0;
            } else {
                StepMove(g_fine.fineStep);
            }
            return;
        }
        const int half = g_fine.fineFrames / 2;
        // A clear trend after ten frames: the final approach takes over with the return step
        // it already holds (the final step follows from it), not one judged from this frame.
        if (g_fine.fineUps >= g_fine.fineDowns && g_fine.fineUps - g_fine.fineDowns >= half) {
            enter_final(false, true);
            StepMove(g_final.finalStep);
        } else if (g_fine.fineDowns > g_fine.fineUps && g_fine.fineDowns - g_fine.fineUps >= half) {
            enter_final(false, true);
            FlipDirection();
            StepMove(static_cast<uint16_t>(absdiff(g_fine.fineMaxPos, p0)));
        } else {
            StepMove(g_fine.fineStep);
        }
        return;
    }
    // 9. Outside the window: walk back into it.
    g_fine.fineStarted = 0;
    g_climb.finalReturn = 0;
    compute_final_steps();
    g_search.searchDir = p0 > g_fine.fineLo ? 1 : 2;
    StepMove(g_final.finalStep);
    g_fine.fineStep = small_step_for_zoom();
    g_fine.fineDark = 0;
}

void FinalStep() {
    const uint32_t* fv = g_focusValue.fvHist;
    if (g_climb.finalReturn == 1) {
        // The frame after the drive back: the lens stands at the best position.
        g_final.finalRefSet = 0;
        SetBestFv(50);
        g_final.finalStep = 2;
        g_climb.finalReturn = 0;
        g_final.finalCount = 0;
        if (g_blockPath == 0 || get_tracking_on() != 0) {
            g_search.hitLower = g_search.hitUpper = 0;
            g_afState = 2;
        } else {
            confirm_centre_region();
        }
        return;
    }
    const uint16_t p0 = g_focusValue.posHist[0];
    const uint16_t z = af_zoom();
    // 1. Best value of the approach.
    if (g_final.finalFrames == 0) {
        g_final.finalBest = fv[0];
        g_final.finalBestPos = p0;
        g_final.finalFalls = 0;
    }
    if (fv[0] > g_final.finalBest) {
        g_final.finalBest = fv[0];
        g_final.finalBestPos = p0;
    }
    if (g_final.finalBestPos < g_search.lowerBound)
        g_final.finalBestPos = g_search.lowerBound;
    if (g_final.finalBestPos > g_search.upperBound)
        g_final.finalBestPos = g_search.upperBound;
    ++g_final.finalCount;
    ++g_final.finalFrames;
    // 2. Consecutive falls (a rise of less than 1/256 counts as a fall).
    if (fv[0] < fv[1] || (g_pointLightMeasure == 0 && fv[0] < fv[1] + fv[1] / 256))
        ++g_final.finalFalls;
    else
        g_final.finalFalls = 0;
    // 3. Turn back to the best position.
    const bool turn =
        peak_by_history() != 0 ||
        (fv[0] > 800 && fv[0] < g_final.finalBest && g_final.finalBest - fv[0] > fv[0] / 8 &&
         absdiff(g_final.finalBestPos, p0) > 10) ||
        (g_final.finalFalls > 4 &&
         (g_pointLightMeasure != 0 ||
          (g_final.finalBest > fv[0] && g_final.finalBest - fv[0] > fv[0] * 3 / 64))) ||
        PeakTest(2);
    if (turn) {
        g_climb.finalReturn = 1;
        FlipDirection();
        AnchorSet(0);
        g_final.finalCount = 0;
        drive_to_best();
        final_reference_watch();
        return;
    }
    // 4. Step review.
    if (fv[0] < 400) {
        if (z >= 4500) {
            if (g_final.finalStep <= 2)
                g_final.finalStep = 3;
        } else if (g_final.finalStep == 1 && fv[0] > 90) {
            g_final.finalStep = 2;
        } else if (g_final.finalStep <= 2 && fv[0] <= 90) {
            g_final.finalStep = 3;
        }
    }
    if (g_final.finalCount == 15 || g_final.finalCount > 29) {
        const uint32_t m = largest_selected_window();
        const bool strong = m > 400 || (g_zoneType >= 2 && m >= 301);
        const bool at15 = g_final.finalCount == 15;
        if (strong) {
            g_final.finalCount = 0;
            if (m <= 9999)
                ++g_final.finalStep;
        } else if (at15) {
            if (g_fine.lowContrastRetry) {
                ++g_final.finalStep;
            } else {
                g_final.finalCount = 0;
                g_fine.lowContrastRetry = 1;
                SnapshotReference();
                g_final.finalFalls = 0;
            }
        } else {
            g_final.finalCount = 0;
            if (g_fine.lowContrastRetry) {
                SnapshotReference();
                g_final.finalFalls = 0;
            } else {
                ++g_final.finalStep;
            }
        }
        // A review that starts a new search still makes this frame's move and reference watch.
    }
    // 5. The move: larger when the value sits on a plateau or far below the anchor.
    const uint32_t big = fv[0] > fv[1] ? fv[0] : fv[1];
    const uint8_t q = static_cast<uint8_t>(big ? absdiff(fv[0], fv[1]) * 64 / big : 0);
    if (g_final.finalStep > 1 && fv[0] > 2000 && fv[0] < fv[1])
        g_final.finalStep = 1;
    uint16_t move = g_final.finalStep;
    if ((q == g_final.prevQ[0] && q != 0 && fv[0] < 300) ||
        (g_final.prevQ[0] == g_final.prevQ[1] && g_final.prevQ[0] != 0 &&
         2 * g_final.prevQ[0] < q && fv[0] < 300)) {
        const uint8_t a = anchor_test();
        move = static_cast<uint16_t>(a == 1   ? 2 * g_final.finalStep + 1
                                     : a == 2 ? 3 * g_final.finalStep + 1
                                              : g_final.finalStep + 1);
    } else if (fv[0] > fv[1]) {
        if (!(q > 14 &&
              (absdiff(g_focusValue.posHist[0], g_focusValue.posHist[1]) < 2 || q > 19))) {
            const uint8_t a = anchor_test();
            move = static_cast<uint16_t>(a == 1   ? 2 * g_final.finalStep
                                         : a == 2 ? 3 * g_final.finalStep
                                                  : g_final.finalStep);
        }
    }
    g_final.prevQ[1] = g_final.prevQ[0];
    g_final.prevQ[0] = q;
    StepMove(move);
    // 6. Reference watch.
    final_reference_watch();
}

void fine_scan_reset_for_testing() {
    fine_state_reset();
    final_state_reset();
}
