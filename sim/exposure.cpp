#include "sim/exposure.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "sim/isp_records.h"

namespace vcam {
namespace {

// Sensor sensitivity: mid grey (reflectance 0.5) in daylight (illumination 1) reads a 10-bit
// luma of 360 after 1 ms at gain 1.
constexpr double kSensitivity = 720000.0;

}  // namespace

AutoExposure::AutoExposure(const ExposureSpec& params, double fps)
    : params_(params), max_time_(params.max_time > 0 ? params.max_time : 1.0 / fps) {
    max_time_ = std::max(max_time_, params_.min_time);
    log_k_ = std::log(kSensitivity * 0.001);
    split();
}

void AutoExposure::split() {
    const double k = std::exp(log_k_) / kSensitivity;  // time x gain
    time_ = std::clamp(k, params_.min_time, max_time_);
    gain_ = std::clamp(k / time_, 1.0, params_.max_gain);
}

SensorState AutoExposure::sensor() const {
    SensorState s;
    s.luma_per_radiance = kSensitivity * time_ * gain_;
    s.gain = gain_;
    s.time_s = time_;
    s.level = level_;
    s.night_reference = params_.target_luma / (0.5 * 0.001);
    return s;
}

void AutoExposure::update(double mean_radiance, double transmission) {
    const double lo = std::log(kSensitivity * params_.min_time);
    const double hi = std::log(kSensitivity * max_time_ * params_.max_gain);
    const double light = mean_radiance * transmission;
    const double want = light > 0 ? std::clamp(std::log(params_.target_luma / light), lo, hi) : hi;
    if (!settled_) {
        log_k_ = want;
        settled_ = true;
    } else {
        log_k_ += params_.speed * (want - log_k_);
    }
    split();
    level_ = light * kSensitivity * time_ * gain_ / params_.target_luma;
}

AutoExposure::Words AutoExposure::words() const {
    const double l = params_.brightness_at_target * level_;
    switch (params_.mapping) {
        case ExposureMapping::kFixed:
            return {static_cast<float>(params_.fixed_brightness),
                    static_cast<float>(params_.fixed_time), static_cast<float>(params_.fixed_gain)};
        case ExposureMapping::kPhysical:
            return {static_cast<float>(l), static_cast<float>(time_),
                    static_cast<float>(gain_ * params_.gain_scale)};
        case ExposureMapping::kGainClass:
        default: {
            // Even a black picture keeps a tiny brightness so the ratio stays defined.
            const double lb = std::max(l, 0.01);
            const double ratio = std::max(params_.ratio_per_gain * gain_, 1e-6);
            const double g = lb * 100.0 / ratio;
            const double index = 1000.0 * time_ * gain_ / params_.dark_exposure;
            const double t = g > 0 ? index / (1e4 * g) : 0.0;
            return {static_cast<float>(lb), static_cast<float>(t), static_cast<float>(g)};
        }
    }
}

void AutoExposure::record(uint8_t* out) const {
    std::memset(out, 0, kExposureRecordSize);
    const Words w = words();
    put_f32(out + 4 * 2, w.brightness);
    put_f32(out + 4 * 11, w.time);
    put_f32(out + 4 * 12, w.gain);
    put_f32(out + 4 * 20, static_cast<float>(gain_));
    put_f32(out + 4 * 21, static_cast<float>(time_));
    put_f32(out + 4 * 22, static_cast<float>(level_));
}

}  // namespace vcam
