// Values the ISP link and the statistics read from the modules that own them, through one small
// table so that a test can supply them without building those modules.
#pragma once

#include <cstdint>

struct IspInputs {
    // Current zoom position in motor steps (the filter profile is left alone at the tele end).
    uint16_t (*zoom_pos)();
    // Window preset number (0..3) of the focus zone; preset 3 keeps the weighted centre
    // window value, every other preset uses the wider plain 4 x 4 centre average.
    uint8_t (*window_preset)();
};

// The inputs in force: the lens position module and the focus zone.
const IspInputs& isp_inputs();

// Installs a test's inputs; nullptr restores the defaults. The table must outlive its use.
void isp_set_inputs_for_testing(const IspInputs* inputs);
