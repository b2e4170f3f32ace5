// Zoom-focus curves.
#pragma once

void curve_load();
