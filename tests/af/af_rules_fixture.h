// Shared set-up for the rule tests of the search: a lens that moves without hardware, the curves
// loaded, every autofocus record at its power-on values, a daylight window path over the whole
// picture, and helpers that craft the histories and the statistics frames the rules read.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <initializer_list>
#include <utility>
#include <vector>

#include "af/af_seams.h"
#include "af/af_state.h"
#include "af/auto_focus.h"
#include "af/distance_assist.h"
#include "af/focus_zone.h"
#include "af/track_region.h"
#include "base/frame_pacing.h"
#include "isp/af_stat.h"
#include "isp/frame_history.h"
#include "isp/highlight.h"
#include "isp/isp_link.h"
#include "lens_api/lens_driver.h"
#include "lens_api/lens_position.h"
#include "scene/scene_analyzer.h"
#include "tests/support/test_env.h"
#include "tracking/curves.h"

namespace afrules {

inline void no_move(uint8_t, uint8_t, uint8_t, uint8_t) {}
inline void no_step(uint8_t, uint8_t) {}

inline int block_of(int z, int dr, int dc) {
    return ((z / 5) * 3 + dr) * 15 + (z % 5) * 3 + dc;
}

// One raw statistics reply. Every block of a window carries the same filter sums, so the window's
// sharpness reads exactly that value (the history adds 50 below 20000). The first block row and
// column carry no filter sums, so windows in window row 0 or column 0 read less: tests that need
// exact values use the other sixteen.
struct StatFrame {
    std::vector<uint8_t> bytes = std::vector<uint8_t>(kAfStatFrameSize, 0);

    void put(size_t offset, int block, uint32_t v) {
        std::memcpy(bytes.data() + offset + 4 * block, &v, 4);
    }
    StatFrame& window(int z, uint32_t raw) {
        for (int d = 0; d < 9; ++d) {
            const int b = block_of(z, d / 3, d % 3);
            for (size_t off :
                 {kAfStatFirVOffset, kAfStatIir1Offset, kAfStatFirHOffset, kAfStatIir2Offset})
                put(off, b, raw);
            put(kAfStatLumaOffset, b, 2000);
        }
        return *this;
    }
    StatFrame& all(uint32_t raw) {
        for (int z = 0; z < 25; ++z)
            window(z, raw);
        return *this;
    }
    // A lamp in the window's middle block: with the one-block spill of the live mask, 5 of the 9
    // blocks are marked and none outside the window.
    StatFrame& light(int z) {
        put(kAfStatHighlightOffset, block_of(z, 1, 1), 1000);
        return *this;
    }
    StatFrame& luma(int z, int d, uint32_t v) {
        put(kAfStatLumaOffset, block_of(z, d / 3, d % 3), v);
        return *this;
    }
    void fetch() const { af_stat_fetch_from(bytes.data(), 1); }
};

using Values = std::vector<std::pair<int, uint32_t>>;

// A frame whose windows read `rest` in the ISP's values, except the listed ones, with a lamp in
// each window of `lights`.
inline StatFrame raw_frame(uint32_t rest, const Values& w, const std::vector<int>& lights = {}) {
    StatFrame f;
    f.all(rest);
    for (const auto& [z, v] : w)
        f.window(z, v);
    for (int z : lights)
        f.light(z);
    return f;
}

// The AF copy of the highlight mask: a lamp spilling into its neighbours (5 of 9 blocks), or a
// window lit in every block.
inline void mark_light(int z, bool full = false) {
    for (int d = 0; d < 9; ++d)
        if (full || d / 3 == 1 || d % 3 == 1)
            g_focusValue.highlightMask[block_of(z, d / 3, d % 3)] = 1;
}

class AfRulesTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ops_ = lens_ops();
        ops_.move_both = no_move;
        ops_.focus_step = no_step;
        ops_.zoom_step = no_step;
        lens_set_ops_for_testing(&ops_);
        lens_position_reset_for_testing();
        highlight_reset_for_testing();
        isp_link_reset_for_testing();
        frame_pacing_reset_for_testing();
        testsupport::capture_stdout([] { curve_load(); });
        af_reset_for_testing();
        // The autofocus learns the ISP's statistics mode through a listener it installs on its
        // first frame; one frame installs it, then every record goes back to power-on.
        StatFrame().all(100).fetch();
        AfFrame();
        af_reset_for_testing();
        set_low_light(false);
        lens_set_positions(3200, 4000);
        g_search.lowerBound = 3700;
        g_search.upperBound = 4500;
        g_search.nearThreshold = 3800;
        g_search.farThreshold = 4500;
        g_blockPath = 0;
        g_presetFlag = 0;
        std::memset(g_focusZone.windowMask, 1, 25);
    }
    void TearDown() override {
        set_low_light(false);  // later suites find the daylight mode the process starts in
        lens_set_ops_for_testing(nullptr);
        lens_position_reset_for_testing();
        isp_link_reset_for_testing();
        af_reset_for_testing();
    }

    static void set_low_light(bool on) { set_statistics_mode(on ? 2 : 0); }

    // Focus values and positions, newest first, as the histories keep them.
    static void set_fv(std::initializer_list<uint32_t> fv, std::initializer_list<uint16_t> p = {}) {
        int k = 0;
        for (uint32_t v : fv)
            g_focusValue.fvHist[k++] = v;
        k = 0;
        for (uint16_t v : p)
            g_focusValue.posHist[k++] = v;
        for (k = 0; k < 5; ++k)
            g_focusValue.fvQueue[k] = g_focusValue.fvHist[4 - k];
    }
    // One frame more in the histories: the older ones move back by one.
    static void push_fv(uint32_t v, uint16_t p) {
        for (int k = 4; k > 0; --k) {
            g_focusValue.fvHist[k] = g_focusValue.fvHist[k - 1];
            g_focusValue.posHist[k] = g_focusValue.posHist[k - 1];
        }
        g_focusValue.fvHist[0] = v;
        g_focusValue.posHist[0] = p;
    }
    static void set_windows(int k, uint32_t v) {
        for (int z = 0; z < 25; ++z)
            g_focusValue.winHist[k][z] = v;
    }
    static void select_only(const std::vector<int>& windows) {
        g_focusZone.clear_window_mask();
        for (int z : windows)
            g_focusZone.set_window(static_cast<uint8_t>(z), 1);
    }
    static std::vector<int> selected() {
        std::vector<int> out;
        for (int z = 0; z < 25; ++z)
            if (g_focusZone.windowMask[z] != 0)
                out.push_back(z);
        return out;
    }

    LensDriverOps ops_{};
    testsupport::SandboxRoot root_;
};

}  // namespace afrules
