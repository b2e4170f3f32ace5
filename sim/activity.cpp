#include "sim/activity.h"

#include <cmath>

namespace vcam {
namespace {

// A move begins when the carriage moves after standing still for this many frames: the steps
// of one search follow each other more closely than that.
constexpr int kRestFrames = 15;
constexpr double kStill = 0.5;  // steps

}  // namespace

ActivityLog::~ActivityLog() {
    if (out_ != nullptr)
        std::fclose(out_);
}

bool ActivityLog::open(const std::string& path, double period_s) {
    out_ = std::fopen(path.c_str(), "w");
    if (out_ == nullptr) {
        std::fprintf(stderr, "vcam: cannot write %s\n", path.c_str());
        return false;
    }
    period_s_ = period_s > 0 ? period_s : 60.0;
    next_s_ = period_s_;
    return true;
}

void ActivityLog::frame(double t_s, const LensTruth& lens) {
    if (out_ == nullptr)
        return;
    while (t_s >= next_s_) {
        flush_line(next_s_);
        next_s_ += period_s_;
    }
    ++frames_;
    if (have_last_) {
        const double df = std::fabs(lens.focus - last_.focus);
        const double dz = std::fabs(lens.zoom - last_.zoom);
        focus_travel_ += df;
        if (df > kStill) {
            if (!focus_moving_ && focus_rest_ >= kRestFrames)
                ++focus_moves_;
            focus_moving_ = true;
            focus_rest_ = 0;
        } else {
            focus_moving_ = false;
            ++focus_rest_;
        }
        if (dz > kStill) {
            if (!zoom_moving_ && zoom_rest_ >= kRestFrames)
                ++zoom_moves_;
            zoom_moving_ = true;
            zoom_rest_ = 0;
        } else {
            zoom_moving_ = false;
            ++zoom_rest_;
        }
    }
    have_last_ = true;
    last_ = lens;
}

void ActivityLog::flush_line(double t_s) {
    std::fprintf(out_,
                 "{\"t_s\":%.0f,\"frames\":%llu,\"focus_moves\":%llu,\"zoom_moves\":%llu,"
                 "\"focus_travel\":%.0f,\"zoom\":%.0f,\"focus\":%.0f}\n",
                 t_s, static_cast<unsigned long long>(frames_),
                 static_cast<unsigned long long>(focus_moves_),
                 static_cast<unsigned long long>(zoom_moves_), focus_travel_, last_.zoom,
                 last_.focus);
    std::fflush(out_);
    frames_ = focus_moves_ = zoom_moves_ = 0;
    focus_travel_ = 0.0;
}

}  // namespace vcam
