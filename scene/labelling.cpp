#include "scene/labelling.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "scene/object_tracker.h"

void RunStack::push(Run* r) {
    // Cannot fill (see above); a full stack would mean a corrupt run table, so drop the run
    // rather than write past the end.
    if (size < kRunStackSize)
        items[size++] = r;
}

void RunStack::pop() {
    if (size == 0) {
        std::printf("empty！\n");
        return;
    }
    --size;
}

void RunStorage::clear() {
    for (int32_t& c : count)
        c = 0;
    stack.size = 0;
}

int32_t label_components(const uint8_t* mask, int32_t width, int32_t height, int32_t connectivity,
                         RunStorage& storage, ComponentSet& set) {
    if (connectivity != 4 && connectivity != 8) {
        std::printf("[error]: wrong mode\n");
        std::fflush(stdout);
        std::exit(-1);
    }
    for (int32_t r = 0; r <= height && r < kRunRows; ++r)
        storage.count[r] = 0;

    for (int32_t r = 0; r < height; ++r) {
        int32_t c = 0;
        while (c < width) {
            if (mask[r * width + c] != 1) {
                ++c;
                continue;
            }
            const int32_t first = c;
            while (c + 1 < width && mask[r * width + c + 1] != 0)
                ++c;
            if (storage.count[r] < kRunsPerRow)
                storage.runs[r][storage.count[r]++] = Run{r, first, c, 0};
            c += 2;  // the block after the run is clear
        }
    }

    const int32_t reach = connectivity == 8 ? 1 : 0;
    RunStack& stack = storage.stack;
    stack.size = 0;
    int32_t label = 1;
    for (int32_t r = 0; r < height; ++r) {
        for (int32_t i = 0; i < storage.count[r]; ++i) {
            Run& seed = storage.runs[r][i];
            if (seed.label != 0)
                continue;
            seed.label = -1;
            stack.push(&seed);
            for (;;) {
                Run* top = stack.peek();
                const int32_t lo = top->first - reach, hi = top->last + reach;
                bool pushed = false;
                for (int32_t nr : {top->row - 1, top->row + 1}) {
                    if (nr < 0 || nr > height - 1)
                        continue;
                    for (int32_t j = 0; j < storage.count[nr]; ++j) {
                        Run& u = storage.runs[nr][j];
                        if (u.first <= hi && u.last >= lo && u.label == 0) {
                            u.label = -1;
                            stack.push(&u);
                            pushed = true;
                        }
                    }
                }
                if (pushed)
                    continue;
                // A run leaves the stack once none of its neighbours is left to reach.
                top->label = label;
                stack.pop();
                if (stack.empty())
                    break;
            }
            ++label;
        }
    }

    if (label > kMaxComponents)
        return 0;

    uint32_t counter[kMaxComponents] = {};
    for (int32_t r = 0; r < height; ++r) {
        for (int32_t i = 0; i < storage.count[r]; ++i) {
            const Run& run = storage.runs[r][i];
            for (int32_t c = run.first; c <= run.last; ++c) {
                set.labels[r * kGridCols + c] = static_cast<uint8_t>(run.label);
                Component& comp = set.components[run.label - 1];
                uint32_t& k = counter[run.label];
                comp.cells[k][0] = static_cast<uint8_t>(r);
                comp.cells[k][1] = static_cast<uint8_t>(c);
                ++k;
            }
        }
    }
    uint32_t largest = 0;
    for (int32_t l = 1; l < label; ++l) {
        set.components[l - 1].label = static_cast<uint32_t>(l);
        set.components[l - 1].n = counter[l];
        largest = std::max(largest, counter[l]);
    }
    set.count = static_cast<uint32_t>(label - 1);
    return static_cast<int32_t>(largest);
}

namespace {

void claim(ComponentSet& set, Component& comp, int32_t r, int32_t c) {
    set.labels[r * kGridCols + c] = static_cast<uint8_t>(comp.label);
    comp.cells[comp.n][0] = static_cast<uint8_t>(r);
    comp.cells[comp.n][1] = static_cast<uint8_t>(c);
    ++comp.n;
}

// Fills the background blocks between the first and last block of the component in every row,
// then in every column. Blocks of other components are left alone, so a lower label claims a
// contested background block first.
void close_holes(ComponentSet& set, Component& comp, int32_t width, int32_t height) {
    const uint8_t label = static_cast<uint8_t>(comp.label);
    for (int32_t r = 0; r < height; ++r) {
        int32_t first = -1, last = -1;
        for (int32_t c = 0; c < width; ++c) {
            if (set.labels[r * kGridCols + c] == label) {
                if (first < 0)
                    first = c;
                last = c;
            }
        }
        for (int32_t c = first + 1; first >= 0 && c < last; ++c)
            if (set.labels[r * kGridCols + c] == 0)
                claim(set, comp, r, c);
    }
    for (int32_t c = 0; c < width; ++c) {
        int32_t first = -1, last = -1;
        for (int32_t r = 0; r < height; ++r) {
            if (set.labels[r * kGridCols + c] == label) {
                if (first < 0)
                    first = r;
                last = r;
            }
        }
        for (int32_t r = first + 1; first >= 0 && r < last; ++r)
            if (set.labels[r * kGridCols + c] == 0)
                claim(set, comp, r, c);
    }
}

}  // namespace

void refine_component_shapes(ComponentSet& set, int32_t width, int32_t height) {
    const uint32_t count = std::min<uint32_t>(set.count, kMaxComponents);
    for (uint32_t i = 0; i < count; ++i)
        close_holes(set, set.components[i], width, height);

    uint32_t removed = 0;
    for (uint32_t i = 0; i < count; ++i) {
        Component& comp = set.components[i];
        if (comp.n >= 3)
            continue;
        for (uint32_t k = 0; k < comp.n; ++k) {
            set.labels[comp.cells[k][0] * kGridCols + comp.cells[k][1]] = 0;
            comp.cells[k][0] = comp.cells[k][1] = 0;
        }
        comp.n = 0;
        comp.label = 0;
        ++removed;
    }

    // Largest first. Equal sizes keep their label order, and the dropped records (size 0) end up
    // behind the valid ones. The order is found on indices (insertion sort of at most 32) and
    // applied through a scratch copy: no allocation, unlike std::stable_sort.
    uint8_t order[kMaxComponents];
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t j = i;
        while (j > 0 && set.components[order[j - 1]].n < set.components[i].n) {
            order[j] = order[j - 1];
            --j;
        }
        order[j] = static_cast<uint8_t>(i);
    }
    static Component scratch[kMaxComponents];  // main thread only
    for (uint32_t i = 0; i < count; ++i)
        scratch[i] = set.components[order[i]];
    for (uint32_t i = 0; i < count; ++i)
        set.components[i] = scratch[i];
    set.count = count - removed;

    for (uint32_t i = 0; i < set.count; ++i) {
        Component& comp = set.components[i];
        uint32_t rows = 0, cols = 0;
        for (uint32_t k = 0; k < comp.n; ++k) {
            rows += comp.cells[k][0];
            cols += comp.cells[k][1];
        }
        comp.centreRow = static_cast<uint8_t>((rows + comp.n / 2) / comp.n);
        comp.centreCol = static_cast<uint8_t>((cols + comp.n / 2) / comp.n);
    }
}

void refine_components(SceneAnalyzer& a, ComponentSet& set, int32_t width, int32_t height) {
    refine_component_shapes(set, width, height);
    match_objects(a, set);
}
