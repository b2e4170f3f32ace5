// Contrast search: the step move, the trend tests, the coarse approach and the hill climb.
//
// The focus value is noisy and lags the lens by a frame or two, so no single comparison decides
// anything. The coarse approach stops only when three classifiers on three different series (the
// focus value and the vertical and horizontal block statistics) agree on a trend, and it adapts
// its step from the strongest single window, whose curve is steeper than the zone average. The
// climb walks a small step times a multiplier, judges a peak only when the positions moved
// monotonically over the frames it compares, and walks back to a remembered candidate.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "af/af_seams.h"
#include "af/af_state.h"
#include "af/focus_zone.h"
#include "af/highlight_scene.h"
#include "isp/frame_history.h"
#include "lens_api/lens_position.h"
#include "scene/scene_analyzer.h"

BlockSearchWindow g_blockSearchWindow;
CoarseState g_coarse;
ClimbState g_climb;

void coarse_state_reset() {
    g_coarse = CoarseState{};
}

void climb_state_reset() {
    g_climb = ClimbState{};
}

namespace {

// Scratch, not state: the zone's blocks, rebuilt before every use by the trend series and the
// end test.
FhCellList g_zoneCells;

inline uint32_t absdiff(uint32_t a, uint32_t b) {
    return a > b ? a - b : b - a;
}

void build_zone_cells(FhCellList* cells) {
    cells->clear();
    for (int z = 0; z < kWindowCount; ++z) {
        if (g_focusZone.windowMask[z] == 0)
            continue;
        const int r0 = (z / 5) * 3;
        const int c0 = (z % 5) * 3;
        for (int r = r0; r < r0 + 3; ++r)
            for (int c = c0; c < c0 + 3; ++c) {
                const int b = r * kGridCols + c;
                if (g_focusZone.blockMask[b] == 1 && g_focusValue.excludedMask[b] == 0)
                    cells->add(static_cast<uint8_t>(r), static_cast<uint8_t>(c));
            }
    }
}

// Least-squares slope of y[0..n) over its index.
float slope(const uint32_t* y, int n) {
    if (n < 2)
        return 0.0f;
    if (n == 3) {
        const bool between = (y[0] < y[1] && y[1] < y[2]) || (y[0] > y[1] && y[1] > y[2]);
        if (!between)
            return 0.0f;
    }
    const float xm = (n - 1) / 2.0f;
    float ym = 0.0f;
    for (int i = 0; i < n; ++i)
        ym += static_cast<float>(y[i]);
    ym /= static_cast<float>(n);
    float num = 0.0f;
    float den = 0.0f;
    for (int i = 0; i < n; ++i) {
        const float dx = static_cast<float>(i) - xm;
        num += dx * (static_cast<float>(y[i]) - ym);
        den += dx * dx;
    }
    return num / den;
}

uint8_t trend(const uint32_t* s, uint8_t n, float rel_thr, float slope_thr, bool raw) {
    const bool lights = g_seams.pointLightZone != 0;
    if (g_search.framesInDir < 3 || n < 3)
        return 0;
    if (!lights && (g_search.framesInDir < 4 || n < 4))
        return 0;
    uint32_t m = 0;
    for (int i = 0; i < n; ++i)
        m = s[i] > m ? s[i] : m;
    const bool low = af_low_light() != 0;
    if (!raw) {
        if (m < 50)
            return 0;
        if (m < 100) {
            rel_thr *= 3;
            slope_thr *= 4;
        } else if (m < 200) {
            rel_thr *= 2;
            slope_thr *= 3;
        } else if (m < 500) {
            rel_thr *= 1.5f;
            slope_thr *= 2;
        }
        if (low && m < 500)
            return 0;
    }
    int rises = 0;
    int falls = 0;
    for (int i = 0; i + 1 < n; ++i) {
        rises += s[i] < s[i + 1];
        falls += s[i] > s[i + 1];
    }
    const uint32_t first = s[0];
    const uint32_t last = s[n - 1];
    const float rel = static_cast<float>(absdiff(last, first)) /
                      static_cast<float>((first > last ? first : last) + 1);
    const bool travel_ok =
        (!raw && !low) ||
        absdiff(last, first) > 3u * absdiff(g_focusValue.posHist[0], g_focusValue.posHist[4]);
    if ((rises >= 4 || (rises == 3 && falls == 0)) && rel > rel_thr && travel_ok)
        return 1;
    if ((falls >= 4 || (falls == 3 && rises == 0)) && rel > rel_thr && travel_ok)
        return 2;
    float s5 = 0;
    float s4 = 0;
    float s3 = 0;
    if (n >= 5) {
        s5 = slope(s + n - 5, 5);
        s4 = slope(s + n - 4, 4);
        s3 = slope(s + n - 3, 3);
    } else if (n == 4) {
        s4 = slope(s, 4);
        s3 = slope(s + 1, 3);
    } else {
        s3 = slope(s, 3);
    }
    const float m43 = s4 < s3 ? s4 : s3;
    const float lo = s5 < m43 ? s5 : m43;
    const float hi = s5 > m43 ? s5 : m43;
    if (lo < -slope_thr)
        return 2;
    if (hi > slope_thr)
        return 1;
    return 0;
}

// Mean over the zone of the samples nearest a position: the five frames on the side of travel
// (from the current position) or around a candidate position.
uint32_t side_mean(uint16_t pos, uint8_t below, uint8_t up, uint8_t kind, FhSeries* keep) {
    FhSeries s;
    fh_neighbour_series(g_zoneCells, pos, below, up, kind, &s);
    if (keep)
        *keep = s;
    if (s.n == 0)
        return 0;
    uint32_t sum = 0;
    for (int i = 0; i < s.n; ++i)
        sum += s.v[i];
    return sum / s.n;
}

// End test: is the current side of the range clearly sharper than the best place seen? When it
// is not, the scene has no peak on this side and the search turns round.
bool end_test(bool climb) {
    build_zone_cells(&g_zoneCells);
    const uint16_t p = g_focusValue.posHist[0];
    const uint8_t below = g_search.searchDir == 1 ? 4 : 0;
    const uint8_t up = g_search.searchDir == 1 ? 1 : 5;
    const uint16_t cand = fh_best_position();
    for (uint8_t kind = 4; kind <= 5; ++kind) {
        FhSeries cur;
        const uint32_t here = side_mean(p, below, up, kind, &cur);
        if (climb && kind == 4 && TrendOf(cur.v, cur.n, 0.08f, 15.0f) == 1)
            return false;
        const uint32_t there = side_mean(cand, 2, 3, kind, nullptr);
        if (there == 0)
            continue;
        if (static_cast<float>(here) / static_cast<float>(there) >= 1.3f)
            return false;
    }
    return true;
}

uint8_t strongest_window() {
    uint8_t s = 0;
    uint32_t best = 0;
    for (int z = 0; z < kWindowCount; ++z) {
        if (g_focusZone.windowMask[z] == 0 || g_focusValue.winHist[0][z] < 50)
            continue;
        if (g_focusValue.winHist[0][z] >= best) {
            best = g_focusValue.winHist[0][z];
            s = static_cast<uint8_t>(z);
        }
    }
    return s;
}

void point_towards(uint16_t target) {
    if (target < af_focus())
        g_search.searchDir = 1;
    else if (target > af_focus())
        g_search.searchDir = 2;
}

void end_reached(bool near_end, bool from_climb) {
    FlipDirection();
    if (from_climb) {
        fh_event_append(3, 1, af_focus());
        g_coarse.nearEndTried = 1;
        g_coarse.farEndTried = 1;
        g_coarse.endTarget = fh_far_candidate();
    } else {
        fh_event_append(2, 1, af_focus());
        if (near_end) {
            g_coarse.nearEndTried = 1;
            g_coarse.endTarget = g_coarse.farEndTried ? fh_far_candidate() : fh_near_candidate();
        } else {
            g_coarse.farEndTried = 1;
            g_coarse.endTarget = g_coarse.nearEndTried ? fh_far_candidate() : fh_near_candidate();
        }
    }
    g_search.searchPhase = 1;
    g_coarse.endReturn = 1;
    g_focusZone.enabled = 0;
}

bool near_end_due() {
    return g_search.framesInDir > 4 && g_focusValue.fvHist[0] < 300 && g_coarse.nearEndTried == 0 &&
           g_search.searchDir == 1 && g_focusValue.posHist[0] <= g_search.nearThreshold;
}
bool far_end_due() {
    return g_search.framesInDir > 4 && g_focusValue.fvHist[0] < 300 && g_coarse.farEndTried == 0 &&
           g_search.searchDir == 2 && g_focusValue.posHist[0] >= g_search.farThreshold;
}

// ---- Climb helpers ----

bool drop_confirmed() {
    const uint32_t* fv = g_focusValue.fvHist;
    if (!(af_low_light() && fv[2] <= 120))
        return true;
    return (fv[2] - fv[1]) > fv[1] * 5 / 32 && (fv[1] - fv[0]) > fv[0] * 5 / 32;
}

bool climb_peak_real() {
    const uint32_t span = absdiff(g_climb.runMaxPos, g_climb.runMinPos);
    const uint32_t k = span <= 14   ? 100
                       : span <= 24 ? 150
                       : span <= 49 ? 200
                       : span <= 99 ? 250
                                    : 300;
    if (af_low_light() && g_climb.runMax <= 400)
        return false;
    const bool behind = (g_search.searchDir == 1 && g_climb.runMaxPos > g_climb.runMinPos) ||
                        (g_search.searchDir == 2 && g_climb.runMaxPos < g_climb.runMinPos);
    if (absdiff(g_climb.runMax, g_climb.runMin) > g_climb.runMin * k / 1024 && behind)
        return true;
    if ((g_climb.unconfirmed > 2 && g_climb.flatFrames < 5) || !g_seams.pointLightZone)
        return true;
    if (span > 49)
        return false;
    ++g_climb.unconfirmed;
    return false;
}

int table_rule(int m, int b, int rate) {
    static constexpr int kLimit[9] = {40, 20, 20, 15, 15, 10, 12, 10, 10};
    const int L = kLimit[rate < 0 ? 0 : rate > 8 ? 8 : rate];
    if (m * b > L) {
        if (m == 2)
            return 1;
        if (m >= 3)
            return m * b < 2 * L ? m - 1 : m - 2;
        return m;
    }
    return m + 1;
}

int history_rule(int m, int t) {
    const int h0 = g_climb.rateHist[0];
    const int h1 = g_climb.rateHist[1];
    const int h2 = g_climb.rateHist[2];
    if (m >= 3) {
        if (m > 16)
            m = 16;
        if (m > 3 && ((m <= 5 && h0 > 20) || (m >= 6 && h0 > 10)))
            return m - (m <= 5 ? 2 : m <= 7 ? 3 : m <= 9 ? 4 : 5);
        if (m >= 7)
            return h1 < 3 ? m - 4 : m - 2;
        return m - 1;
    }
    if (g_focusValue.fvHist[0] >= g_focusValue.fvHist[1] &&
        ((h0 > h1 && h1 > h2 && h2 > t) || h0 < 25 || (m == 2 && h0 < 50)))
        return 2;
    return 1;
}

uint8_t climb_multiplier(int b) {
    int m = g_climb.climbMult;
    const uint32_t* fv = g_focusValue.fvHist;
    const uint32_t dp = absdiff(g_focusValue.posHist[0], g_focusValue.posHist[1]);
    const bool low = af_low_light() != 0;
    bool contrast = false;
    bool big_jump = false;
    uint32_t rate = 0;
    if (dp == 0) {
        rate = 4;
        contrast = true;
    } else if (fv[1] != 0 && fv[0] / fv[1] > 2) {
        rate = 100;
        big_jump = true;
    } else {
        for (int z = 0; z < kWindowCount; ++z) {
            if (g_focusZone.windowMask[z] == 0)
                continue;
            const uint32_t r = absdiff(g_focusValue.winHist[0][z], g_focusValue.winHist[1][z]) / dp;
            rate = r > rate ? r : rate;
            if (g_focusValue.winHist[0][z] >= 51)
                contrast = true;
        }
    }
    g_climb.rateHist[2] = g_climb.rateHist[1];
    g_climb.rateHist[1] = g_climb.rateHist[0];
    g_climb.rateHist[0] = static_cast<uint16_t>(rate > 0xFFFF ? 0xFFFF : rate);
    g_climb.flatFrames = (rate < 6 && low) ? static_cast<uint16_t>(g_climb.flatFrames + 1) : 0;
    const int r = static_cast<int>(rate);
    if (big_jump) {
        contrast = true;
        m = m < 3 ? 1 : m / 2;
    } else if (low) {
        if (r < 6)
            m = table_rule(m, b, r);
        else if (r > 7)
            m = history_rule(m, 8);
        else if (m >= 5)
            m = (g_climb.rateHist[1] < 3 && m > 6) ? m / 2 : m - 1;
    } else {
        if (r < 7)
            m = table_rule(m, b, r);
        else if (r > 8)
            m = history_rule(m, 9);
        else if (m >= 5)
            m = m - 1;
    }
    if (!contrast)
        m += 2;
    if (g_climb.flatFrames > 5)
        m += 2;
    static constexpr int kCap[16] = {2, 2, 2, 2, 2, 3, 3, 4, 7, 10, 10, 10, 10, 10, 10, 10};
    const int cap = kCap[(af_zoom() / 512) & 15];
    if (m > cap)
        m = cap;
    const uint16_t q = fv[0] > fv[1] ? static_cast<uint16_t>((fv[0] - fv[1]) * 128 / fv[0]) : 0;
    g_climb.riseHist[2] = g_climb.riseHist[1];
    g_climb.riseHist[1] = g_climb.riseHist[0];
    g_climb.riseHist[0] = q;
    if (fv[2] != fv[1] && fv[2] != fv[3] && q >= 8 && q <= 14 && g_climb.riseHist[1] > 7 &&
        g_climb.riseHist[2] > 7 && m < 2)
        m = 2;
    if (m <= 0)
        return 1;
    return static_cast<uint8_t>(m < 5 ? m : 5);
}

// After a walk back: in low light with the largest multiplier the climb may be chasing noise.
void multiplier_check() {
    if (g_climb.climbMult >= 5 && af_low_light()) {
        if (g_climb.returns > 3) {
            g_climb.returns = 0;
            g_search.giveUp = 1;
            return;
        }
        if (absdiff(g_climb.candPos, g_climb.prevCandPos) > 7 &&
            g_focusValue.fvHist[0] * 2 >= g_focusValue.fvHist[2]) {
            g_climb.climbMult = g_climb.climbMult / 2 ? g_climb.climbMult / 2 : 1;
            return;
        }
    }
    g_climb.finalReturn = 1;
}

void walk_back(uint16_t to, uint32_t threshold_fv) {
    point_towards(to);
    g_climb.returning = 1;
    StepMove(static_cast<uint16_t>(absdiff(to, g_focusValue.posHist[0])));
    ++g_climb.returns;
    (void)threshold_fv;
}

}  // namespace

