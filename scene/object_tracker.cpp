#include "scene/object_tracker.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>

#include "scene/labelling.h"
#include "scene/scene_analyzer.h"
#include "scene/scene_state.h"

namespace {

constexpr float kChangeLimit = 0.08f;    // a block changed by 8 % or more moved
constexpr uint32_t kMinMaskBlocks = 15;  // fewer changed blocks: noise, not an object
constexpr uint32_t kMinObjectCells = 15;
constexpr uint32_t kMinOverlap = 3;
constexpr uint16_t kTimeToLive = 45;
constexpr uint8_t kMaxAge = 30;
constexpr int kFrameDistances[3] = {1, 2, 4};

// Dull blocks change a lot in relative terms for a small absolute change; the offset damps the
// sharpness ratio of blocks with little texture.
double sharp_offset(uint32_t smaller) {
    if (smaller <= 50)
        return 950;
    if (smaller <= 100)
        return 700;
    if (smaller <= 200)
        return 1200;
    if (smaller <= 500)
        return 1000;
    if (smaller <= 1000)
        return 500;
    if (smaller <= 2000)
        return 100;
    return 0;
}

bool in_window(int r, int c, int lo, int hi) {
    return r >= lo && r <= hi && c >= lo && c <= hi;
}

void set_cells(TrackedObject& obj, const uint8_t (*cells)[2], uint32_t n, uint8_t row,
               uint8_t col) {
    std::memmove(&obj.centres[1], &obj.centres[0], sizeof obj.centres - sizeof obj.centres[0]);
    obj.centres[0][0] = row;
    obj.centres[0][1] = col;
    obj.n = n;
    std::memcpy(obj.cells, cells, n * sizeof cells[0]);
    obj.valid = 1;
    obj.ttl = kTimeToLive;
}

void update_object(TrackedObject& obj, const uint8_t (*cells)[2], uint32_t n, uint8_t row,
                   uint8_t col) {
    set_cells(obj, cells, n, row, col);
    obj.age = static_cast<uint8_t>(std::min<int>(obj.age + 1, kMaxAge));
}

void create_object(TrackedObject& obj, uint8_t slot, const Component& comp) {
    new (&obj) TrackedObject();
    set_cells(obj, comp.cells, comp.n, comp.centreRow, comp.centreCol);
    obj.id = slot;
    obj.age = 1;
}

void clear_object(TrackedObject& obj) {
    new (&obj) TrackedObject();
}

void cells_to_mask(const uint8_t (*cells)[2], uint32_t n, uint8_t* mask) {
    for (uint32_t k = 0; k < n; ++k)
        mask[cells[k][0] * kGridCols + cells[k][1]] = 1;
}

bool overlaps(const uint8_t* objMask, const Component& comp) {
    uint32_t shared = 0;
    for (uint32_t k = 0; k < comp.n && shared < kMinOverlap; ++k)
        if (objMask[comp.cells[k][0] * kGridCols + comp.cells[k][1]] != 0)
            ++shared;
    return shared >= kMinOverlap;
}

// Fills the gaps between consecutive runs of set blocks along one line (a column or a row) where
// the block also differs from the reference: a person walking in front of a plain wall changes
// only at its edges from frame to frame, but all of it against the reference.
void fill_line(uint8_t* mask, const float* g, int start, int stride) {
    int starts[8], ends[8], runs = 0;  // a line of 15 holds at most 8 runs
    for (int i = 0; i < kGridCols; ++i) {
        if (mask[start + i * stride] == 0)
            continue;
        starts[runs] = i;
        while (i + 1 < kGridCols && mask[start + (i + 1) * stride] != 0)
            ++i;
        ends[runs++] = i;
    }
    for (int j = 0; j + 1 < runs; ++j)
        for (int i = ends[j]; i < starts[j + 1]; ++i)
            if (g[start + i * stride] >= kChangeLimit)
                mask[start + i * stride] = 1;
}

bool build_motion_mask(ComponentSet& set, const float* c) {
    uint32_t n = 0;
    for (int i = 0; i < kGridBlocks; ++i) {
        set.mask[i] = c[i] >= kChangeLimit ? 1 : 0;
        n += set.mask[i];
    }
    if (n < kMinMaskBlocks)
        return false;
    for (int round = 0; round < 2; ++round) {
        for (int col = 0; col < kGridCols; ++col)
            fill_line(set.mask, set.gapFill, col, kGridCols);
        for (int row = 0; row < kGridRows; ++row)
            fill_line(set.mask, set.gapFill, row * kGridCols, 1);
    }
    return true;
}

void reset_detector(SceneAnalyzer& a) {
    new (&a.detector) ObjectDetector();
    new (&a.snapshot) ComponentSet();
    std::memset(a.outputMask, 0, sizeof a.outputMask);
    a.lastCentre[0] = a.lastCentre[1] = 255;
    a.detectorStatus = kObjectNon;
}

void set_target_region(SceneAnalyzer& a, const TrackedObject& obj) {
    std::memset(a.targetRegion, 0, sizeof a.targetRegion);
    cells_to_mask(obj.cells, obj.n, a.targetRegion);
    a.targetCentre[0] = obj.centres[0][0];
    a.targetCentre[1] = obj.centres[0][1];
    std::memcpy(a.outputMask, a.targetRegion, sizeof a.outputMask);
}

uint32_t process_frame(SceneAnalyzer& a, const uint32_t* s, const uint32_t* y) {
    ObjectDetector& d = a.detector;
    std::memmove(d.sharpHist[1], d.sharpHist[0], 7 * sizeof d.sharpHist[0]);
    std::memmove(d.lumaHist[1], d.lumaHist[0], 7 * sizeof d.lumaHist[0]);
    std::memcpy(d.sharpHist[0], s, sizeof d.sharpHist[0]);
    std::memcpy(d.lumaHist[0], y, sizeof d.lumaHist[0]);
    if (d.filled == 0) {
        for (int k = 1; k < 8; ++k) {
            std::memcpy(d.sharpHist[k], s, sizeof d.sharpHist[0]);
            std::memcpy(d.lumaHist[k], y, sizeof d.lumaHist[0]);
        }
        d.filled = 1;
    }

    const uint32_t* s0 = d.sharpHist[0];
    const uint32_t* y0 = d.lumaHist[0];
    float maps[3][kGridBlocks];
    for (int k = 0; k < 3; ++k) {
        const uint32_t* sk = d.sharpHist[kFrameDistances[k]];
        const uint32_t* yk = d.lumaHist[kFrameDistances[k]];
        // The newest frame is the base: a change of the whole picture (exposure) is removed by
        // subtracting the most common relative change.
        const float shift = relative_change_mode(y0, yk);
        const bool byLuma = std::fabs(shift) > 0.01f || g_sceneContext.motionHint == 1;
        for (int i = 0; i < kGridBlocks; ++i) {
            double v;
            if (byLuma) {
                const int32_t diff = static_cast<int32_t>(yk[i] - y0[i]);
                v = static_cast<double>(diff) / (static_cast<double>(y0[i]) + 1.0) - shift;
            } else if ((s0[i] > 999 || sk[i] > 999) && s0[i] != 10 && sk[i] != 10) {
                const double diff = static_cast<double>(s0[i]) - static_cast<double>(sk[i]);
                v = diff / (static_cast<double>(s0[i]) + sharp_offset(std::min(s0[i], sk[i])));
            } else {
                v = (static_cast<double>(y0[i]) - static_cast<double>(yk[i])) /
                    (static_cast<double>(y0[i]) + 1.0);
            }
            maps[k][i] = static_cast<float>(std::fabs(v));
        }
    }

    ComponentSet& set = d.work;
    {
        const float shift = relative_change_mode(y0, a.refLuma);
        for (int i = 0; i < kGridBlocks; ++i) {
            const int32_t diff = static_cast<int32_t>(a.refLuma[i] - y0[i]);
            const double v = static_cast<double>(diff) / (static_cast<double>(y0[i]) + 1.0) - shift;
            set.gapFill[i] = static_cast<float>(std::fabs(v));
        }
    }

    uint32_t covered = 0;
    for (int k = 0; k < 3; ++k) {
        for (Component& comp : set.components)
            new (&comp) Component();
        std::memset(set.labels, 0, sizeof set.labels);
        std::memset(set.objectMap, 0, sizeof set.objectMap);
        set.count = 0;
        set.centroidRow = set.centroidCol = 255;
        if (!build_motion_mask(set, maps[k]))
            continue;
        d.runs.clear();
        label_components(set.mask, kGridCols, kGridRows, 8, d.runs, set);
        refine_components(a, set, kGridCols, kGridRows);

        uint32_t n = 0, rows = 0, cols = 0;
        for (int b = 0; b < kGridBlocks; ++b) {
            if (set.objectMap[b] != 0) {
                ++n;
                rows += static_cast<uint32_t>(b / kGridCols);
                cols += static_cast<uint32_t>(b % kGridCols);
            }
        }
        if (n > 0) {
            set.centroidRow = static_cast<uint8_t>((n / 2 + rows) / n);
            set.centroidCol = static_cast<uint8_t>((n / 2 + cols) / n);
        }
        d.setHead[k] = static_cast<uint8_t>((d.setHead[k] + 1) % 8);
        d.sets[k][d.setHead[k]] = set;
        if (d.setCount[k] < 8)
            ++d.setCount[k];
        // Autofocus reads the object map and its centroid from the newest accepted set.
        a.snapshot = set;
        covered = n;
        break;
    }

    // Objects that were not seen in the last matched frame fade out, unless they are moving in
    // or about inside the picture, which autofocus still has to follow.
    for (TrackedObject& obj : d.objects) {
        if (obj.valid == 0 || obj.overlapCount != 0)
            continue;
        if (obj.state != kMotionNone && obj.state != kMotionOut)
            continue;
        if (obj.ttl > 0)
            --obj.ttl;
        if (obj.ttl == 0) {
            clear_object(obj);
            --d.objectCount;
        }
    }

    if (d.objectCount == 0) {
        std::memset(a.outputMask, 0, sizeof a.outputMask);
        return 0;
    }

    a.detectorStatus = kObjectNon;
    bool movedIn = false, movedOut = false;
    for (const TrackedObject& obj : d.objects) {
        if (obj.valid == 0)
            continue;
        if (obj.state == kMotionIn) {
            a.detectorStatus = kObjectIn;
            set_target_region(a, obj);
            a.target = obj;
            movedIn = true;
            break;
        }
        if (obj.state == kMotionOut && !movedOut) {
            bool touchesMiddle = false;
            for (uint32_t k = 0; k < obj.n && !touchesMiddle; ++k)
                touchesMiddle = in_window(obj.cells[k][0], obj.cells[k][1], 4, 11);
            if (!touchesMiddle) {
                movedOut = true;
                a.target = obj;
            }
        }
    }
    if (movedOut && !movedIn) {
        a.detectorStatus = kObjectOut;
        new (&a.snapshot) ComponentSet();
        std::memset(a.outputMask, 0, sizeof a.outputMask);
        return 0;
    }
    if (!movedIn) {
        // Of the objects moving about inside, the one nearest the middle (a little right of the
        // centre block, where the AF windows weigh most).
        const TrackedObject* best = nullptr;
        int bestDist = 0;
        for (const TrackedObject& obj : d.objects) {
            if (obj.valid == 0 || obj.state != kMotionInside)
                continue;
            const int dist = std::abs(obj.centres[0][0] - 7) + std::abs(obj.centres[0][1] - 8);
            if (best == nullptr || dist < bestDist) {
                best = &obj;
                bestDist = dist;
            }
        }
        if (best != nullptr)
            set_target_region(a, *best);
    }
    if (covered < 1) {
        std::memset(a.outputMask, 0, sizeof a.outputMask);
        return 0;
    }
    return covered;
}

// 0 approaching the middle, 1 leaving it, 2 near it throughout, 5 no decision.
uint32_t classify_distances(const int* v, int n) {
    if (n == 0)
        return 5;
    const int last = v[n - 1];
    const int* maxIt = std::max_element(v, v + n);
    auto count = [](const int* t, int size, int& dec, int& inc) {
        dec = inc = 0;
        for (int j = 0; j <= size - 3; ++j) {  // the last pair is left out
            if (t[j + 1] < t[j])
                ++dec;
            else if (t[j + 1] > t[j])
                ++inc;
        }
    };
    int dec = 0, inc = 0;
    if (last < 4) {
        if (*maxIt < 4)
            return 2;
        const int size = static_cast<int>(v + n - maxIt);
        if (size < 3)
            return 5;
        count(maxIt, size, dec, inc);
        return dec >= 3 && dec > inc ? 0 : 5;
    }
    if (last == 4)
        return *maxIt < 5 ? 2 : 5;
    const int* minIt = std::min_element(v, v + n);
    if (*minIt >= 6)
        return 5;
    const int size = static_cast<int>(v + n - minIt);
    if (size < 3)
        return 5;
    count(minIt, size, dec, inc);
    return inc >= 3 && inc > dec ? 1 : 5;
}

uint32_t classify_series(const uint8_t (*centres)[2], int n, int axis) {
    int raw[kCentreHistoryMax], d[kCentreHistoryMax];
    for (int i = 0; i < n; ++i)
        raw[i] = centres[i][axis];
    int m = 0;
    for (int i = 0; i < n; ++i) {
        int v = raw[i];
        if (n >= 3) {
            const int lo = std::max(0, i - 1), hi = std::min(n - 1, i + 1);
            int sum = 0;
            for (int j = lo; j <= hi; ++j)
                sum += raw[j];
            v = sum / (hi - lo + 1);
        }
        const int dist = std::abs(v - 7);
        if (m == 0 || d[m - 1] != dist)
            d[m++] = dist;
    }
    return classify_distances(d, m);
}

}  // namespace

