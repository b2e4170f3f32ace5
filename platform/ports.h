// Network endpoints of the daemon. The defaults are the camera's fixed ports; each can be moved
// by an environment variable so that several daemons (tests, side-by-side virtual cameras) can
// run on one desktop.
//
//   AFD_ISP_ADDR    ISP service address          default 127.0.0.1
//   AFD_ISP_PORT    ISP service TCP port          default 6888
//   AFD_CMD_BIND    command socket bind address   default 0.0.0.0 (all addresses)
//   AFD_CMD_PORT    command socket UDP port       default 6789
//   AFD_REPLY_ADDR  reply/report address          default 127.0.0.1
//   AFD_REPLY_PORT  reply/report UDP port         default 7000
//   AFD_TUNING_BIND tuning server bind address    default 0.0.0.0 (all addresses)
//   AFD_TUNING_PORT tuning server TCP port        default 1207
#pragma once

#include <cstdint>

namespace platform {

struct PortConfig {
    char isp_addr[64];
    uint16_t isp_port;
    char cmd_bind[64];
    uint16_t cmd_port;
    char reply_addr[64];
    uint16_t reply_port;
    char tuning_bind[64];
    uint16_t tuning_port;
};

// The configuration in force, read from the environment on first use.
const PortConfig& ports();

// Re-reads the environment (tests change it between cases).
void reload_ports();

}  // namespace platform
