// Client of the camera's ISP service (TCP): frame pacing, AF attributes, exposure state.
#pragma once

#include <cstdint>

// Initialises the ISP link lock (start-up).
void isp_link_lock_init();
// Connects to the ISP service. Returns 0 on success.
int socket_to_soc_init();
// One-time AF attribute set-up on a fresh connection (read, modify, write back).
int isp_af_attr_setup();
// Blocks until the next frame's statistics are there. Returns 0 on success, 1 on failure.
int Get_ISP_VD();
// GET_AE_EXP_INFO: reads the exposure record and updates the exposure-derived values.
int isp_read_exposure();
