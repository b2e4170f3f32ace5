#include "isp/frame_history.h"

#include <cstdio>
#include <cstring>

#include "isp/highlight.h"
#include "lens_api/lens_position.h"

namespace {

struct Sample {
    uint16_t position;
    uint32_t a[kGridBlocks];
    uint32_t b[kGridBlocks];
};

struct BlockExtreme {
    uint32_t max;
    uint32_t min;
    uint16_t max_pos;
    uint16_t min_pos;
};

struct FrameHistory {
    uint16_t start_pos = 0;
    uint16_t end_pos = 0;
    uint16_t visited_max = 0;
    uint16_t visited_min = 0;
    uint16_t best_pos = 0;
    uint32_t best_mean = 0;
    uint32_t peak_table[kWindowCount] = {};
    uint32_t best_grid[kGridBlocks] = {};
    BlockExtreme extremes[kGridBlocks] = {};
    // Samples sorted by rising position.
    Sample samples[kFhMaxSamples + 1];
    int sample_count = 0;
    // Event log: a ring of the newest events.
    FhEvent events[kFhEventCapacity] = {};
    uint32_t event_total = 0;
    // Frame ring, oldest first.
    FhFrame ring[kFhRingSize];
    int ring_count = 0;
    uint8_t phases[kFhRingSize] = {};
    int phase_count = 0;
};

FrameHistory g_fh;

inline uint32_t kind_value(const FhFrame& f, int block, uint8_t kind) {
    const uint32_t* w = &f.w[block * 5];
    switch (kind) {
        case 0:
        case 1:
        case 2:
        case 3:
            return w[kind];
        case 4:
            return (w[0] + w[1]) / 2;
        case 5:
            return (w[2] + w[3]) / 2;
        case 6:
            return w[4];
        default:
            return 0;
    }
}

inline int block_of(uint8_t r, uint8_t c) {
    return r * kGridCols + c;
}

uint32_t frame_cell_mean(const FhFrame& f, const FhCellList& cells, uint8_t kind) {
    if (cells.n == 0 || kind > 5)
        return 0;
    uint32_t sum = 0;
    for (int i = 0; i < cells.n; ++i) {
        uint32_t v = kind_value(f, block_of(cells.rc[i][0], cells.rc[i][1]), kind);
        if ((kind == 4 || kind == 5) && v > 0x0FFFFFFFu)
            v = 0x0FFFFFFFu;
        sum += v;
    }
    return sum / cells.n;
}

int find_sample(uint16_t p) {
    for (int i = 0; i < g_fh.sample_count; ++i) {
        if (g_fh.samples[i].position == p)
            return i;
        if (g_fh.samples[i].position > p)
            break;
    }
    return -1;
}

void remove_sample(int i) {
    for (int k = i; k + 1 < g_fh.sample_count; ++k)
        g_fh.samples[k] = g_fh.samples[k + 1];
    --g_fh.sample_count;
}

bool is_kept_end(uint16_t p) {
    return p == g_fh.start_pos || p == g_fh.end_pos;
}

int abs_diff(int a, int b) {
    return a > b ? a - b : b - a;
}

}  // namespace

void fh_reset_for_search() {
    for (auto& e : g_fh.extremes) {
        e.max = 0;
        e.min = 0x0FFFFFFFu;
        e.max_pos = 0;
        e.min_pos = 0;
    }
    g_fh.best_mean = 0;
    g_fh.best_pos = lens_get_focus_pos();
    g_fh.start_pos = 0;
    g_fh.end_pos = 0;
    g_fh.visited_max = 0;
    g_fh.visited_min = 65534;
    g_fh.sample_count = 0;
    g_fh.phase_count = 0;
    g_fh.event_total = 0;
}

void fh_set_position(uint16_t position, uint8_t which) {
    if (which != 0)
        g_fh.start_pos = position;
    else
        g_fh.end_pos = position;
}

uint16_t fh_start_position() {
    return g_fh.start_pos;
}
uint16_t fh_end_position() {
    return g_fh.end_pos;
}
uint16_t fh_best_position() {
    return g_fh.best_pos;
}
uint32_t fh_best_mean() {
    return g_fh.best_mean;
}
uint16_t fh_visited_min() {
    return g_fh.visited_min;
}
uint16_t fh_visited_max() {
    return g_fh.visited_max;
}

