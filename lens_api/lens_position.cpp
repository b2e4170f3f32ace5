#include "lens_api/lens_position.h"

void lens_apply_parameters() {}
