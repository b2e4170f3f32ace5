// Zoom-focus curves. For an object at a fixed distance, the focus position that gives a sharp
// image changes with the zoom position; a curve samples that focus position every 32 zoom steps
// (209 samples cover zoom 0..6656). The base focus curve is this unit's curve for the reference
// distance (1000 mm), measured by calibration and kept in /data/curve.dat; curves 1..51 add the
// lens's far-curve offset rows and step outwards to the farthest distance.
//
// Main thread only.
#pragma once

#include <cstdint>

inline constexpr int kCurvePoints = 209;
inline constexpr uint8_t kFarCurveCount = 51;
// Step-0 value of the factory curve shape; the reference-point form of the curve file is
// measured against it.
inline constexpr uint16_t kCurveReferenceFocus = 6019;

// Loads (or, without a valid file, builds) the base focus curve and both search-bound tables.
// Returns 1.
int curve_load();

// Focus position of curve c (0 base, 1..51 far curves) at zoom position z.
uint16_t curve_focus_at(uint8_t c, uint16_t z);

// Mode 0: anchor := (0, base curve step 0). Mode 1: anchor := current (zoom, focus) while the
// zoom position is below 200.
void curve_anchor(uint8_t mode);
uint16_t curve_get_anchor_zoom();
uint16_t curve_get_anchor_focus();

// Rebuilds base curve steps 1..208 from step 0 and the factory shape.
void curve_rebuild_from_reference();

// Near and far end of the autofocus search range at zoom step s (zoom / 32).
uint16_t curve_get_lower_bound(uint16_t s);
uint16_t curve_get_upper_bound(uint16_t s);
// Narrows the search range at zoom step s (the command channel's search range by distance).
void curve_set_bounds(uint16_t s, uint16_t lower, uint16_t upper);
// Recomputes both bound tables from the base curve (after a load or a calibration).
void curve_rebuild_bounds();

// Base focus curve points (calibration replaces them).
uint16_t curve_get_point(uint16_t s);
void curve_set_point(uint16_t s, uint16_t focus);
