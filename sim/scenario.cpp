#include "sim/scenario.h"

#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <initializer_list>
#include <sstream>

namespace vcam {
namespace {

// ---- state field codes: which number of the scene state an event changes

enum Kind { kObject = 0, kLight = 1, kScene = 2, kLens = 3 };

constexpr const char* kObjectFields[] = {"x",        "y",       "w",           "h",
                                         "distance", "texture", "reflectance", "visible"};
constexpr const char* kLightFields[] = {"x", "y", "distance", "intensity", "on"};
constexpr const char* kSceneFields[] = {"illumination", "pan", "tilt"};
constexpr const char* kLensFields[] = {"zoom", "focus", "iris"};

int field_code(int kind, int index, int field) {
    return (kind << 20) | (index << 4) | field;
}

double* field_ptr(SceneState& s, int code) {
    const int kind = code >> 20;
    const int index = (code >> 4) & 0xFFFF;
    const int field = code & 0xF;
    switch (kind) {
        case kObject: {
            ObjectState& o = s.objects[static_cast<size_t>(index)];
            double* f[] = {&o.x,        &o.y,       &o.w,           &o.h,
                           &o.distance, &o.texture, &o.reflectance, &o.visible};
            return f[field];
        }
        case kLight: {
            LightState& l = s.lights[static_cast<size_t>(index)];
            double* f[] = {&l.x, &l.y, &l.distance, &l.intensity, &l.on};
            return f[field];
        }
        case kScene: {
            double* f[] = {&s.illumination, &s.pan, &s.tilt};
            return f[field];
        }
        default: {
            double* f[] = {&s.lens_zoom, &s.lens_focus, &s.lens_iris};
            return f[field];
        }
    }
}

// On/off fields switch at the start of an event; ramping them makes no sense.
bool is_switch(int code) {
    const int kind = code >> 20;
    const int field = code & 0xF;
    return (kind == kObject && field == 7) || (kind == kLight && field == 4);
}

void apply_events(const Scenario& sc, size_t count, double t, SceneState* s) {
    for (size_t i = 0; i < count; ++i) {
        const TimelineEvent& e = sc.timeline[i];
        // Frame times are whole microseconds: an event given by frame number belongs to that
        // frame even when the rounded frame time falls a fraction of a microsecond early.
        if (e.at > t + 1e-6)
            break;
        for (size_t j = 0; j < e.fields.size(); ++j) {
            const auto [code, target] = e.fields[j];
            double* p = field_ptr(*s, code);
            if (e.over <= 0.0 || t >= e.at + e.over || is_switch(code) || std::isnan(e.from[j])) {
                *p = target;
            } else {
                *p = e.from[j] + (target - e.from[j]) * (t - e.at) / e.over;
            }
        }
    }
}

// Image coordinates (rectangles, light positions) may lie outside the picture, for objects that
// enter or pass by, but within this many picture sizes: the renderer works in pixels and block
// indexes, which a coordinate of 1e100 would overflow.
constexpr double kCoordLimit = 100.0;

// Ranges of the fields a timeline event may change, as for their initial values.
struct FieldRange {
    double lo, hi;
};
constexpr FieldRange kObjectRanges[] = {{-kCoordLimit, kCoordLimit},
                                        {-kCoordLimit, kCoordLimit},
                                        {-kCoordLimit, kCoordLimit},
                                        {-kCoordLimit, kCoordLimit},
                                        {1, 1e7},
                                        {0, 1e6},
                                        {0, 1},
                                        {0, 1}};
constexpr FieldRange kLightRanges[] = {
    {-kCoordLimit, kCoordLimit}, {-kCoordLimit, kCoordLimit}, {1, 1e7}, {0, 1e6}, {0, 1}};
constexpr FieldRange kSceneRanges[] = {{0, 1000}, {-100, 100}, {-100, 100}};
constexpr FieldRange kLensRanges[] = {{0, kZoomMax}, {0, kFocusMax}, {0, 1e6}};

// ---- YAML reading with messages that point at the file, line and field

class Reader {
  public:
    Reader(std::string file, std::string* error) : file_(std::move(file)), error_(error) {}

