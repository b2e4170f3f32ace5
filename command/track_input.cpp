#include "command/track_input.h"

uint32_t track_poll() {
    return 0;
}
