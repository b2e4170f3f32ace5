// Records of the scene analysis that autofocus also sees: the components of one frame's motion
// mask and the objects tracked across frames. Both are copied whole into SceneResult, so they are
// plain fixed-size records (no pointers, no heap).
//
// Grids are 15 x 15 blocks, row-major; a block position is (row, column), two u8, row first.
#pragma once

#include <cstdint>

#include "isp/af_stat.h"
#include "isp/frame_history.h"

// An ordered list of blocks (raster order unless stated).
using CellList = FhCellList;

inline constexpr int kMaxComponents = 32;  // labels 1..31 are usable, 32 or more drop the frame
inline constexpr int kMaxObjects = 20;
inline constexpr int kObjectCentreDepth = 30;
inline constexpr int kComponentObjectLinks = 7;
inline constexpr int kObjectComponentLinks = 10;

// One connected region of the motion mask.
struct Component {
    uint32_t label = 0;  // 1..31; 0 marks a dropped component
    uint32_t n = 0;      // cell count
    uint8_t overlapCount = 0;
    uint8_t overlapping[kComponentObjectLinks] = {};  // tracked-object slots, in slot order
    uint8_t cells[kGridBlocks][2] = {};
    uint8_t centreRow = 0;
    uint8_t centreCol = 0;
};

// One frame's labelled motion mask.
struct ComponentSet {
    uint32_t count = 0;
    Component components[kMaxComponents];  // largest first after refinement
    uint8_t mask[kGridBlocks] = {};        // the motion mask that is labelled (1 = set)
    uint8_t labels[kGridBlocks] = {};      // 0 background, else the owning component's label
    // 1: blocks of the largest first-seen component; 2: blocks of tracked objects.
    uint8_t objectMap[kGridBlocks] = {};
    float gapFill[kGridBlocks] = {};  // change against the reference, for filling mask gaps
    uint8_t centroidRow = 255;        // centroid of the object map; 255 none
    uint8_t centroidCol = 255;
};

// Motion states of a tracked object relative to the middle of the picture.
inline constexpr uint8_t kMotionNone = 0;
inline constexpr uint8_t kMotionIn = 1;
inline constexpr uint8_t kMotionOut = 2;
inline constexpr uint8_t kMotionInside = 3;

// Directions: which way the centre spread (decided once).
inline constexpr uint8_t kDirNone = 0;
inline constexpr uint8_t kDirRows = 1;
inline constexpr uint8_t kDirCols = 2;
inline constexpr uint8_t kDirBoth = 3;

struct TrackedObject {
    uint8_t valid = 0;
    uint8_t id = 0;   // its own slot
    uint8_t age = 0;  // frames in which it was found, capped at 30
    uint8_t state = kMotionNone;
    uint32_t n = 0;  // cell count
    uint8_t direction = kDirNone;
    uint8_t overlapCount = 0;  // components overlapping it in the last matched frame
    uint8_t overlapping[kObjectComponentLinks] = {};
    uint8_t centres[kObjectCentreDepth][2] = {};  // entry 0 = current centre
    uint16_t ttl = 0;                             // frames left while not found
    uint8_t cells[kGridBlocks][2] = {};
};
