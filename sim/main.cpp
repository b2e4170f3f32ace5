// vcam: the virtual camera. Plays the daemon's peers on a desktop: the ISP service with
// statistics rendered from a scenario and the true lens state, and (once attached below) the lens
// hardware. Usage: vcam --help.
#include <getopt.h>
#include <signal.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "sim/camera.h"
#include "sim/hw/hw_server.h"
#include "sim/hw/lens_mechanics.h"
#include "sim/isp_server.h"
#include "sim/scenario.h"
#include "sim/telemetry.h"

namespace {

std::atomic<bool> g_stop{false};
std::atomic<bool> g_timeline_go{false};

void on_signal(int) {
    g_stop.store(true);
}

void on_timeline_signal(int) {
    g_timeline_go.store(true);
}

void usage(FILE* f) {
    std::fprintf(
        f,
        "usage: vcam [options] SCENARIO.yaml\n"
        "  --mode real|virtual  frame timing (default: virtual when AFD_CLOCK=virtual,\n"
        "                       else real)\n"
        "  --addr A             ISP service address (env AFD_ISP_ADDR, default "
        "127.0.0.1)\n"
        "  --port P             ISP service TCP port (env AFD_ISP_PORT, default 6888)\n"
        "  --vclock FILE        virtual-clock page of the daemon (env AFD_VCLOCK_FILE)\n"
        "  --telemetry FILE     write ground truth per frame as JSON Lines\n"
        "  --activity FILE      lens activity summary per minute of scene time (JSON Lines)\n"
        "  --seed N             noise seed (overrides noise.seed)\n"
        "  --no-noise           deterministic statistics without noise\n"
        "  --latency N          frames from a lens move to a clean frame (default 2)\n"
        "  --fps F              frame rate (overrides the scenario)\n"
        "  --jitter-us J        real-time delivery jitter, +-J microseconds\n"
        "  --frames N           stop after delivering N frames\n"
        "  --hold-timeline      hold the scenario's timeline at its start until SIGUSR1\n"
        "  --fault KEYS         inject a fault, e.g. fault=isp_stall,at=3,stall=4 or\n"
        "                       fault=zoom_busy,at=2,for=1.5 (repeatable; sim/faults.h)\n"
        "  --check              only read and check the scenario\n");
}

// ---- Lens hardware emulation -------------------------------------------------------------------
// The SPI lens-driver chip and GPIO emulators start here and move `mech` (sim/hw/). Until they
// are attached the lens stays where the scenario puts it, or follows the scenario's lens script.
// With AFD_SIM_SOCKET set, the LC898201 and GPIO emulators serve the daemon's simulation backend
// on that socket; VCAM_HW holds their settings and faults ("key=value,...", sim/hw/hw_server.h).
vcam::hw::HwServer* start_lens_hardware(vcam::LensMechanics& mech, const vcam::Scenario& scenario,
                                        bool virtual_time) {
    const char* sock = std::getenv(hwwire::kSocketEnv);
    if (sock == nullptr || *sock == '\0')
        return nullptr;
    vcam::hw::HwConfig cfg;
    std::string err;
    // The unit's gear play from the scenario; VCAM_HW may override it.
    cfg.lc.zoom_backlash = cfg.ms.zoom_backlash = scenario.lens.unit.zoom_backlash;
    cfg.lc.focus_backlash = cfg.ms.focus_backlash = scenario.lens.unit.focus_backlash;
    const char* list = std::getenv("VCAM_HW");
    if (list != nullptr && !vcam::hw::hw_config_parse_list(cfg, list, &err)) {
        std::fprintf(stderr, "vcam: VCAM_HW: %s\n", err.c_str());
        std::exit(2);
    }
    static vcam::hw::HwServer server(mech, cfg);  // serves for the whole run
    server.power_on(scenario.lens.zoom, scenario.lens.focus);
    // The chip runs on the daemon's clock: in virtual time the frame's capture time is on it; in
    // real time both processes share the machine's monotonic clock, and the grid is not on it.
    mech.set_driver([virtual_time](uint64_t t) {
        if (!virtual_time)
            t = static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                          std::chrono::steady_clock::now().time_since_epoch())
                                          .count());
        server.advance_to(t);
    });
    if (server.start(sock) != 0)
        std::exit(2);
    return &server;
}

