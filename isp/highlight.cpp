#include "isp/highlight.h"

#include <array>
#include <cstring>

#include "base/frame_pacing.h"
#include "isp/af_stat.h"
#include "isp/isp_link.h"

namespace {

// Above this exposure index (time x gain) the scene is dark and the marks are not widened.
constexpr uint32_t kDarkExposureIndex = 1000;
// The clipped-pixel measure saturates at this value; depths are measured down from it.
constexpr uint32_t kHighlightFull = 20000;
constexpr uint32_t kOffsetLimit = 20000;
constexpr uint32_t kOffset = 50;
// Box update result meaning "focus on the tracked object's region".
constexpr uint8_t kBoxRegionSearch = 2;

struct HighlightState {
    uint8_t core[kGridBlocks];  // this frame's highlight blocks (unwidened)
    uint8_t live[kGridBlocks];
    uint8_t latched_core[kGridBlocks];
    uint8_t latched_mask[kGridBlocks];
    volatile uint8_t armed;
    volatile uint8_t box_result;
    volatile uint8_t centre_range_state;
    const uint8_t* weights;
};

// Power-on block weights of the focus zone: every block counts once.
constexpr std::array<uint8_t, kGridBlocks> kUnitWeights = [] {
    std::array<uint8_t, kGridBlocks> w{};
    w.fill(1);
    return w;
}();

HighlightState g_hl{{}, {}, {}, {}, 0, 0, 0, nullptr};

struct Range {
    uint8_t r0, r1, c0, c1;
};

inline uint8_t clip15(uint8_t v) {
    return v > kGridRows ? kGridRows : v;
}

inline Range make_range(uint8_t r0, uint8_t r1, uint8_t c0, uint8_t c1) {
    return {clip15(r0), clip15(r1), clip15(c0), clip15(c1)};
}

inline Range window_range(uint8_t zr, uint8_t zc) {
    if (zr > 4)
        zr = 4;
    if (zc > 4)
        zc = 4;
    const uint8_t r0 = static_cast<uint8_t>(3 * zr);
    const uint8_t c0 = static_cast<uint8_t>(3 * zc);
    return {r0, static_cast<uint8_t>(r0 + 3), c0, static_cast<uint8_t>(c0 + 3)};
}

inline uint32_t cap(uint32_t v) {
    return v >= kAverageCap ? kAverageCap : v;
}

inline uint32_t sharpness(const AfStatWindow& b) {
    return (b.fir_v + b.iir1) >> 1;
}

inline const uint8_t* weights() {
    return g_hl.weights != nullptr ? g_hl.weights : kUnitWeights.data();
}

// Sum and 8-bit count over the unmasked blocks of a range; weighted adds value x weight and the
// weight, otherwise each block counts once.
template <typename Value>
uint32_t masked_average(const Range& rg, bool weighted, Value value) {
    const AfStatWindow* blocks = af_stat_blocks();
    const uint8_t* w = weights();
    uint32_t sum = 0;
    uint8_t count = 0;
    for (uint8_t r = rg.r0; r < rg.r1; ++r) {
        for (uint8_t c = rg.c0; c < rg.c1; ++c) {
            const int i = r * kGridCols + c;
            if (g_hl.latched_mask[i] != 0)
                continue;
            const uint32_t v = value(blocks[i], i);
            if (weighted) {
                sum += v * w[i];
                count = static_cast<uint8_t>(count + w[i]);
            } else {
                sum += v;
                ++count;
            }
        }
    }
    return count != 0 ? sum / count : sum;
}

// Average depth of the lights (20000 - measure) over the blocks set in mask.
uint32_t highlight_depth_over(const Range& rg, const uint8_t* mask) {
    const AfStatWindow* blocks = af_stat_blocks();
    uint32_t sum = 0;
    uint8_t count = 0;
    for (uint8_t r = rg.r0; r < rg.r1; ++r) {
        for (uint8_t c = rg.c0; c < rg.c1; ++c) {
            const int i = r * kGridCols + c;
            if (mask[i] == 1) {
                sum += kHighlightFull - blocks[i].highlight;
                ++count;
            }
        }
    }
    return count != 0 ? sum / count : 0;
}

uint8_t count_set(const Range& rg, const uint8_t* mask) {
    uint8_t n = 0;
    for (uint8_t r = rg.r0; r < rg.r1; ++r)
        for (uint8_t c = rg.c0; c < rg.c1; ++c)
            n = static_cast<uint8_t>(n + (mask[r * kGridCols + c] != 0));
    return n;
}

inline bool inner_block_range(uint8_t r0, uint8_t c0) {
    return r0 != 0 && r0 != 12 && c0 != 0 && c0 != 12;
}

}  // namespace

