// The scene analyzer's state: one record for the whole process, with a reset per concern.
//
// Everything is fixed-size, so the per-frame path (scene_step and the motion detector under it)
// works on this record alone and never allocates. Only the main loop's autofocus step calls in.
#pragma once

#include <cstdint>

#include "isp/af_stat.h"
#include "scene/labelling.h"
#include "scene/scene_types.h"

// Bounded FIFO of u16 values, oldest first.
template <int N>
struct U16Queue {
    uint16_t v[N] = {};
    uint8_t n = 0;
    void clear() { n = 0; }
    void push(uint16_t x, int depth = N) {
        if (depth > N)
            depth = N;
        while (n >= depth && n > 0) {
            for (int i = 1; i < n; ++i)
                v[i - 1] = v[i];
            --n;
        }
        v[n++] = x;
    }
    uint16_t mean() const {
        uint32_t s = 0;
        for (int i = 0; i < n; ++i)
            s += v[i];
        return n == 0 ? 0 : static_cast<uint16_t>(s / n);
    }
};

// Ring of grids, index 0 = oldest. Pushing onto a full ring drops the oldest.
template <int N>
struct GridRing {
    uint32_t grids[N][kGridBlocks];
    uint8_t head = 0;  // slot of the oldest grid
    uint8_t n = 0;
    void clear() { head = n = 0; }
    uint32_t* push() {
        uint8_t slot;
        if (n < N) {
            slot = static_cast<uint8_t>((head + n) % N);
            ++n;
        } else {
            slot = head;
            head = static_cast<uint8_t>((head + 1) % N);
        }
        return grids[slot];
    }
    const uint32_t* at(int i) const { return grids[(head + i) % N]; }  // 0 = oldest
    const uint32_t* newest() const { return at(n - 1); }
};

struct AdaptiveThreshold {
    float min = 0;
    float value = 0;
    float max = 0;
};

struct DecisionParams {
    uint8_t historyLength = 0;  // long-history grids the transient check needs
    float sceneGain = 0;
    uint8_t countDepth = 8;
    uint8_t secondDepth = 6;
    float quietStep = 0;
};

// The motion detector: eight frames of grids, the component sets accepted for each frame
// distance, the tracked objects and the labelling's working storage.
struct ObjectDetector {
    uint32_t sharpHist[8][kGridBlocks] = {};  // entry 0 = newest
    uint32_t lumaHist[8][kGridBlocks] = {};
    uint8_t filled = 0;
    ComponentSet sets[3][8];  // per frame distance 1, 2, 4: ring of the last accepted sets
    uint8_t setHead[3] = {};  // slot of the newest set
    uint8_t setCount[3] = {};
    uint8_t objectCount = 0;
    TrackedObject objects[kMaxObjects];
    RunStorage runs;
    ComponentSet work;  // the set being built this frame
};

inline constexpr int kChangeRingMax = 16;
inline constexpr int kCentreHistoryMax = 100;
inline constexpr int kLongHistory = 20;

struct SceneAnalyzer {
    // AF window (inclusive).
    uint8_t winRow0 = 4, winRow1 = 11, winCol0 = 4, winCol1 = 11;

    // ---- Reference captured at focus ----
    uint32_t refSharp[kGridBlocks] = {};
    uint32_t refLuma[kGridBlocks] = {};
    uint32_t smoothSharp[kGridBlocks] = {};
    uint32_t smoothLuma[kGridBlocks] = {};
    uint8_t refWindowMask[kWindowCount] = {};
    uint32_t refWindowValues[kWindowCount] = {};
    uint8_t refFlag = 0;
    int64_t captureTime = 0;  // seconds
    uint16_t refFocus = 0;
    uint16_t refDistance = 0xFFFF;
    uint16_t windowRecord[3] = {};
    uint16_t windowRecordBefore[3] = {};
    CellList windowCells;   // AF-window blocks
    CellList subjectCells;  // the subject widened by one block
    uint8_t subjectCentred = 0;
    // Sharpness and luma means of the reference over the window cells and the subject cells.
    uint32_t refWinSharp = 0, refWinLuma = 0, refSubjSharp = 0, refSubjLuma = 0;

    // ---- Timed refresh ----
    uint16_t refreshInterval = 20;
    uint16_t refreshFocus = 0;
    uint8_t refreshBackoff = 0;
    uint32_t finishCaptures = 0;

    // ---- Histories ----
    GridRing<5> sharpHist, lumaHist;
    GridRing<kLongHistory> longSharp, longLuma;
    uint16_t longDistance[kLongHistory] = {};
    int16_t longOffset[kLongHistory] = {};
    uint8_t longHead = 0, longCount = 0;  // ring of the distance records beside the long grids

    // ---- Activity ----
    uint8_t changeRing[kChangeRingMax] = {};
    uint8_t changeSize = 0;  // 0 until the first capture, then 8 or 16
    uint8_t changePos = 0;   // next slot to overwrite
    uint32_t busyCount = 0, quietCount = 0;

    // ---- Thresholds ----
    float trigger[3] = {2.0f, 0.1f, 0.15f};
    AdaptiveThreshold adaptive[4] = {{0, 0.12f, 0}, {0, 0.1f, 0}, {0, 0.12f, 0}, {0, 0.1f, 0}};
    AdaptiveThreshold adaptiveSaved[4] = {};
    DecisionParams params;
    DecisionParams paramsSaved;

    // ---- Decision ----
    U16Queue<16> countHistory;
    uint8_t dropMode = 2, dropModeTwin = 2;
    float dropMax = 0;  // largest relative sharpness spread of the transient check
    uint32_t trendFlag = 2;
    U16Queue<5> endQ1, endQ2;
    uint16_t lowEnd = 65535, highEnd = 0;
    uint16_t frameCounter = 0;
    uint8_t countSeen = 0;
    uint8_t objectScene = 0;
    uint8_t changeTestFlag = 0;
    uint8_t sceneTypes[3] = {};  // oldest first
    uint8_t sceneTypeCount = 0;
    uint8_t lastChangedCount = 0;  // blocks of the newest changed-block list
    uint32_t lastReportSharp[kGridBlocks] = {};
    uint16_t lastReportFocus = 0;
    uint8_t reported = 0;

    // ---- Objects ----
    uint32_t detectorStatus = 5;
    uint8_t targetRegion[kGridBlocks] = {};
    uint8_t outputMask[kGridBlocks] = {};
    uint8_t targetCentre[2] = {};
    TrackedObject target;
    ComponentSet snapshot;  // the newest accepted component set, for autofocus
    uint8_t centreHistory[kCentreHistoryMax][2] = {};
    uint8_t centreCount = 0;
    uint8_t lastCentre[2] = {255, 255};
    ObjectDetector detector;
};

extern SceneAnalyzer g_sceneAnalyzer;

// Trigger thresholds back to their resting values.
void reset_trigger_thresholds(SceneAnalyzer& a);
// Change-flag ring back to all 0, sized by the frame rate.
void reset_change_ring(SceneAnalyzer& a);
void push_change_flag(SceneAnalyzer& a, uint8_t flag);
// Mean of the change-flag ring (0 when it is empty).
float change_ratio(const SceneAnalyzer& a);
// Appends a scene type to the three-entry history.
void push_scene_type(SceneAnalyzer& a, uint8_t type);
// Current time in whole seconds.
int64_t scene_now_seconds();
// Temporal smoothing of the reference grids: copy, or old x 0.4 + new x 0.6.
void smooth_reference(SceneAnalyzer& a, const uint32_t* sharp, const uint32_t* luma, uint8_t copy);