float relative_change_mode(const uint32_t* base, const uint32_t* other) {
    int32_t r[kGridBlocks];
    for (int i = 0; i < kGridBlocks; ++i) {
        const uint32_t div = base[i] == UINT32_MAX ? base[i] : base[i] + 1u;
        if (other[i] <= base[i])
            r[i] = -static_cast<int32_t>((base[i] - other[i]) * 100u / div);
        else
            r[i] = static_cast<int32_t>((other[i] - base[i]) * 100u / div);
    }
    std::sort(r, r + kGridBlocks, std::greater<int32_t>());
    int32_t best = r[0];
    int bestLen = 0;
    for (int i = 0; i < kGridBlocks;) {
        int j = i;
        while (j < kGridBlocks && r[j] == r[i])
            ++j;
        if (j - i > bestLen) {
            bestLen = j - i;
            best = r[i];
        }
        i = j;
    }
    return static_cast<float>(best) / 100.0f;
}

uint32_t detect_objects(SceneAnalyzer& a, uint8_t run, const uint32_t* s, const uint32_t* y) {
    if (run == 0) {
        reset_detector(a);
        return 0;
    }
    return process_frame(a, s, y);
}

void match_objects(SceneAnalyzer& a, ComponentSet& set) {
    ObjectDetector& d = a.detector;
    const uint32_t count = std::min<uint32_t>(set.count, kMaxComponents);

    if (d.objectCount == 0) {
        int largest = -1;
        for (uint32_t i = 0; i < count && d.objectCount < kMaxObjects; ++i) {
            const Component& comp = set.components[i];
            if (comp.n < kMinObjectCells)
                continue;
            create_object(d.objects[d.objectCount], d.objectCount, comp);
            ++d.objectCount;
            if (largest < 0)
                largest = static_cast<int>(i);  // the set is sorted largest first
        }
        if (largest >= 0) {
            const Component& comp = set.components[largest];
            for (uint32_t k = 0; k < comp.n; ++k)
                set.objectMap[comp.cells[k][0] * kGridCols + comp.cells[k][1]] = 1;
        }
        return;
    }

    for (uint32_t i = 0; i < count; ++i)
        set.components[i].overlapCount = 0;
    for (int s = 0; s < kMaxObjects; ++s) {
        TrackedObject& obj = d.objects[s];
        if (obj.valid == 0)
            continue;
        obj.overlapCount = 0;
        uint8_t objMask[kGridBlocks] = {};
        cells_to_mask(obj.cells, obj.n, objMask);
        for (uint32_t i = 0; i < count; ++i) {
            Component& comp = set.components[i];
            if (!overlaps(objMask, comp))
                continue;
            // Past these limits further links are ignored: the first ones, in order, decide.
            if (obj.overlapCount < kObjectComponentLinks)
                obj.overlapping[obj.overlapCount++] = static_cast<uint8_t>(i);
            if (comp.overlapCount < kComponentObjectLinks)
                comp.overlapping[comp.overlapCount++] = static_cast<uint8_t>(s);
        }
    }

    for (uint32_t i = 0; i < count; ++i) {
        const Component& comp = set.components[i];
        if (comp.n < kMinObjectCells)
            continue;
        // Objects merged away by an earlier component are skipped.
        uint8_t live[kComponentObjectLinks];
        int nLive = 0;
        for (int k = 0; k < comp.overlapCount; ++k)
            if (d.objects[comp.overlapping[k]].valid != 0)
                live[nLive++] = comp.overlapping[k];
        if (comp.overlapCount > 1 && nLive > 1) {
            TrackedObject& first = d.objects[live[0]];
            for (int k = 1; k < nLive; ++k) {
                TrackedObject& other = d.objects[live[k]];
                if (other.state == kMotionIn)
                    first.state = kMotionIn;
                clear_object(other);
            }
            update_object(first, comp.cells, comp.n, comp.centreRow, comp.centreCol);
            d.objectCount = static_cast<uint8_t>(d.objectCount - nLive + 1);
        } else if (nLive == 1 && d.objects[live[0]].overlapCount == 1) {
            update_object(d.objects[live[0]], comp.cells, comp.n, comp.centreRow, comp.centreCol);
        }
    }

    // An object split into several pieces (a person whose middle did not change) is rebuilt from
    // the pieces and the blocks between them that differ from the reference.
    for (TrackedObject& obj : d.objects) {
        if (obj.valid == 0 || obj.overlapCount <= 1)
            continue;
        bool merged = false;
        for (int k = 0; k < obj.overlapCount; ++k) {
            const Component& comp = set.components[obj.overlapping[k]];
            merged = merged || (comp.n >= kMinObjectCells && comp.overlapCount > 1);
        }
        if (merged)
            continue;
        uint8_t joined[kGridBlocks] = {};
        for (int k = 0; k < obj.overlapCount; ++k) {
            const Component& comp = set.components[obj.overlapping[k]];
            cells_to_mask(comp.cells, comp.n, joined);
        }
        int rmin = kGridRows, rmax = -1, cmin = kGridCols, cmax = -1;
        for (int b = 0; b < kGridBlocks; ++b) {
            if (joined[b] == 0)
                continue;
            rmin = std::min(rmin, b / kGridCols);
            rmax = std::max(rmax, b / kGridCols);
            cmin = std::min(cmin, b % kGridCols);
            cmax = std::max(cmax, b % kGridCols);
        }
        for (int r = rmin; r < rmax; ++r)
            for (int c = cmin; c < cmax; ++c)
                if (joined[r * kGridCols + c] == 0 &&
                    set.gapFill[r * kGridCols + c] >= kChangeLimit)
                    joined[r * kGridCols + c] = 1;
        uint8_t cells[kGridBlocks][2];
        uint32_t n = 0, rows = 0, cols = 0;
        for (int b = 0; b < kGridBlocks; ++b) {
            if (joined[b] == 0)
                continue;
            cells[n][0] = static_cast<uint8_t>(b / kGridCols);
            cells[n][1] = static_cast<uint8_t>(b % kGridCols);
            rows += cells[n][0];
            cols += cells[n][1];
            ++n;
        }
        if (n > 14)
            update_object(obj, cells, n, static_cast<uint8_t>((rows + n / 2) / n),
                          static_cast<uint8_t>((cols + n / 2) / n));
    }

    for (uint32_t i = 0; i < count; ++i) {
        const Component& comp = set.components[i];
        if (comp.n < kMinObjectCells || comp.overlapCount != 0)
            continue;
        for (int s = 0; s < kMaxObjects; ++s) {
            if (d.objects[s].valid == 0) {
                create_object(d.objects[s], static_cast<uint8_t>(s), comp);
                ++d.objectCount;
                break;
            }
        }
    }

    for (TrackedObject& obj : d.objects) {
        if (obj.valid == 0)
            continue;
        classify_motion(obj);
        for (uint32_t k = 0; k < obj.n; ++k)
            set.objectMap[obj.cells[k][0] * kGridCols + obj.cells[k][1]] = 2;
    }
}

