// Telemetry lines are valid JSON carrying the frame's ground truth.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>

#include "sim/camera.h"
#include "sim/telemetry.h"
#include "sim_test_util.h"

namespace {

TEST(Telemetry, LineIsJsonWithTheTruthOfTheFrame) {
    vcam::Scenario sc = simtest::scenario_from(R"(
subject: near
lens: {zoom: 2000, focus: 5000}
scene:
  objects:
    - {name: far, rect: [0.1, 0.1, 0.8, 0.8], distance: 20000, texture: 3000}
    - {name: near, rect: [0.4, 0.4, 0.2, 0.2], distance: 1500, texture: 3000}
    - {name: gone, rect: [0.0, 0.0, 0.1, 0.1], distance: 900, visible: false}
noise: {enabled: false}
)");
    vcam::LensMechanics mech;
    vcam::Camera cam(sc, &mech);
    uint8_t f[vcam::kStatFrameSize];
    vcam::FrameTruth t;
    cam.frame(3, 100000, f, &t);
    const nlohmann::json j = nlohmann::json::parse(vcam::telemetry_line(t));
    EXPECT_EQ(j["frame"], 3);
    EXPECT_EQ(j["t_us"], 100000);
    EXPECT_DOUBLE_EQ(j["lens"]["focus"].get<double>(), 5000);
    EXPECT_NEAR(j["subject_focus"].get<double>(), vcam::true_focus({}, 1500, 2000), 1e-6);
    ASSERT_EQ(j["object_focus"].size(), 3u);
    EXPECT_NEAR(j["object_focus"][0].get<double>(), vcam::true_focus({}, 20000, 2000), 1e-6);
    EXPECT_TRUE(j["object_focus"][2].is_null()) << "an object not in the picture";
    EXPECT_EQ(j["best_window_v"].size(), 25u);
    EXPECT_GT(j["best_centre_v"].get<double>(), j["centre_v"].get<double>());
    EXPECT_EQ(j["digest"].get<std::string>().size(), 16u);
}

}  // namespace
