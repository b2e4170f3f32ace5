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
    const std::string head =
        "scene:\n  objects:\n    - {name: car, rect: [0.1, 0.1, 0.2, 0.2], distance: 5000}\n";
    const struct {
        std::string yaml, error;
    } cases[] = {
        {"fps: 30\nscene:\n  objects:\n    - name: a\n      rect: [0, 0, 1, 1]\n"
         "      distance: far\n",
         "bad.yaml:6: scene.objects[0].distance: expected a number, got 'far'"},
        {"fps: 30\nlens:\n  zoom: 9000\n", "bad.yaml:3: lens.zoom: value 9000 outside 0 .. 6624"},
        {"noise:\n  seeed: 3\n", "bad.yaml:2: noise.seeed: unknown key"},
        {"scene:\n  objects:\n    - name: a\n      distance: 10\n",
         "bad.yaml:3: scene.objects[0].rect: missing (x, y, w, h in image coordinates)"},
        {head + "timeline:\n  - at: 1\n    object: bus\n    set: {distance: 3}\n",
         "bad.yaml:6: timeline[0].object: no object named 'bus'"},
        {head + "timeline:\n  - at: 1\n    object: car\n    set: {speed: 3}\n",
         "bad.yaml:7: timeline[0].set.speed: not a field that can change"},
        {head + "timeline:\n  - object: car\n    set: {x: 0.3}\n",
         "bad.yaml:5: timeline[0].at: every event needs 'at' (seconds) or 'frame'"},
        {head + "timeline:\n  - {at: 1, enter: car, leave: car}\n",
         "bad.yaml:5: timeline[0]: needs exactly one of object, light, scene, lens, enter, leave"},
        // Values the renderer could not work with (pixels and block indexes would overflow).
        {"scene:\n  lights:\n    - {name: l, position: [7e110, 0.5]}\n",
         "bad.yaml:3: scene.lights[0].position[0]: outside -100 .. 100 (image coordinates)"},
        {head + "timeline:\n  - at: 1\n    object: car\n    set: {x: 1e300}\n",
         "bad.yaml:7: timeline[0].set.x: value 1e+300 outside -100 .. 100"},
        {"scene:\n  objects:\n    - {name: a, rect: [0,0,1,1]}\ntracker: {object: b}\n",
         "bad.yaml:4: tracker.object: no object named 'b'"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(error_of(c.yaml), c.error);
    const std::string syntax = error_of("fps: 30\nscene: {objects: [\n");
    EXPECT_EQ(syntax.rfind("bad.yaml:", 0), 0u) << syntax;
    EXPECT_NE(syntax.find("(syntax)"), std::string::npos) << syntax;
    vcam::Scenario sc;
    std::string err;
    EXPECT_FALSE(vcam::load_scenario("/nonexistent/x.yaml", &sc, &err));
    EXPECT_EQ(err, "/nonexistent/x.yaml:0: (file): cannot open");
}

// Steps, ramps (a later ramp starting from wherever an earlier one has got to) and switches.
TEST(ScenarioTimeline, RampsStepsAndSwitches) {
    const vcam::Scenario sc = simtest::scenario_from(R"(
fps: 25
scene:
  illumination: 1.0
  objects:
    - {name: person, rect: [0.4, 0.3, 0.2, 0.5], distance: 8000, visible: false}
    - {name: car, rect: [0.1, 0.1, 0.2, 0.2], distance: 10000}
  lights:
    - {name: lamp, position: [0.2, 0.2], distance: 20000}
timeline:
  - {at: 0, over: 4, object: car, set: {distance: 2000}}
  - {at: 1.0, enter: person}
  - {at: 2.0, over: 2.0, object: person, set: {distance: 2000, x: 0.6}}
  - {at: 2, over: 2, object: car, set: {distance: 1000}}
  - {frame: 100, light: lamp, set: {on: false}}
  - {at: 5.0, over: 1.0, scene: {illumination: 0.1, pan: 0.2}}
  - {at: 7.0, leave: person}
)");
    auto at = [&](double t) { return vcam::scene_at(sc, t); };
    EXPECT_EQ(at(0.5).objects[0].visible, 0.0);
    EXPECT_EQ(at(1.0).objects[0].visible, 1.0);
    EXPECT_DOUBLE_EQ(at(2.0).objects[0].distance, 8000);
    EXPECT_DOUBLE_EQ(at(3.0).objects[0].distance, 5000);
    EXPECT_DOUBLE_EQ(at(3.0).objects[0].x, 0.5);
    EXPECT_DOUBLE_EQ(at(9.0).objects[0].distance, 2000);
    EXPECT_DOUBLE_EQ(at(2.0).objects[1].distance, 6000);
    EXPECT_DOUBLE_EQ(at(3.0).objects[1].distance, 3500) << "half way from 6000 to 1000";
    EXPECT_DOUBLE_EQ(at(5.0).objects[1].distance, 1000);
    EXPECT_EQ(at(3.99).lights[0].on, 1.0);
    EXPECT_EQ(at(4.0).lights[0].on, 0.0) << "frame 100 at 25 frames/s";
    EXPECT_NEAR(at(5.5).illumination, 0.55, 1e-12);
    EXPECT_DOUBLE_EQ(at(6.5).pan, 0.2);
    EXPECT_EQ(at(7.5).objects[0].visible, 0.0);
}

}  // namespace
