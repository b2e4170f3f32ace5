// vcam scenario files: any text must either be refused with a message naming the file, line and
// field, or give a scenario that the camera can render. The fuzzer's text goes through the parser;
// an accepted scenario is then run for a few frames spread over its timeline (scene state, optics,
// exposure and the statistics records), so values the checks let through (huge, tiny, ramps that
// cross each other) must render without undefined behaviour.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "sim/camera.h"
#include "sim/hw/lens_mechanics.h"
#include "sim/scenario.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size > 4096)
        return 0;
    const std::string text(reinterpret_cast<const char*>(data), size);
    vcam::Scenario sc;
    std::string error;
    if (!vcam::parse_scenario(text, "fuzz.yaml", &sc, &error)) {
        if (error.rfind("fuzz.yaml", 0) != 0) {
            std::fprintf(stderr, "refusal without the file name: %s\n", error.c_str());
            std::abort();
        }
        return 0;
    }
    vcam::LensMechanics mech;
    vcam::Camera cam(sc, &mech);
    static uint8_t frame[vcam::kStatFrameSize];
    uint8_t exposure[vcam::kExposureRecordSize];
    // Frames at the start, around each of the first events and far out.
    uint64_t ks[6] = {0, 1, 2, 0, 0, 1500};
    for (std::size_t i = 0; i < sc.timeline.size() && i < 2; ++i) {
        const double at = sc.timeline[i].at * sc.fps;
        ks[3 + i] = at > 0 && at < 1400 ? static_cast<uint64_t>(at) + 1 : 3 + i;
    }
    uint64_t last = 0;
    for (uint64_t k : ks) {
        if (k < last)
            continue;  // the camera renders forward in time
        last = k;
        vcam::FrameTruth truth;
        cam.frame(k, cam.grid_time_us(k), frame, &truth);
        cam.exposure_record(exposure);
    }
    return 0;
}
