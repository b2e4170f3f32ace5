#include "platform/ports.h"

#include <cstdlib>
#include <cstring>

namespace platform {
namespace {

PortConfig g_ports;
bool g_loaded = false;

void env_text(const char* name, const char* def, char* out, std::size_t n) {
    const char* v = std::getenv(name);
    if (v == nullptr || v[0] == '\0')
        v = def;
    std::strncpy(out, v, n - 1);
    out[n - 1] = '\0';
}

// A port from the environment; "0" is taken only for ports the daemon binds (the kernel then picks
// a free one, which is what tests and fuzzers want), never for ports it sends to.
uint16_t env_port(const char* name, uint16_t def, bool bind = false) {
    const char* v = std::getenv(name);
    if (v == nullptr || v[0] == '\0')
        return def;
    char* end = nullptr;
    long p = std::strtol(v, &end, 10);
    if (end == v || *end != '\0' || p < (bind ? 0 : 1) || p > 65535)
        return def;
    return static_cast<uint16_t>(p);
}

}  // namespace

void reload_ports() {
    env_text("AFD_ISP_ADDR", "127.0.0.1", g_ports.isp_addr, sizeof g_ports.isp_addr);
    g_ports.isp_port = env_port("AFD_ISP_PORT", 6888);
    env_text("AFD_CMD_BIND", "0.0.0.0", g_ports.cmd_bind, sizeof g_ports.cmd_bind);
    g_ports.cmd_port = env_port("AFD_CMD_PORT", 6789, true);
    env_text("AFD_REPLY_ADDR", "127.0.0.1", g_ports.reply_addr, sizeof g_ports.reply_addr);
    g_ports.reply_port = env_port("AFD_REPLY_PORT", 7000);
    env_text("AFD_TUNING_BIND", "0.0.0.0", g_ports.tuning_bind, sizeof g_ports.tuning_bind);
    g_ports.tuning_port = env_port("AFD_TUNING_PORT", 1207, true);
    g_loaded = true;
}

const PortConfig& ports() {
    if (!g_loaded)
        reload_ports();
    return g_ports;
}

}  // namespace platform
