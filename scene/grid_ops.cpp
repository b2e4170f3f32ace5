#include "scene/grid_ops.h"

#include <cstdlib>

uint32_t remove_isolated_blocks(const uint8_t* in, uint8_t* out) {
    for (int r = 1; r < kGridRows - 1; ++r) {
        for (int c = 1; c < kGridCols - 1; ++c) {
            const int b = r * kGridCols + c;
            if (in[b] == 0)
                continue;
            const bool joined = in[b - kGridCols] != 0 || in[b + kGridCols] != 0 ||
                                in[b - 1] != 0 || in[b + 1] != 0;
            out[b] = joined ? 1 : 0;
        }
    }
    return count_set_grid(out);
}

uint8_t count_set(const uint8_t* bytes, uint32_t n) {
    uint8_t count = 0;
    for (uint32_t i = 0; i < n; ++i)
        if (bytes[i] != 0)
            ++count;
    return count;
}

uint16_t count_set_grid(const uint8_t* mask) {
    uint16_t count = 0;
    for (int b = 0; b < kGridBlocks; ++b)
        if (mask[b] != 0)
            ++count;
    return count;
}

uint16_t count_set_window(const uint8_t* mask, uint8_t r0, uint8_t c0, uint8_t r1, uint8_t c1) {
    uint16_t count = 0;
    for (int r = r0; r < r1 && r < kGridRows; ++r)
        for (int c = c0; c < c1 && c < kGridCols; ++c)
            if (mask[r * kGridCols + c] != 0)
                ++count;
    return count;
}

uint32_t window_mean(const uint32_t* grid, uint8_t r0, uint8_t c0, uint8_t r1, uint8_t c1) {
    uint64_t sum = 0;
    uint32_t n = 0;
    for (int r = r0; r <= r1 && r < kGridRows; ++r) {
        for (int c = c0; c <= c1 && c < kGridCols; ++c) {
            sum += grid[r * kGridCols + c];
            ++n;
        }
    }
    return n == 0 ? 0 : static_cast<uint32_t>(sum / n);
}

uint32_t masked_mean(const uint32_t* grid, const CellList& cells) {
    uint8_t member[kGridBlocks] = {};
    for (int i = 0; i < cells.n; ++i) {
        const int r = cells.rc[i][0], c = cells.rc[i][1];
        if (r < kGridRows && c < kGridCols)
            member[r * kGridCols + c] = 1;
    }
    uint32_t sum = 0;
    for (int b = 0; b < kGridBlocks; ++b)
        if (member[b] != 0)
            sum += grid[b];
    const uint8_t n = count_set(member, kGridBlocks);
    return n == 0 ? 0 : sum / n;
}

void majority_filter(float* map) {
    for (int r = 0; r < kGridRows; ++r) {
        for (int c = 0; c < kGridCols; ++c) {
            float& v = map[r * kGridCols + c];
            int p = 0, m = 0, z = 0;
            bool settled = false;
            for (int dr = -1; dr <= 1 && !settled; ++dr) {
                for (int dc = -1; dc <= 1 && !settled; ++dc) {
                    const int rr = r + dr, cc = c + dc;
                    if ((dr == 0 && dc == 0) || rr < 0 || rr >= kGridRows || cc < 0 ||
                        cc >= kGridCols)
                        continue;
                    const float n = map[rr * kGridCols + cc];
                    if (n == 1.0f)
                        ++p;
                    else if (n == -1.0f)
                        ++m;
                    else if (n == 0.0f)
                        ++z;
                    // Enough neighbours already agree with the block: it stays as it is.
                    settled = (v == 1.0f && p > 2) || (v == -1.0f && m > 2) || (v == 0.0f && z > 4);
                }
            }
            if (settled)
                continue;
            if (p > m && p > z)
                v = 1.0f;
            else if (m > p && m > z)
                v = -1.0f;
            else if (z > m && z > p)
                v = 0.0f;
        }
    }
}

uint8_t stable_pair(const uint32_t* a, const uint32_t* b, uint32_t n) {
    if (n == 0)
        return 0;
    float s = 0.0f;
    for (uint32_t i = 0; i < n; ++i) {
        const float d =
            a[i] > b[i] ? static_cast<float>(a[i] - b[i]) : static_cast<float>(b[i] - a[i]);
        s += d / static_cast<float>(b[i]);
    }
    return s / static_cast<float>(n) < 0.04f ? 1 : 0;
}
