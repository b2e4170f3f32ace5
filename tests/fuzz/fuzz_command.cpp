// Random datagrams on the command channel: whatever arrives, the daemon must not crash, must not
// act on a datagram whose direction byte is unknown, and the motions it starts must keep the lens
// inside its bounds.
#include <netinet/in.h>
#include <stdlib.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "base/dbgout.h"
#include "command/command_process.h"
#include "lens_api/lens_driver.h"
#include "lens_api/lens_position.h"
#include "platform/paths.h"
#include "platform/ports.h"
#include "platform/sim/virtual_clock.h"
#include "tracking/curves.h"
#include "tracking/motion.h"

namespace {

void no_op() {}
uint32_t home_ok() {
    return kHomeOk;
}
int32_t init_all_ok() {
    return 0;
}
void no_op_u8(uint8_t) {}
void no_op_u16(uint16_t) {}
void no_op_step(uint8_t, uint8_t) {}
void no_op_move(uint8_t, uint8_t, uint8_t, uint8_t) {}

// A lens driver that accepts everything instantly: the fuzzer exercises the command logic, not
// the bus.
const LensDriverOps kQuietOps = {no_op,      no_op,       no_op,     home_ok,
                                 home_ok,    init_all_ok, no_op_u8,  no_op_u16,
                                 no_op_step, no_op_step,  no_op_move};

platform::VirtualClock g_clock;

bool set_up() {
    char dir[] = "/tmp/afd-fuzz-command-XXXXXX";
    if (mkdtemp(dir) == nullptr)
        return false;
    platform::set_file_root(dir);
    setenv("AFD_REPLY_PORT", "9", 1);  // discard: nobody listens
    setenv("AFD_CMD_PORT", "0", 1);
    setenv("AFD_CMD_BIND", "127.0.0.1", 1);
    platform::reload_ports();
    platform::select_clock(&g_clock);
    dbg_set_syslog(false);
    std::freopen("/dev/null", "w", stdout);
    lens_set_ops_for_testing(&kQuietOps);
    command_sockets_open();
    command_state_init();
    curve_load();
    lens_set_positions(6378, 2400);
    return true;
}

bool same(const MotionCommand& a, const MotionCommand& b) {
    uint8_t x[kMotionCommandWireSize];
    uint8_t y[kMotionCommandWireSize];
    motion_command_encode(a, x);
    motion_command_encode(b, y);
    return std::memcmp(x, y, sizeof x) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool ready = set_up();
    if (!ready)
        return 0;
    if (size > 300)
        return 0;

    const MotionCommand before = command_motion_copy();
    const uint8_t moving_before = command_zoom_motion_active();
    sockaddr_in from{};
    from.sin_family = AF_INET;
    from.sin_port = htons(9);
    from.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    command_process_datagram(data, size, from);

    const bool known =
        size >= 2 && (data[0] == 'r' || data[0] == 'R' || data[0] == 'w' || data[0] == 'W');
    if (!known &&
        (!same(before, command_motion_copy()) || moving_before != command_zoom_motion_active())) {
        std::fprintf(stderr, "a datagram with an unknown direction changed the state\n");
        abort();
    }

    // Let whatever motion it started run a while.
    for (int i = 0; i < 8 && command_zoom_motion_active() == 1; ++i) {
        motion_execute(command_motion_copy());
    }
    command_set_zoom_motion_active(0);
    if (lens_get_zoom_pos() > kZoomTravelLimit || lens_get_focus_pos() > lens_get_focus_ceiling()) {
        std::fprintf(stderr, "lens outside its bounds: zoom %u focus %u\n", lens_get_zoom_pos(),
                     lens_get_focus_pos());
        abort();
    }
    return 0;
}
