// The tracker and rangefinder vcam plays: the box the tracker reports for an object, and the
// records both publish under the sandbox root.
#include "sim/peripherals.h"

#include <gtest/gtest.h>

#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "sim/scenario.h"
#include "sim_test_util.h"

namespace {

const char* kScene = R"(
fps: 30
subject: person
scene:
  objects:
    - {name: person, rect: [0.25, 0.2, 0.25, 0.5], distance: 4000}
tracker: {object: person, latency_frames: 0, jitter: 0}
rangefinder: {error: 0}
)";

TEST(TrackerBox, MirroredInTheTrackersSpaceAndMagnifiedByTheZoom) {
    const vcam::Scenario sc = simtest::scenario_from(kScene);
    const vcam::SceneState s = vcam::scene_at(sc, 0);
    double b[4];
    ASSERT_TRUE(vcam::tracker_box(sc, s, 0, 0, b));
    // x 0.25..0.5 of the picture mirrored: 0.5..0.75 of 640; y 0.2..0.7 of 360.
    EXPECT_NEAR(b[0], 320, 1e-9);
    EXPECT_NEAR(b[2], 480, 1e-9);
    EXPECT_NEAR(b[1], 72, 1e-9);
    EXPECT_NEAR(b[3], 252, 1e-9);
    // At 2x the box doubles about the centre of the picture: x 0..0.5, y -0.1..0.9 (clipped).
    ASSERT_TRUE(vcam::tracker_box(sc, s, 0, 2556, b));
    EXPECT_NEAR(b[0], 320, 1e-6);
    EXPECT_NEAR(b[2], 640, 1e-6);
    EXPECT_NEAR(b[1], 0, 1e-6);
    EXPECT_NEAR(b[3], 324, 1e-6);
    // Far enough in, the object leaves the picture.
    vcam::SceneState panned = s;
    panned.pan = 0.6;
    EXPECT_FALSE(vcam::tracker_box(sc, panned, 0, 0, b));
    panned = s;
    panned.objects[0].visible = 0;
    EXPECT_FALSE(vcam::tracker_box(sc, panned, 0, 0, b));
}

TEST(Peripherals, PublishTheBoxAndTheDistanceEveryFrame) {
    char dir[] = "/tmp/vcam-periph-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    setenv("AFD_ROOT", dir, 1);
    {
        const vcam::Scenario sc = simtest::scenario_from(kScene);
        vcam::Peripherals p(sc);
        p.frame(0, 0.0, 0.0);
        uint32_t w[5] = {};
        FILE* f = std::fopen((std::string(dir) + vcam::kTrackRecordPath).c_str(), "rb");
        ASSERT_NE(f, nullptr);
        ASSERT_EQ(std::fread(w, 4, 5, f), 5u);
        std::fclose(f);
        EXPECT_EQ(w[0], 1u);
        EXPECT_EQ(w[1], 320u);
        EXPECT_EQ(w[3], 480u);
        f = std::fopen((std::string(dir) + vcam::kDistanceRecordPath).c_str(), "rb");
        ASSERT_NE(f, nullptr);
        ASSERT_EQ(std::fread(w, 4, 2, f), 2u);
        std::fclose(f);
        EXPECT_EQ(w[0], 1u);
        EXPECT_EQ(w[1], 4000u) << "the subject's distance";
    }
    unsetenv("AFD_ROOT");
    std::system((std::string("rm -rf ") + dir).c_str());
}

}  // namespace