// The climb's and the end rules' decisions, callable on their own.
bool DropConfirmed() {
    return drop_confirmed();
}
bool ClimbPeakReal() {
    return climb_peak_real();
}
uint8_t ClimbMultiplier(uint8_t base) {
    return climb_multiplier(base);
}
bool EndTest() {
    return end_test(false);
}
bool EndTestClimb() {
    return end_test(true);
}

// ---- Step move ----

void StepMove(uint16_t step) {
    if (step > 60)
        step = 60;
    const uint16_t p = af_focus();
    g_focusValue.posHist[0] = p;
    bool plain = false;
    uint16_t down = 0;
    uint16_t up = 0;
    if (p > g_search.lowerBound && p < g_search.upperBound) {
        if (g_search.searchDir == 1) {
            if (p - step > g_search.lowerBound) {
                down = step;
                plain = true;
            } else {
                down = static_cast<uint16_t>(p - g_search.lowerBound);
                g_search.searchDir = 2;
                g_search.hitLower = 1;
            }
        } else if (g_search.searchDir == 2) {
            if (p + step < g_search.upperBound) {
                up = step;
                plain = true;
            } else {
                up = static_cast<uint16_t>(g_search.upperBound - p);
                g_search.searchDir = 1;
                g_search.hitUpper = 1;
            }
        } else {
            return;
        }
    } else if (p >= g_search.upperBound) {
        down = step;
        g_search.searchDir = 1;
        g_search.hitUpper = 1;
    } else {
        up = step;
        g_search.searchDir = 2;
        g_search.hitLower = 1;
    }
    if (down > 0)
        lens_move(0, 0, 0, static_cast<uint8_t>(down));
    else if (up > 0)
        lens_move(0, 0, 1, static_cast<uint8_t>(up));
    if (!plain)
        reset_running_extremes();
}