// Lens faults of the plan switch the hardware's fault settings. The MS41908 has one busy line for
// both channels: it stays set while either busy fault is on.
void attach_lens_faults(vcam::FaultPlan& plan, vcam::hw::HwServer* hw) {
    plan.set_lens_hook([hw, zoom_busy = false, focus_busy = false](const vcam::FaultSpec& f,
                                                                   bool on) mutable {
        if (hw == nullptr) {
            std::fprintf(stderr, "vcam: fault %s: no lens hardware (AFD_SIM_SOCKET unset)\n",
                         vcam::fault_kind_name(f.kind));
            return;
        }
        std::string key;
        std::string value;
        switch (f.kind) {
            case vcam::FaultKind::kZoomBusy:
            case vcam::FaultKind::kFocusBusy:
                (f.kind == vcam::FaultKind::kZoomBusy ? zoom_busy : focus_busy) = on;
                key = f.kind == vcam::FaultKind::kZoomBusy ? "fault.zoom_busy" : "fault.focus_busy";
                value = on ? "stuck" : "none";
                break;
            case vcam::FaultKind::kZoomSensor:
            case vcam::FaultKind::kFocusSensor:
                key =
                    f.kind == vcam::FaultKind::kZoomSensor ? "fault.zoom_home" : "fault.focus_home";
                value = !on ? "none" : (f.sensor_on ? "stuck_on" : "stuck_off");
                break;
            default:
                key = "fault.spi_transfer";
                value = on ? "error" : "none";
                break;
        }
        std::string err;
        if (!hw->set_fault(key, value, &err))
            std::fprintf(stderr, "vcam: fault %s: %s\n", vcam::fault_kind_name(f.kind),
                         err.c_str());
        // The other busy fault may still hold the shared line.
        if ((f.kind == vcam::FaultKind::kZoomBusy || f.kind == vcam::FaultKind::kFocusBusy) &&
            !on && (zoom_busy || focus_busy))
            hw->set_fault(zoom_busy ? "fault.zoom_busy" : "fault.focus_busy", "stuck", &err);
    });
}

bool parse_u64(const char* s, uint64_t* out) {
    char* end = nullptr;
    errno = 0;
    const unsigned long long v = std::strtoull(s, &end, 10);
    if (errno != 0 || end == s || *end != '\0')
        return false;
    *out = v;
    return true;
}

