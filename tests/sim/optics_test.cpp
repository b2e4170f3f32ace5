// The statistics renderer against the daemon's absolute thresholds it was calibrated on.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "sim/exposure.h"
#include "sim/optics.h"
#include "sim/scenario.h"
#include "sim_test_util.h"

namespace {

using vcam::BlockStats;
using vcam::kGrid;

constexpr int kCentre = 7 * kGrid + 7;

// Statistics with the auto exposure settled on the scene (as after a few frames of a camera).
BlockStats render_at(const vcam::Scenario& sc, double zoom, double focus, double iris = 1023,
                     const vcam::SceneState* scene = nullptr) {
    const vcam::SceneState s = scene != nullptr ? *scene : vcam::scene_at(sc, 0);
    vcam::RenderInput in;
    in.scenario = &sc;
    in.scene = &s;
    in.lens.zoom = zoom;
    in.lens.focus = focus;
    in.lens.iris = iris;
    BlockStats b;
    vcam::render(in, &b);
    vcam::AutoExposure ae(sc.exposure, sc.fps);
    ae.update(b.mean_radiance, vcam::iris_transmission(sc.lens, iris));
    in.sensor = ae.sensor();
    vcam::render(in, &b);
    return b;
}

// Centre-block V against focus offsets from the chart's true focus.
double v_at(const vcam::Scenario& sc, double zoom, double offset) {
    const double f = vcam::true_focus(sc.lens.unit, 3000, zoom);
    return vcam::block_v(render_at(sc, zoom, f + offset), kCentre);
}

// Full width at half maximum of a peak, found by walking out from focus in 0.25-step increments.
double fwhm(const vcam::Scenario& sc, double zoom, bool h) {
    const double f = vcam::true_focus(sc.lens.unit, 3000, zoom);
    auto val = [&](double d) {
        BlockStats b = render_at(sc, zoom, f + d);
        return h ? vcam::block_h(b, kCentre) : vcam::block_v(b, kCentre);
    };
    const double peak = val(0);
    double d = 0;
    while (val(d) > peak / 2)
        d += 0.25;
    return 2 * d;
}

TEST(RendererSharpness, InFocusTextureReadsThousandsAndDefocusFallsTowardTheFloor) {
    const vcam::Scenario sc = simtest::chart_scenario(3000, 3200, 5000);
    for (double zoom : {0.0, 3200.0, 6400.0}) {
        const double in_focus = v_at(sc, zoom, 0);
        EXPECT_GT(in_focus, 2800) << "a focused textured window must not count as weak";
        EXPECT_LT(in_focus, 20000);
        // Far from focus the daemon's grid (V + 50) approaches its no-contrast value 50.
        EXPECT_LT(v_at(sc, zoom, 300) + 50, 80) << "zoom " << zoom;
    }
}

TEST(RendererSharpness, HeavyTailsKeepAGradientFarFromFocus) {
    const vcam::Scenario sc = simtest::chart_scenario(3000, 3200, 5000);
    // Coarse steps of 10 towards focus from 150 steps away: each step rises by well over the
    // 8 % the daemon's trend test needs over five frames, in V and in H.
    double prev_v = v_at(sc, 3200, 150);
    for (double d = 140; d >= 100; d -= 10) {
        const double v = v_at(sc, 3200, d);
        EXPECT_GT(v, prev_v * 1.08) << "offset " << d;
        prev_v = v;
    }
    const double f = vcam::true_focus(sc.lens.unit, 3000, 3200);
    const double h_far = vcam::block_h(render_at(sc, 3200, f - 300), kCentre);
    const double h_less = vcam::block_h(render_at(sc, 3200, f - 250), kCentre);
    EXPECT_GT(h_less, h_far * 1.2);
    EXPECT_GT(h_far, 10) << "H still above the daylight noise floor 300 steps away";
}

TEST(RendererSharpness, PeakNarrowEnoughForTheFocusedWobble) {
    const vcam::Scenario sc = simtest::chart_scenario(3000, 500, 5000);
    // Wide end: a 1-step wobble must cost a focused block at least 2.5 %.
    EXPECT_LT(v_at(sc, 500, 1), 0.975 * v_at(sc, 500, 0));
    EXPECT_LT(v_at(sc, 500, -1), 0.975 * v_at(sc, 500, 0));
    // Zoom 3500: the wobble goes to +-4 steps; the peak map wants more than 1/32.
    EXPECT_LT(v_at(sc, 3500, 4), (1 - 1.0 / 32) * v_at(sc, 3500, 0));
}

TEST(RendererSharpness, HPeaksWiderThanVAtTheSamePositionAndBothWidenWithZoom) {
    const vcam::Scenario sc = simtest::chart_scenario(3000, 500, 5000);
    for (double zoom : {500.0, 3200.0, 6000.0}) {
        const double f = vcam::true_focus(sc.lens.unit, 3000, zoom);
        double best_v = -1, best_h = -1, at_v = 0, at_h = 0;
        for (double d = -20; d <= 20; d += 1) {
            BlockStats b = render_at(sc, zoom, f + d);
            if (vcam::block_v(b, kCentre) > best_v) {
                best_v = vcam::block_v(b, kCentre);
                at_v = d;
            }
            if (vcam::block_h(b, kCentre) > best_h) {
                best_h = vcam::block_h(b, kCentre);
                at_h = d;
            }
        }
        EXPECT_EQ(at_v, 0) << "zoom " << zoom;
        EXPECT_EQ(at_h, 0) << "zoom " << zoom;
        EXPECT_GT(fwhm(sc, zoom, true), 1.8 * fwhm(sc, zoom, false)) << "zoom " << zoom;
    }
    const double wide = fwhm(sc, 500, false);
    const double tele = fwhm(sc, 6000, false);
    EXPECT_GE(wide, 8);
    EXPECT_LE(wide, 12);
    EXPECT_GT(tele, 1.6 * wide);
    EXPECT_LE(tele, 30);
}

TEST(RendererSharpness, ClosingTheIrisDeepensTheDepthOfField) {
    const vcam::Scenario sc = simtest::chart_scenario(3000, 3200, 5000);
    const double f = vcam::true_focus(sc.lens.unit, 3000, 3200);
    const double open = vcam::block_v(render_at(sc, 3200, f + 10, 1023), kCentre) /
                        vcam::block_v(render_at(sc, 3200, f, 1023), kCentre);
    const double closed = vcam::block_v(render_at(sc, 3200, f + 10, 400), kCentre) /
                          vcam::block_v(render_at(sc, 3200, f, 400), kCentre);
    EXPECT_GT(closed, open + 0.1);
}

TEST(RendererSharpness, TwoDepthsInOneBlockGiveTwoPeaks) {
    // Half the centre block is a near chart, half a far one.
    const vcam::Scenario sc = simtest::scenario_from(R"(
lens: {zoom: 4000}
scene:
  objects:
    - {name: far, rect: [0.2, 0.2, 0.6, 0.6], distance: 20000, texture: 4000,
       texture_variation: 0}
    - {name: near, rect: [0.2, 0.2, 0.3, 0.6], distance: 1500, texture: 4000,
       texture_variation: 0}
noise: {enabled: false}
)");
    const double z = 4000;
    const int block = 7 * kGrid + 7;  // spans x 0.467..0.533: split at 0.5 by the near chart
    const double f_near = vcam::true_focus(sc.lens.unit, 1500, z);
    const double f_far = vcam::true_focus(sc.lens.unit, 20000, z);
    ASSERT_GT(f_far - f_near, 60);
    const double mid = (f_near + f_far) / 2;
    BlockStats at_near = render_at(sc, z, f_near);
    BlockStats at_far = render_at(sc, z, f_far);
    BlockStats at_mid = render_at(sc, z, mid);
    EXPECT_GT(vcam::block_v(at_near, block), 3 * vcam::block_v(at_mid, block));
    EXPECT_GT(vcam::block_v(at_far, block), 3 * vcam::block_v(at_mid, block));
}

TEST(RendererLuma, OrdinaryTexturedWindowsScoreInTheDaemonsTextureRange) {
    const vcam::Scenario sc = simtest::chart_scenario(3000, 0, 5000);
    BlockStats b = render_at(sc, 0, 4000);
    // Window texture = integer sqrt of the variance of luma / 4 over the window's 9 blocks.
    int textured = 0;
    for (int w : {6, 7, 8, 11, 12, 13, 16, 17, 18}) {
        double sum = 0, sq = 0;
        for (int r = 3 * (w / 5); r < 3 * (w / 5) + 3; ++r)
            for (int c = 3 * (w % 5); c < 3 * (w % 5) + 3; ++c) {
                const double l = b.luma[r * kGrid + c] / 4;
                sum += l;
                sq += l * l;
            }
        const double tex = std::sqrt(std::max(0.0, sq / 9 - (sum / 9) * (sum / 9)));
        if (tex >= 11 && tex <= 45)
            ++textured;
    }
    EXPECT_GE(textured, 6) << "most inner windows of a textured chart read as textured";
    double mean = 0;
    for (double l : b.luma)
        mean += l;
    mean /= vcam::kBlocks;
    EXPECT_GT(mean, 150);
    EXPECT_LT(mean, 500);
}

TEST(RendererLights, HighlightGrowsWithDefocusAndStaysInRange) {
    const vcam::Scenario sc = simtest::scenario_from(R"(
lens: {zoom: 3200}
scene:
  illumination: 0.001
  background: {texture: 0, reflectance: 0.2}
  lights:
    - {name: lamp, position: [0.5, 0.5], distance: 20000, intensity: 1.5}
noise: {enabled: false}
)");
    vcam::SceneState s = vcam::scene_at(sc, 0);
    const double f = vcam::true_focus(sc.lens.unit, 20000, 3200);
    auto total_highlight = [&](double off) {
        BlockStats b = render_at(sc, 3200, f + off, 1023, &s);
        double t = 0, mx = 0;
        for (double h : b.highlight) {
            t += h;
            mx = std::max(mx, h);
            EXPECT_LE(h, 20000);
        }
        return std::pair{t, mx};
    };
    const auto focused = total_highlight(0);
    EXPECT_GT(focused.second, 900) << "a focused lamp makes a highlight block";
    double prev = focused.first;
    for (double off : {40.0, 80.0, 160.0, 240.0}) {
        const double t = total_highlight(off).first;
        EXPECT_GT(t, prev * 1.1) << "offset " << off;
        prev = t;
    }
    // The clipped disc edge makes the filter sums peak away from the lamp's focus.
    auto centre_v = [&](double off) {
        BlockStats b = render_at(sc, 3200, f + off, 1023, &s);
        double v = 0;
        for (int i = 0; i < vcam::kBlocks; ++i)
            v += vcam::block_v(b, i);
        return v;
    };
    EXPECT_GT(centre_v(200), 2 * centre_v(0));
}

TEST(RendererLights, NightLampSceneIsDarkAndFlatOutsideTheLamps) {
    const vcam::Scenario sc = simtest::scenario_from(R"(
lens: {zoom: 3200}
scene:
  illumination: 0.001
  background: {texture: 30, reflectance: 0.2}
  lights:
    - {name: a, position: [0.3, 0.4], distance: 20000}
    - {name: b, position: [0.7, 0.6], distance: 30000}
noise: {enabled: false}
)");
    vcam::SceneState s = vcam::scene_at(sc, 0);
    const double f = vcam::true_focus(sc.lens.unit, 20000, 3200) + 120;  // defocused
    BlockStats b = render_at(sc, 3200, f, 1023, &s);
    int below_300 = 0;
    double mx = 0;
    for (int i = 0; i < vcam::kBlocks; ++i) {
        const double g = vcam::block_v(b, i) + 50;
        below_300 += g < 300 ? 1 : 0;
        if (b.highlight[i] <= 900)
            mx = std::max(mx, g);
    }
    EXPECT_GE(below_300, 0.95 * vcam::kBlocks);
    EXPECT_LT(mx, 500);
}

TEST(RendererNoise, DaylightNoiseStaysWellBelowOnePercentAndIsSeeded) {
    vcam::Scenario sc = simtest::chart_scenario(3000, 3200, 5000);
    sc.noise.enabled = true;
    const double f = vcam::true_focus(sc.lens.unit, 3000, 3200);
    const BlockStats clean = render_at(sc, 3200, f);
    std::vector<double> v;
    for (uint64_t frame = 0; frame < 60; ++frame) {
        BlockStats b = clean;
        vcam::apply_sensor(sc.noise, sc.optics, 0.0, 1.0, frame, &b);
        v.push_back(vcam::block_v(b, kCentre));
    }
    double m = 0, sq = 0;
    for (double x : v)
        m += x;
    m /= v.size();
    for (double x : v)
        sq += (x - m) * (x - m);
    const double sd = std::sqrt(sq / v.size());
    EXPECT_LT(sd / m, 0.01);
    EXPECT_GT(sd, 0.0) << "noise enabled must fluctuate";

    BlockStats a = clean, b = clean;
    vcam::apply_sensor(sc.noise, sc.optics, 0.0, 1.0, 5, &a);
    vcam::apply_sensor(sc.noise, sc.optics, 0.0, 1.0, 5, &b);
    EXPECT_EQ(a.fir_v, b.fir_v);
    sc.noise.seed = 99;
    vcam::apply_sensor(sc.noise, sc.optics, 0.0, 1.0, 5, &b);
    EXPECT_NE(a.fir_v, b.fir_v);
}

TEST(RendererNoise, FilterProfileSwitchesSignalAndNoiseFloor) {
    EXPECT_DOUBLE_EQ(vcam::filter_profile(1, 2, 60), 0.0);  // low-noise set-up
    EXPECT_DOUBLE_EQ(vcam::filter_profile(3, 3, 80), 1.0);  // high-noise set-up
    vcam::Scenario sc = simtest::chart_scenario(3000, 3200, 5000);
    sc.noise.enabled = false;
    const double f = vcam::true_focus(sc.lens.unit, 3000, 3200);
    const BlockStats clean = render_at(sc, 3200, f);
    const BlockStats flat = render_at(sc, 3200, f + 2000);  // practically no signal
    auto after = [&](const BlockStats& in, double profile, double gain) {
        BlockStats b = in;
        vcam::apply_sensor(sc.noise, sc.optics, profile, gain, 1, &b);
        return vcam::block_v(b, kCentre);
    };
    // High gain: the floor dominates a flat block; the high-noise profile cores it down.
    EXPECT_GT(after(flat, 0.0, 32.0), 100);
    EXPECT_LT(after(flat, 1.0, 32.0), 0.5 * after(flat, 0.0, 32.0));
    // ...at the cost of signal on a focused block.
    EXPECT_LT(after(clean, 1.0, 1.0), 0.8 * after(clean, 0.0, 1.0));
}

}  // namespace
