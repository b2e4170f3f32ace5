// Execution of motion commands, one frame's worth per call.
#pragma once

#include "command/motion_command.h"

void motion_execute(const MotionCommand& cmd);