void GoTo(uint16_t position) {
    point_towards(position);
    StepMove(static_cast<uint16_t>(absdiff(position, af_focus())));
}

// ---- Trend tests ----

uint8_t TrendOf(const uint32_t* s, uint8_t n, float rel_thr, float slope_thr) {
    return trend(s, n, rel_thr, slope_thr, false);
}

uint8_t TrendOfRaw(const uint32_t* s, uint8_t n, float rel_thr, float slope_thr) {
    return trend(s, n, rel_thr, slope_thr, true);
}

bool AllAgree(uint8_t kind, uint8_t a, uint8_t b, uint8_t c, uint8_t d, uint8_t e) {
    const uint8_t v[5] = {a, b, c, d, e};
    bool any = false;
    for (uint8_t x : v) {
        if (x == 0)
            continue;
        any = true;
        if (x != kind)
            return false;
    }
    return any;
}

bool PositionsMonotone(uint8_t n) {
    if (n < 2 || n > 5)
        return false;
    bool dec = true;
    bool inc = true;
    for (int i = n - 1; i > 0; --i) {
        // p(i) compared with p(i-1): walking from the oldest to the newest.
        if (!(g_focusValue.posHist[i] > g_focusValue.posHist[i - 1]))
            dec = false;
        if (!(g_focusValue.posHist[i] < g_focusValue.posHist[i - 1]))
            inc = false;
    }
    return dec || inc;
}