void highlight_compute_masks() {
    const AfStatWindow* blocks = af_stat_blocks();
    for (int i = 0; i < kGridBlocks; ++i)
        g_hl.core[i] = blocks[i].highlight > kHighlightThreshold ? 1 : 0;

    if (get_exp_index() > kDarkExposureIndex) {
        std::memcpy(g_hl.live, g_hl.core, sizeof g_hl.live);
    } else {
        for (int r = 0; r < kGridRows; ++r) {
            for (int c = 0; c < kGridCols; ++c) {
                const int i = r * kGridCols + c;
                uint8_t m = g_hl.core[i];
                if (r > 0)
                    m |= g_hl.core[i - kGridCols];
                if (r < kGridRows - 1)
                    m |= g_hl.core[i + kGridCols];
                if (c > 0)
                    m |= g_hl.core[i - 1];
                if (c < kGridCols - 1)
                    m |= g_hl.core[i + 1];
                g_hl.live[i] = m;
            }
        }
    }

    if (g_hl.armed) {
        std::memcpy(g_hl.latched_core, g_hl.core, sizeof g_hl.latched_core);
        std::memcpy(g_hl.latched_mask, g_hl.live, sizeof g_hl.latched_mask);
    }
}

void highlight_arm_update() {
    g_hl.armed = 1;
}
void highlight_disarm_update() {
    g_hl.armed = 0;
}
uint8_t highlight_update_armed() {
    return g_hl.armed;
}

void highlight_clear_latched() {
    std::memset(g_hl.latched_core, 0, sizeof g_hl.latched_core);
    std::memset(g_hl.latched_mask, 0, sizeof g_hl.latched_mask);
}

void highlight_latch_core_from_mask() {
    std::memcpy(g_hl.latched_core, g_hl.latched_mask, sizeof g_hl.latched_core);
}

void copy_live_highlight_mask(uint8_t* out) {
    std::memcpy(out, g_hl.live, sizeof g_hl.live);
}
void copy_latched_highlight_core(uint8_t* out) {
    std::memcpy(out, g_hl.latched_core, sizeof g_hl.latched_core);
}
void copy_latched_highlight_mask(uint8_t* out) {
    std::memcpy(out, g_hl.latched_mask, sizeof g_hl.latched_mask);
}

void highlight_set_block_weights(const uint8_t* w) {
    g_hl.weights = w;
}
void highlight_set_box_result(uint8_t result) {
    g_hl.box_result = result;
}
uint8_t highlight_tracking_search_active() {
    return get_tracking_on() == 1 && g_hl.box_result == kBoxRegionSearch ? 1 : 0;
}

uint32_t plain_sharpness_average(uint8_t r0, uint8_t r1, uint8_t c0, uint8_t c1) {
    return cap(masked_average(make_range(r0, r1, c0, c1), false,
                              [](const AfStatWindow& b, int) { return sharpness(b); }));
}

// The inner nine windows follow the focus zone's block weights. A border window is weighted only
// during a tracking-region search (the box can lie anywhere); otherwise every unmasked block
// counts once, so a zone that leaves a border window out still gets its plain value.
uint32_t weighted_window_sharpness(uint8_t r0, uint8_t r1, uint8_t c0, uint8_t c1) {
    const bool weighted = inner_block_range(r0, c0) || highlight_tracking_search_active();
    return cap(masked_average(make_range(r0, r1, c0, c1), weighted,
                              [](const AfStatWindow& b, int) { return sharpness(b); }));
}

uint32_t window_iir2_average(uint8_t r0, uint8_t r1, uint8_t c0, uint8_t c1) {
    return cap(masked_average(make_range(r0, r1, c0, c1), false,
                              [](const AfStatWindow& b, int) { return b.iir2; }));
}

uint32_t window_highlight_depth(uint8_t r0, uint8_t r1, uint8_t c0, uint8_t c1) {
    return highlight_depth_over(make_range(r0, r1, c0, c1), g_hl.latched_core);
}

void weighted_window_sharpness_table(uint32_t* out) {
    for (uint8_t z = 0; z < kWindowCount; ++z) {
        const Range rg = window_range(z / 5, z % 5);
        out[z] = weighted_window_sharpness(rg.r0, rg.r1, rg.c0, rg.c1);
    }
}

