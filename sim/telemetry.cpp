#include "sim/telemetry.h"

#include <nlohmann/json.hpp>

#include <cinttypes>
#include <cmath>

namespace vcam {
namespace {

nlohmann::json lens_json(const LensTruth& l) {
    return {{"zoom", l.zoom}, {"focus", l.focus}, {"iris", l.iris}};
}

nlohmann::json numbers(const std::vector<double>& v) {
    nlohmann::json a = nlohmann::json::array();
    for (double x : v)
        a.push_back(std::isnan(x) ? nlohmann::json(nullptr) : nlohmann::json(x));
    return a;
}

}  // namespace

std::string telemetry_line(const FrameTruth& t) {
    char digest[20];
    std::snprintf(digest, sizeof digest, "%016" PRIx64, t.digest);
    nlohmann::json j = {
        {"frame", t.frame},
        {"exposure", t.exposure},
        {"t_us", t.stamp_us},
        {"scene_s", t.scene_time_s},
        {"lens", lens_json(t.lens)},
        {"lens_start", lens_json(t.lens_start)},
        {"subject_focus", t.subject_focus},
        {"object_focus", numbers(t.object_focus)},
        {"light_focus", numbers(t.light_focus)},
        {"best_window_v", std::vector<double>(t.best_window_v.begin(), t.best_window_v.end())},
        {"best_centre_v", t.best_centre_v},
        {"centre_v", t.centre_v},
        {"centre_h", t.centre_h},
        {"luma_mean", t.luma_mean},
        {"highlight_max", t.highlight_max},
        {"digest", digest},
        {"profile", t.profile},
        {"gain", t.gain},
        {"exposure_s", t.exposure_time_s},
        {"words",
         {{"brightness", t.words.brightness}, {"time", t.words.time}, {"gain", t.words.gain}}},
    };
    return j.dump();
}

TelemetryWriter::~TelemetryWriter() {
    if (f_ != nullptr)
        std::fclose(f_);
}

bool TelemetryWriter::open(const std::string& path) {
    f_ = std::fopen(path.c_str(), "w");
    if (f_ == nullptr) {
        std::fprintf(stderr, "vcam: cannot create telemetry file %s\n", path.c_str());
        return false;
    }
    return true;
}

void TelemetryWriter::write(const FrameTruth& t) {
    if (f_ == nullptr)
        return;
    const std::string line = telemetry_line(t);
    std::fwrite(line.data(), 1, line.size(), f_);
    std::fputc('\n', f_);
}

void TelemetryWriter::flush() {
    if (f_ != nullptr)
        std::fflush(f_);
}

}  // namespace vcam
