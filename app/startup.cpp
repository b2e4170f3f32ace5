#include "app/startup.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "af/auto_focus.h"
#include "app/frame_loop.h"
#include "base/dbgout.h"
#include "base/frame_pacing.h"
#include "command/command_process.h"
#include "isp/isp_link.h"
#include "lens_api/gpio_pins.h"
#include "lens_api/iris.h"
#include "lens_api/lc898201.h"
#include "lens_api/lens_driver.h"
#include "lens_api/lens_position.h"
#include "lens_api/spi_link.h"
#include "platform/backends.h"
#include "platform/clock.h"
#include "store/lens_data.h"
#include "tracking/curves.h"
#include "tracking/motion.h"
#include "tuning/tuning_server.h"

namespace {

std::atomic<uint8_t> g_ispIndex{0};

// Pause between the steps of the start-up motion (about one frame at 30 fps).
constexpr uint32_t kStartupMotionSleepUs = 33000;
// Iris value driven at start-up.
constexpr uint16_t kStartupIris = 2300;

void install_signals() {
    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sa_handler = HandleExitSig;
    sa.sa_flags = SA_RESTART;
    if (sigaction(SIGQUIT, &sa, nullptr) < 0)
        dbg_line("Error on sigaction SIGQUIT ");

    // A peer that closes a socket must not kill the daemon on its next send.
    struct sigaction ign;
    std::memset(&ign, 0, sizeof ign);
    ign.sa_handler = SIG_IGN;
    ign.sa_flags = 0;
    if (sigemptyset(&ign.sa_mask) < 0 || sigaction(SIGPIPE, &ign, nullptr) < 0) {
        dbg_line("Error on sigaction SIGPIPE ");
    }
    // Nor must a write past the process's file-size limit (a limit set by the init system or an
    // operator): ignored, the signal turns into a failed write (EFBIG), which the crash-safe
    // writer reports while the old file stays whole, and which the log simply loses.
    if (sigaction(SIGXFSZ, &ign, nullptr) < 0)
        dbg_line("Error on sigaction SIGXFSZ ");
}

void report_homing(uint8_t result) {
    switch (result) {
        case 2:
            traceout("focus fail!\n");
            command_set_homing_error(3);
            break;
        case 1:
            traceout("focus OK,zoom fail!\n");
            command_set_homing_error(2);
            break;
        case 3:
            traceout("focus fail,zoom fail!\n");
            command_set_homing_error(4);
            break;
        default:
            break;
    }
}

}  // namespace

void connect_modules() {
    // Lower modules read what the higher ones own through these, so that no include reaches up:
    // the automatic iris the ISP's exposure luma, a restart after a zoom the command channel's
    // position publishing.
    iris_set_brightness_source(get_exp_luma);
    af_set_position_publisher(command_publish_positions);
}

uint8_t get_isp_index() {
    return g_ispIndex;
}

void parse_command_line(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const char* w = argv[i];
        if (std::strcmp(w, "isp0") == 0) {
            g_ispIndex = 0;
        } else if (std::strcmp(w, "isp1") == 0) {
            g_ispIndex = 1;
        } else if (std::strcmp(w, "spi") == 0 && i + 1 < argc) {
            // atoi semantics (no digits give 0) without atoi's undefined overflow.
            spi_set_bus_number(static_cast<uint32_t>(std::strtol(argv[++i], nullptr, 10)));
        }
    }
}

void HandleExitSig(int signo) {
    // Only async-signal-safe calls here.
    char msg[48];
    int n = std::snprintf(msg, sizeof msg, "HandleExitSig signo: %d \n", signo);
    if (n > 0) {
        ssize_t w = write(1, msg, static_cast<size_t>(n));
        (void)w;
    }
}

int afd_main(int argc, char** argv) {
    // One line at a time, also when standard output is a pipe to a log collector (the journal),
    // so that every message arrives when it is printed.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    platform::select_backends_from_env();
    connect_modules();

    // 1-4
    traceout("%s: af thread start \n", dbg_timestamp());
    install_signals();
    isp_link_lock_init();

    // 5-7: lens board, chip, command line (after the pin file, so "spi" N wins over it).
    gpio_load_pins();
    gpio_reset_pulse();
    lens_detect_chip();
    g_ispIndex = 0;
    parse_command_line(argc, argv);

    // 8-10: command channel, iris, lens parameters.
    command_sockets_open();
    command_state_init();
    iris_publish_init();
    lens_param_load();
    if (marker_present())
        lc_alt_setup();
    lens_apply_parameters();

    // 11: home the motors. A failure leaves the loop degraded: it publishes but never moves.
    const uint8_t homing = lens_motor_init();
    report_homing(homing);

    // 12-15: curves, iris, the start-up motion (before any thread and before the ISP link).
    curve_load();
    iris_drive_publish(kStartupIris);
    while (command_zoom_motion_active() == 1) {
        const MotionCommand cmd = command_motion_copy();
        motion_execute(cmd);
        platform::sleep_us(kStartupMotionSleepUs);
    }
    command_publish_positions();

    // 16-17: threads.
    if (command_thread_start() != 0) {
        dbg_line("Message_Process init fail!");
        return -1;
    }
    if (win_socket_start() != 0)
        dbg_line("Create win_socket failed ");

    // 18-21: the frame loop.
    static FrameLoop loop(default_frame_loop_ops(), homing);
    loop.mark_start_time();
    set_high_rate(0);
    update_frame_cadence();
    set_motion_divisor_from_high_rate();
    socket_to_soc_init();
    isp_af_attr_setup();
    loop.arm();
    refresh_window_mask(0);
    loop.run();
}
