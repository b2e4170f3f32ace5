// Per-frame statistics: block table and derived window values.
#pragma once

#include <cstdint>

// Derives from the last frame what the caller needs: mode 0 (centre window only), 1 (autofocus),
// 2 (zoom motion).
void af_stat_fetch(uint8_t mode);
