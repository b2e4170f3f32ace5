#include "sim/camera.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace vcam {
namespace {

bool same_lens(const LensTruth& a, const LensTruth& b) {
    return a.zoom == b.zoom && a.focus == b.focus && a.iris == b.iris;
}

void mix_into(BlockStats* a, const BlockStats& b, double m) {
    BlockValues* av[] = {&a->luma, &a->fir_v, &a->fir_h, &a->iir1, &a->iir2, &a->highlight};
    const BlockValues* bv[] = {&b.luma, &b.fir_v, &b.fir_h, &b.iir1, &b.iir2, &b.highlight};
    for (int i = 0; i < 6; ++i)
        for (int k = 0; k < kBlocks; ++k)
            (*av[i])[k] = (1.0 - m) * (*av[i])[k] + m * (*bv[i])[k];
    a->mean_radiance = (1.0 - m) * a->mean_radiance + m * b.mean_radiance;
}

// Position of a scripted sweep at grid frame k.
double sweep_at(const LensSweep& s, uint64_t k) {
    const double span = s.to - s.from;
    const double dir = span < 0 ? -1.0 : 1.0;
    const auto n = static_cast<uint64_t>(std::floor(std::fabs(span) / s.step));
    uint64_t i = k;
    if (n == 0) {
        i = 0;
    } else if (s.bounce) {
        const uint64_t m = k % (2 * n);
        i = m <= n ? m : 2 * n - m;
    } else {
        i = std::min(k, n);
    }
    return s.from + dir * s.step * static_cast<double>(i);
}

}  // namespace

Camera::Camera(const Scenario& sc, LensMechanics* mech)
    : sc_(sc), mech_(mech), ae_(sc.exposure, sc.fps), period_us_(1e6 / sc.fps) {
    scripted_ = lens_script_in_scenario();
    default_af_attr(attr_.data());
    const FilterParams f = decode_filter(attr_.data());
    profile_ = filter_profile(f.a, f.b, f.c);
    LensTruth t;
    t.zoom = sc_.lens.zoom;
    t.focus = sc_.lens.focus;
    t.iris = sc_.lens.iris;
    t.time_us = 0;
    mech_->set(t);
}

uint64_t Camera::grid_time_us(uint64_t k) const {
    return static_cast<uint64_t>(std::llround(static_cast<double>(k) * period_us_));
}

uint64_t Camera::first_frame_after(uint64_t now_us) const {
    auto k = static_cast<uint64_t>(std::floor(static_cast<double>(now_us) / period_us_));
    while (k > 0 && grid_time_us(k) > now_us)
        --k;
    while (grid_time_us(k) <= now_us)
        ++k;
    return k;
}

double Camera::scene_time(double t) const {
    if (timeline_go_ == nullptr)
        return t;
    return timeline_started_ ? std::max(0.0, t - timeline_origin_s_) : 0.0;
}

void Camera::check_timeline_start(double t_k) {
    if (timeline_go_ != nullptr && !timeline_started_ && timeline_go_->load()) {
        timeline_started_ = true;
        timeline_origin_s_ = t_k;
    }
}

bool Camera::lens_script_in_scenario() const {
    if (sc_.lens.sweep.active)
        return true;
    for (const TimelineEvent& e : sc_.timeline)
        for (const auto& f : e.fields)
            if ((f.first >> 20) == 3)
                return true;
    return false;
}

void Camera::drive_lens(uint64_t k, double t) {
    LensTruth cur = mech_->snapshot();
    if (sc_.lens.sweep.active) {
        const double v = sweep_at(sc_.lens.sweep, k);
        (sc_.lens.sweep.focus_axis ? cur.focus : cur.zoom) = v;
    }
    const SceneState s = scene_at(sc_, scene_time(t));
    if (!std::isnan(s.lens_zoom))
        cur.zoom = s.lens_zoom;
    if (!std::isnan(s.lens_focus))
        cur.focus = s.lens_focus;
    if (!std::isnan(s.lens_iris))
        cur.iris = s.lens_iris;
    cur.time_us = grid_time_us(k);
    mech_->set(cur);
}

void Camera::render_exposure(const Exposure& e, BlockStats* out, double* transmission) {
    const double t = static_cast<double>(grid_time_us(e.k)) / 1e6;
    const SceneState scene = scene_at(sc_, scene_time(t));
    const SceneState prev = scene_at(sc_, scene_time(std::max(0.0, t - period_us_ / 1e6)));
    RenderInput in;
    in.scenario = &sc_;
    in.scene = &scene;
    in.previous = &prev;
    in.frame_period_s = period_us_ / 1e6;
    in.sensor = ae_.sensor();
    in.lens = e.end;
    render(in, out);
    *transmission = iris_transmission(sc_.lens, e.end.iris);
    if (sc_.latency.frames >= 2 && !same_lens(e.start, e.end)) {
        BlockStats before;
        in.lens = e.start;
        render(in, &before);
        // `out` holds the new state; blend in the old one for the share of the exposure
        // before the move.
        mix_into(out, before, 1.0 - sc_.latency.mix);
    }
}