void fh_record_sample(const uint32_t* a, const uint32_t* b, uint16_t p) {
    // 1. Best sample by the mean over the inner blocks (169: the count wraps in 8 bits as on the
    //    board, which still reads 169).
    uint32_t sum = 0;
    uint8_t count = 0;
    for (int r = 1; r <= 13; ++r)
        for (int c = 1; c <= 13; ++c) {
            sum += a[r * kGridCols + c];
            ++count;
        }
    const uint32_t mean = sum / count;
    if (mean > g_fh.best_mean) {
        g_fh.best_pos = p;
        g_fh.best_mean = mean;
        std::memcpy(g_fh.best_grid, a, sizeof g_fh.best_grid);
        for (int z = 0; z < kWindowCount; ++z) {
            const int r0 = (z / 5) * 3;
            const int c0 = (z % 5) * 3;
            uint32_t s = 0;
            for (int r = r0; r < r0 + 3; ++r)
                for (int c = c0; c < c0 + 3; ++c)
                    s += a[r * kGridCols + c];
            g_fh.peak_table[z] = s / 9;
        }
    }
    // 2. Per-block extremes.
    for (int i = 0; i < kGridBlocks; ++i) {
        BlockExtreme& e = g_fh.extremes[i];
        if (a[i] > e.max) {
            e.max = a[i];
            e.max_pos = p;
        }
        if (a[i] < e.min) {
            e.min = a[i];
            e.min_pos = p;
        }
    }
    // 3. Visited range.
    if (p > g_fh.visited_max)
        g_fh.visited_max = p;
    if (p < g_fh.visited_min)
        g_fh.visited_min = p;
    // 4. A second visit replaces the sample.
    const int old = find_sample(p);
    if (old >= 0)
        remove_sample(old);
    // 5. Keep the table bounded: drop the end sample farther from the new position, but never the
    //    search's start or end sample.
    if (g_fh.sample_count > kFhMaxSamples - 1) {
        int lo = 0;
        for (int i = 0; i < g_fh.sample_count; ++i)
            if (!is_kept_end(g_fh.samples[i].position)) {
                lo = i;
                break;
            }
        int hi = g_fh.sample_count - 1;
        for (int i = g_fh.sample_count - 1; i >= 0; --i)
            if (!is_kept_end(g_fh.samples[i].position)) {
                hi = i;
                break;
            }
        const int dlo = abs_diff(g_fh.samples[lo].position, p);
        const int dhi = abs_diff(g_fh.samples[hi].position, p);
        remove_sample(dhi < dlo ? lo : hi);
    }
    // 6. Insert in position order.
    int at = g_fh.sample_count;
    while (at > 0 && g_fh.samples[at - 1].position > p) {
        g_fh.samples[at] = g_fh.samples[at - 1];
        --at;
    }
    Sample& s = g_fh.samples[at];
    s.position = p;
    std::memcpy(s.a, a, sizeof s.a);
    std::memcpy(s.b, b, sizeof s.b);
    ++g_fh.sample_count;
}

uint8_t fh_sample_count() {
    return static_cast<uint8_t>(g_fh.sample_count);
}

uint32_t fh_block_max(uint8_t block) {
    return g_fh.extremes[block % kGridBlocks].max;
}
uint32_t fh_block_min(uint8_t block) {
    return g_fh.extremes[block % kGridBlocks].min;
}
uint16_t fh_block_max_pos(uint8_t block) {
    return g_fh.extremes[block % kGridBlocks].max_pos;
}
uint16_t fh_block_min_pos(uint8_t block) {
    return g_fh.extremes[block % kGridBlocks].min_pos;
}

void fh_copy_peak_table(uint32_t* out25) {
    std::memcpy(out25, g_fh.peak_table, sizeof g_fh.peak_table);
}

