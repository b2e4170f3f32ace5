// Focus zone: which of the 5 x 5 AF windows (and blocks) the focus value is measured over, and
// with what weights. The control software picks the zone type and a window preset; autofocus
// refines the zone from the scene.
#pragma once

#include <cstdint>

// Zone type 1..3 (start-up 2). Type 3 weights the inner windows more.
extern volatile uint8_t g_zoneType;

// Window preset ("region") 0..3; 3 is the full 3 x 3 weighted centre.
uint8_t get_window_preset();
void set_window_preset(uint8_t preset);