void Camera::frame(uint64_t k, uint64_t stamp_us, uint8_t* out, FrameTruth* truth) {
    const double t_k = static_cast<double>(grid_time_us(k)) / 1e6;
    check_timeline_start(t_k);
    mech_->advance_to(grid_time_us(k));
    if (scripted_)
        drive_lens(k, t_k);
    const LensTruth end = mech_->snapshot();
    peripherals_.frame(k, scene_time(t_k), end.zoom);
    if (activity_ != nullptr)
        activity_->frame(scene_time(t_k), end);

    // Exposures since the last delivered frame; only the last `delay + 1` can still be shown.
    const size_t delay = static_cast<size_t>(std::max(0, sc_.latency.frames - 2));
    uint64_t first = have_last_ ? last_k_ + 1 : k;
    if (k >= first + delay + 1)
        first = k - delay;
    for (uint64_t j = first; j <= k; ++j) {
        const bool after_last = have_last_ && j == last_k_ + 1;
        ring_.push_back(Exposure{j, after_last ? last_end_ : end, end});
        if (ring_.size() > delay + 1)
            ring_.erase(ring_.begin());
    }
    const uint64_t steps = have_last_ ? std::min<uint64_t>(k - last_k_, 100) : 1;
    have_last_ = true;
    last_k_ = k;
    last_end_ = end;
    const Exposure shown = ring_.front();

    BlockStats stats;
    double transmission = 1.0;
    render_exposure(shown, &stats, &transmission);
    const SensorState sensor = ae_.sensor();
    const double radiance = stats.mean_radiance;
    apply_sensor(sc_.noise, sc_.optics, profile_, sensor.gain, k, &stats);
    encode_frame(stats, afdata::FrameStamp{static_cast<uint32_t>(k), stamp_us}, out);
    // The exposure control reacts to what this frame measured, for the next one.
    for (uint64_t i = 0; i < steps; ++i)
        ae_.update(radiance, transmission);

    if (truth == nullptr)
        return;
    const double t_e = static_cast<double>(grid_time_us(shown.k)) / 1e6;
    const SceneState scene = scene_at(sc_, scene_time(t_e));
    FrameTruth& tr = *truth;
    tr.frame = k;
    tr.exposure = shown.k;
    tr.stamp_us = stamp_us;
    tr.scene_time_s = scene_time(t_e);
    tr.lens = shown.end;
    tr.lens_start = shown.start;
    const double zoom = shown.end.zoom;
    const int subj = sc_.subject_index();
    tr.subject_focus = true_focus(
        sc_.lens.unit,
        subj >= 0 ? scene.objects[static_cast<size_t>(subj)].distance : sc_.background_distance,
        zoom);
    tr.object_focus.clear();
    for (const ObjectState& o : scene.objects)
        tr.object_focus.push_back(o.visible >= 0.5 ? true_focus(sc_.lens.unit, o.distance, zoom)
                                                   : std::numeric_limits<double>::quiet_NaN());
    tr.light_focus.clear();
    for (const LightState& l : scene.lights)
        tr.light_focus.push_back(l.on >= 0.5 ? true_focus(sc_.lens.unit, l.distance, zoom)
                                             : std::numeric_limits<double>::quiet_NaN());
    // Same objects, lights, zoom and iris give the same best-focus picture; a static scene
    // renders it once.
    const bool same = best_valid_ && best_zoom_ == shown.end.zoom && best_iris_ == shown.end.iris &&
                      best_level_ == sensor.level && best_scene_.objects == scene.objects &&
                      best_scene_.lights == scene.lights &&
                      best_scene_.illumination == scene.illumination &&
                      best_scene_.pan == scene.pan && best_scene_.tilt == scene.tilt;
    if (!same) {
        BlockStats best;
        RenderInput in;
        in.scenario = &sc_;
        in.scene = &scene;
        in.previous = nullptr;
        in.frame_period_s = period_us_ / 1e6;
        in.sensor = sensor;
        in.lens = shown.end;
        in.best_focus = true;
        render(in, &best);
        for (int w = 0; w < 25; ++w)
            best_window_[static_cast<size_t>(w)] = window_v(best, w);
        best_centre_ = centre_v(best);
        best_valid_ = true;
        best_scene_ = scene;
        best_zoom_ = shown.end.zoom;
        best_iris_ = shown.end.iris;
        best_level_ = sensor.level;
    }
    tr.best_window_v = best_window_;
    tr.best_centre_v = best_centre_;
    tr.centre_v = centre_v(stats);
    double h = 0.0;
    for (int r = 6; r <= 9; ++r)
        for (int c = 6; c <= 9; ++c)
            h += block_h(stats, r * kGrid + c);
    tr.centre_h = h / 16.0;
    double lm = 0.0;
    double hm = 0.0;
    for (int b = 0; b < kBlocks; ++b) {
        lm += stats.luma[b];
        hm = std::max(hm, stats.highlight[b]);
    }
    tr.luma_mean = lm / kBlocks;
    tr.highlight_max = hm;
    tr.digest = fnv1a(out, kStatFrameSize);
    tr.profile = profile_;
    tr.gain = sensor.gain;
    tr.exposure_time_s = sensor.time_s;
    tr.words = ae_.words();
}

void Camera::af_attr(uint8_t* out) const {
    std::memcpy(out, attr_.data(), kAfAttrSize);
}

void Camera::set_af_attr(const uint8_t* in) {
    std::memcpy(attr_.data(), in, kAfAttrSize);
    const FilterParams f = decode_filter(attr_.data());
    profile_ = filter_profile(f.a, f.b, f.c);
}

}  // namespace vcam
