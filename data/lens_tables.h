// Lens data of the nominal zoom lens: the factory shape of the base focus curve, the far-curve
// offset rows and the distance table. The daemon compiles these in; the virtual camera reads the
// same arrays to place the true in-focus position of every object, so both sides agree on the
// optics except for the deliberate per-unit deviation a scenario sets.
//
// The arrays are generated once by tools/lens_data_gen from a smooth model of the lens that passes
// through the measured reference values, and are committed as lens_tables.cpp. Do not edit that
// file by hand; change the generator and regenerate.
//
// Units: focus positions and offsets in focus motor steps, indexed by zoom step s = zoom / 32.
// Larger focus positions focus farther away. Distances in millimetres.
#pragma once

#include <cstdint>

namespace afdata {

inline constexpr int kCurveSamples = 209;             // zoom steps 0..208 (zoom 0..6656)
inline constexpr int kFarCurveRows = 51;              // curves 1..51 = base curve + row 0..50
inline constexpr int kDistanceRows = 36;              // distance keys 100000 down to 30
inline constexpr int kDistanceColumns = 210;          // zoom steps 0..209; entry 209 is always 0
inline constexpr uint32_t kReferenceDistance = 1000;  // the base curve's object distance, mm

// Factory shape of the base focus curve: 6019 at the wide end falling to 369 at the tele end,
// never rising from one step to the next.
extern const uint16_t kDefaultCurveShape[kCurveSamples];

// Row r is the focus offset of curve r + 1 from the base curve. All offsets are 0 or positive
// and never fall with the row or with the zoom step; row 50 is the farthest distance (100 m).
extern const uint16_t kFarCurveOffsets[kFarCurveRows][kCurveSamples];

// Focus offset of an object at distance `key` relative to an object at kReferenceDistance.
struct DistanceRow {
    uint32_t key;
    int16_t offset[kDistanceColumns];
};

// Rows ordered by falling key: 100000, 50000, ... 1000 (all zero), ... 30.
extern const DistanceRow kDistanceTable[kDistanceRows];

}  // namespace afdata
