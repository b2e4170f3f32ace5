#include "isp/af_stat.h"

void af_stat_fetch(uint8_t) {}
