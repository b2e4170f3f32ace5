#include "af/af_seams.h"

#include "af/af_state.h"
#include "af/focus_zone.h"
#include "base/frame_pacing.h"
#include "isp/frame_history.h"
#include "isp/isp_link.h"
#include "lens_api/lens_position.h"
#include "tracking/distance_table.h"

SeamState g_seams;

void seam_state_reset() {
    g_seams = SeamState{};
}

void af_seams_reset_for_testing() {
    seam_state_reset();
    watch_state_reset();
    focused_range_reset();
}
