#include "sim/peripherals.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "sim/lens_model.h"
#include "sim/rng.h"
#include "sim/sandbox.h"

namespace vcam {
namespace {

int open_record(const char* path, int size) {
    const std::string host = sandbox_path(path, true);
    const int fd = open(host.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        std::fprintf(stderr, "vcam: cannot open %s\n", host.c_str());
        return -1;
    }
    if (ftruncate(fd, size) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

void put_words(int fd, const uint32_t* w, int n) {
    uint8_t b[20];
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < 4; ++j)
            b[4 * i + j] = static_cast<uint8_t>(w[i] >> (8 * j));
    if (pwrite(fd, b, static_cast<size_t>(4 * n), 0) != 4 * n)
        std::perror("vcam: peripheral record");
}

}  // namespace

bool tracker_box(const Scenario& sc, const SceneState& s, int index, double zoom, double box[4]) {
    if (index < 0 || index >= static_cast<int>(s.objects.size()))
        return false;
    const ObjectState& o = s.objects[index];
    if (o.visible < 0.5)
        return false;
    const double mag = magnification(zoom) / magnification(sc.optics.geometry_zoom);
    const double x1 = 0.5 + (o.x - 0.5 - s.pan) * mag, x2 = 0.5 + (o.x + o.w - 0.5 - s.pan) * mag;
    const double y1 = 0.5 + (o.y - 0.5 - s.tilt) * mag, y2 = 0.5 + (o.y + o.h - 0.5 - s.tilt) * mag;
    if (x2 <= 0 || x1 >= 1 || y2 <= 0 || y1 >= 1)
        return false;
    // Mirrored: the tracker works on the picture as the sensor delivers it.
    box[0] = 640.0 * (1.0 - std::min(x2, 1.0));
    box[2] = 640.0 * (1.0 - std::max(x1, 0.0));
    box[1] = 360.0 * std::max(y1, 0.0);
    box[3] = 360.0 * std::min(y2, 1.0);
    return true;
}

Peripherals::Peripherals(const Scenario& sc) : sc_(sc) {
    if (sc.tracker.enabled)
        track_fd_ = open_record(kTrackRecordPath, 20);
    if (sc.rangefinder.enabled)
        distance_fd_ = open_record(kDistanceRecordPath, 8);
}

Peripherals::~Peripherals() {
    if (track_fd_ >= 0)
        close(track_fd_);
    if (distance_fd_ >= 0)
        close(distance_fd_);
}

void Peripherals::frame(uint64_t k, double t_s, double zoom) {
    if (track_fd_ < 0 && distance_fd_ < 0)
        return;
    Rng rng(mix64(sc_.noise.seed ^ 0x7261636B6572ULL) ^ k);
    if (track_fd_ >= 0) {
        const TrackerSpec& t = sc_.tracker;
        const SceneState seen = scene_at(sc_, std::max(0.0, t_s - t.latency_frames / sc_.fps));
        double b[4];
        uint32_t w[5] = {0, 0, 0, 0, 0};
        if (k >= dropout_until_ && rng.uniform() < t.dropout_rate)
            dropout_until_ = k + static_cast<uint64_t>(t.dropout_frames);
        if (k >= dropout_until_ && tracker_box(sc_, seen, sc_.object_index(t.object), zoom, b)) {
            const double cx = (b[0] + b[2]) / 2, cy = (b[1] + b[3]) / 2;
            const double hw = (b[2] - b[0]) / 2 * (1 + t.box_error);
            const double hh = (b[3] - b[1]) / 2 * (1 + t.box_error);
            const double e[4] = {cx - hw, cy - hh, cx + hw, cy + hh};
            const double lim[4] = {640, 360, 640, 360};
            w[0] = 1;
            for (int i = 0; i < 4; ++i)
                w[i + 1] = static_cast<uint32_t>(
                    std::lround(std::clamp(e[i] + t.jitter * rng.normal(), 0.0, lim[i])));
        }
        put_words(track_fd_, w, 5);
    }
    if (distance_fd_ >= 0) {
        const RangefinderSpec& f = sc_.rangefinder;
        const SceneState now = scene_at(sc_, t_s);
        const int i = f.object.empty() ? sc_.subject_index() : sc_.object_index(f.object);
        const double truth = i >= 0 ? now.objects[i].distance : sc_.background_distance;
        uint32_t w[2] = {0, 0};
        if (rng.uniform() >= f.dropout_rate) {
            w[0] = 1;
            w[1] = static_cast<uint32_t>(
                std::lround(std::clamp(truth * (1 + f.error * rng.normal()), 1.0, 4e9)));
        }
        put_words(distance_fd_, w, 2);
    }
}

}  // namespace vcam
