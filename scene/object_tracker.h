// Motion objects: what moved through the picture since the focus reference was taken.
//
// Each frame the detector compares the luma (or, for textured blocks, the sharpness) of the
// newest frame with the frames 1, 2 and 4 back, after removing the change of the whole picture
// (an exposure step brightens every block alike and is no object). The first change map with
// enough changed blocks becomes a motion mask, which is labelled into components and matched
// against up to 20 tracked objects. Each object's centre path tells whether it came into the
// middle of the picture, left it or moves about inside it, and the detector picks the one object
// autofocus should care about.
#pragma once

#include <cstdint>

#include "scene/scene_types.h"

struct SceneAnalyzer;

// Run flag 0: forget everything (histories, objects, status OBJECTNON) and return 0.
// Run flag 1: process one frame of sharpness S and luma Y; returns the number of blocks covered
// by tracked objects in the accepted change map (0 when none).
uint32_t detect_objects(SceneAnalyzer& a, uint8_t run, const uint32_t* s, const uint32_t* y);
// Matches the refined components of one frame against the tracked objects.
void match_objects(SceneAnalyzer& a, ComponentSet& set);
// Updates the motion state and direction of one object from its centre path.
void classify_motion(TrackedObject& obj);
// OBJECTIN (0), OBJECTOUT (1) or OBJECTSHAKE (2) from the analyzer's centre history.
uint32_t classify_trajectory(const SceneAnalyzer& a);
// The most frequent per-block relative change from base to other (a fraction, in steps of 0.01).
float relative_change_mode(const uint32_t* base, const uint32_t* other);
// Appends a target centre to the centre history (oldest dropped past 100 entries).
void push_target_centre(SceneAnalyzer& a, uint8_t row, uint8_t col);