bool PeakTest(uint8_t kind) {
    const uint32_t* fv = g_focusValue.fvHist;
    const uint16_t* p = g_focusValue.posHist;
    const uint16_t z = af_zoom();
    switch (kind) {
        case 0:
            if (z < 1000 && fv[0] < 300 && fv[0] > fv[1] && fv[1] > fv[2] && fv[2] > fv[3])
                return PositionsMonotone(4);
            if (fv[0] > fv[1] && fv[1] > fv[2] && fv[0] - fv[2] > fv[0] * 10 / 128)
                return PositionsMonotone(3);
            return false;
        case 1: {
            if (z < 1000 && fv[0] < 300 && fv[0] < fv[1] && fv[1] < fv[2] && fv[2] < fv[3])
                return PositionsMonotone(4);
            const float r = fv[2] <= 200    ? 0.35f
                            : fv[2] <= 500  ? 0.26f
                            : fv[2] <= 800  ? 0.20f
                            : fv[2] <= 1000 ? 0.15f
                                            : 0.07f;
            if (fv[0] < fv[1] && fv[1] < fv[2] &&
                (static_cast<float>(fv[2] - fv[0]) > static_cast<float>(fv[2]) * r ||
                 (fv[2] - fv[0] > 1000 && fv[0] > 4000)))
                return PositionsMonotone(3);
            if (af_low_light() && g_zoneType != 3)
                return false;
            if (fv[0] < fv[1] && fv[1] < fv[2] && fv[2] < fv[3] &&
                fv[3] - fv[0] > 3u * absdiff(p[0], p[3]))
                return PositionsMonotone(4);
            return false;
        }
        case 2:
            if (fv[0] <= 2000)
                return false;
            if (fv[0] < fv[1] && fv[1] < fv[2] && fv[2] < fv[3] && fv[3] - fv[0] > 300)
                return PositionsMonotone(4);
            if (fv[0] < fv[1] && fv[1] >= fv[2] && fv[2] < fv[3] && fv[3] > fv[0] &&
                fv[3] - fv[0] > fv[3] / 16)
                return PositionsMonotone(4);
            return false;
        case 3:
            if (fv[0] > fv[1] && fv[1] > fv[2] && fv[2] > fv[3] && fv[0] - fv[3] > fv[3] / 16)
                return PositionsMonotone(4);
            if (fv[0] < fv[1] && fv[1] < fv[2] && fv[2] < fv[3] && fv[3] - fv[0] > fv[0] / 16)
                return PositionsMonotone(4);
            return false;
        default:
            return false;
    }
}

