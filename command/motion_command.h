// The motion command record of the command channel; its wire layout and encoders are shared with
// the control client and the virtual camera (data/command_wire.h).
#pragma once

#include "data/command_wire.h"