    bool failed() const { return failed_; }

    bool fail(const YAML::Node& at, const std::string& field, const std::string& msg) {
        if (!failed_) {
            std::ostringstream o;
            o << file_ << ":" << (at.Mark().line + 1) << ": " << field << ": " << msg;
            *error_ = o.str();
            failed_ = true;
        }
        return false;
    }

    // Checks that `map` is a mapping whose keys are all in `allowed` (catches typos).
    bool map(const YAML::Node& node, const std::string& path,
             std::initializer_list<const char*> allowed) {
        if (!node.IsMap())
            return fail(node, path, "expected a mapping");
        for (const auto& kv : node) {
            const std::string key = kv.first.Scalar();
            bool known = std::any_of(allowed.begin(), allowed.end(),
                                     [&](const char* a) { return key == a; });
            if (!known)
                return fail(kv.first, join(path, key), "unknown key");
        }
        return true;
    }

    bool num(const YAML::Node& m, const std::string& path, const char* key, double* dst, double lo,
             double hi) {
        const YAML::Node n = m[key];
        if (!n)
            return true;
        double v = 0.0;
        if (!n.IsScalar() || !YAML::convert<double>::decode(n, v) || !std::isfinite(v))
            return fail(n, join(path, key), "expected a number, got '" + text(n) + "'");
        if (v < lo || v > hi) {
            std::ostringstream o;
            o << "value " << v << " outside " << lo << " .. " << hi;
            return fail(n, join(path, key), o.str());
        }
        *dst = v;
        return true;
    }

    bool integer(const YAML::Node& m, const std::string& path, const char* key, int* dst, int lo,
                 int hi) {
        double v = *dst;
        if (!num(m, path, key, &v, lo, hi))
            return false;
        if (v != std::floor(v))
            return fail(m[key], join(path, key), "expected a whole number");
        *dst = static_cast<int>(v);
        return true;
    }

    bool flag(const YAML::Node& m, const std::string& path, const char* key, bool* dst) {
        const YAML::Node n = m[key];
        if (!n)
            return true;
        bool v = false;
        if (!n.IsScalar() || !YAML::convert<bool>::decode(n, v))
            return fail(n, join(path, key), "expected true or false, got '" + text(n) + "'");
        *dst = v;
        return true;
    }

    bool str(const YAML::Node& m, const std::string& path, const char* key, std::string* dst) {
        const YAML::Node n = m[key];
        if (!n)
            return true;
        if (!n.IsScalar())
            return fail(n, join(path, key), "expected text");
        *dst = n.Scalar();
        return true;
    }

    // A list of exactly `count` numbers, e.g. rect: [x, y, w, h].
    bool numbers(const YAML::Node& m, const std::string& path, const char* key, double* dst,
                 size_t count) {
        const YAML::Node n = m[key];
        if (!n)
            return true;
        if (!n.IsSequence() || n.size() != count)
            return fail(n, join(path, key),
                        "expected a list of " + std::to_string(count) + " numbers");
        for (size_t i = 0; i < count; ++i) {
            double v = 0.0;
            if (!YAML::convert<double>::decode(n[i], v) || !std::isfinite(v))
                return fail(n[i], join(path, key) + "[" + std::to_string(i) + "]",
                            "expected a number, got '" + text(n[i]) + "'");
            if (std::fabs(v) > kCoordLimit)
                return fail(n[i], join(path, key) + "[" + std::to_string(i) + "]",
                            "outside -100 .. 100 (image coordinates)");
            dst[i] = v;
        }
        return true;
    }

    static std::string join(const std::string& path, const std::string& key) {
        return path.empty() ? key : path + "." + key;
    }

  private:
    static std::string text(const YAML::Node& n) { return n.IsScalar() ? n.Scalar() : "(list)"; }

