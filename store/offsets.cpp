#include "store/offsets.h"

void offset_save(const char*, int32_t) {}
