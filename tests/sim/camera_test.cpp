// The camera behind the ISP service: frame layout, the latency of lens moves, the auto exposure
// and its mapping onto the exposure record, and the filter profile.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <sstream>

#include "sim/camera.h"
#include "sim/isp_records.h"
#include "sim_test_util.h"

namespace {

using vcam::kStatFrameSize;

uint32_t word(const uint8_t* f, size_t w) {
    return vcam::get_u32(f + 4 * w);
}

double centre_v_of(const uint8_t* f) {
    double v = 0;
    for (int r = 6; r <= 9; ++r)
        for (int c = 6; c <= 9; ++c) {
            const size_t b = static_cast<size_t>(r * 15 + c);
            v += (word(f, vcam::kFirVWord + b) + word(f, vcam::kIir1Word + b)) / 2.0;
        }
    return v / 16;
}

struct Exposure {
    double l, t, g;
    double ratio() const { return l / (g == 0 ? 1.0 : g) * 100; }  // as the daemon derives it
    double index() const { return t * 1000 * g * 10; }
};

Exposure read_exposure(const vcam::Camera& cam) {
    uint8_t rec[vcam::kExposureRecordSize];
    cam.exposure_record(rec);
    return {vcam::get_f32(rec + 8), vcam::get_f32(rec + 44), vcam::get_f32(rec + 48)};
}

// Runs a camera for n frames and returns the centre V of each.
std::vector<double> run(const vcam::Scenario& sc, int n, vcam::Camera** out_cam = nullptr) {
    static vcam::LensMechanics mech;
    static std::unique_ptr<vcam::Camera> cam;
    cam = std::make_unique<vcam::Camera>(sc, &mech);
    std::vector<double> v;
    uint8_t buf[kStatFrameSize];
    for (int k = 1; k <= n; ++k) {
        cam->frame(static_cast<uint64_t>(k), cam->grid_time_us(static_cast<uint64_t>(k)), buf,
                   nullptr);
        v.push_back(centre_v_of(buf));
    }
    if (out_cam != nullptr)
        *out_cam = cam.get();
    return v;
}

TEST(FrameLayout, StampAndBlockArraysWhereTheDaemonReadsThem) {
    vcam::Scenario sc = simtest::chart_scenario(3000, 3200);
    sc.lens.focus = vcam::true_focus(sc.lens.unit, 3000, 3200);
    vcam::LensMechanics mech;
    vcam::Camera cam(sc, &mech);
    uint8_t f[kStatFrameSize];
    vcam::FrameTruth truth;
    cam.frame(7, 123456789012ULL, f, &truth);
    const afdata::FrameStamp st = afdata::frame_stamp_decode(f);
    EXPECT_EQ(st.sequence, 7u);
    EXPECT_EQ(st.time_us, 123456789012ULL);
    for (size_t w = 1353; w < 1376; ++w)
        EXPECT_EQ(word(f, w), 0u) << "unused word " << w;
    double luma = 0;
    for (size_t b = 0; b < 225; ++b) {
        EXPECT_LE(word(f, vcam::kLumaWord + b), 1023u);
        EXPECT_LE(word(f, vcam::kHighlightWord + b), 20000u);
        luma += word(f, vcam::kLumaWord + b);
    }
    EXPECT_NEAR(luma / 225, truth.luma_mean, 1.0);
    EXPECT_NEAR(centre_v_of(f), truth.centre_v, 1.0);
    EXPECT_GT(centre_v_of(f), 2800) << "focused chart";
    EXPECT_NEAR(truth.best_centre_v, truth.centre_v, 0.02 * truth.centre_v);
    EXPECT_EQ(truth.digest, vcam::fnv1a(f, kStatFrameSize));
    EXPECT_DOUBLE_EQ(truth.subject_focus, sc.lens.focus);
}

// The lens jumps from far out of focus to focus when frame 10 is requested, i.e. right after
// frame 9 was delivered.
vcam::Scenario latency_scenario(int latency) {
    const double f = vcam::true_focus({}, 3000, 3200);
    std::ostringstream y;
    y << "subject: chart\nlens: {zoom: 3200, focus: " << f - 60 << "}\n"
      << "scene:\n  objects:\n    - {name: chart, rect: [0.1, 0.1, 0.8, 0.8], distance: 3000, "
         "texture: 5000, texture_variation: 0}\n"
      << "noise: {enabled: false}\n"
      << "latency: {frames: " << latency << ", mix: 0.5}\n"
      << "timeline:\n  - {frame: 10, lens: {focus: " << f << "}}\n";
    return simtest::scenario_from(y.str());
}

TEST(Latency, MoveAfterFrameNShowsInNPlus2WithNPlus1Mixed) {
    const std::vector<double> v = run(latency_scenario(2), 14);
    const double before = v[8];  // frame 9
    const double after = v[13];  // frame 14
    ASSERT_GT(after, 5 * before);
    EXPECT_DOUBLE_EQ(v[7], before);
    EXPECT_NEAR(v[9], (before + after) / 2, 1.0) << "frame 10 sees half the exposure each way";
    EXPECT_DOUBLE_EQ(v[10], after) << "frame 11 is clean";
}

TEST(Latency, IsConfigurable) {
    const std::vector<double> v3 = run(latency_scenario(3), 14);
    EXPECT_DOUBLE_EQ(v3[9], v3[8]) << "latency 3: frame 10 still shows the old position";
    EXPECT_GT(v3[10], v3[9] * 2);
    EXPECT_LT(v3[10], v3[13] * 0.9) << "latency 3: frame 11 mixed";
    EXPECT_DOUBLE_EQ(v3[11], v3[13]) << "latency 3: frame 12 clean";

    const std::vector<double> v1 = run(latency_scenario(1), 14);
    EXPECT_DOUBLE_EQ(v1[9], v1[13]) << "latency 1: the next frame is already clean";
}

TEST(Latency, FramesNobodyFetchedStillCount) {
    // Frame 10 (mixed) is never fetched: frame 11, fetched next, is clean.
    vcam::LensMechanics mech;
    vcam::Camera cam(latency_scenario(3), &mech);
    uint8_t f[kStatFrameSize];
    for (uint64_t k = 1; k <= 9; ++k)
        cam.frame(k, cam.grid_time_us(k), f, nullptr);
    const double before = centre_v_of(f);
    cam.frame(12, cam.grid_time_us(12), f, nullptr);
    const double late = centre_v_of(f);
    cam.frame(13, cam.grid_time_us(13), f, nullptr);
    EXPECT_GT(late, 5 * before);
    EXPECT_DOUBLE_EQ(late, centre_v_of(f));
}

TEST(Timeline, HeldTimelineStartsAtTheFirstFrameAfterTheTrigger) {
    // The lens script jumps at frame 10 of scene time. Held, nothing happens until the trigger;
    // the frame that first sees it is scene time 0, so the jump shows ten frames later.
    vcam::LensMechanics mech;
    vcam::Camera cam(latency_scenario(1), &mech);
    std::atomic<bool> go{false};
    cam.hold_timeline_until(&go);
    uint8_t f[kStatFrameSize];
    vcam::FrameTruth truth;
    std::vector<double> v;
    for (uint64_t k = 1; k <= 40; ++k) {
        if (k == 21)
            go = true;
        cam.frame(k, cam.grid_time_us(k), f, &truth);
        v.push_back(centre_v_of(f));
        if (k == 20) {
            EXPECT_EQ(truth.scene_time_s, 0.0) << "held: the scene stands at its start";
        }
    }
    EXPECT_DOUBLE_EQ(v[29], v[0]) << "frame 30 is scene frame 9: before the jump";
    EXPECT_GT(v[30], 5 * v[0]) << "frame 31 is scene frame 10: the jump";
    EXPECT_NEAR(truth.scene_time_s, 19.0 / 30.0, 1e-6);
}

vcam::Scenario lit(double illumination, const std::string& mapping) {
    std::ostringstream y;
    y << "lens: {zoom: 1000, focus: 5000}\n"
      << "scene:\n  illumination: " << illumination << "\n"
      << "  background: {texture: 1000, reflectance: 0.4, luma_contrast: 0.2}\n"
      << "noise: {enabled: false}\n"
      << "exposure: {mapping: " << mapping << "}\n";
    return simtest::scenario_from(y.str());
}

TEST(AutoExposure, GainClassMappingPutsDayAndNightOnEitherSideOfTheProfileSwitch) {
    vcam::Camera* cam = nullptr;
    run(lit(1.0, "gain_class"), 30, &cam);
    const Exposure day = read_exposure(*cam);
    EXPECT_GE(day.l, 200);
    EXPECT_LE(day.l, 250) << "brightness inside the iris loop's band";
    EXPECT_LE(day.ratio(), 119) << "daylight selects the low-noise profile";
    EXPECT_LE(day.index(), 1000) << "daylight is not dark";

    run(lit(0.001, "gain_class"), 30, &cam);
    const Exposure night = read_exposure(*cam);
    EXPECT_GT(night.ratio(), 200) << "high gain selects the high-noise profile";
    EXPECT_GT(night.index(), 1000) << "night is dark";
    EXPECT_GE(night.l, 200);

    run(lit(0.00001, "gain_class"), 30, &cam);
    EXPECT_LT(read_exposure(*cam).l, 200) << "beyond the gain limit the picture gets darker";
}

TEST(AutoExposure, SettlesOnAFixedPoint) {
    vcam::Camera* cam = nullptr;
    run(lit(0.01, "physical"), 60, &cam);
    const Exposure a = read_exposure(*cam);
    uint8_t f[kStatFrameSize];
    for (uint64_t k = 61; k <= 70; ++k)
        cam->frame(k, cam->grid_time_us(k), f, nullptr);
    const Exposure b = read_exposure(*cam);
    EXPECT_LT(std::fabs(a.ratio() - b.ratio()), 2.0);
    EXPECT_NEAR(a.l, b.l, 0.01);
}

TEST(AutoExposure, PhysicalMappingRatioFallsWithTheIris) {
    // Half the iris opening lets a quarter of the light through; the gain makes up for it and
    // the ratio word falls with the light, as the iris correction expects.
    std::ostringstream y;
    y << "lens: {zoom: 1000, focus: 5000, iris: 1023}\n"
      << "scene: {illumination: 0.01, background: {texture: 500, reflectance: 0.4}}\n"
      << "noise: {enabled: false}\nexposure: {mapping: physical}\n"
      << "timeline:\n  - {frame: 60, lens: {iris: 511.5}}\n";
    vcam::Camera* cam = nullptr;
    run(simtest::scenario_from(y.str()), 59, &cam);
    const Exposure open = read_exposure(*cam);
    uint8_t f[kStatFrameSize];
    for (uint64_t k = 60; k <= 140; ++k)
        cam->frame(k, cam->grid_time_us(k), f, nullptr);
    const Exposure closed = read_exposure(*cam);
    EXPECT_NEAR(closed.ratio() / open.ratio(), 0.25, 0.01);
    EXPECT_NEAR(closed.l, open.l, 1.0);
}

TEST(AutoExposure, FixedMappingReportsTheScenarioWords) {
    vcam::Scenario sc = lit(1.0, "fixed");
    sc.exposure.fixed_brightness = 225;
    sc.exposure.fixed_time = 0.04;
    sc.exposure.fixed_gain = 50;
    vcam::Camera* cam = nullptr;
    run(sc, 3, &cam);
    const Exposure e = read_exposure(*cam);
    EXPECT_FLOAT_EQ(static_cast<float>(e.l), 225.0f);
    EXPECT_FLOAT_EQ(static_cast<float>(e.t), 0.04f);
    EXPECT_FLOAT_EQ(static_cast<float>(e.g), 50.0f);
}

TEST(FilterProfile, HighNoiseParametersLowerTheRenderedSignal) {
    vcam::Scenario sc = simtest::chart_scenario(3000, 3200);
    sc.lens.focus = vcam::true_focus(sc.lens.unit, 3000, 3200);
    vcam::LensMechanics mech;
    vcam::Camera cam(sc, &mech);
    uint8_t f[kStatFrameSize];
    cam.frame(1, 0, f, nullptr);
    const double low = centre_v_of(f);
    uint8_t rec[vcam::kAfAttrSize];
    cam.af_attr(rec);
    rec[vcam::kAttrFilterA] = 3;
    rec[vcam::kAttrFilterB] = 3;
    rec[vcam::kAttrFilterC] = 80;
    cam.set_af_attr(rec);
    EXPECT_DOUBLE_EQ(cam.profile(), 1.0);
    cam.frame(2, 0, f, nullptr);
    EXPECT_NEAR(centre_v_of(f) / low, sc.optics.high_noise_signal, 0.01);
}

}  // namespace
