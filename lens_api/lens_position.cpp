#include "lens_api/lens_position.h"

void lens_apply_parameters() {}

uint16_t lens_get_zoom_pos() {
    return 0;
}