namespace {
uint16_t best_on_side(bool below) {
    uint32_t best = 0;
    uint16_t pos = g_fh.best_pos;
    for (int i = 0; i < g_fh.sample_count; ++i) {
        const Sample& s = g_fh.samples[i];
        if (below ? s.position >= g_fh.start_pos : s.position <= g_fh.start_pos)
            continue;
        uint32_t sum = 0;
        for (int r = 1; r <= 13; ++r)
            for (int c = 1; c <= 13; ++c)
                sum += s.a[r * kGridCols + c];
        if (sum / 169 > best) {
            best = sum / 169;
            pos = s.position;
        }
    }
    return pos;
}
}  // namespace

uint16_t fh_near_candidate() {
    return best_on_side(true);
}
uint16_t fh_far_candidate() {
    return best_on_side(false);
}

void fh_event_append(uint32_t phase, uint32_t kind, uint16_t position) {
    g_fh.events[g_fh.event_total % kFhEventCapacity] = FhEvent{phase, kind, position};
    ++g_fh.event_total;
}

void fh_event_clear() {
    g_fh.event_total = 0;
}

uint8_t fh_last_event(FhEvent* out) {
    if (g_fh.event_total == 0)
        return 0;
    *out = g_fh.events[(g_fh.event_total - 1) % kFhEventCapacity];
    return 1;
}

uint32_t fh_event_count() {
    return g_fh.event_total;
}

void fh_ring_fill(const FhFrame& frame) {
    for (auto& f : g_fh.ring)
        f = frame;
    g_fh.ring_count = kFhRingSize;
}

void fh_ring_push(const FhFrame& frame) {
    if (g_fh.ring_count == kFhRingSize) {
        for (int i = 0; i + 1 < kFhRingSize; ++i)
            g_fh.ring[i] = g_fh.ring[i + 1];
        --g_fh.ring_count;
    }
    g_fh.ring[g_fh.ring_count++] = frame;
}

void fh_ring_clear() {
    g_fh.ring_count = 0;
}

uint8_t fh_ring_size() {
    return static_cast<uint8_t>(g_fh.ring_count);
}

void fh_phase_push(uint8_t phase) {
    if (g_fh.phase_count == kFhRingSize) {
        for (int i = 0; i + 1 < kFhRingSize; ++i)
            g_fh.phases[i] = g_fh.phases[i + 1];
        --g_fh.phase_count;
    }
    g_fh.phases[g_fh.phase_count++] = phase;
}

void fh_phase_series(uint8_t* out, uint8_t* out_n, uint8_t n) {
    const int take = n < g_fh.phase_count ? n : g_fh.phase_count;
    for (int i = 0; i < take; ++i)
        out[i] = g_fh.phases[g_fh.phase_count - take + i];
    *out_n = static_cast<uint8_t>(take);
}

void fh_ring_series(FhSeries* out, const FhCellList& cells, uint8_t kind, uint8_t n) {
    out->n = 0;
    const int take = n < g_fh.ring_count ? n : g_fh.ring_count;
    for (int i = g_fh.ring_count - take; i < g_fh.ring_count; ++i)
        out->v[out->n++] = frame_cell_mean(g_fh.ring[i], cells, kind);
}

uint32_t fh_cell_mean_grid(const uint32_t* grid, const FhCellList& cells) {
    if (cells.n == 0)
        return 0;
    uint32_t sum = 0;
    for (int i = 0; i < cells.n; ++i)
        sum += grid[block_of(cells.rc[i][0], cells.rc[i][1])];
    return sum / cells.n;
}