bool WindowTrend(uint8_t kind, uint8_t w) {
    const uint32_t W0 = g_focusValue.winHist[0][w];
    const uint32_t W1 = g_focusValue.winHist[1][w];
    const uint32_t W2 = g_focusValue.winHist[2][w];
    const uint32_t W3 = g_focusValue.winHist[3][w];
    const uint32_t W4 = g_focusValue.winHist[4][w];
    const bool lights = g_seams.pointLightZone != 0;
    const bool pl1 = g_pointLightMeasure == 1;
    switch (kind) {
        case 0:
            return W2 < W1 && W1 < W0;
        case 1:
            return W2 > W1 && W1 > W0;
        case 2: {
            if (W0 <= 200 && lights)
                return false;
            const bool skip_first = W4 <= 200 && lights;
            if (!skip_first && W0 > W2 && W2 > W3 && W3 > W4 && (W0 - W4 > W4 / 8 || pl1))
                return true;
            return W0 < W2 && W2 < W3 && W3 < W4 && (W4 - W0 > W0 / 8 || pl1);
        }
        default:
            return false;
    }
}

// ---- Running extremes since the last direction change ----

void reset_running_extremes() {
    g_climb.runMin = 0xFFFF;
    g_climb.runMax = 0;
    g_climb.runFrames = 0;
}

void update_running_extremes() {
    if (g_search.framesInDir == 1) {
        reset_running_extremes();
    }
    if (g_climb.runFrames < 30)
        ++g_climb.runFrames;
    const uint32_t fv0 = g_focusValue.fvHist[0];
    const uint16_t p0 = g_focusValue.posHist[0];
    if (fv0 < g_climb.runMin) {
        g_climb.runMin = fv0;
        g_climb.runMinPos = p0;
    }
    if (fv0 > g_climb.runMax) {
        g_climb.runMax = fv0;
        g_climb.runMaxPos = p0;
        g_climb.runMin = fv0;
        g_climb.runMinPos = p0;
    }
}

// ---- Trend series ----

void update_trend_series() {
    build_zone_cells(&g_zoneCells);
    std::memcpy(g_coarse.seriesF, g_focusValue.fvQueue, sizeof g_coarse.seriesF);
    FhSeries v;
    FhSeries h;
    fh_ring_series(&v, g_zoneCells, 4, 5);
    fh_ring_series(&h, g_zoneCells, 5, 5);
    g_coarse.seriesN = v.n;
    std::memcpy(g_coarse.seriesV, v.v, v.n * sizeof(uint32_t));
    std::memcpy(g_coarse.seriesH, h.v, h.n * sizeof(uint32_t));
    point_light_series_rebuild();
}

void clear_trend_series() {
    g_coarse.seriesN = 0;
}

void clear_fine_counters() {
    clear_final_counters();
}

// ---- Coarse approach ----

void CoarseReset() {
    g_coarse.coarseFrames = 0;
    g_coarse.coarseStep = 2;
    g_coarse.endReturn = 0;
}

