// What afctl shows of a unit's calibration: the values its calibrations saved, read with the
// daemon's own readers from the data files under the file root (AFD_ROOT on a desktop). The
// daemon loads them at start; a calibration that completes puts them in force at once, except the
// full-form curve points, which take effect at the next start.
#pragma once

// Prints the calibration values: text lines, or one JSON object (no newline) when json is set.
void print_calibration_files(bool json);
