#include "sim/faults.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace vcam {
namespace {

struct KindName {
    FaultKind kind;
    const char* name;
};
constexpr KindName kKinds[] = {
    {FaultKind::kIspDrop, "isp_drop"},         {FaultKind::kIspSplit, "isp_split"},
    {FaultKind::kIspStall, "isp_stall"},       {FaultKind::kIspWrongSize, "isp_wrong_size"},
    {FaultKind::kIspGarbage, "isp_garbage"},   {FaultKind::kZoomBusy, "zoom_busy"},
    {FaultKind::kFocusBusy, "focus_busy"},     {FaultKind::kZoomSensor, "zoom_sensor"},
    {FaultKind::kFocusSensor, "focus_sensor"}, {FaultKind::kBusErrors, "bus_errors"},
};

bool parse_number(const std::string& s, double* out) {
    char* end = nullptr;
    const double v = std::strtod(s.c_str(), &end);
    if (s.empty() || end == s.c_str() || *end != '\0' || !std::isfinite(v))
        return false;
    *out = v;
    return true;
}

// Frame times are whole microseconds: a fault given by frame number belongs to that frame even
// when the rounded frame time falls a fraction of a microsecond before it.
bool reached(double t, double at) {
    return t + 1e-6 >= at;
}

std::string trim(const std::string& s) {
    const auto b = s.find_first_not_of(" \t");
    const auto e = s.find_last_not_of(" \t");
    return b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
}

}  // namespace

const char* fault_kind_name(FaultKind k) {
    for (const KindName& n : kKinds)
        if (n.kind == k)
            return n.name;
    return "?";
}

bool fault_is_lens(FaultKind k) {
    return k >= FaultKind::kZoomBusy;
}

bool fault_set(FaultSpec* f, const std::string& key, const std::string& value, std::string* error) {
    auto bad = [&](const char* why) {
        *error = key + ": " + why + " ('" + value + "')";
        return false;
    };
    double d = 0;
    auto number = [&](double lo, double hi) {
        return parse_number(value, &d) && d >= lo && d <= hi;
    };
    auto whole = [&](double lo, double hi) { return number(lo, hi) && d == std::floor(d); };
    if (key == "fault") {
        for (const KindName& n : kKinds) {
            if (value == n.name) {
                f->kind = n.kind;
                f->have_kind = true;
                return true;
            }
        }
        return bad("unknown fault");
    }
    if (key == "at") {
        if (!number(0, 1e7))
            return bad("expected seconds 0 .. 1e7");
        f->at = d;
    } else if (key == "frame") {
        if (!whole(0, 1e9))
            return bad("expected a frame index");
        f->frame = d;
    } else if (key == "for") {
        if (!number(0, 1e7) || d <= 0)
            return bad("expected seconds above 0");
        f->duration = d;
    } else if (key == "reply") {
        if (value == "frame")
            f->reply = ReplyClass::kFrame;
        else if (value == "exposure")
            f->reply = ReplyClass::kExposure;
        else if (value == "attr")
            f->reply = ReplyClass::kAttr;
        else if (value == "any")
            f->reply = ReplyClass::kAny;
        else
            return bad("expected frame, exposure, attr or any");
    } else if (key == "parts") {
        if (!whole(2, 64))
            return bad("expected 2 .. 64");
        f->parts = static_cast<int>(d);
    } else if (key == "stall") {
        if (!number(0, 600))
            return bad("expected seconds 0 .. 600");
        f->stall_s = d;
    } else if (key == "size") {
        if (!whole(0, 65536))
            return bad("expected bytes 0 .. 65536");
        f->size = static_cast<int>(d);
    } else if (key == "bytes") {
        if (!whole(1, 65536))
            return bad("expected bytes 1 .. 65536");
        f->bytes = static_cast<int>(d);
    } else if (key == "state") {
        if (value != "off" && value != "on")
            return bad("expected off or on");
        f->sensor_on = value == "on";
    } else {
        *error = "unknown key '" + key + "'";
        return false;
    }
    return true;
}

