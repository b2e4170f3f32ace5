// The lens data files under /data as a unit may hold them after a flash fault, a half-finished
// upgrade or someone's editor: arbitrary bytes in the reference curve, the lens parameter record,
// the iris table and the calibration offsets. The first input byte picks the file; the rest is
// its content. Everything the daemon does with the files at start-up then runs on it: the
// parameter record sets the motor bounds, the curve file is turned into the zoom-focus curve and
// its bounds, the iris table and the offsets are loaded and applied. Afterwards every curve point,
// every tracked focus and every bound must lie inside the lens's travel.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/dbgout.h"
#include "lens_api/iris.h"
#include "lens_api/lens_driver.h"
#include "lens_api/lens_position.h"
#include "platform/paths.h"
#include "platform/sim/virtual_clock.h"
#include "store/lens_data.h"
#include "store/offsets.h"
#include "tests/fuzz/fuzz_root.h"
#include "tracking/curves.h"

namespace {

platform::VirtualClock g_clock;

constexpr const char* kFiles[] = {kCurveFilePath, kLensParamPath, kIrisFilePath, kOffsetFilePath};
constexpr int kFileCount = sizeof kFiles / sizeof kFiles[0];
constexpr uint16_t kTravelLimit = 6624;  // no count of either motor may exceed the zoom's range

bool set_up() {
    return fuzzsupport::quiet_file_root("data", &g_clock);
}

void put_file(const char* abs_path, const uint8_t* data, std::size_t size) {
    platform::Path p(abs_path);
    const int fd = open(p.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        std::abort();
    if (size > 0 && write(fd, data, size) != static_cast<ssize_t>(size))
        std::abort();
    close(fd);
}

void fail(const char* what, unsigned a, unsigned b) {
    std::fprintf(stderr, "%s: %u %u\n", what, a, b);
    std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    static const bool ready = set_up();
    if (!ready || size == 0 || size > 2048)
        return 0;
    // Only the chosen file exists; the others are missing, which is the readers' other path.
    for (const char* f : kFiles)
        unlink(platform::Path(f).c_str());
    put_file(kFiles[data[0] % kFileCount], data + 1, size - 1);

    lens_position_reset_for_testing();
    lens_param_load();
    lens_apply_parameters();
    lens_load_offsets();
    iris_table_load();
    curve_load();

    const uint16_t zmin = lens_get_zoom_min();
    const uint16_t zmax = lens_get_zoom_max();
    const uint16_t fmin = lens_get_focus_min();
    const uint16_t fmax = lens_get_focus_max();
    if (zmin > zmax || zmax > kTravelLimit)
        fail("zoom bounds", zmin, zmax);
    if (fmin > fmax || fmax > kTravelLimit)
        fail("focus bounds", fmin, fmax);
    if (lens_get_focus_backlash() > 30 || lens_get_zoom_backlash() > 20)
        fail("backlash", lens_get_focus_backlash(), lens_get_zoom_backlash());
    for (uint16_t s = 0; s < 208; ++s) {
        if (curve_get_point(s) > fmax)
            fail("curve point above the focus maximum", s, curve_get_point(s));
        if (curve_get_lower_bound(s) > fmax || curve_get_upper_bound(s) > fmax)
            fail("curve bound above the focus maximum", s, curve_get_upper_bound(s));
    }
    // Tracking reads the curve everywhere along the zoom; what it reads goes through lens_move's
    // bounds, so only the reading itself is exercised here.
    for (uint32_t z = 0; z <= kTravelLimit; z += 97)
        for (uint8_t c = 0; c < 52; c += 3)
            (void)curve_focus_at(c, static_cast<uint16_t>(z));
    for (uint8_t step = 0; step < 13; ++step)
        (void)iris_table_get(step);
    return 0;
}
