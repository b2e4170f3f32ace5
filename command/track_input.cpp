#include "command/track_input.h"

uint32_t track_poll() {
    return 0;
}

void track_set_roi(uint16_t, uint16_t, uint16_t, uint16_t, uint16_t, uint16_t) {}
