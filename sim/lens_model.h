// Where the lens focuses: the true in-focus focus position of an object at a given distance and
// zoom position. It reads the same lens data the daemon compiles in (data/lens_tables.h) and adds
// the unit's own deviation from the nominal lens, which is what the daemon's calibration has to
// find. Between table samples the truth is continuous: linear along the zoom and linear in
// dioptres (1/distance) between distance rows, as the optics are.
#pragma once

namespace vcam {

// How this particular lens differs from the nominal one (focus motor steps).
struct LensUnit {
    double base_offset = 0.0;       // whole base curve shifted (assembly tolerance, temperature)
    double base_tele_offset = 0.0;  // extra shift growing linearly from 0 at wide to this at tele
    double distance_scale = 1.0;    // scales every distance offset (focus sensitivity tolerance)
    // Play of the gear trains (steps): the carriage follows the motor only once the slack is
    // taken up. Applied to the lens hardware emulation; VCAM_HW settings override them.
    double zoom_backlash = 0.0;
    double focus_backlash = 0.0;
    // Iris blades: the nominal iris passes (opening / fully open)^2 of the light; a unit whose
    // blades or aperture differ passes (opening / fully open)^iris_exponent x iris_transmission.
    double iris_exponent = 2.0;
    double iris_transmission = 1.0;
};

inline constexpr double kZoomMax = 6624.0;
inline constexpr double kFocusMax = 6120.0;

// Magnification relative to the wide end at a zoom position (1x .. 12x, the lens's field-of-view
// table, linear between its points).
double magnification(double zoom);

// Nominal base focus curve (object at 1 m) at a zoom position.
double nominal_base_focus(double zoom);

// Focus offset of an object at distance_mm relative to 1 m, nominal lens.
double nominal_distance_offset(double distance_mm, double zoom);

// True in-focus position of an object at distance_mm for this unit.
double true_focus(const LensUnit& unit, double distance_mm, double zoom);

}  // namespace vcam