// Texture of a window: the standard deviation of the block brightness (in quarter units) over the
// blocks without a light, with the board's bit-by-bit integer square root.
uint32_t window_luma_deviation(uint8_t zr, uint8_t zc) {
    const Range rg = window_range(zr, zc);
    const AfStatWindow* blocks = af_stat_blocks();
    uint32_t v[9];
    uint8_t n = 0;
    uint32_t sum = 0;
    for (uint8_t r = rg.r0; r < rg.r1; ++r) {
        for (uint8_t c = rg.c0; c < rg.c1; ++c) {
            const int i = r * kGridCols + c;
            if (g_hl.latched_core[i] != 0)
                continue;
            v[n] = blocks[i].luma >> 2;
            sum += v[n];
            ++n;
        }
    }
    if (n == 0)
        return 0;
    const uint32_t mean = sum / n;
    uint32_t s = 0;
    for (uint8_t k = 0; k < n; ++k) {
        const uint32_t d = v[k] - mean;
        s += d * d;
    }
    const uint32_t q = s / n;
    uint32_t root = 0;
    for (int i = 0; i < 16; ++i) {
        const uint32_t t = root + (32768u >> i);
        if (q >= t * t)
            root = t;
    }
    return root;
}

uint8_t live_highlight_count(uint8_t zr, uint8_t zc) {
    return count_set(window_range(zr, zc), g_hl.live);
}

uint8_t window_has_many_highlights(uint8_t zr, uint8_t zc) {
    return live_highlight_count(zr, zc) > 3 ? 1 : 0;
}

uint8_t latched_highlight_count(uint8_t z) {
    if (z > kWindowCount - 1)
        z = kWindowCount - 1;
    return count_set(window_range(z / 5, z % 5), g_hl.latched_mask);
}

uint32_t centre_highlight_depth() {
    return highlight_depth_over(Range{4, 13, 4, 13}, g_hl.live);
}

uint32_t window_average_of(uint8_t zr, uint8_t zc, const uint32_t* values) {
    const Range rg = window_range(zr, zc);
    const bool weighted = inner_block_range(rg.r0, rg.c0) || highlight_tracking_search_active();
    uint32_t v =
        masked_average(rg, weighted, [values](const AfStatWindow&, int i) { return values[i]; });
    if (v < kOffsetLimit)
        v += kOffset;
    return cap(v);
}

void window_averages_of(const uint32_t* values, const uint8_t* selection, uint32_t* out) {
    for (uint8_t z = 0; z < kWindowCount; ++z) {
        const Range rg = window_range(z / 5, z % 5);
        uint32_t sum = 0;
        uint8_t count = 0;
        for (uint8_t r = rg.r0; r < rg.r1; ++r) {
            for (uint8_t c = rg.c0; c < rg.c1; ++c) {
                const int i = r * kGridCols + c;
                if (selection[i] != 0) {
                    sum += values[i];
                    ++count;
                }
            }
        }
        uint32_t v = cap(count != 0 ? sum / count : sum);
        if (v < kOffsetLimit)
            v += kOffset;
        out[z] = v;
    }
}

uint8_t get_centre_range_state() {
    return g_hl.centre_range_state;
}
void set_centre_range_state(uint8_t state) {
    g_hl.centre_range_state = state;
}

// The centre ranges grow from the single optical-centre block outwards. The zoom-move step widens
// the size-0 range while the centre is too dark to measure; past the 3 x 3 range it continues with
// the next larger one (5 x 5). A size beyond the table reads the widest range.
uint32_t centre_sharpness_by_range(uint8_t size) {
    static constexpr Range kBySize[6] = {
        {7, 8, 7, 8},    // 0: placeholder, chosen by the state below
        {5, 10, 5, 10},  // 1
        {4, 11, 4, 11},  // 2
        {7, 8, 7, 8},    // 3
        {6, 9, 7, 8},    // 4
        {6, 9, 6, 9},    // 5
    };
    static constexpr Range kByState[4] = {
        {7, 8, 7, 8},
        {6, 9, 7, 8},
        {6, 9, 6, 9},
        {5, 10, 5, 10},
    };
    Range rg;
    if (size == 0) {
        const uint8_t st = g_hl.centre_range_state;
        rg = kByState[st > 3 ? 3 : st];
    } else {
        rg = kBySize[size > 5 ? 2 : size];
    }
    return plain_sharpness_average(rg.r0, rg.r1, rg.c0, rg.c1);
}

void highlight_reset_for_testing() {
    std::memset(g_hl.core, 0, sizeof g_hl.core);
    std::memset(g_hl.live, 0, sizeof g_hl.live);
    highlight_clear_latched();
    g_hl.armed = 0;
    g_hl.box_result = 0;
    g_hl.centre_range_state = 0;
    g_hl.weights = nullptr;
}