bool parse_double(const char* s, double* out) {
    char* end = nullptr;
    const double v = std::strtod(s, &end);
    if (end == s || *end != '\0')
        return false;
    *out = v;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    vcam::ServerConfig cfg;
    const char* clock_env = std::getenv("AFD_CLOCK");
    cfg.mode = (clock_env != nullptr && std::strcmp(clock_env, "virtual") == 0)
                   ? vcam::TimeMode::kVirtual
                   : vcam::TimeMode::kReal;
    if (const char* a = std::getenv("AFD_ISP_ADDR"); a != nullptr && *a != '\0')
        cfg.addr = a;
    if (const char* p = std::getenv("AFD_ISP_PORT"); p != nullptr && *p != '\0') {
        uint64_t v = 0;
        if (!parse_u64(p, &v) || v > 65535) {
            std::fprintf(stderr, "vcam: AFD_ISP_PORT '%s' is not a port\n", p);
            return 2;
        }
        cfg.port = static_cast<uint16_t>(v);
    }
    if (const char* v = std::getenv("AFD_VCLOCK_FILE"); v != nullptr)
        cfg.vclock_path = v;

    std::string telemetry_path;
    std::string activity_path;
    bool check_only = false;
    bool hold_timeline = false;
    bool no_noise = false;
    bool have_seed = false;
    uint64_t seed = 0;
    std::vector<std::string> fault_args;
    int latency = 0;
    double fps = 0;
    double jitter = -1;

    enum {
        kMode = 256,
        kAddr,
        kPort,
        kVclock,
        kTelemetry,
        kActivity,
        kSeed,
        kNoNoise,
        kLatency,
        kFps,
        kJitter,
        kFrames,
        kHoldTimeline,
        kFault,
        kCheck,
        kHelp
    };
    const option opts[] = {{"mode", required_argument, nullptr, kMode},
                           {"addr", required_argument, nullptr, kAddr},
                           {"port", required_argument, nullptr, kPort},
                           {"vclock", required_argument, nullptr, kVclock},
                           {"telemetry", required_argument, nullptr, kTelemetry},
                           {"activity", required_argument, nullptr, kActivity},
                           {"seed", required_argument, nullptr, kSeed},
                           {"no-noise", no_argument, nullptr, kNoNoise},
                           {"latency", required_argument, nullptr, kLatency},
                           {"fps", required_argument, nullptr, kFps},
                           {"jitter-us", required_argument, nullptr, kJitter},
                           {"frames", required_argument, nullptr, kFrames},
                           {"hold-timeline", no_argument, nullptr, kHoldTimeline},
                           {"fault", required_argument, nullptr, kFault},
                           {"check", no_argument, nullptr, kCheck},
                           {"help", no_argument, nullptr, kHelp},
                           {nullptr, 0, nullptr, 0}};
    for (;;) {
        const int c = getopt_long(argc, argv, "", opts, nullptr);
        if (c == -1)
            break;
        uint64_t u = 0;
        bool ok = true;
        switch (c) {
            case kMode:
                if (std::strcmp(optarg, "real") == 0)
                    cfg.mode = vcam::TimeMode::kReal;
                else if (std::strcmp(optarg, "virtual") == 0)
                    cfg.mode = vcam::TimeMode::kVirtual;
                else
                    ok = false;
                break;
            case kAddr:
                cfg.addr = optarg;
                break;
            case kPort:
                ok = parse_u64(optarg, &u) && u <= 65535;
                cfg.port = static_cast<uint16_t>(u);
                break;
            case kVclock:
                cfg.vclock_path = optarg;
                break;
            case kTelemetry:
                telemetry_path = optarg;
                break;
            case kActivity:
                activity_path = optarg;
                break;
            case kSeed:
                ok = parse_u64(optarg, &seed);
                have_seed = true;
                break;
            case kNoNoise:
                no_noise = true;
                break;
            case kLatency:
                ok = parse_u64(optarg, &u) && u >= 1 && u <= 16;
                latency = static_cast<int>(u);
                break;
            case kFps:
                ok = parse_double(optarg, &fps) && fps >= 1 && fps <= 1000;
                break;
            case kJitter:
                ok = parse_double(optarg, &jitter) && jitter >= 0;
                break;
            case kFrames:
                ok = parse_u64(optarg, &cfg.max_frames);
                break;
            case kHoldTimeline:
                hold_timeline = true;
                break;
            case kFault:
                fault_args.emplace_back(optarg);
                break;
            case kCheck:
                check_only = true;
                break;
            case kHelp:
                usage(stdout);
                return 0;
            default:
                usage(stderr);
                return 2;
        }
        if (!ok) {
            std::fprintf(stderr, "vcam: bad value '%s' for an option\n", optarg);
            return 2;
        }
    }
    if (optind != argc - 1) {
        usage(stderr);
        return 2;
    }

    vcam::Scenario sc;
    std::string error;
    if (!vcam::load_scenario(argv[optind], &sc, &error)) {
        std::fprintf(stderr, "vcam: %s\n", error.c_str());
        return 1;
    }
    if (have_seed)
        sc.noise.seed = seed;
    if (no_noise)
        sc.noise.enabled = false;
    if (latency > 0)
        sc.latency.frames = latency;
    if (fps > 0)
        sc.fps = fps;
    if (jitter >= 0)
        sc.jitter_us = jitter;
    for (const std::string& a : fault_args) {
        vcam::FaultSpec f;
        if (!vcam::fault_parse(a, sc.fps, &f, &error)) {
            std::fprintf(stderr, "vcam: --fault %s: %s\n", a.c_str(), error.c_str());
            return 2;
        }
        sc.faults.push_back(f);
    }
    if (check_only) {
        std::printf(
            "%s: scenario '%s', %zu objects, %zu lights, %zu events, %zu faults, "
            "%.3g frames/s\n",
            argv[optind], sc.name.c_str(), sc.objects.size(), sc.lights.size(), sc.timeline.size(),
            sc.faults.size(), sc.fps);
        return 0;
    }

    struct sigaction sa {};
    sa.sa_handler = on_signal;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
    struct sigaction su {};
    su.sa_handler = on_timeline_signal;
    sigaction(SIGUSR1, &su, nullptr);

    vcam::LensMechanics mech;
    vcam::Camera camera(sc, &mech);
    if (hold_timeline)
        camera.hold_timeline_until(&g_timeline_go);
    vcam::ActivityLog activity;
    if (!activity_path.empty()) {
        if (!activity.open(activity_path, 60.0))
            return 1;
        camera.set_activity_log(&activity);
    }
    vcam::TelemetryWriter telemetry;
    if (!telemetry_path.empty() && !telemetry.open(telemetry_path))
        return 1;
    vcam::IspServer server(&camera, cfg, &telemetry);
    if (server.listen() != 0)
        return 1;
    vcam::hw::HwServer* hw = start_lens_hardware(mech, sc, cfg.mode == vcam::TimeMode::kVirtual);
    vcam::FaultPlan faults(sc.faults);
    attach_lens_faults(faults, hw);
    if (!faults.empty())
        server.set_faults(&faults);
    server.run(g_stop);
    const vcam::ServerStats& st = server.stats();
    std::fprintf(stderr, "vcam: served %llu frames, %llu protocol errors\n",
                 static_cast<unsigned long long>(st.frames),
                 static_cast<unsigned long long>(st.protocol_errors));
    return 0;
}