    std::string file_;
    std::string* error_;
    bool failed_ = false;
};

bool read_lens(Reader& r, const YAML::Node& n, LensSpec* lens) {
    const std::string p = "lens";
    if (!r.map(n, p, {"zoom", "focus", "iris", "iris_open", "unit", "sweep"}))
        return false;
    r.num(n, p, "zoom", &lens->zoom, 0, kZoomMax);
    r.num(n, p, "focus", &lens->focus, 0, kFocusMax);
    r.num(n, p, "iris_open", &lens->iris_open, 1, 1e6);
    r.num(n, p, "iris", &lens->iris, 0, 1e6);
    if (const YAML::Node u = n["unit"]) {
        const std::string pu = "lens.unit";
        if (r.map(u, pu,
                  {"base_offset", "base_tele_offset", "distance_scale", "zoom_backlash",
                   "focus_backlash", "iris_exponent", "iris_transmission"})) {
            r.num(u, pu, "base_offset", &lens->unit.base_offset, -3000, 3000);
            r.num(u, pu, "base_tele_offset", &lens->unit.base_tele_offset, -3000, 3000);
            r.num(u, pu, "distance_scale", &lens->unit.distance_scale, 0.1, 10);
            r.num(u, pu, "zoom_backlash", &lens->unit.zoom_backlash, 0, 200);
            r.num(u, pu, "focus_backlash", &lens->unit.focus_backlash, 0, 200);
            r.num(u, pu, "iris_exponent", &lens->unit.iris_exponent, 0.5, 6);
            r.num(u, pu, "iris_transmission", &lens->unit.iris_transmission, 0.05, 1);
        }
    }
    if (const YAML::Node s = n["sweep"]) {
        const std::string ps = "lens.sweep";
        if (r.map(s, ps, {"axis", "from", "to", "step", "bounce"})) {
            std::string axis = "focus";
            r.str(s, ps, "axis", &axis);
            if (axis != "focus" && axis != "zoom")
                return r.fail(s["axis"], ps + ".axis", "expected focus or zoom");
            lens->sweep.active = true;
            lens->sweep.focus_axis = axis == "focus";
            const double hi = lens->sweep.focus_axis ? kFocusMax : kZoomMax;
            if (!s["from"] || !s["to"])
                return r.fail(s, ps, "needs 'from' and 'to'");
            r.num(s, ps, "from", &lens->sweep.from, 0, hi);
            r.num(s, ps, "to", &lens->sweep.to, 0, hi);
            r.num(s, ps, "step", &lens->sweep.step, 1e-3, 1000);
            r.flag(s, ps, "bounce", &lens->sweep.bounce);
        }
    }
    return !r.failed();
}

bool read_scene(Reader& r, const YAML::Node& n, Scenario* sc) {
    const std::string p = "scene";
    if (!r.map(n, p,
               {"geometry_zoom", "illumination", "pan", "tilt", "background", "objects", "lights"}))
        return false;
    r.num(n, p, "geometry_zoom", &sc->optics.geometry_zoom, 0, kZoomMax);
    r.num(n, p, "illumination", &sc->initial.illumination, 0, 1000);
    r.num(n, p, "pan", &sc->initial.pan, -100, 100);
    r.num(n, p, "tilt", &sc->initial.tilt, -100, 100);
    if (const YAML::Node b = n["background"]) {
        const std::string pb = "scene.background";
        if (r.map(b, pb, {"distance", "texture", "reflectance", "luma_contrast"})) {
            r.num(b, pb, "distance", &sc->background_distance, 1, 1e7);
            r.num(b, pb, "texture", &sc->background_texture, 0, 1e6);
            r.num(b, pb, "reflectance", &sc->background_reflectance, 0, 1);
            r.num(b, pb, "luma_contrast", &sc->background_luma_contrast, 0, 1);
        }
    }
    if (const YAML::Node objs = n["objects"]) {
        if (!objs.IsSequence())
            return r.fail(objs, "scene.objects", "expected a list");
        for (size_t i = 0; i < objs.size(); ++i) {
            const YAML::Node o = objs[i];
            const std::string po = "scene.objects[" + std::to_string(i) + "]";
            if (!r.map(o, po,
                       {"name", "rect", "distance", "texture", "reflectance", "luma_contrast",
                        "h_ratio", "texture_variation", "visible"}))
                return false;
            ObjectSpec params;
            ObjectState st;
            r.str(o, po, "name", &params.name);
            if (params.name.empty())
                return r.fail(o, po + ".name", "every object needs a name");
            if (sc->object_index(params.name) >= 0)
                return r.fail(o["name"], po + ".name",
                              "duplicate object name '" + params.name + "'");
            if (!o["rect"])
                return r.fail(o, po + ".rect", "missing (x, y, w, h in image coordinates)");
            double rect[4] = {0, 0, 0, 0};
            r.numbers(o, po, "rect", rect, 4);
            if (!r.failed() && (rect[2] <= 0 || rect[3] <= 0))
                return r.fail(o["rect"], po + ".rect", "width and height must be > 0");
            st.x = rect[0];
            st.y = rect[1];
            st.w = rect[2];
            st.h = rect[3];
            r.num(o, po, "distance", &st.distance, 1, 1e7);
            r.num(o, po, "texture", &st.texture, 0, 1e6);
            r.num(o, po, "reflectance", &st.reflectance, 0, 1);
            r.num(o, po, "luma_contrast", &params.luma_contrast, 0, 1);
            r.num(o, po, "h_ratio", &params.h_ratio, 0, 10);
            r.num(o, po, "texture_variation", &params.texture_variation, 0, 1);
            bool visible = true;
            r.flag(o, po, "visible", &visible);
            st.visible = visible ? 1.0 : 0.0;
            sc->objects.push_back(params);
            sc->initial.objects.push_back(st);
        }
    }
    if (const YAML::Node lights = n["lights"]) {
        if (!lights.IsSequence())
            return r.fail(lights, "scene.lights", "expected a list");
        for (size_t i = 0; i < lights.size(); ++i) {
            const YAML::Node l = lights[i];
            const std::string pl = "scene.lights[" + std::to_string(i) + "]";
            if (!r.map(l, pl, {"name", "position", "distance", "intensity", "core_px", "on"}))
                return false;
            LightSpec params;
            LightState st;
            r.str(l, pl, "name", &params.name);
            if (params.name.empty())
                return r.fail(l, pl + ".name", "every light needs a name");
            if (sc->light_index(params.name) >= 0)
                return r.fail(l["name"], pl + ".name",
                              "duplicate light name '" + params.name + "'");
            double pos[2] = {st.x, st.y};
            r.numbers(l, pl, "position", pos, 2);
            st.x = pos[0];
            st.y = pos[1];
            r.num(l, pl, "distance", &st.distance, 1, 1e7);
            r.num(l, pl, "intensity", &st.intensity, 0, 1e6);
            r.num(l, pl, "core_px", &params.core_px, 0.5, 2000);
            bool on = true;
            r.flag(l, pl, "on", &on);
            st.on = on ? 1.0 : 0.0;
            sc->lights.push_back(params);
            sc->initial.lights.push_back(st);
        }
    }
    return !r.failed();
}

bool read_optics(Reader& r, const YAML::Node& n, OpticsSpec* o) {
    const std::string p = "optics";
    if (!r.map(n, p,
               {"v_width_wide", "v_width_tele", "width_zoom_exponent", "band_fir_v", "band_iir1",
                "band_fir_h", "band_iir2", "tail_exponent", "blur_px_per_step_wide",
                "blur_px_per_step_tele", "iris_dof", "light_edge_gain", "saturated_diameter_px",
                "high_noise_signal", "high_noise_floor"}))
        return false;
    r.num(n, p, "v_width_wide", &o->v_width_wide, 0.1, 1000);
    r.num(n, p, "v_width_tele", &o->v_width_tele, 0.1, 1000);
    r.num(n, p, "width_zoom_exponent", &o->width_zoom_exponent, 0.1, 10);
    r.num(n, p, "band_fir_v", &o->band_fir_v, 0.1, 100);
    r.num(n, p, "band_iir1", &o->band_iir1, 0.1, 100);
    r.num(n, p, "band_fir_h", &o->band_fir_h, 0.1, 100);
    r.num(n, p, "band_iir2", &o->band_iir2, 0.1, 100);
    r.num(n, p, "tail_exponent", &o->tail_exponent, 0.25, 10);
    r.num(n, p, "blur_px_per_step_wide", &o->blur_px_per_step_wide, 0, 100);
    r.num(n, p, "blur_px_per_step_tele", &o->blur_px_per_step_tele, 0, 100);
    r.num(n, p, "iris_dof", &o->iris_dof, 0, 2);
    r.num(n, p, "light_edge_gain", &o->light_edge_gain, 0, 1e4);
    r.num(n, p, "saturated_diameter_px", &o->saturated_diameter_px, 1, 1e4);
    r.num(n, p, "high_noise_signal", &o->high_noise_signal, 0, 10);
    r.num(n, p, "high_noise_floor", &o->high_noise_floor, 0, 10);
    return !r.failed();
}

bool read_noise(Reader& r, const YAML::Node& n, NoiseSpec* o) {
    const std::string p = "noise";
    if (!r.map(n, p,
               {"enabled", "seed", "relative", "floor_per_gain", "floor_spread", "luma_relative"}))
        return false;
    r.flag(n, p, "enabled", &o->enabled);
    double seed = static_cast<double>(o->seed);
    r.num(n, p, "seed", &seed, 0, 9007199254740991.0);
    o->seed = static_cast<uint64_t>(seed);
    r.num(n, p, "relative", &o->relative, 0, 1);
    r.num(n, p, "floor_per_gain", &o->floor_per_gain, 0, 1e5);
    r.num(n, p, "floor_spread", &o->floor_spread, 0, 10);
    r.num(n, p, "luma_relative", &o->luma_relative, 0, 1);
    return !r.failed();
}

bool read_exposure(Reader& r, const YAML::Node& n, ExposureSpec* e) {
    const std::string p = "exposure";
    if (!r.map(n, p,
               {"mapping", "target_luma", "brightness_at_target", "max_gain", "max_time",
                "min_time", "speed", "ratio_per_gain", "dark_exposure", "gain_scale", "fixed"}))
        return false;
    std::string mapping = "gain_class";
    r.str(n, p, "mapping", &mapping);
    if (mapping == "gain_class")
        e->mapping = ExposureMapping::kGainClass;
    else if (mapping == "physical")
        e->mapping = ExposureMapping::kPhysical;
    else if (mapping == "fixed")
        e->mapping = ExposureMapping::kFixed;
    else
        return r.fail(n["mapping"], p + ".mapping", "expected gain_class, physical or fixed");
    r.num(n, p, "target_luma", &e->target_luma, 1, 1023);
    r.num(n, p, "brightness_at_target", &e->brightness_at_target, 0, 1e6);
    r.num(n, p, "max_gain", &e->max_gain, 1, 1e5);
    r.num(n, p, "max_time", &e->max_time, 0, 10);
    r.num(n, p, "min_time", &e->min_time, 1e-7, 10);
    r.num(n, p, "speed", &e->speed, 0, 1);
    r.num(n, p, "ratio_per_gain", &e->ratio_per_gain, 0, 1e6);
    r.num(n, p, "dark_exposure", &e->dark_exposure, 1e-9, 1e6);
    r.num(n, p, "gain_scale", &e->gain_scale, 1e-6, 1e6);
    if (const YAML::Node f = n["fixed"]) {
        const std::string pf = "exposure.fixed";
        if (r.map(f, pf, {"brightness", "time", "gain"})) {
            r.num(f, pf, "brightness", &e->fixed_brightness, 0, 1e9);
            r.num(f, pf, "time", &e->fixed_time, 0, 1e6);
            r.num(f, pf, "gain", &e->fixed_gain, 0, 1e9);
        }
    }
    return !r.failed();
}

// Reads the `set` map of an event for one target into field codes.
bool read_fields(Reader& r, const YAML::Node& set, const std::string& path, int kind, int index,
                 const char* const* names, size_t count, TimelineEvent* e) {
    if (!set.IsMap())
        return r.fail(set, path, "expected a mapping of field: value");
    for (const auto& kv : set) {
        const std::string key = kv.first.Scalar();
        const std::string fp = Reader::join(path, key);
        // Shorthands for several coordinates at once.
        if (kind == kObject && key == "rect") {
            double v[4];
            if (!r.numbers(set, path, "rect", v, 4))
                return false;
            for (int f = 0; f < 4; ++f)
                e->fields.push_back({field_code(kind, index, f), v[f]});
            continue;
        }
        if (kind == kLight && key == "position") {
            double v[2];
            if (!r.numbers(set, path, "position", v, 2))
                return false;
            for (int f = 0; f < 2; ++f)
                e->fields.push_back({field_code(kind, index, f), v[f]});
            continue;
        }
        size_t f = 0;
        while (f < count && key != names[f])
            ++f;
        if (f == count)
            return r.fail(kv.first, fp, "not a field that can change");
        double v = 0.0;
        bool b = false;
        const int code = field_code(kind, index, static_cast<int>(f));
        if (is_switch(code) && YAML::convert<bool>::decode(kv.second, b)) {
            v = b ? 1.0 : 0.0;
        } else if (!kv.second.IsScalar() || !YAML::convert<double>::decode(kv.second, v) ||
                   !std::isfinite(v)) {
            return r.fail(kv.second, fp, "expected a number");
        }
        if (kind == kObject && key == "distance" && v < 1)
            return r.fail(kv.second, fp, "distance must be >= 1 mm");
        const FieldRange& range = (kind == kObject  ? kObjectRanges
                                   : kind == kLight ? kLightRanges
                                   : kind == kScene ? kSceneRanges
                                                    : kLensRanges)[f];
        if (v < range.lo || v > range.hi) {
            std::ostringstream o;
            o << "value " << v << " outside " << range.lo << " .. " << range.hi;
            return r.fail(kv.second, fp, o.str());
        }
        e->fields.push_back({code, v});
    }
    return true;
}

// faults: a list of mappings with the keys of a --fault argument (sim/faults.h).
bool read_faults(Reader& r, const YAML::Node& n, Scenario* sc) {
    if (!n.IsSequence())
        return r.fail(n, "faults", "expected a list of faults");
    for (size_t i = 0; i < n.size(); ++i) {
        const YAML::Node f = n[i];
        const std::string pf = "faults[" + std::to_string(i) + "]";
        if (!f.IsMap())
            return r.fail(f, pf, "expected a mapping");
        FaultSpec setting;
        std::string why;
        for (const auto& kv : f) {
            const std::string key = kv.first.Scalar();
            if (!kv.second.IsScalar())
                return r.fail(kv.second, Reader::join(pf, key), "expected a value");
            if (!fault_set(&setting, key, kv.second.Scalar(), &why))
                return r.fail(kv.first, pf, why);
        }
        if (!fault_finish(&setting, sc->fps, &why))
            return r.fail(f, pf, why);
        sc->faults.push_back(setting);
    }
    return true;
}

bool read_timeline(Reader& r, const YAML::Node& n, Scenario* sc) {
    if (!n.IsSequence())
        return r.fail(n, "timeline", "expected a list of events");
    for (size_t i = 0; i < n.size(); ++i) {
        const YAML::Node ev = n[i];
        const std::string pe = "timeline[" + std::to_string(i) + "]";
        if (!r.map(ev, pe,
                   {"at", "frame", "over", "object", "light", "set", "scene", "lens", "enter",
                    "leave"}))
            return false;
        TimelineEvent e;
        e.line = ev.Mark().line + 1;
        if (!ev["at"] && !ev["frame"])
            return r.fail(ev, pe + ".at", "every event needs 'at' (seconds) or 'frame'");
        if (ev["at"] && ev["frame"])
            return r.fail(ev["frame"], pe + ".frame", "give either 'at' or 'frame', not both");
        r.num(ev, pe, "at", &e.at, 0, 1e7);
        double frame = 0;
        if (ev["frame"] && r.num(ev, pe, "frame", &frame, 0, 1e9))
            e.at = frame / sc->fps;
        r.num(ev, pe, "over", &e.over, 0, 1e7);
        if (r.failed())
            return false;

        int targets = 0;
        for (const char* k : {"object", "light", "scene", "lens", "enter", "leave"})
            targets += ev[k] ? 1 : 0;
        if (targets != 1)
            return r.fail(ev, pe, "needs exactly one of object, light, scene, lens, enter, leave");

        auto named = [&](const char* key, bool object, int* index) {
            std::string name;
            r.str(ev, pe, key, &name);
            *index = object ? sc->object_index(name) : sc->light_index(name);
            if (*index < 0)
                return r.fail(
                    ev[key], Reader::join(pe, key),
                    std::string("no ") + (object ? "object" : "light") + " named '" + name + "'");
            return !r.failed();
        };
        int index = -1;
        if (ev["object"] || ev["light"]) {
            const bool object = static_cast<bool>(ev["object"]);
            if (!named(object ? "object" : "light", object, &index))
                return false;
            if (!ev["set"])
                return r.fail(ev, pe + ".set", "missing: the fields to change");
            if (object)
                read_fields(r, ev["set"], pe + ".set", kObject, index, kObjectFields, 8, &e);
            else
                read_fields(r, ev["set"], pe + ".set", kLight, index, kLightFields, 5, &e);
        } else if (ev["enter"] || ev["leave"]) {
            const bool enter = static_cast<bool>(ev["enter"]);
            if (!named(enter ? "enter" : "leave", true, &index))
                return false;
            e.fields.push_back({field_code(kObject, index, 7), enter ? 1.0 : 0.0});
        } else if (ev["scene"]) {
            read_fields(r, ev["scene"], pe + ".scene", kScene, 0, kSceneFields, 3, &e);
        } else {
            read_fields(r, ev["lens"], pe + ".lens", kLens, 0, kLensFields, 3, &e);
        }
        if (ev["set"] && !(ev["object"] || ev["light"]))
            return r.fail(ev["set"], pe + ".set", "'set' goes with 'object' or 'light'");
        if (r.failed())
            return false;
        sc->timeline.push_back(std::move(e));
    }
    std::stable_sort(sc->timeline.begin(), sc->timeline.end(),
                     [](const TimelineEvent& a, const TimelineEvent& b) { return a.at < b.at; });
    // A ramp starts from wherever its fields stood when it began.
    for (size_t i = 0; i < sc->timeline.size(); ++i) {
        TimelineEvent& e = sc->timeline[i];
        SceneState s = sc->initial;
        if (std::isnan(s.lens_zoom))
            s.lens_zoom = sc->lens.zoom;
        if (std::isnan(s.lens_focus))
            s.lens_focus = sc->lens.focus;
        if (std::isnan(s.lens_iris))
            s.lens_iris = sc->lens.iris;
        apply_events(*sc, i, e.at, &s);
        e.from.clear();
        for (const auto& [code, target] : e.fields) {
            (void)target;
            e.from.push_back(*field_ptr(s, code));
        }
    }
    return true;
}

}  // namespace

int Scenario::object_index(const std::string& n) const {
    for (size_t i = 0; i < objects.size(); ++i)
        if (objects[i].name == n)
            return static_cast<int>(i);
    return -1;
}

int Scenario::light_index(const std::string& n) const {
    for (size_t i = 0; i < lights.size(); ++i)
        if (lights[i].name == n)
            return static_cast<int>(i);
    return -1;
}

int Scenario::subject_index() const {
    return subject.empty() ? -1 : object_index(subject);
}

bool parse_scenario(const std::string& text, const std::string& file_name, Scenario* out,
                    std::string* error) {
    Scenario sc;
    sc.file = file_name;
    Reader r(file_name, error);
    try {
        const YAML::Node root = YAML::Load(text);
        if (!r.map(
                root, "",
                {"name", "description", "fps", "jitter_us", "subject", "lens", "scene", "optics",
                 "noise", "exposure", "latency", "tracker", "rangefinder", "timeline", "faults"}))
            return false;
        r.str(root, "", "name", &sc.name);
        r.str(root, "", "description", &sc.description);
        r.num(root, "", "fps", &sc.fps, 1, 1000);
        r.num(root, "", "jitter_us", &sc.jitter_us, 0, 1e6);
        if (r.failed())
            return false;
        if (const YAML::Node n = root["lens"]; n && !read_lens(r, n, &sc.lens))
            return false;
        if (const YAML::Node n = root["scene"]; n && !read_scene(r, n, &sc))
            return false;
        if (const YAML::Node n = root["optics"]; n && !read_optics(r, n, &sc.optics))
            return false;
        if (const YAML::Node n = root["noise"]; n && !read_noise(r, n, &sc.noise))
            return false;
        if (const YAML::Node n = root["exposure"]; n && !read_exposure(r, n, &sc.exposure))
            return false;
        if (const YAML::Node n = root["latency"]) {
            if (!r.map(n, "latency", {"frames", "mix"}))
                return false;
            r.integer(n, "latency", "frames", &sc.latency.frames, 1, 16);
            r.num(n, "latency", "mix", &sc.latency.mix, 0, 1);
            if (r.failed())
                return false;
        }
        r.str(root, "", "subject", &sc.subject);
        if (!sc.subject.empty() && sc.object_index(sc.subject) < 0)
            return r.fail(root["subject"], "subject", "no object named '" + sc.subject + "'");
        if (const YAML::Node n = root["tracker"]) {
            TrackerSpec& t = sc.tracker;
            if (!r.map(n, "tracker",
                       {"object", "latency_frames", "jitter", "box_error", "dropout_rate",
                        "dropout_frames"}))
                return false;
            t.enabled = true;
            r.str(n, "tracker", "object", &t.object);
            r.integer(n, "tracker", "latency_frames", &t.latency_frames, 0, 30);
            r.num(n, "tracker", "jitter", &t.jitter, 0, 100);
            r.num(n, "tracker", "box_error", &t.box_error, -0.9, 2);
            r.num(n, "tracker", "dropout_rate", &t.dropout_rate, 0, 1);
            r.integer(n, "tracker", "dropout_frames", &t.dropout_frames, 1, 100000);
            if (r.failed())
                return false;
            if (sc.object_index(t.object) < 0)
                return r.fail(n["object"] ? n["object"] : n, "tracker.object",
                              "no object named '" + t.object + "'");
        }
        if (const YAML::Node n = root["rangefinder"]) {
            RangefinderSpec& f = sc.rangefinder;
            if (!r.map(n, "rangefinder", {"object", "error", "dropout_rate"}))
                return false;
            f.enabled = true;
            r.str(n, "rangefinder", "object", &f.object);
            r.num(n, "rangefinder", "error", &f.error, 0, 1);
            r.num(n, "rangefinder", "dropout_rate", &f.dropout_rate, 0, 1);
            if (r.failed())
                return false;
            if (!f.object.empty() && sc.object_index(f.object) < 0)
                return r.fail(n["object"], "rangefinder.object",
                              "no object named '" + f.object + "'");
        }
        if (const YAML::Node n = root["timeline"]; n && !read_timeline(r, n, &sc))
            return false;
        if (const YAML::Node n = root["faults"]; n && !read_faults(r, n, &sc))
            return false;
    } catch (const YAML::Exception& e) {
        std::ostringstream o;
        o << file_name << ":" << (e.mark.line + 1) << ": (syntax): " << e.msg;
        *error = o.str();
        return false;
    }
    if (r.failed())
        return false;
    *out = std::move(sc);
    return true;
}

bool load_scenario(const std::string& path, Scenario* out, std::string* error) {
    std::ifstream in(path);
    if (!in) {
        *error = path + ":0: (file): cannot open";
        return false;
    }
    std::stringstream buf;
    buf << in.rdbuf();
    return parse_scenario(buf.str(), path, out, error);
}

SceneState scene_at(const Scenario& sc, double t) {
    SceneState s = sc.initial;
    apply_events(sc, sc.timeline.size(), t, &s);
    return s;
}

}  // namespace vcam