void fh_neighbour_series(const FhCellList& cells, uint16_t position, uint8_t below, uint8_t from_up,
                         uint8_t kind, FhSeries* out, FhPositions* positions) {
    out->n = 0;
    if (positions)
        positions->n = 0;
    const int at = find_sample(position);
    if (at < 0)
        return;
    auto mean_of = [&](const Sample& s) -> uint32_t {
        if (kind == 4)
            return fh_cell_mean_grid(s.a, cells);
        if (kind == 5)
            return fh_cell_mean_grid(s.b, cells);
        return 0;
    };
    // Below: walk down, keep non-zero means, then emit them in rising order.
    int kept_below[kFhMaxSamples + 1];
    int nb = 0;
    for (int i = at - 1, taken = 0; i >= 0 && taken < below; --i, ++taken)
        if (mean_of(g_fh.samples[i]) != 0)
            kept_below[nb++] = i;
    auto emit = [&](int i, uint32_t m) {
        if (out->n >= kFhSeriesMax)
            return;
        out->v[out->n++] = m;
        if (positions)
            positions->p[positions->n++] = g_fh.samples[i].position;
    };
    for (int k = nb - 1; k >= 0; --k)
        emit(kept_below[k], mean_of(g_fh.samples[kept_below[k]]));
    for (int i = at, taken = 0; i < g_fh.sample_count && taken < from_up; ++i, ++taken) {
        const uint32_t m = mean_of(g_fh.samples[i]);
        if (m != 0)
            emit(i, m);
    }
}

void fh_ring_average_grid(uint32_t* out, uint8_t kind, uint8_t n) {
    const int take = n < g_fh.ring_count ? n : g_fh.ring_count;
    for (int b = 0; b < kGridBlocks; ++b) {
        if (take == 0) {
            out[b] = 0;
            continue;
        }
        uint32_t sum = 0;
        for (int i = g_fh.ring_count - take; i < g_fh.ring_count; ++i)
            sum += kind_value(g_fh.ring[i], b, kind);
        out[b] = sum / static_cast<uint32_t>(take);
    }
}

void get_sm_his_frame(uint32_t* out, uint8_t kind, uint8_t back) {
    const int i = g_fh.ring_count - back - 1;
    if (i >= 0) {
        for (int b = 0; b < kGridBlocks; ++b)
            out[b] = kind_value(g_fh.ring[i], b, kind);
        return;
    }
    std::memset(out, 50, kGridBlocks * sizeof(uint32_t));
    std::printf("%s %d error\n", "get_sm_his_frame", 596);
}

void fh_ring_window_averages(uint32_t* out25, const uint8_t* selection, uint8_t kind, uint8_t n) {
    uint32_t grid[kGridBlocks];
    fh_ring_average_grid(grid, kind, n);
    window_averages_of(grid, selection, out25);
}

void fh_ring_window_averages_no_highlights(uint32_t* out25, uint8_t kind, uint8_t n) {
    uint8_t core[kGridBlocks];
    copy_latched_highlight_core(core);
    uint8_t selection[kGridBlocks];
    for (int b = 0; b < kGridBlocks; ++b)
        selection[b] = core[b] ? 0 : 1;
    fh_ring_window_averages(out25, selection, kind, n);
}

void fh_past_window_averages(uint32_t* out25, const uint8_t* selection, uint8_t kind,
                             uint8_t back) {
    uint32_t grid[kGridBlocks];
    get_sm_his_frame(grid, kind, back);
    window_averages_of(grid, selection, out25);
}

void fh_block_series(FhSeries* out, uint8_t row, uint8_t col, uint8_t kind, uint8_t n) {
    out->n = 0;
    const int b = block_of(row % kGridRows, col % kGridCols);
    uint32_t tmp[kFhRingSize];
    int k = 0;
    for (int i = g_fh.ring_count - 1; i >= 0 && k < n; --i)
        tmp[k++] = kind_value(g_fh.ring[i], b, kind == 5 ? 5 : 4);
    for (int i = k - 1; i >= 0; --i)
        out->v[out->n++] = tmp[i];
}

void fh_frame_from_stats(FhFrame* out) {
    af_stat_export_filter_table(out->w);
}

void fh_reset_for_testing() {
    g_fh.start_pos = g_fh.end_pos = 0;
    g_fh.visited_max = g_fh.visited_min = 0;
    g_fh.best_pos = 0;
    g_fh.best_mean = 0;
    std::memset(g_fh.peak_table, 0, sizeof g_fh.peak_table);
    std::memset(g_fh.best_grid, 0, sizeof g_fh.best_grid);
    for (auto& e : g_fh.extremes)
        e = BlockExtreme{0, 65535, 0, 0};
    g_fh.sample_count = 0;
    g_fh.event_total = 0;
    g_fh.ring_count = 0;
    g_fh.phase_count = 0;
}