void classify_motion(TrackedObject& obj) {
    if (obj.valid == 0 || obj.age < 3)
        return;
    auto inRange = [](int v) { return v >= 3 && v <= 11; };
    if (obj.state != kMotionNone) {
        const bool inside = inRange(obj.centres[0][0]) && inRange(obj.centres[0][1]);
        if (inside) {
            if (obj.state == kMotionOut)
                obj.state = kMotionInside;
        } else if (obj.state == kMotionIn) {
            obj.state = kMotionNone;
        } else {
            obj.state = kMotionOut;
        }
        if (obj.direction == kDirNone) {
            int rmin = 255, rmax = 0, cmin = 255, cmax = 0;
            for (int i = 0; i < obj.age && i < kObjectCentreDepth; ++i) {
                rmin = std::min<int>(rmin, obj.centres[i][0]);
                rmax = std::max<int>(rmax, obj.centres[i][0]);
                cmin = std::min<int>(cmin, obj.centres[i][1]);
                cmax = std::max<int>(cmax, obj.centres[i][1]);
            }
            const bool rowSpread = rmax - rmin > 2, colSpread = cmax - cmin > 3;
            if (rowSpread && colSpread)
                obj.direction = kDirBoth;
            else if (rowSpread)
                obj.direction = kDirRows;
            else if (colSpread)
                obj.direction = kDirCols;
        }
        return;
    }
    int rowsIn = 0, colsIn = 0;
    for (int i = 0; i < 3; ++i) {
        rowsIn += inRange(obj.centres[i][0]) ? 1 : 0;
        colsIn += inRange(obj.centres[i][1]) ? 1 : 0;
    }
    if (rowsIn == 0)
        return;
    if (rowsIn == 3) {
        if (colsIn == 0)
            return;
        obj.state = colsIn == 3 ? kMotionInside : kMotionIn;
        return;
    }
    obj.state = kMotionIn;
}

uint32_t classify_trajectory(const SceneAnalyzer& a) {
    const uint32_t colResult = classify_series(a.centreHistory, a.centreCount, 1);
    const uint32_t rowResult = classify_series(a.centreHistory, a.centreCount, 0);
    if (colResult == 1 || rowResult == 1)
        return kObjectOut;
    if (colResult != 0 && rowResult != 0)
        return kObjectShake;
    return kObjectIn;
}

void push_target_centre(SceneAnalyzer& a, uint8_t row, uint8_t col) {
    if (a.centreCount >= kCentreHistoryMax) {
        std::memmove(&a.centreHistory[0], &a.centreHistory[1],
                     (kCentreHistoryMax - 1) * sizeof a.centreHistory[0]);
        --a.centreCount;
    }
    a.centreHistory[a.centreCount][0] = row;
    a.centreHistory[a.centreCount][1] = col;
    ++a.centreCount;
    a.lastCentre[0] = row;
    a.lastCentre[1] = col;
}
