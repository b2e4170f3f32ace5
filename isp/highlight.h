// Live and latched highlight masks.
#pragma once

// Arms the update of the latched masks on the next fetches.
void highlight_arm_update();
// Clears the latched highlight masks.
void highlight_clear_latched();
