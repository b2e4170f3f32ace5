#include "tracking/motion.h"

#include "command/command_process.h"

// Until motions are executed, a motion ends on its first step so nothing waits on it forever.
void motion_execute(const MotionCommand&) {
    command_set_zoom_motion_active(0);
}
