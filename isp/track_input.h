// Tracking box from the camera's object tracker, and the command channel's region of interest.
//
// The tracker publishes the box of the object it follows in the shared-memory device
// /dev/sm_track_info: five little-endian u32 words, state (0 or 3: off), x1, y1, x2, y2 in a
// 640 x 360 space. The main loop polls it every processed frame (tracking on or off); the
// autofocus frame step asks for the box as statistics blocks when it may refocus on it. Both are
// inputs of the statistics side of the picture, like the ISP's, which is why they live here,
// below autofocus.
#pragma once

#include <cstdint>

#include "isp/af_stat.h"

inline constexpr const char* kTrackDevice = "/dev/sm_track_info";
inline constexpr int kTrackRecordSize = 20;
inline constexpr uint32_t kTrackSpaceWidth = 640;
inline constexpr uint32_t kTrackSpaceHeight = 360;

// Box update results.
inline constexpr uint8_t kBoxNothing = 0;
inline constexpr uint8_t kBoxDefault = 1;  // refocus with the default (or whole) region
inline constexpr uint8_t kBoxTracked = 2;  // refocus on the tracked region

// The blocks a box covers, for tracking-region focus (which owns the result). Rows and columns
// with exclusive ends.
struct TrackRegion {
    uint8_t rowStart = 3, rowEnd = 12, colStart = 4, colEnd = 11;
    uint8_t mask[kGridBlocks] = {};
};

// Maps the device when it is not mapped yet; 1 while the tracker reports a box, else 0. Logs
// each change between on and off once.
uint32_t track_poll();

// Turns a new box into blocks. kBoxNothing: nothing new (or a box of about the same width);
// kBoxDefault: refocus with the default region (zoom or pan/tilt moved: region untouched; a
// malformed box: region untouched; a box of fewer than 4 usable blocks: region := centre 7 x 7);
// kBoxTracked: region := the box's blocks. Blocks lit by highlights are left out.
uint8_t track_box_update(TrackRegion* region);

// Region of interest from the command channel (image width and height, x, y, w, h in pixels):
// the 5 x 5 windows whose nine blocks all lie in it; the centre window when none does.
void track_set_roi(uint16_t width, uint16_t height, uint16_t x, uint16_t y, uint16_t w, uint16_t h);
void track_copy_roi_windows(uint8_t out[kWindowCount]);
// 1 once after each rebuild of the window mask.
uint8_t track_take_roi_changed();

// Unmaps the device and forgets every state (tests).
void track_input_reset();
