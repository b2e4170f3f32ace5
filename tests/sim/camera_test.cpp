// The camera behind the ISP service: frame layout, the latency of lens moves, the held timeline,
// the auto exposure and its mapping onto the exposure record, and the filter profile.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <memory>
#include <sstream>

#include <nlohmann/json.hpp>

#include "sim/camera.h"
#include "sim/isp_records.h"
#include "sim/telemetry.h"
#include "sim_test_util.h"

namespace {

using simtest::centre_v;
using vcam::kStatFrameSize;

struct Exposure {
    double l, t, g;
    double ratio() const { return l / (g == 0 ? 1.0 : g) * 100; }  // as the daemon derives it
    double index() const { return t * 1000 * g * 10; }
};

// A camera on its own mechanics, fetched frame by frame on the grid.
struct Rig {
    explicit Rig(const vcam::Scenario& sc) : cam(sc, &mech) {}
    // Fetches grid frames up to k (from the last one fetched); returns the centre V of frame k.
    double to(uint64_t k, vcam::FrameTruth* truth = nullptr) {
        for (; next <= k; ++next)
            cam.frame(next, cam.grid_time_us(next), buf, next == k ? truth : nullptr);
        return centre_v(buf);
    }
    Exposure exposure() const {
        uint8_t rec[vcam::kExposureRecordSize];
        cam.exposure_record(rec);
        return {vcam::get_f32(rec + 8), vcam::get_f32(rec + 44), vcam::get_f32(rec + 48)};
    }
    vcam::LensMechanics mech;
    vcam::Camera cam;
    uint64_t next = 1;
    uint8_t buf[kStatFrameSize] = {};
};

uint32_t word(const uint8_t* f, size_t w) {
    return vcam::get_u32(f + 4 * w);
}

// The frame carries the stamp and the six block arrays where the daemon reads them, and the
// telemetry line tells the truth about that frame.
TEST(FrameLayout, StampBlockArraysAndTheirTelemetry) {
    const double focus = vcam::true_focus({}, 3000, 3200);
    Rig rig(simtest::scenario_from(
        "subject: chart\nlens: {zoom: 3200, focus: " + std::to_string(focus) + "}\n" +
        "noise: {enabled: false}\nscene:\n  objects:\n" +
        "    - {name: chart, rect: [0.1, 0.1, 0.8, 0.8], distance: 3000, texture: 5000}\n" +
        "    - {name: gone, rect: [0, 0, 0.1, 0.1], distance: 900, visible: false}\n"));
    vcam::FrameTruth truth;
    rig.cam.frame(7, 123456789012ULL, rig.buf, &truth);
    const uint8_t* f = rig.buf;
    const afdata::FrameStamp st = afdata::frame_stamp_decode(f);
    EXPECT_EQ(st.sequence, 7u);
    EXPECT_EQ(st.time_us, 123456789012ULL);
    double luma = 0;
    for (size_t b = 0; b < 225; ++b) {
        EXPECT_LE(word(f, vcam::kLumaWord + b), 1023u);
        EXPECT_LE(word(f, vcam::kHighlightWord + b), 20000u);
        luma += word(f, vcam::kLumaWord + b);
    }
    for (size_t w = 1353; w < 1376; ++w)
        EXPECT_EQ(word(f, w), 0u) << "unused word " << w;
    EXPECT_GT(centre_v(f), 2800) << "focused chart";

    const nlohmann::json j = nlohmann::json::parse(vcam::telemetry_line(truth));
    EXPECT_EQ(j["frame"], 7);
    EXPECT_NEAR(j["luma_mean"].get<double>(), luma / 225, 1.0);
    EXPECT_NEAR(j["centre_v"].get<double>(), centre_v(f), 1.0);
    EXPECT_NEAR(j["best_centre_v"].get<double>(), centre_v(f), 0.02 * centre_v(f));
    EXPECT_NEAR(j["subject_focus"].get<double>(), focus, 1e-6);
    ASSERT_EQ(j["object_focus"].size(), 2u);
    EXPECT_TRUE(j["object_focus"][1].is_null()) << "an object not in the picture";
    char digest[17];
    std::snprintf(digest, sizeof digest, "%016llx",
                  static_cast<unsigned long long>(vcam::fnv1a(f, kStatFrameSize)));
    EXPECT_EQ(j["digest"], digest);

    Rig blurred(simtest::chart_scenario(3000, 3200));  // focus 3000: far from the chart's
    blurred.cam.frame(1, 0, blurred.buf, &truth);
    EXPECT_GT(truth.best_centre_v, 2 * truth.centre_v) << "the truth renders best focus apart";
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

// With latency L the move shows cleanly in frame 9 + L; with L >= 2 the frame before it sees half
// of the exposure each way.
TEST(Latency, MoveAfterFrameNShowsCleanlyInFrameNPlusLatency) {
    for (int latency : {1, 2, 3}) {
        Rig rig(latency_scenario(latency));
        std::vector<double> v(1, 0.0);  // v[k] = frame k
        for (uint64_t k = 1; k <= 14; ++k)
            v.push_back(rig.to(k));
        const double before = v[5], after = v[14];
        ASSERT_GT(after, 5 * before) << "latency " << latency;
        EXPECT_DOUBLE_EQ(v[7 + latency], before) << "latency " << latency << ": last old frame";
        if (latency >= 2) {
            EXPECT_NEAR(v[8 + latency], (before + after) / 2, 1.0) << "latency " << latency;
        }
        EXPECT_DOUBLE_EQ(v[9 + latency], after) << "latency " << latency << ": first clean frame";
    }
}

TEST(Latency, FramesNobodyFetchedStillCount) {
    // Frames 10 and 11 are never fetched: frame 12, fetched next, is clean all the same.
    Rig rig(latency_scenario(3));
    const double before = rig.to(9);
    rig.next = 12;
    const double late = rig.to(12);
    EXPECT_GT(late, 5 * before);
    EXPECT_DOUBLE_EQ(late, rig.to(13));
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
        v.push_back(centre_v(f));
        if (k == 20) {
            EXPECT_EQ(truth.scene_time_s, 0.0) << "held: the scene stands at its start";
        }
    }
    EXPECT_DOUBLE_EQ(v[29], v[0]) << "frame 30 is scene frame 9: before the jump";
    EXPECT_GT(v[30], 5 * v[0]) << "frame 31 is scene frame 10: the jump";
    EXPECT_NEAR(truth.scene_time_s, 19.0 / 30.0, 1e-6);
}

vcam::Scenario lit(double illumination, const std::string& mapping, const std::string& more = "") {
    std::ostringstream y;
    y << "lens: {zoom: 1000, focus: 5000, iris: 1023}\n"
      << "scene:\n  illumination: " << illumination << "\n"
      << "  background: {texture: 1000, reflectance: 0.4, luma_contrast: 0.2}\n"
      << "noise: {enabled: false}\n"
      << "exposure: {mapping: " << mapping << "}\n"
      << more;
    return simtest::scenario_from(y.str());
}

TEST(LensMechanics, MotorsRunOnToEachFrameWithoutBusTraffic) {
    // A move started just before the daemon falls quiet must still finish: the camera brings the
    // mechanism up to each frame's capture time. The driver here is a motor at 1 step per ms
    // towards 3000 from where the scenario puts the lens.
    vcam::Scenario sc = simtest::chart_scenario(3000, 3200);
    sc.lens.focus = 2900;
    vcam::LensMechanics mech;
    vcam::Camera cam(sc, &mech);
    const double start = mech.snapshot().focus;
    mech.set_driver([&mech, start](uint64_t t_us) {
        vcam::LensTruth t = mech.snapshot();
        t.focus = std::min(3000.0, start + static_cast<double>(t_us) / 1000.0);
        t.time_us = t_us;
        mech.set(t);
    });
    uint8_t f[kStatFrameSize];
    vcam::FrameTruth truth;
    cam.frame(2, cam.grid_time_us(2), f, &truth);
    EXPECT_NEAR(truth.lens.focus, start + cam.grid_time_us(2) / 1000.0, 1e-6);
    cam.frame(5, cam.grid_time_us(5), f, &truth);
    EXPECT_DOUBLE_EQ(truth.lens.focus, 3000.0) << "the move completed by frame 5's capture";
}

TEST(AutoExposure, GainClassMappingPutsDayAndNightOnEitherSideOfTheProfileSwitch) {
    Rig day(lit(1.0, "gain_class"));
    day.to(30);
    EXPECT_GE(day.exposure().l, 200);
    EXPECT_LE(day.exposure().l, 250) << "brightness inside the iris loop's band";
    EXPECT_LE(day.exposure().ratio(), 119) << "daylight selects the low-noise profile";
    EXPECT_LE(day.exposure().index(), 1000) << "daylight is not dark";

    Rig night(lit(0.001, "gain_class"));
    night.to(30);
    EXPECT_GT(night.exposure().ratio(), 200) << "high gain selects the high-noise profile";
    EXPECT_GT(night.exposure().index(), 1000) << "night is dark";
    EXPECT_GE(night.exposure().l, 200);

    Rig darker(lit(0.00001, "gain_class"));
    darker.to(30);
    EXPECT_LT(darker.exposure().l, 200) << "beyond the gain limit the picture gets darker";
}

TEST(AutoExposure, PhysicalMappingSettlesAndItsRatioFallsWithTheIris) {
    // Half the iris opening lets a quarter of the light through; the gain makes up for it and
    // the ratio word falls with the light, as the iris correction expects.
    Rig rig(lit(0.01, "physical", "timeline:\n  - {frame: 80, lens: {iris: 511.5}}\n"));
    rig.to(60);
    const Exposure open = rig.exposure();
    rig.to(70);
    EXPECT_LT(std::fabs(rig.exposure().ratio() - open.ratio()), 2.0) << "a fixed point";
    EXPECT_NEAR(rig.exposure().l, open.l, 0.01);
    rig.to(160);
    EXPECT_NEAR(rig.exposure().ratio() / open.ratio(), 0.25, 0.01);
    EXPECT_NEAR(rig.exposure().l, open.l, 1.0);
}

TEST(FilterProfile, HighNoiseParametersLowerTheRenderedSignal) {
    vcam::Scenario sc = simtest::chart_scenario(3000, 3200);
    sc.lens.focus = vcam::true_focus(sc.lens.unit, 3000, 3200);
    Rig rig(sc);
    const double low = rig.to(1);
    uint8_t rec[vcam::kAfAttrSize];
    rig.cam.af_attr(rec);
    rec[vcam::kAttrFilterA] = 3;
    rec[vcam::kAttrFilterB] = 3;
    rec[vcam::kAttrFilterC] = 80;
    rig.cam.set_af_attr(rec);
    EXPECT_DOUBLE_EQ(rig.cam.profile(), 1.0);
    EXPECT_NEAR(rig.to(2) / low, sc.optics.high_noise_signal, 0.01);
}

}  // namespace
