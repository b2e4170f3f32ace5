#include "isp/af_stat.h"

#include <bit>
#include <cstring>

#include "isp/highlight.h"
#include "isp/isp_inputs.h"
#include "isp/isp_link.h"

namespace {

// Sharpness values below this are offset by 50, so that "no contrast" reads 50 and never 0.
constexpr uint32_t kOffsetLimit = 20000;
constexpr uint32_t kOffset = 50;
// Window preset whose centre window keeps its weighted 3 x 3 value.
constexpr uint8_t kBlockPreset = 3;

struct StatState {
    AfStatWindow blocks[kGridBlocks];

    uint32_t window_sharpness[kWindowCount];
    uint32_t window_iir2[kWindowCount];
    uint32_t window_highlight_depth[kWindowCount];
    uint32_t window_luma_deviation[kWindowCount];
    uint32_t centre_highlight_depth;

    uint32_t grids[8][kGridBlocks];  // indexed by StatGrid
};

StatState g_stat{};

inline uint32_t load_le32(const uint8_t* p) {
    uint32_t v;
    std::memcpy(&v, p, sizeof v);
    if constexpr (std::endian::native == std::endian::big)
        v = __builtin_bswap32(v);
    return v;
}

// The ISP computes the filter sums from the differences to the block above and to the left, so
// the first row and column have no valid filter sums: they stay at their start-up value 0.
void convert(const uint8_t* f) {
    const uint8_t* luma = f + kAfStatLumaOffset;
    const uint8_t* fir_v = f + kAfStatFirVOffset;
    const uint8_t* fir_h = f + kAfStatFirHOffset;
    const uint8_t* iir1 = f + kAfStatIir1Offset;
    const uint8_t* iir2 = f + kAfStatIir2Offset;
    const uint8_t* hl = f + kAfStatHighlightOffset;
    for (int i = 0; i < kGridBlocks; ++i) {
        g_stat.blocks[i].luma = load_le32(luma + 4 * i);
        g_stat.blocks[i].highlight = load_le32(hl + 4 * i);
    }
    for (int r = 1; r < kGridRows; ++r) {
        for (int c = 1; c < kGridCols; ++c) {
            const int i = r * kGridCols + c;
            AfStatWindow& b = g_stat.blocks[i];
            b.fir_v = load_le32(fir_v + 4 * i);
            b.iir1 = load_le32(iir1 + 4 * i);
            b.fir_h = load_le32(fir_h + 4 * i);
            b.iir2 = load_le32(iir2 + 4 * i);
        }
    }
}

void refresh_grids() {
    uint32_t(&g)[8][kGridBlocks] = g_stat.grids;
    for (int i = 0; i < kGridBlocks; ++i) {
        const AfStatWindow& b = g_stat.blocks[i];
        g[static_cast<int>(StatGrid::kSharpV)][i] = ((b.fir_v + b.iir1) >> 1) + kOffset;
        g[static_cast<int>(StatGrid::kSharpH)][i] = (b.fir_h + b.iir2) >> 1;
        g[static_cast<int>(StatGrid::kLuma)][i] = b.luma;
        g[static_cast<int>(StatGrid::kHighlight)][i] = b.highlight;
        g[static_cast<int>(StatGrid::kIir1)][i] = b.iir1;
        g[static_cast<int>(StatGrid::kFirV)][i] = b.fir_v;
        g[static_cast<int>(StatGrid::kIir2)][i] = b.iir2;
        g[static_cast<int>(StatGrid::kFirH)][i] = b.fir_h;
    }
}

inline uint8_t clamp_window(uint8_t z) {
    return z > kWindowCount - 1 ? kWindowCount - 1 : z;
}

}  // namespace

void af_stat_fetch(uint8_t mode) {
    af_stat_fetch_from(isp_stat_frame(), mode);
}

