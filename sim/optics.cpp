#include "sim/optics.h"

#include <algorithm>
#include <cmath>

#include "sim/rng.h"

namespace vcam {
namespace {

constexpr double kBlockW = 1.0 / kGrid;
constexpr double kBlockPxW = kImageWidthPx / kGrid;   // 256
constexpr double kBlockPxH = kImageHeightPx / kGrid;  // 144
constexpr double kPi = 3.14159265358979323846;

// Value noise: random lattice values (uniform -1..1) interpolated bilinearly.
double value_noise(double u, double v, uint64_t seed) {
    const double fu = std::floor(u);
    const double fv = std::floor(v);
    const double tu = u - fu;
    const double tv = v - fv;
    auto at = [seed](int64_t i, int64_t j) {
        uint64_t h = mix64(seed ^ mix64(static_cast<uint64_t>(i) * 0x9E3779B97F4A7C15ULL ^
                                        static_cast<uint64_t>(j)));
        return static_cast<double>(h >> 11) * (2.0 / 9007199254740992.0) - 1.0;
    };
    const auto i = static_cast<int64_t>(fu);
    const auto j = static_cast<int64_t>(fv);
    const double a = at(i, j) + tu * (at(i + 1, j) - at(i, j));
    const double b = at(i, j + 1) + tu * (at(i + 1, j + 1) - at(i, j + 1));
    return a + tv * (b - a);
}

// Smooth pseudo-random pattern in scene coordinates, one lattice cell per block at the wide end,
// so the luma and texture of a surface vary from block to block and move with the surface. Two
// lattices offset by half a cell keep the spread the same wherever the blocks fall on them;
// scaled to a standard deviation of about 1.
double pattern(double u, double v, uint64_t seed) {
    return (value_noise(u, v, seed) + value_noise(u + 0.5, v + 0.5, seed ^ 0xC2B2AE3DULL)) * 1.65;
}

double overlap_1d(double a0, double a1, double b0, double b1) {
    return std::max(0.0, std::min(a1, b1) - std::max(a0, b0));
}

// Area of a disc (centre cx, cy, radius rad) inside a rectangle, all in pixels.
double disc_rect_area(double cx, double cy, double rad, double x0, double y0, double x1,
                      double y1) {
    const double lo = std::max(x0, cx - rad);
    const double hi = std::min(x1, cx + rad);
    if (hi <= lo || std::min(y1, cy + rad) <= std::max(y0, cy - rad))
        return 0.0;
    constexpr int kSlices = 24;
    const double dx = (hi - lo) / kSlices;
    double area = 0.0;
    for (int i = 0; i < kSlices; ++i) {
        const double x = lo + (i + 0.5) * dx - cx;
        const double h = std::sqrt(std::max(0.0, rad * rad - x * x));
        area += overlap_1d(cy - h, cy + h, y0, y1) * dx;
    }
    return area;
}

// Defocus response of one filter band.
double response(double delta, double width, double q) {
    const double x = delta / width;
    const double base = 1.0 + x * x;
    return q == 1.0 ? 1.0 / base : std::pow(base, -q);
}

struct Band {
    double width;
    double blur_ref_px;  // motion blur (pixels along the filter direction) that halves it
};

}  // namespace

double iris_transmission(const LensSpec& lens, double iris) {
    const double r = std::clamp(iris / lens.iris_open, 0.0, 1.0);
    return lens.unit.iris_transmission * std::pow(r, lens.unit.iris_exponent);
}

double v_peak_width(const OpticsSpec& o, double zoom, double transmission) {
    const double zf = std::clamp(zoom / kZoomMax, 0.0, 1.0);
    const double w =
        o.v_width_wide + (o.v_width_tele - o.v_width_wide) * std::pow(zf, o.width_zoom_exponent);
    return w * std::pow(std::max(transmission, 1e-3), -o.iris_dof);
}

void render(const RenderInput& in, BlockStats* out) {
    const Scenario& sc = *in.scenario;
    const SceneState& s = *in.scene;
    const OpticsSpec& o = sc.optics;
    *out = BlockStats{};

    const double zoom = in.lens.zoom;
    const double mag = magnification(zoom) / magnification(o.geometry_zoom);
    const double t_iris = iris_transmission(sc.lens, in.lens.iris);
    const double wv = v_peak_width(o, zoom, t_iris);
    const double q = o.tail_exponent;
    const Band b_fir_v{wv * o.band_fir_v, 2.0};
    const Band b_iir1{wv * o.band_iir1, 2.0};
    const Band b_fir_h{wv * o.band_fir_h, 4.0};
    const Band b_iir2{wv * o.band_iir2, 6.0};
    const double level = std::clamp(in.sensor.level, 0.0, 2.0);
    const double exposure_px = in.sensor.time_s;

    // Scene coordinates -> image coordinates at the current zoom (about the image centre).
    auto img_x = [&](const SceneState& st, double x) { return 0.5 + (x - 0.5 - st.pan) * mag; };
    auto img_y = [&](const SceneState& st, double y) { return 0.5 + (y - 0.5 - st.tilt) * mag; };
    auto scene_x = [&](double ix) { return 0.5 + s.pan + (ix - 0.5) / mag; };
    auto scene_y = [&](double iy) { return 0.5 + s.tilt + (iy - 0.5) / mag; };

    // Image-plane speed (widths or heights per second) of the background and of each object, for
    // the motion blur of the filter sums.
    const double dt = in.frame_period_s;
    double bg_vx = 0.0;
    double bg_vy = 0.0;
    if (in.previous != nullptr && dt > 0) {
        bg_vx = (img_x(s, 0.0) - img_x(*in.previous, 0.0)) / dt;
        bg_vy = (img_y(s, 0.0) - img_y(*in.previous, 0.0)) / dt;
    }
    auto blur = [&](double vx, double vy, const Band& b, bool vertical) {
        const double px = vertical ? std::fabs(vy) * kImageHeightPx * exposure_px
                                   : std::fabs(vx) * kImageWidthPx * exposure_px;
        return 1.0 / (1.0 + px / b.blur_ref_px);
    };

    const size_t n_obj = s.objects.size();
    struct Placed {
        double x0, y0, x1, y1, focus, vx, vy;
    };
    std::array<Placed, 64> placed{};
    const size_t n_place = std::min<size_t>(n_obj, placed.size());
    for (size_t i = 0; i < n_place; ++i) {
        const ObjectState& ob = s.objects[i];
        Placed& p = placed[i];
        p.x0 = img_x(s, ob.x);
        p.y0 = img_y(s, ob.y);
        p.x1 = p.x0 + ob.w * mag;
        p.y1 = p.y0 + ob.h * mag;
        p.focus = true_focus(sc.lens.unit, ob.distance, zoom);
        p.vx = bg_vx;
        p.vy = bg_vy;
        if (in.previous != nullptr && dt > 0 && i < in.previous->objects.size()) {
            p.vx = (p.x0 - img_x(*in.previous, in.previous->objects[i].x)) / dt;
            p.vy = (p.y0 - img_y(*in.previous, in.previous->objects[i].y)) / dt;
        }
    }
    const double bg_focus = true_focus(sc.lens.unit, sc.background_distance, zoom);

    double radiance_sum = 0.0;
    for (int r = 0; r < kGrid; ++r) {
        for (int c = 0; c < kGrid; ++c) {
            const int b = r * kGrid + c;
            const double bx0 = c * kBlockW;
            const double by0 = r * kBlockW;
            const double sx = scene_x(bx0 + kBlockW / 2);
            const double sy = scene_y(by0 + kBlockW / 2);
            double remaining = 1.0;
            double radiance = 0.0;
            double fv = 0, f1 = 0, fh = 0, f2 = 0;

            auto add_layer = [&](double vis, double texture, double tex_var, double reflect,
                                 double luma_contrast, double h_ratio, double focus, double vx,
                                 double vy, double pu, double pv, uint64_t seed) {
                if (vis <= 0.0)
                    return;
                const double lp = pattern(pu, pv, seed);
                const double tp = pattern(pu + 101.3, pv + 57.7, seed ^ 0x5bd1e995ULL);
                radiance += vis * std::clamp(reflect * (1.0 + luma_contrast * lp), 0.0, 1.0) *
                            s.illumination;
                const double tex = std::max(0.0, texture * (1.0 + tex_var * tp)) * level * vis;
                if (tex <= 0.0)
                    return;
                const double delta = in.best_focus ? 0.0 : in.lens.focus - focus;
                fv += tex * response(delta, b_fir_v.width, q) * blur(vx, vy, b_fir_v, true);
                f1 += tex * response(delta, b_iir1.width, q) * blur(vx, vy, b_iir1, false);
                fh += tex * h_ratio * response(delta, b_fir_h.width, q) *
                      blur(vx, vy, b_fir_h, false);
                f2 +=
                    tex * h_ratio * response(delta, b_iir2.width, q) * blur(vx, vy, b_iir2, false);
            };

            // Front to back: the last object listed is the nearest to the viewer in the picture.
            for (size_t k = n_place; k-- > 0;) {
                const ObjectState& ob = s.objects[k];
                if (ob.visible < 0.5)
                    continue;
                const Placed& p = placed[k];
                const double cov = overlap_1d(p.x0, p.x1, bx0, bx0 + kBlockW) *
                                   overlap_1d(p.y0, p.y1, by0, by0 + kBlockW) / (kBlockW * kBlockW);
                if (cov <= 0.0)
                    continue;
                const ObjectSpec& params = sc.objects[k];
                add_layer(cov * remaining, ob.texture, params.texture_variation, ob.reflectance,
                          params.luma_contrast, params.h_ratio, p.focus, p.vx, p.vy,
                          (sx - ob.x) * kGrid, (sy - ob.y) * kGrid, 0x1000 + k);
                remaining *= 1.0 - cov;
            }
            add_layer(remaining, sc.background_texture, 0.2, sc.background_reflectance,
                      sc.background_luma_contrast, 1.2, bg_focus, bg_vx, bg_vy, sx * kGrid,
                      sy * kGrid, 0x77);

            radiance_sum += radiance;
            out->luma[b] = radiance * t_iris * in.sensor.luma_per_radiance;
            out->fir_v[b] = fv;
            out->iir1[b] = f1;
            out->fir_h[b] = fh;
            out->iir2[b] = f2;
        }
    }
    out->mean_radiance = radiance_sum / kBlocks;

    // Point lights: a defocused point is a disc whose diameter grows with the focus error.
    const double zf = std::clamp(zoom / kZoomMax, 0.0, 1.0);
    const double px_per_step =
        (o.blur_px_per_step_wide + (o.blur_px_per_step_tele - o.blur_px_per_step_wide) * zf) *
        std::pow(std::max(t_iris, 1e-3), o.iris_dof);
    const double exposure_rel = t_iris * in.sensor.luma_per_radiance / in.sensor.night_reference;
    for (size_t i = 0; i < s.lights.size() && i < sc.lights.size(); ++i) {
        const LightState& l = s.lights[i];
        if (l.on < 0.5 || l.intensity <= 0.0)
            continue;
        const double focus = true_focus(sc.lens.unit, l.distance, zoom);
        const double delta = in.best_focus ? 0.0 : in.lens.focus - focus;
        const double core = 2.0 * sc.lights[i].core_px;
        const double blur_d = px_per_step * std::fabs(delta);
        const double diam = std::sqrt(blur_d * blur_d + core * core);
        const double energy = l.intensity * exposure_rel * kPi / 4.0 * o.saturated_diameter_px *
                              o.saturated_diameter_px;
        const double disc_area = kPi / 4.0 * diam * diam;
        const double intensity = energy / disc_area;  // 1 = just saturated
        const double cx = img_x(s, l.x) * kImageWidthPx;
        const double cy = img_y(s, l.y) * kImageHeightPx;
        const double rad = diam / 2.0;
        const int c0 = std::max(0, static_cast<int>(std::floor((cx - rad) / kBlockPxW)));
        const int c1 = std::min(kGrid - 1, static_cast<int>(std::floor((cx + rad) / kBlockPxW)));
        const int r0 = std::max(0, static_cast<int>(std::floor((cy - rad) / kBlockPxH)));
        const int r1 = std::min(kGrid - 1, static_cast<int>(std::floor((cy + rad) / kBlockPxH)));
        for (int r = r0; r <= r1; ++r) {
            for (int c = c0; c <= c1; ++c) {
                const double area = disc_rect_area(cx, cy, rad, c * kBlockPxW, r * kBlockPxH,
                                                   (c + 1) * kBlockPxW, (r + 1) * kBlockPxH);
                if (area <= 0.0)
                    continue;
                const int b = r * kGrid + c;
                const double frac = area / (kBlockPxW * kBlockPxH);
                if (intensity >= 1.0)
                    out->highlight[b] += 20000.0 * frac;
                out->luma[b] += 1023.0 * frac * std::min(intensity, 1.0);
                // Edge of the disc inside this block, approximated by the block's share of the
                // disc; a clipped (saturated) edge has full contrast in every band.
                const double edge_px = kPi * diam * area / disc_area;
                const double e = o.light_edge_gain * edge_px * std::min(intensity, 1.0);
                out->fir_v[b] += e;
                out->iir1[b] += e;
                out->fir_h[b] += e;
                out->iir2[b] += e;
            }
        }
    }
    for (int b = 0; b < kBlocks; ++b) {
        out->luma[b] = std::min(out->luma[b], 1023.0);
        out->highlight[b] = std::min(out->highlight[b], 20000.0);
    }
}

double filter_profile(uint8_t a, uint8_t b, uint16_t c) {
    // Low-noise set-up A, B, C = 1, 2, 60; high-noise 3, 3, 80. Stronger coring (A, B) and a
    // higher threshold (C) both push towards the high-noise behaviour.
    const double p = ((a - 1.0) / 2.0 + (b - 2.0) + (c - 60.0) / 20.0) / 3.0;
    return std::clamp(p, 0.0, 1.0);
}

void apply_sensor(const NoiseSpec& noise, const OpticsSpec& optics, double profile, double gain,
                  uint64_t frame, BlockStats* st) {
    const double sig_f = 1.0 - (1.0 - optics.high_noise_signal) * profile;
    const double floor = noise.floor_per_gain * std::max(gain, 0.0) *
                         (1.0 - (1.0 - optics.high_noise_floor) * profile);
    const double rel = noise.relative * std::sqrt(std::max(gain, 1.0));
    const double luma_rel = noise.luma_relative * std::sqrt(std::max(gain, 1.0));
    Rng rng(mix64(noise.seed) ^ mix64(frame + 0x632BE59BD9B4E019ULL));
    BlockValues* filters[] = {&st->fir_v, &st->fir_h, &st->iir1, &st->iir2};
    for (BlockValues* f : filters) {
        for (double& v : *f) {
            double n1 = 0.0;
            double n2 = 0.0;
            if (noise.enabled) {
                n1 = rng.normal();
                n2 = rng.normal();
            }
            v = std::max(0.0,
                         v * sig_f * (1.0 + rel * n1) + floor * (1.0 + noise.floor_spread * n2));
        }
    }
    if (noise.enabled)
        for (double& v : st->luma)
            v = std::clamp(v * (1.0 + luma_rel * rng.normal()), 0.0, 1023.0);
}

double window_v(const BlockStats& s, int w) {
    const int wr = w / 5;
    const int wc = w % 5;
    double sum = 0.0;
    for (int r = 3 * wr; r < 3 * wr + 3; ++r)
        for (int c = 3 * wc; c < 3 * wc + 3; ++c)
            sum += block_v(s, r * kGrid + c);
    return sum / 9.0;
}

double centre_v(const BlockStats& s) {
    double sum = 0.0;
    for (int r = 6; r <= 9; ++r)
        for (int c = 6; c <= 9; ++c)
            sum += block_v(s, r * kGrid + c);
    return sum / 16.0;
}

}  // namespace vcam
