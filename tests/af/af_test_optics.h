// A small optical model for autofocus tests: a textured plane at one true in-focus position.
//
// Every block's filter sums follow the same heavy-tailed peak over the focus position (a
// Lorentzian: a sharp top and long flanks, as a real lens's contrast curve has far from focus),
// scaled by a per-block texture so that windows differ. The statistics of a frame show the lens
// where it stood a fixed number of frames earlier (the sensor exposes while the motor runs and the
// ISP reports late), and an optional deterministic noise perturbs each frame.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "isp/af_stat.h"

namespace aftest {

struct Plane {
    double true_focus = 4300.0;
    double half_width = 25.0;  // half width of the sharpness peak at half height, focus steps
    double peak = 3000.0;      // block filter sum at focus (before texture)
    double floor = 60.0;       // far-defocus residue
    double noise = 0.0;        // relative noise amplitude (0 = none)
    // Blocks outside this box (rows/cols, inclusive) show a flat background.
    int r0 = 0, r1 = 14, c0 = 0, c1 = 14;

    double sharpness(double focus) const {
        const double x = (focus - true_focus) / half_width;
        return floor + (peak - floor) / (1.0 + x * x);
    }
};

// Fills a raw statistics reply (kAfStatFrameSize bytes) for the plane seen at `focus`.
inline void render(const Plane& p, double focus, uint32_t frame_no, std::vector<uint8_t>* out) {
    out->assign(kAfStatFrameSize, 0);
    auto put = [&](size_t offset, int b, uint32_t v) {
        std::memcpy(out->data() + offset + 4 * b, &v, 4);
    };
    const double s = p.sharpness(focus);
    for (int b = 0; b < kGridBlocks; ++b) {
        const int r = b / kGridCols;
        const int c = b % kGridCols;
        const bool subject = r >= p.r0 && r <= p.r1 && c >= p.c0 && c <= p.c1;
        const double texture = subject ? 0.6 + 0.8 * (((r * 7 + c * 13) % 10) / 10.0) : 0.0;
        double v = subject ? s * texture : 20.0;
        if (p.noise > 0.0) {
            // Deterministic hash noise in [-1, 1).
            uint32_t h = frame_no * 2654435761u ^ static_cast<uint32_t>(b) * 40503u;
            h ^= h >> 13;
            h *= 0x5bd1e995u;
            h ^= h >> 15;
            v *= 1.0 + p.noise * ((h % 2000) / 1000.0 - 1.0);
        }
        const uint32_t u = static_cast<uint32_t>(v < 0 ? 0 : v);
        put(kAfStatLumaOffset, b, 2000);
        put(kAfStatFirVOffset, b, u);
        put(kAfStatIir1Offset, b, u);
        put(kAfStatFirHOffset, b, u / 2);
        put(kAfStatIir2Offset, b, u / 2);
        put(kAfStatHighlightOffset, b, 0);
    }
}

}  // namespace aftest
