// Lens data files under /data.
#pragma once

void lens_param_load();
// 1 when the marker file /data/QX-714B can be opened for reading, else 0.
int marker_present();