void CoarseStep() {
    const uint16_t z = af_zoom();
    const uint16_t p0 = g_focusValue.posHist[0];
    // 1. Returning from an end of the range to the best place seen there.
    if (g_coarse.endReturn == 1) {
        if (g_coarse.endTarget < g_search.lowerBound)
            g_coarse.endTarget = g_search.lowerBound;
        if (g_coarse.endTarget > g_search.upperBound)
            g_coarse.endTarget = g_search.upperBound;
        const uint16_t s = z <= 5000 ? 35 : 50;
        point_towards(g_coarse.endTarget);
        const uint32_t d = absdiff(g_coarse.endTarget, af_focus());
        if (d >= 2u * s)
            StepMove(static_cast<uint16_t>(2 * s));
        else if (d >= s)
            StepMove(s);
        else if (d >= 1)
            StepMove(static_cast<uint16_t>(d));
        if (af_focus() == g_coarse.endTarget) {
            g_coarse.endReturn = 0;
            if (g_coarse.nearEndTried && g_coarse.farEndTried) {
                // Both ends tried: the two windows that peaked highest make the zone.
                uint32_t peaks[kWindowCount];
                fh_copy_peak_table(peaks);
                uint8_t first = 0;
                for (uint8_t i = 1; i < kWindowCount; ++i)
                    if (peaks[i] > peaks[first])
                        first = i;
                uint8_t second = first == 0 ? 1 : 0;
                for (uint8_t i = 0; i < kWindowCount; ++i)
                    if (i != first && peaks[i] > peaks[second])
                        second = i;
                g_focusZone.clear_window_mask();
                g_focusZone.windowMask[first] = 1;
                g_focusZone.windowMask[second] = 1;
                g_focusZone.reset_block_mask();
                g_search.searchPhase = 3;
            } else {
                g_search.searchPhase = 1;
            }
        }
        return;
    }
    // 2. The strongest window steers the step.
    const uint8_t s = strongest_window();
    // 3. A bound hit hands over to the climb, walking back into the range.
    if (g_search.hitLower || g_search.hitUpper) {
        g_search.searchPhase = 2;
        g_search.searchDir = g_search.hitLower ? 2 : 1;
        fh_event_append(2, 2, af_focus());
    }
    // 4. The first frame sets the step from how far the focus stands from the likely range.
    if (g_coarse.coarseFrames == 0) {
        g_coarse.coarseStep = z < 3746 ? 2 : z < 4476 ? 3 : 4;
        const int32_t inf = af_curve_base();
        const int32_t span = af_far_offset(50);
        const int32_t p = p0;
        if (p < inf - 100)
            g_coarse.coarseStep = static_cast<int8_t>(g_coarse.coarseStep * 4);
        else if (p < inf - 75)
            g_coarse.coarseStep = static_cast<int8_t>(g_coarse.coarseStep * 3);
        else if (p < inf - 50)
            g_coarse.coarseStep = static_cast<int8_t>(g_coarse.coarseStep * 2);
        else if (p > inf + span + 50)
            g_coarse.coarseStep = static_cast<int8_t>(g_coarse.coarseStep * 4);
        g_coarse.coarseMin = g_coarse.coarseStep;
    }
    // 5. Adapt the step.
    if (g_search.searchPhase != 2) {
        ++g_coarse.coarseFrames;
        const uint32_t a = g_focusValue.winHist[0][s];
        const uint32_t b = g_focusValue.winHist[1][s];
        const uint32_t c = g_focusValue.winHist[2][s];
        const bool fine_start = g_fine.startedFine != 0;
        int step = g_coarse.coarseStep;
        bool floor = true;
        if (g_coarse.coarseFrames > 1 && !fine_start && a < 1300 && absdiff(a, b) < 20) {
            step += 2;
            floor = false;
        } else if (g_coarse.coarseFrames > 1 && !fine_start && a < 1300 && absdiff(a, b) > 20) {
            step -= 2;
        } else if (g_coarse.coarseFrames > 2 && a < 1300 && !fine_start &&
                   absdiff(a, b) > 2 * absdiff(b, c)) {
            step -= 4;
        } else if (g_coarse.coarseFrames > 2 && a > 1300 && !fine_start && PositionsMonotone(3)) {
            const uint32_t d = absdiff(a, b);
            const uint32_t e = absdiff(b, c);
            if (d > 4 * e)
                step /= 4;
            else if (d > 3 * e)
                step /= 3;
            else if (d > 2 * e)
                step /= 2;
            else
                step -= 4;
        } else if (!fine_start && a > 1500) {
            step -= 2;
        } else {
            floor = false;
            if (g_coarse.coarseFrames % 5 == 0 && absdiff(af_focus(), g_search.searchStartPos) > 9)
                step *= 2;
        }
        if (floor && step < g_coarse.coarseMin)
            step = g_coarse.coarseMin;
        if (step > 30)
            step = 30;
        if (p0 > af_curve_base() && z < 3746 && step > 3)
            step = 3;
        if (!af_low_light() && step > 10)
            step = 10;
        if (step < 1)
            step = 1;
        g_coarse.coarseStep = static_cast<int8_t>(step);

        // 6. Stop tests.
        const uint8_t n = g_coarse.seriesN;
        const uint8_t tf = TrendOfRaw(g_coarse.seriesF, 5, 0.1f, 15.0f);
        const uint8_t tv = TrendOf(g_coarse.seriesV, n, 0.08f, 10.0f);
        if (AllAgree(1, tf, tv, TrendOf(g_coarse.seriesH, n, 0.08f, 10.0f))) {
            g_search.searchPhase = 2;
        } else if (((g_sceneResult.event == 0 && g_coarse.coarseFrames > 3) ||
                    (g_sceneResult.event != 0 && g_search.framesInDir >= 3)) &&
                   AllAgree(2, tf, tv, TrendOf(g_coarse.seriesH, n, 0.12f, 30.0f))) {
            g_search.searchPhase = 2;
            FlipDirection();
            fh_event_append(2, 3, af_focus());
        } else if (const uint8_t light = point_light_series_trend(); light != 0) {
            // The detail around the lights fades: the lens is moving away from them.
            g_seams.plSeriesArmed = 0;
            if (light == 2) {
                FlipDirection();
                fh_event_append(2, 3, af_focus());
            }
        } else if (near_end_due() && end_test(false)) {
            end_reached(true, false);
        } else if (far_end_due() && end_test(false)) {
            end_reached(false, false);
        } else if (g_coarse.coarseFrames >= 4 && WindowTrend(2, s) &&
                   g_focusValue.winHist[0][s] < g_focusValue.winHist[1][s]) {
            FlipDirection();
            g_search.searchPhase = 2;
            if (g_blockPath == 1 && g_search.firstAfterZoom == 1) {
                g_focusZone.clear_window_mask();
                g_focusZone.windowMask[s] = 1;
                g_focusZone.reset_block_mask();
                for (int k = 0; k < 5; ++k)
                    g_focusValue.fvHist[k] = g_focusValue.winHist[k][s];
            }
        }
    }
    // 7. The move.
    StepMove(static_cast<uint16_t>(g_coarse.coarseStep));
    // 8. The climb starts with a small step.
    if (g_search.searchPhase == 2) {
        g_coarse.coarseStep = z < 2000 ? 1 : z < 3000 ? 2 : 3;
        g_coarse.coarseFrames = 0;
        g_climb.finalReturn = 0;
    }
}