void af_stat_fetch_from(const uint8_t* frame, uint8_t mode) {
    convert(frame);
    highlight_compute_masks();

    // Curve calibration only watches the centre 3 x 3 blocks.
    if (mode == 0) {
        g_stat.window_sharpness[0] = plain_sharpness_average(7, 10, 7, 10);
        return;
    }
    if (mode != 1 && mode != 2)
        return;

    for (uint8_t zr = 0; zr < 5; ++zr) {
        for (uint8_t zc = 0; zc < 5; ++zc) {
            const int z = zr * 5 + zc;
            const uint8_t r0 = static_cast<uint8_t>(3 * zr);
            const uint8_t c0 = static_cast<uint8_t>(3 * zc);
            const uint8_t r1 = static_cast<uint8_t>(r0 + 3);
            const uint8_t c1 = static_cast<uint8_t>(c0 + 3);
            g_stat.window_sharpness[z] = weighted_window_sharpness(r0, r1, c0, c1);
            g_stat.window_iir2[z] = window_iir2_average(r0, r1, c0, c1);
            g_stat.window_highlight_depth[z] = window_highlight_depth(r0, r1, c0, c1);
            g_stat.window_luma_deviation[z] = window_luma_deviation(zr, zc);
        }
    }
    // Outside the block preset the centre window is read over a wider 4 x 4 range, which steadies
    // the value on small subjects near the optical centre.
    if (isp_inputs().window_preset() != kBlockPreset)
        g_stat.window_sharpness[12] = plain_sharpness_average(6, 10, 6, 10);
    g_stat.centre_highlight_depth = centre_highlight_depth();
    refresh_grids();
}

const AfStatWindow* af_stat_blocks() {
    return g_stat.blocks;
}

void af_stat_clear_blocks() {
    std::memset(g_stat.blocks, 0, sizeof g_stat.blocks);
}

uint32_t get_window_sharpness(uint8_t z) {
    return g_stat.window_sharpness[clamp_window(z)];
}
uint32_t get_window_iir2(uint8_t z) {
    return g_stat.window_iir2[clamp_window(z)];
}
uint32_t get_window_highlight_depth(uint8_t z) {
    return g_stat.window_highlight_depth[clamp_window(z)];
}
uint32_t get_window_luma_deviation(uint8_t z) {
    return g_stat.window_luma_deviation[clamp_window(z)];
}
uint32_t get_centre_highlight_depth() {
    return g_stat.centre_highlight_depth;
}

void af_stat_copy_grid(StatGrid grid, uint32_t* out) {
    const auto g = static_cast<unsigned>(grid);
    if (g >= 8)
        return;
    std::memcpy(out, g_stat.grids[g], sizeof g_stat.grids[g]);
}

void af_stat_grid_by_kind(uint32_t* out, uint32_t kind) {
    if (kind > 6)
        return;
    for (int i = 0; i < kGridBlocks; ++i) {
        const AfStatWindow& b = g_stat.blocks[i];
        uint32_t v = 0;
        switch (kind) {
            case 0:
                v = b.iir1 + kOffset;
                break;
            case 1:
                v = b.fir_v + kOffset;
                break;
            case 2:
                v = b.iir2 + kOffset;
                break;
            case 3:
                v = b.fir_h + kOffset;
                break;
            case 4:
                v = ((b.iir1 + b.fir_v) >> 1) + kOffset;
                break;
            case 5:
                v = ((b.iir2 + b.fir_h) >> 1) + kOffset;
                break;
            default:
                v = b.luma;
                break;
        }
        out[i] = v;
    }
}

void af_stat_export_filter_table(uint32_t* out) {
    // Every word of the table is written below, which is the "clear, then fill" of the record.
    for (int i = 0; i < kGridBlocks; ++i) {
        const AfStatWindow& b = g_stat.blocks[i];
        uint32_t* w = out + i * 5;  // r x 75 + c x 5
        w[0] = b.iir1 + 1;
        w[1] = b.fir_v + 1;
        w[2] = b.iir2 + 1;
        w[3] = b.fir_h + 1;
        w[4] = b.luma;
    }
}

void af_stat_copy_window_sharpness(uint32_t* out) {
    for (int z = 0; z < kWindowCount; ++z) {
        const uint32_t v = g_stat.window_sharpness[z];
        out[z] = v < kOffsetLimit ? v + kOffset : v;
    }
}
