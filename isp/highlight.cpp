#include "isp/highlight.h"

void highlight_arm_update() {}
void highlight_clear_latched() {}