// ---- Hill climb ----

void ClearCandidate() {
    g_climb.returns = 0;
    g_climb.returning = 0;
    g_climb.armed = 0;
    g_climb.farJump = 0;
    g_climb.tries = 0;
    g_climb.candPos = 0;
    g_climb.prevCandPos = 0;
    g_climb.candThreshold = 0;
    g_climb.climbMult = 1;
    g_climb.finalReturn = 0;
    g_final.finalStep = 1;
}

void ClimbReset() {
    g_climb.climbUps = 0;
    g_climb.climbDowns = 0;
    g_climb.climbFrames = 0;
    g_climb.climbFalls = 0;
    g_climb.climbMax = 50;
    g_climb.climbMaxPos = af_focus();
    // Falls the peak test did not believe belong to this climb; the next one starts believing
    // nothing it has not seen.
    g_climb.unconfirmed = 0;
    ClearCandidate();
}

void ClimbStep() {
    const uint32_t* fv = g_focusValue.fvHist;
    const uint16_t* p = g_focusValue.posHist;
    const uint16_t z = af_zoom();
    // 1. Counters.
    if (fv[0] > fv[1])
        ++g_climb.climbUps;
    if (fv[0] < fv[1])
        ++g_climb.climbDowns;
    ++g_climb.climbFrames;
    g_climb.climbFalls = fv[0] < fv[1] ? static_cast<uint8_t>(g_climb.climbFalls + 1) : 0;
    if (fv[0] > g_climb.climbMax) {
        g_climb.climbMax = fv[0];
        g_climb.climbMaxPos = p[0];
        g_climb.climbDowns = 0;
    }
    // 12. Returning to the candidate peak.
    if (g_climb.finalReturn == 1) {
        const bool past = (fv[1] < fv[0] && g_climb.tries == 0) ||
                          (fv[2] < fv[0] && g_climb.tries == 1) ||
                          (fv[3] < fv[0] && g_climb.tries == 2);
        if (fv[0] > g_climb.candThreshold && past) {
            const uint16_t target = g_climb.candPos;
            ClearCandidate();
            g_search.searchPhase = 3;
            GoTo(target);
        } else if (g_climb.tries > 1) {
            g_climb.finalReturn = 0;
            g_climb.tries = 0;
        } else if (af_focus() != g_climb.candPos) {
            GoTo(g_climb.candPos);
            ++g_climb.tries;
        } else {
            ClearCandidate();
            g_search.searchPhase = 3;
            if (fv[0] < fv[1] && fv[1] < fv[2]) {
                FlipDirection();
                StepMove(static_cast<uint16_t>(absdiff(p[2], p[0])));
            }
        }
        return;
    }
    // 3. In a point-light measure a clear drop ends the climb at once.
    if (g_pointLightMeasure != 0 && fv[0] < fv[1] && fv[1] < fv[2] && fv[2] - fv[0] > 80) {
        g_search.searchPhase = 3;
        FlipDirection();
        StepMove(static_cast<uint16_t>(absdiff(p[2], p[0])));
        std::fputs("高亮点数找到下降量 ", stdout);
        std::fflush(stdout);
        return;
    }
    // 4. Base step.
    int b = z <= 3500 ? 2 : 3;
    if (p[0] < 1500)
        b *= 2;
    // 5. An armed peak is confirmed by a second fall: walk back to it.
    if (g_climb.armed == 1 && fv[0] < fv[1] && fv[0] > 1000) {
        g_climb.armed = 0;
        point_towards(p[3]);
        g_climb.returning = 1;
        fh_event_append(3, 3, af_focus());
        StepMove(static_cast<uint16_t>(absdiff(p[3], p[0])));
        ++g_climb.returns;
        g_climb.candPos = fv[2] < fv[4] ? p[3] : p[2];
        if (absdiff(g_climb.candPos, p[0]) > 90)
            g_climb.farJump = 1;
        multiplier_check();
        g_climb.candThreshold = fv[3] >> g_climb.returns;
        g_climb.prevCandPos = g_climb.candPos;
        return;
    }
    // 6. A peak behind the lens.
    if (PeakTest(1) && g_climb.returning == 0 && climb_peak_real()) {
        fh_event_append(3, 3, af_focus());
        if (drop_confirmed()) {
            walk_back(p[2], fv[2]);
            if (fv[1] >= fv[3])
                g_climb.candPos = p[2];
            else if (fv[2] < fv[3] || fv[0] < fv[4])
                g_climb.candPos = p[3];
            else if (fv[2] == fv[3] || fv[2] - fv[3] >= fv[2] * 6 / 32)
                g_climb.candPos = p[2];
            else
                g_climb.candPos = p[3];
            if (absdiff(g_climb.candPos, p[0]) > 80)
                g_climb.farJump = 1;
            multiplier_check();
            g_climb.candThreshold = fv[2] >> g_climb.returns;
            g_climb.prevCandPos = g_climb.candPos;
            return;
        }
        g_climb.armed = 1;
        g_climb.climbMult = g_climb.climbMult > 4 ? 5 : climb_multiplier(b);
        if (absdiff(g_search.searchStartPos, p[0]) < 5u * b)
            g_climb.climbMult = 1;
        StepMove(static_cast<uint16_t>(g_climb.climbMult * b));
        return;
    }
    // 7-8. A long fall from a clear maximum: go straight back to it.
    const bool falling_run =
        ((g_climb.climbFrames == 3 && g_climb.climbDowns == 3) ||
         (g_climb.climbFrames >= 4 && g_climb.climbDowns >= g_climb.climbFrames * 3 / 4)) &&
        fv[0] * 3 / 2 < g_climb.climbMax && g_climb.climbMax > 1500;
    const bool long_fall =
        g_climb.climbMax > 800 &&
        ((g_climb.climbFalls > 3 && fv[4] > fv[0] && fv[4] - fv[0] > fv[4] / 8) ||
         g_climb.climbFalls > 4);
    if (falling_run || long_fall) {
        const uint16_t target = g_climb.climbMaxPos;
        ClearCandidate();
        g_search.searchPhase = 3;
        GoTo(target);
        return;
    }
    // 9. The ends of the range.
    if ((near_end_due() || far_end_due()) && end_test(true)) {
        end_reached(g_search.searchDir == 1, true);
        return;
    }
    // 10. Keep climbing.
    g_climb.returning = 0;
    g_climb.armed = 0;
    if (g_climb.farJump) {
        g_climb.farJump = 0;
        StepMove(static_cast<uint16_t>(absdiff(g_climb.candPos, p[0])));
        return;
    }
    // 11. The multiplier follows the slope.
    if (!(g_climb.climbMult > 3 && fv[0] < fv[1] && fv[1] - fv[0] > fv[1] / 8))
        g_climb.climbMult = climb_multiplier(b);
    if (absdiff(g_search.searchStartPos, p[0]) < 5u * b)
        g_climb.climbMult = 1;
    StepMove(static_cast<uint16_t>(g_climb.climbMult * b));
}

void contrast_search_reset_for_testing() {
    coarse_state_reset();
    climb_state_reset();
}
