#include "sim/telemetry.h"

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <string>

namespace vcam {
namespace {

// Telemetry is written for every frame, thousands per second in virtual time, so the line is
// formatted directly rather than through a JSON document object. Numbers use up to 9
// significant digits; NaN (an object not in the picture) is written as null.
class Line {
  public:
    void raw(const char* s) { out_ += s; }
    void key(const char* k) {
        if (need_comma_)
            out_ += ',';
        out_ += '"';
        out_ += k;
        out_ += "\":";
        need_comma_ = false;
    }
    void num(double v) {
        comma();
        if (std::isnan(v) || std::isinf(v)) {
            out_ += "null";
        } else {
            char b[32];
            std::snprintf(b, sizeof b, "%.9g", v);
            out_ += b;
        }
        need_comma_ = true;
    }
    void u64(uint64_t v) {
        comma();
        out_ += std::to_string(v);
        need_comma_ = true;
    }
    void str(const char* s) {
        comma();
        out_ += '"';
        out_ += s;
        out_ += '"';
        need_comma_ = true;
    }
    void open(char c) {
        comma();
        out_ += c;
        need_comma_ = false;
    }
    void close(char c) {
        out_ += c;
        need_comma_ = true;
    }
    void lens(const char* k, const LensTruth& l) {
        key(k);
        open('{');
        key("zoom");
        num(l.zoom);
        key("focus");
        num(l.focus);
        key("iris");
        num(l.iris);
        close('}');
    }
    template <typename C>
    void array(const char* k, const C& values) {
        key(k);
        open('[');
        for (double v : values)
            num(v);
        close(']');
    }
    std::string take() { return std::move(out_); }

  private:
    void comma() {
        if (need_comma_)
            out_ += ',';
    }
    std::string out_;
    bool need_comma_ = false;
};

}  // namespace

std::string telemetry_line(const FrameTruth& t) {
    char digest[20];
    std::snprintf(digest, sizeof digest, "%016" PRIx64, t.digest);
    Line j;
    j.open('{');
    j.key("frame");
    j.u64(t.frame);
    j.key("exposure");
    j.u64(t.exposure);
    j.key("t_us");
    j.u64(t.stamp_us);
    j.key("scene_s");
    j.num(t.scene_time_s);
    j.lens("lens", t.lens);
    j.lens("lens_start", t.lens_start);
    j.key("subject_focus");
    j.num(t.subject_focus);
    j.array("object_focus", t.object_focus);
    j.array("light_focus", t.light_focus);
    j.array("best_window_v", t.best_window_v);
    j.key("best_centre_v");
    j.num(t.best_centre_v);
    j.key("centre_v");
    j.num(t.centre_v);
    j.key("centre_h");
    j.num(t.centre_h);
    j.key("luma_mean");
    j.num(t.luma_mean);
    j.key("highlight_max");
    j.num(t.highlight_max);
    j.key("digest");
    j.str(digest);
    j.key("profile");
    j.num(t.profile);
    j.key("gain");
    j.num(t.gain);
    j.key("exposure_s");
    j.num(t.exposure_time_s);
    j.key("words");
    j.open('{');
    j.key("brightness");
    j.num(t.words.brightness);
    j.key("time");
    j.num(t.words.time);
    j.key("gain");
    j.num(t.words.gain);
    j.close('}');
    j.close('}');
    return j.take();
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
