#include "platform/backends.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "data/frame_stamp.h"
#include "platform/clock.h"
#include "platform/gpio.h"
#include "platform/sim/sim_devices.h"
#include "platform/sim/virtual_clock.h"
#include "platform/spi.h"

namespace platform {
namespace {

VirtualClock g_virtualClock;
SimHwLink g_simHwLink;
SimSpi g_simSpi(g_simHwLink);
SimGpio g_simGpio(g_simHwLink);

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
    // Lens hardware of the virtual camera: SPI frames and GPIO requests go to its emulators.
    const char* hw_socket = std::getenv(hwwire::kSocketEnv);
    if (hw_socket != nullptr && hw_socket[0] != '\0') {
        if (g_simHwLink.connect(hw_socket) == 0) {
            select_spi(&g_simSpi);
            select_gpio(&g_simGpio);
        } else {
            rc = -1;
        }
    }
    return rc;
}

}  // namespace platform
