// Scenario files: the shipped library loads, errors name the file, line and field, and the
// timeline moves the scene as written.
#include <gtest/gtest.h>

#include <filesystem>

#include "sim/scenario.h"
#include "sim_test_util.h"

namespace {

std::string error_of(const std::string& yaml) {
    vcam::Scenario sc;
    std::string err;
    EXPECT_FALSE(vcam::parse_scenario(yaml, "bad.yaml", &sc, &err));
    return err;
}

TEST(ScenarioLibrary, EveryShippedScenarioLoads) {
    int n = 0;
    for (const auto& e :
         std::filesystem::directory_iterator(std::string(AFD_SOURCE_DIR) + "/sim/scenarios")) {
        if (e.path().extension() != ".yaml")
            continue;
        vcam::Scenario sc;
        std::string err;
        EXPECT_TRUE(vcam::load_scenario(e.path().string(), &sc, &err)) << err;
        EXPECT_FALSE(sc.name.empty()) << e.path();
        ++n;
    }
    EXPECT_GE(n, 5);
}

TEST(ScenarioErrors, NameFileLineAndField) {
    EXPECT_EQ(error_of("fps: 30\nscene:\n  objects:\n    - name: a\n      rect: [0, 0, 1, 1]\n"
                       "      distance: far\n"),
              "bad.yaml:6: scene.objects[0].distance: expected a number, got 'far'");
    EXPECT_EQ(error_of("fps: 30\nlens:\n  zoom: 9000\n"),
              "bad.yaml:3: lens.zoom: value 9000 outside 0 .. 6624");
    EXPECT_EQ(error_of("noise:\n  seeed: 3\n"), "bad.yaml:2: noise.seeed: unknown key");
    EXPECT_EQ(error_of("scene:\n  objects:\n    - name: a\n      distance: 10\n"),
              "bad.yaml:3: scene.objects[0].rect: missing (x, y, w, h in image coordinates)");
}

TEST(ScenarioErrors, TimelineMistakes) {
    const std::string head =
        "scene:\n  objects:\n    - {name: car, rect: [0.1, 0.1, 0.2, 0.2], distance: 5000}\n";
    EXPECT_EQ(error_of(head + "timeline:\n  - at: 1\n    object: bus\n    set: {distance: 3}\n"),
              "bad.yaml:6: timeline[0].object: no object named 'bus'");
    EXPECT_EQ(error_of(head + "timeline:\n  - at: 1\n    object: car\n    set: {speed: 3}\n"),
              "bad.yaml:7: timeline[0].set.speed: not a field that can change");
    EXPECT_EQ(error_of(head + "timeline:\n  - object: car\n    set: {x: 0.3}\n"),
              "bad.yaml:5: timeline[0].at: every event needs 'at' (seconds) or 'frame'");
    EXPECT_EQ(error_of(head + "timeline:\n  - {at: 1, enter: car, leave: car}\n"),
              "bad.yaml:5: timeline[0]: needs exactly one of object, light, scene, lens, enter, "
              "leave");
}

TEST(ScenarioErrors, SyntaxErrorsCarryTheLine) {
    const std::string err = error_of("fps: 30\nscene: {objects: [\n");
    EXPECT_EQ(err.rfind("bad.yaml:", 0), 0u) << err;
    EXPECT_NE(err.find("(syntax)"), std::string::npos) << err;
}

TEST(ScenarioErrors, MissingFileIsReported) {
    vcam::Scenario sc;
    std::string err;
    EXPECT_FALSE(vcam::load_scenario("/nonexistent/x.yaml", &sc, &err));
    EXPECT_EQ(err, "/nonexistent/x.yaml:0: (file): cannot open");
}

TEST(ScenarioTimeline, RampsStepsAndSwitches) {
    const vcam::Scenario sc = simtest::scenario_from(R"(
fps: 25
scene:
  illumination: 1.0
  objects:
    - {name: person, rect: [0.4, 0.3, 0.2, 0.5], distance: 8000, visible: false}
  lights:
    - {name: lamp, position: [0.2, 0.2], distance: 20000}
timeline:
  - {at: 1.0, enter: person}
  - {at: 2.0, over: 2.0, object: person, set: {distance: 2000, x: 0.6}}
  - {frame: 100, light: lamp, set: {on: false}}
  - {at: 5.0, over: 1.0, scene: {illumination: 0.1, pan: 0.2}}
  - {at: 7.0, leave: person}
)");
    EXPECT_EQ(vcam::scene_at(sc, 0.5).objects[0].visible, 0.0);
    EXPECT_EQ(vcam::scene_at(sc, 1.0).objects[0].visible, 1.0);
    EXPECT_DOUBLE_EQ(vcam::scene_at(sc, 2.0).objects[0].distance, 8000);
    EXPECT_DOUBLE_EQ(vcam::scene_at(sc, 3.0).objects[0].distance, 5000);
    EXPECT_DOUBLE_EQ(vcam::scene_at(sc, 3.0).objects[0].x, 0.5);
    EXPECT_DOUBLE_EQ(vcam::scene_at(sc, 9.0).objects[0].distance, 2000);
    EXPECT_EQ(vcam::scene_at(sc, 3.99).lights[0].on, 1.0);
    EXPECT_EQ(vcam::scene_at(sc, 4.0).lights[0].on, 0.0) << "frame 100 at 25 frames/s";
    EXPECT_NEAR(vcam::scene_at(sc, 5.5).illumination, 0.55, 1e-12);
    EXPECT_DOUBLE_EQ(vcam::scene_at(sc, 6.5).pan, 0.2);
    EXPECT_EQ(vcam::scene_at(sc, 7.5).objects[0].visible, 0.0);
}

TEST(ScenarioTimeline, ARampStartsFromWhereAnEarlierRampLeftIt) {
    const vcam::Scenario sc = simtest::scenario_from(R"(
scene:
  objects:
    - {name: car, rect: [0.1, 0.1, 0.2, 0.2], distance: 10000}
timeline:
  - {at: 0, over: 4, object: car, set: {distance: 2000}}
  - {at: 2, over: 2, object: car, set: {distance: 1000}}
)");
    EXPECT_DOUBLE_EQ(vcam::scene_at(sc, 2.0).objects[0].distance, 6000);
    EXPECT_DOUBLE_EQ(vcam::scene_at(sc, 3.0).objects[0].distance, 3500);
    EXPECT_DOUBLE_EQ(vcam::scene_at(sc, 5.0).objects[0].distance, 1000);
}

}  // namespace
