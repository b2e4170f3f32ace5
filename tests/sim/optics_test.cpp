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
BlockStats render_at(const vcam::Scenario& sc, double zoom, double focus, double iris = 1023) {
    const vcam::SceneState s = vcam::scene_at(sc, 0);
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

// Centre-block V (or H) of the 3 m chart at a focus offset from its true focus.
double v_at(const vcam::Scenario& sc, double zoom, double offset, bool h = false,
            double iris = 1023) {
    const BlockStats b =
        render_at(sc, zoom, vcam::true_focus(sc.lens.unit, 3000, zoom) + offset, iris);
    return h ? vcam::block_h(b, kCentre) : vcam::block_v(b, kCentre);
}

// Full width at half maximum of a peak, found by walking out from focus in 0.25-step increments.
double fwhm(const vcam::Scenario& sc, double zoom, bool h) {
    const double peak = v_at(sc, zoom, 0, h);
    double d = 0;
    while (v_at(sc, zoom, d, h) > peak / 2)
        d += 0.25;
    return 2 * d;
}

const vcam::Scenario& chart() {
    static const vcam::Scenario sc = simtest::chart_scenario(3000, 3200, 5000);
    return sc;
}

TEST(RendererSharpness, InFocusTextureReadsThousandsAndDefocusFallsTowardTheFloor) {
    for (double zoom : {0.0, 3200.0, 6400.0}) {
        const double in_focus = v_at(chart(), zoom, 0);
        EXPECT_GT(in_focus, 2800) << "a focused textured window must not count as weak";
        EXPECT_LT(in_focus, 20000);
        // Far from focus the daemon's grid (V + 50) approaches its no-contrast value 50.
        EXPECT_LT(v_at(chart(), zoom, 300) + 50, 80) << "zoom " << zoom;
    }
}

TEST(RendererSharpness, HeavyTailsKeepAGradientFarFromFocus) {
    // Coarse steps of 10 towards focus from 150 steps away: each step rises by well over the
    // 8 % the daemon's trend test needs over five frames.
    double prev_v = v_at(chart(), 3200, 150);
    for (double d = 140; d >= 100; d -= 10) {
        const double v = v_at(chart(), 3200, d);
        EXPECT_GT(v, prev_v * 1.08) << "offset " << d;
        prev_v = v;
    }
    const double h_far = v_at(chart(), 3200, -300, true);
    EXPECT_GT(v_at(chart(), 3200, -250, true), h_far * 1.2);
    EXPECT_GT(h_far, 10) << "H still above the daylight noise floor 300 steps away";
}

// Both peaks sit at the true focus; H is wider than V, and both widen towards tele and as the
// iris closes. The wobble of a focused search must still cost a visible share of the peak.
TEST(RendererSharpness, PeaksAtTrueFocusWithWidthsTheSearchNeeds) {
    for (double zoom : {500.0, 3200.0, 6000.0}) {
        for (bool h : {false, true}) {
            EXPECT_LT(v_at(chart(), zoom, 1, h), v_at(chart(), zoom, 0, h)) << zoom << " " << h;
            EXPECT_LT(v_at(chart(), zoom, -1, h), v_at(chart(), zoom, 0, h)) << zoom << " " << h;
        }
        EXPECT_GT(fwhm(chart(), zoom, true), 1.8 * fwhm(chart(), zoom, false)) << "zoom " << zoom;
    }
    EXPECT_LT(v_at(chart(), 500, 1), 0.975 * v_at(chart(), 500, 0)) << "1-step wobble, wide";
    EXPECT_LT(v_at(chart(), 3500, 4), (1 - 1.0 / 32) * v_at(chart(), 3500, 0)) << "4-step wobble";
    const double wide = fwhm(chart(), 500, false);
    const double tele = fwhm(chart(), 6000, false);
    EXPECT_GE(wide, 8);
    EXPECT_LE(wide, 12);
    EXPECT_GT(tele, 1.6 * wide);
    EXPECT_LE(tele, 30);
    // Closing the iris deepens the depth of field: 10 steps off focus keep more of the peak.
    auto kept = [](double iris) {
        return v_at(chart(), 3200, 10, false, iris) / v_at(chart(), 3200, 0, false, iris);
    };
    EXPECT_GT(kept(400), kept(1023) + 0.1);
}

// A unit's iris that passes less light than the nominal one: what iris correction measures.
TEST(RendererLuma, IrisOfTheUnitScalesTheLightItPasses) {
    vcam::Scenario sc = chart();
    const double nominal = vcam::iris_transmission(sc.lens, 512);
    EXPECT_NEAR(nominal, (512.0 / 1023) * (512.0 / 1023), 1e-9);
    sc.lens.unit.iris_exponent = 3.0;
    sc.lens.unit.iris_transmission = 0.8;
    EXPECT_NEAR(vcam::iris_transmission(sc.lens, 512), 0.8 * std::pow(512.0 / 1023, 3), 1e-9);
    EXPECT_NEAR(vcam::iris_transmission(sc.lens, 1023), 0.8, 1e-9);
}

TEST(RendererSharpness, TwoDepthsInOneBlockGiveTwoPeaks) {
    // The centre block spans x 0.467..0.533: the near chart covers its left half.
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
    const double f_near = vcam::true_focus(sc.lens.unit, 1500, 4000);
    const double f_far = vcam::true_focus(sc.lens.unit, 20000, 4000);
    ASSERT_GT(f_far - f_near, 60);
    const double mid = vcam::block_v(render_at(sc, 4000, (f_near + f_far) / 2), kCentre);
    EXPECT_GT(vcam::block_v(render_at(sc, 4000, f_near), kCentre), 3 * mid);
    EXPECT_GT(vcam::block_v(render_at(sc, 4000, f_far), kCentre), 3 * mid);
}

TEST(RendererLuma, OrdinaryTexturedWindowsScoreInTheDaemonsTextureRange) {
    const BlockStats b = render_at(simtest::chart_scenario(3000, 0, 5000), 0, 4000);
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
        textured += tex >= 11 && tex <= 45 ? 1 : 0;
    }
    EXPECT_GE(textured, 6) << "most inner windows of a textured chart read as textured";
    double mean = 0;
    for (double l : b.luma)
        mean += l;
    EXPECT_GT(mean / vcam::kBlocks, 150);
    EXPECT_LT(mean / vcam::kBlocks, 500);
}

