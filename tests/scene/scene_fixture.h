// Shared set-up of the scene-analysis tests: a fresh analyzer, a lens at a known position, a
// virtual clock, and builders for grids and masks drawn as block rectangles.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdint>

#include "base/frame_pacing.h"
#include "isp/frame_history.h"
#include "isp/highlight.h"
#include "isp/isp_link.h"
#include "lens_api/lens_position.h"
#include "platform/clock.h"
#include "platform/sim/virtual_clock.h"
#include "scene/scene_analyzer.h"
#include "scene/scene_state.h"

namespace scenetest {

using U32Grid = std::array<uint32_t, kGridBlocks>;
using U8Grid = std::array<uint8_t, kGridBlocks>;

inline U32Grid flat(uint32_t v) {
    U32Grid g;
    g.fill(v);
    return g;
}

// Sets rows r0..r1 x columns c0..c1 (inclusive) to v.
template <typename Grid, typename V>
void paint(Grid& g, int r0, int r1, int c0, int c1, V v) {
    for (int r = r0; r <= r1; ++r)
        for (int c = c0; c <= c1; ++c)
            g[r * kGridCols + c] = v;
}

class SceneFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        clock_.set_now_us(1000000000ull);
        platform::select_clock(&clock_);
        frame_pacing_reset_for_testing();
        set_high_rate(0);
        lens_position_reset_for_testing();
        lens_set_positions(500, 2400);
        highlight_reset_for_testing();
        fh_reset_for_testing();
        set_statistics_mode(0);
        scene_reset();
    }
    void TearDown() override {
        scene_reset();
        set_statistics_mode(0);
        platform::select_clock(nullptr);
    }

    void advance_seconds(uint32_t s) { clock_.set_now_us(clock_.monotonic_us() + s * 1000000ull); }

    // A reference with flat grids, bright windows and the centre 3 x 3 blocks as the subject.
    FocusReference reference(uint32_t sharp, uint32_t luma, uint32_t windowValue = 1000) {
        FocusReference ref;
        for (int b = 0; b < kGridBlocks; ++b) {
            ref.sharpness[b] = sharp;
            ref.luma[b] = luma;
        }
        for (uint32_t& v : ref.windowValues)
            v = windowValue;
        for (int r = 6; r <= 8; ++r)
            for (int c = 6; c <= 8; ++c)
                ref.blockMask[r * kGridCols + c] = 1;
        ref.focusPosition = lens_get_focus_pos();
        return ref;
    }

    SceneInput input(const U32Grid& sharp, const U32Grid& luma) {
        SceneInput in;
        for (int b = 0; b < kGridBlocks; ++b) {
            in.sharpness[b] = sharp[b];
            in.luma[b] = luma[b];
        }
        return in;
    }

    platform::VirtualClock clock_;
};

}  // namespace scenetest
