#include "tracking/curves.h"

void curve_load() {}
