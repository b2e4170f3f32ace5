// What afctl shows of the daemon's inputs from the camera's other processes: the tracker's box
// (and whether tracking is on, as the daemon decides it from the record's state) and the
// rangefinder's distance, read from their shared-memory devices under the file root.
#pragma once

// Text lines, or one JSON object (no newline) when json is set.
void print_camera_inputs(bool json);