// Lamps at night: defocus spreads a lamp into a growing saturated disc whose clipped edge makes a
// false sharpness peak away from focus; outside the lamps the picture stays dark and flat.
TEST(RendererLights, DefocusedLampsGrowHighlightsAndFalsePeaksOnADarkFlatScene) {
    struct Sums {
        double highlight = 0, highlight_max = 0, v = 0, flat_max = 0;
        int below_300 = 0;
    };
    auto sums = [](const vcam::Scenario& sc, double off) {
        const double f = vcam::true_focus(sc.lens.unit, 20000, 3200);
        const BlockStats b = render_at(sc, 3200, f + off);
        Sums s;
        for (int i = 0; i < vcam::kBlocks; ++i) {
            EXPECT_LE(b.highlight[i], 20000);
            s.highlight += b.highlight[i];
            s.highlight_max = std::max(s.highlight_max, b.highlight[i]);
            s.v += vcam::block_v(b, i);
            const double g = vcam::block_v(b, i) + 50;  // the daemon's grid value
            s.below_300 += g < 300 ? 1 : 0;
            if (b.highlight[i] <= 900)
                s.flat_max = std::max(s.flat_max, g);
        }
        return s;
    };
    const std::string head =
        "lens: {zoom: 3200}\nnoise: {enabled: false}\nscene:\n"
        "  illumination: 0.001\n  lights:\n";
    const vcam::Scenario lamp = simtest::scenario_from(
        head + "    - {name: lamp, position: [0.5, 0.5], distance: 20000, intensity: 1.5}\n" +
        "  background: {texture: 0, reflectance: 0.2}\n");
    const Sums focused = sums(lamp, 0);
    EXPECT_GT(focused.highlight_max, 900) << "a focused lamp makes a highlight block";
    double prev = focused.highlight;
    for (double off : {40.0, 80.0, 160.0, 240.0}) {
        EXPECT_GT(sums(lamp, off).highlight, prev * 1.1) << "offset " << off;
        prev = sums(lamp, off).highlight;
    }
    EXPECT_GT(sums(lamp, 200).v, 2 * focused.v);

    const Sums street = sums(
        simtest::scenario_from(head + "    - {name: a, position: [0.3, 0.4], distance: 20000}\n" +
                               "    - {name: b, position: [0.7, 0.6], distance: 30000}\n" +
                               "  background: {texture: 30, reflectance: 0.2}\n"),
        120);
    EXPECT_GE(street.below_300, 0.95 * vcam::kBlocks);
    EXPECT_LT(street.flat_max, 500);
}

TEST(RendererNoise, DaylightNoiseIsSmallAndTheHighNoiseProfileCoresTheFloor) {
    vcam::Scenario sc = chart();
    sc.noise.enabled = true;
    const BlockStats clean = render_at(sc, 3200, vcam::true_focus(sc.lens.unit, 3000, 3200));
    auto after = [&](const BlockStats& in, double profile, double gain, uint64_t frame) {
        BlockStats b = in;
        vcam::apply_sensor(sc.noise, sc.optics, profile, gain, frame, &b);
        return vcam::block_v(b, kCentre);
    };
    double m = 0, sq = 0;
    for (uint64_t frame = 0; frame < 60; ++frame) {
        const double v = after(clean, 0.0, 1.0, frame);
        m += v / 60;
        sq += v * v / 60;
    }
    const double sd = std::sqrt(std::max(0.0, sq - m * m));
    EXPECT_LT(sd / m, 0.01);
    EXPECT_GT(sd, 0.0) << "noise enabled must fluctuate";

    // High gain: the floor dominates a flat block; the high-noise profile cores it down.
    EXPECT_DOUBLE_EQ(vcam::filter_profile(1, 2, 60), 0.0);  // the boot set-up: low noise
    EXPECT_DOUBLE_EQ(vcam::filter_profile(3, 3, 80), 1.0);
    sc.noise.enabled = false;
    const BlockStats flat = render_at(sc, 3200, 2000);  // practically no signal
    EXPECT_GT(after(flat, 0.0, 32.0, 1), 100);
    EXPECT_LT(after(flat, 1.0, 32.0, 1), 0.5 * after(flat, 0.0, 32.0, 1));
}

}  // namespace
