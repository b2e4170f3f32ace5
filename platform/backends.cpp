#include "platform/backends.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "data/frame_stamp.h"
#include "platform/clock.h"
#include "platform/sim/virtual_clock.h"

namespace platform {
namespace {

VirtualClock g_virtualClock;

}  // namespace

int select_backends_from_env() {
    int rc = 0;
    const char* mode = std::getenv("AFD_CLOCK");
    if (mode != nullptr && std::strcmp(mode, "virtual") == 0) {
        const char* page = std::getenv(afdata::kVirtualClockEnv);
        if (page != nullptr && page[0] != '\0' && g_virtualClock.attach_page(page) != 0) {
            std::printf("virtual clock: cannot map %s\n", page);
            rc = -1;
        }
        select_clock(&g_virtualClock);
    }
    return rc;
}

}  // namespace platform
