#include "isp/isp_inputs.h"

#include <atomic>

#include "base/command_state.h"
#include "lens_api/lens_position.h"

namespace {

const IspInputs kDefaultInputs = {
    lens_get_zoom_pos,
    get_window_preset,
};

std::atomic<const IspInputs*> g_inputs{&kDefaultInputs};

}  // namespace

const IspInputs& isp_inputs() {
    return *g_inputs.load(std::memory_order_acquire);
}

void isp_set_inputs_for_testing(const IspInputs* inputs) {
    g_inputs.store(inputs ? inputs : &kDefaultInputs, std::memory_order_release);
}
