// Connected-component labelling of a motion mask.
//
// The mask is cut into horizontal runs of set blocks, and the runs are flooded with an explicit
// stack: a component is the set of runs reachable from its first run through runs in the rows
// above and below that touch it. Working on runs instead of blocks keeps the flood short (at most
// 8 runs per row of 15), and the stack keeps it free of recursion. All storage is fixed-size and
// lives with the detector, so labelling never allocates.
#pragma once

#include <cstdint>

#include "scene/scene_types.h"

struct SceneAnalyzer;

struct Run {
    int32_t row = 0;
    int32_t first = 0;
    int32_t last = 0;   // inclusive
    int32_t label = 0;  // 0 not reached, -1 on the stack, >= 1 final label
};

inline constexpr int kRunRows = 16;    // one more than the grid height
inline constexpr int kRunsPerRow = 8;  // a row of 15 holds at most 8 runs
inline constexpr int kRunStackSize = 256;

// Stack of run references. Every run is pushed at most once per labelling (it is marked -1 when
// pushed), so 128 runs can never fill 256 entries: the capacity is fixed instead of growing.
struct RunStack {
    Run* items[kRunStackSize] = {};
    int32_t size = 0;

    void push(Run* r);
    Run* peek() const { return size > 0 ? items[size - 1] : nullptr; }
    void pop();  // prints "empty！" when there is nothing to pop
    bool empty() const { return size == 0; }
};

struct RunStorage {
    Run runs[kRunRows][kRunsPerRow];
    int32_t count[kRunRows] = {};
    RunStack stack;

    void clear();
};

// Labels a width x height mask (width, height <= 15; row stride 15 in the label map) with
// 4- or 8-connectivity into set (which the caller cleared). Returns the cell count of the largest
// component, 0 when there is none or when 32 or more components leave the set empty. Any other
// connectivity is a programming error: the process ends with status -1.
int32_t label_components(const uint8_t* mask, int32_t width, int32_t height, int32_t connectivity,
                         RunStorage& storage, ComponentSet& set);

// Closes holes (row-wise, then column-wise), drops components of fewer than 3 cells, sorts the
// rest largest first and computes their centres. Does not touch the tracked objects.
void refine_component_shapes(ComponentSet& set, int32_t width, int32_t height);
// The shape refinement followed by matching against the analyzer's tracked objects.
void refine_components(SceneAnalyzer& a, ComponentSet& set, int32_t width, int32_t height);
