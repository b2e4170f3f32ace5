#include "sim/lens_model.h"

#include <algorithm>
#include <cmath>

#include "data/lens_tables.h"

namespace vcam {
namespace {

// Zoom positions of 1x, 2x ... 12x on this lens.
constexpr double kMagZoom[12] = {0,    2556, 3746, 4476, 4986, 5372,
                                 5682, 5938, 6160, 6354, 6532, 6624};

// Splits a zoom position into a table step and the fraction towards the next step.
void zoom_split(double zoom, int* s, double* f) {
    double z = std::clamp(zoom, 0.0, 32.0 * (afdata::kCurveSamples - 1));
    double q = z / 32.0;
    int i = std::min(static_cast<int>(q), afdata::kCurveSamples - 2);
    *s = i;
    *f = q - i;
}

double row_at(const int16_t* row, int s, double f) {
    return row[s] + f * (row[s + 1] - row[s]);
}

}  // namespace

double magnification(double zoom) {
    if (zoom <= kMagZoom[0])
        return 1.0;
    for (int i = 1; i < 12; ++i)
        if (zoom <= kMagZoom[i])
            return i + (zoom - kMagZoom[i - 1]) / (kMagZoom[i] - kMagZoom[i - 1]);
    return 12.0;
}

double nominal_base_focus(double zoom) {
    int s;
    double f;
    zoom_split(zoom, &s, &f);
    const uint16_t* r = afdata::kDefaultCurveShape;
    return r[s] + f * (static_cast<double>(r[s + 1]) - r[s]);
}

double nominal_distance_offset(double distance_mm, double zoom) {
    int s;
    double f;
    zoom_split(zoom, &s, &f);
    const afdata::DistanceRow* t = afdata::kDistanceTable;
    const int last = afdata::kDistanceRows - 1;
    if (distance_mm <= t[last].key)
        return row_at(t[last].offset, s, f);
    const double u = 1.0 / std::max(distance_mm, 1.0);
    // Beyond the farthest row: extrapolate linearly in dioptres towards infinity.
    int i = 0;
    while (i < last - 1 && distance_mm < t[i + 1].key)
        ++i;
    if (distance_mm >= t[0].key)
        i = 0;
    const double ui = 1.0 / t[i].key;
    const double uj = 1.0 / t[i + 1].key;
    const double a = row_at(t[i].offset, s, f);
    const double b = row_at(t[i + 1].offset, s, f);
    return a + (b - a) * (u - ui) / (uj - ui);
}

double true_focus(const LensUnit& unit, double distance_mm, double zoom) {
    return nominal_base_focus(zoom) + unit.base_offset +
           unit.base_tele_offset * std::clamp(zoom / kZoomMax, 0.0, 1.0) +
           unit.distance_scale * nominal_distance_offset(distance_mm, zoom);
}

}  // namespace vcam