bool fault_finish(FaultSpec* f, double fps, std::string* error) {
    if (!f->have_kind) {
        *error = "fault: missing (the kind of fault)";
        return false;
    }
    if ((f->at >= 0) == (f->frame >= 0)) {
        *error = "at: give either 'at' (seconds) or 'frame'";
        return false;
    }
    if (f->frame >= 0)
        f->at = f->frame / fps;
    return true;
}

bool fault_parse(const std::string& text, double fps, FaultSpec* out, std::string* error) {
    FaultSpec f;
    std::size_t pos = 0;
    while (pos <= text.size()) {
        std::size_t comma = text.find(',', pos);
        if (comma == std::string::npos)
            comma = text.size();
        const std::string item = trim(text.substr(pos, comma - pos));
        pos = comma + 1;
        if (item.empty())
            continue;
        const std::size_t eq = item.find('=');
        if (eq == std::string::npos) {
            *error = "expected key=value: '" + item + "'";
            return false;
        }
        if (!fault_set(&f, trim(item.substr(0, eq)), trim(item.substr(eq + 1)), error))
            return false;
    }
    if (!fault_finish(&f, fps, error))
        return false;
    *out = f;
    return true;
}

FaultPlan::FaultPlan(std::vector<FaultSpec> faults) {
    for (FaultSpec& f : faults)
        faults_.push_back(Entry{f});
}

bool FaultPlan::in_window(const FaultSpec& f, double t) {
    return reached(t, f.at) && !reached(t, f.at + f.duration);
}

void FaultPlan::update(double t) {
    if (t < 0)
        return;
    for (Entry& e : faults_) {
        if (!fault_is_lens(e.setting.kind))
            continue;
        if (!e.started && reached(t, e.setting.at)) {
            e.started = true;
            ++fired_;
            std::fprintf(stderr, "vcam: fault %s on at %.3f s\n", fault_kind_name(e.setting.kind),
                         t);
            if (lens_hook_)
                lens_hook_(e.setting, true);
        }
        if (e.started && !e.ended && reached(t, e.setting.at + e.setting.duration)) {
            e.ended = true;
            std::fprintf(stderr, "vcam: fault %s off at %.3f s\n", fault_kind_name(e.setting.kind),
                         t);
            if (lens_hook_)
                lens_hook_(e.setting, false);
        }
    }
}

IspAction FaultPlan::on_reply(double t, ReplyClass rc) {
    IspAction a;
    if (t < 0)
        return a;
    for (Entry& e : faults_) {
        const FaultSpec& f = e.setting;
        if (fault_is_lens(f.kind) || e.ended)
            continue;
        // A dropped connection hits whatever request comes; the others only their reply class.
        if (f.kind != FaultKind::kIspDrop && f.reply != ReplyClass::kAny && f.reply != rc)
            continue;
        const bool once = std::isinf(f.duration);
        if (once ? !reached(t, f.at) : !in_window(f, t)) {
            if (!once && reached(t, f.at + f.duration))
                e.ended = true;
            continue;
        }
        if (!e.started) {
            e.started = true;
            ++fired_;
            std::fprintf(stderr, "vcam: fault %s at %.3f s\n", fault_kind_name(f.kind), t);
        }
        if (once)
            e.ended = true;
        a.fault = &f;
        switch (f.kind) {
            case FaultKind::kIspDrop:
                a.kind = IspAction::kDrop;
                break;
            case FaultKind::kIspSplit:
                a.kind = IspAction::kSplit;
                break;
            case FaultKind::kIspStall:
                a.kind = IspAction::kStall;
                break;
            case FaultKind::kIspWrongSize:
                a.kind = IspAction::kWrongSize;
                break;
            default:
                a.kind = IspAction::kGarbage;
                break;
        }
        return a;
    }
    return a;
}

bool FaultPlan::refusing(double t) const {
    if (t < 0)
        return false;
    for (const Entry& e : faults_)
        if (e.setting.kind == FaultKind::kIspDrop && !std::isinf(e.setting.duration) &&
            in_window(e.setting, t))
            return true;
    return false;
}

}  // namespace vcam
