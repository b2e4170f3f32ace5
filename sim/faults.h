// Faults the virtual camera injects into the daemon's peers, at a time and for a duration: on the
// ISP link (a dropped connection, a reply split across several sends, a reply held back past the
// client's timeout, a reply of the wrong size, junk bytes in the stream) and on the lens hardware
// (a busy line that stays set, a dead home sensor, a burst of SPI bus errors).
//
// A fault comes from the scenario's `faults:` list or from `--fault` on the command line; both
// take the same keys:
//   fault   kind (below)                                   required
//   at      scene time, s (the timeline's clock)           at or frame required
//   frame   frame index (at = frame / fps)
//   for     duration, s. Without it an ISP fault hits the first reply due at or after `at` once,
//           and a lens fault lasts to the end of the run. With it an ISP fault hits every reply
//           in [at, at + for) (isp_drop also refuses new connections then), and a lens fault
//           clears at at + for.
//   reply   frame | exposure | attr | any                 which replies an ISP fault hits (frame)
//   parts   2..64                                         isp_split: sends per reply (3)
//   stall   0..600 s                                      isp_stall: delay before the reply (5)
//   size    0..65536 bytes                                isp_wrong_size: bytes sent (5000)
//   bytes   1..65536                                      isp_garbage: junk bytes in front (7)
//   state   off | on                                      zoom/focus_sensor: reads stuck (off)
// Kinds: isp_drop, isp_split, isp_stall, isp_wrong_size, isp_garbage, zoom_busy, focus_busy,
// zoom_sensor, focus_sensor, bus_errors.
//
// Times are scene times, so with --hold-timeline a fault's clock starts with the timeline. Faults
// are looked at on every ISP request and at least every 200 ms while the link is idle, so a lens
// fault comes and goes on time even while the daemon fetches no frames.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <vector>

namespace vcam {

enum class FaultKind : uint8_t {
    kIspDrop,
    kIspSplit,
    kIspStall,
    kIspWrongSize,
    kIspGarbage,
    kZoomBusy,
    kFocusBusy,
    kZoomSensor,
    kFocusSensor,
    kBusErrors,
};

enum class ReplyClass : uint8_t { kFrame, kExposure, kAttr, kAny };

struct FaultSpec {
    FaultKind kind = FaultKind::kIspDrop;
    bool have_kind = false;
    double at = -1.0;  // s; < 0 until given
    double frame = -1.0;
    double duration = std::numeric_limits<double>::infinity();  // s; infinity: not given
    ReplyClass reply = ReplyClass::kFrame;
    int parts = 3;
    double stall_s = 5.0;
    int size = 5000;
    int bytes = 7;
    bool sensor_on = false;
};

const char* fault_kind_name(FaultKind k);
bool fault_is_lens(FaultKind k);

// Applies one key of a fault. False with *error set ("key: why ('value')").
bool fault_set(FaultSpec* f, const std::string& key, const std::string& value, std::string* error);
// Completes a fault once all keys are in: converts `frame` with the frame rate and checks that
// the kind and the time are there.
bool fault_finish(FaultSpec* f, double fps, std::string* error);
// A --fault argument: "key=value,key=value", e.g. "fault=isp_stall,at=3,stall=4".
bool fault_parse(const std::string& text, double fps, FaultSpec* out, std::string* error);

// What to do with one ISP reply.
struct IspAction {
    enum Kind : uint8_t { kNormal, kDrop, kSplit, kStall, kWrongSize, kGarbage } kind = kNormal;
    const FaultSpec* fault = nullptr;
};

// The faults of one run and their progress.
class FaultPlan {
  public:
    FaultPlan() = default;
    explicit FaultPlan(std::vector<FaultSpec> faults);

    bool empty() const { return faults_.empty(); }

    // Lens faults switch through this hook (on, then off when their duration ends).
    void set_lens_hook(std::function<void(const FaultSpec&, bool on)> hook) {
        lens_hook_ = std::move(hook);
    }
    // Brings the lens faults up to scene time t (s; < 0 while the timeline is held: nothing
    // changes). Logs every switch.
    void update(double t);
    // The action for a reply of class rc due at scene time t. A one-shot fault is used up.
    IspAction on_reply(double t, ReplyClass rc);
    // True while an isp_drop window refuses connections.
    bool refusing(double t) const;

    // Number of faults that took effect so far (a window counts once).
    int fired() const { return fired_; }

  private:
    struct Entry {
        FaultSpec setting;
        bool started = false;
        bool ended = false;
    };
    static bool in_window(const FaultSpec& f, double t);

    std::vector<Entry> faults_;
    std::function<void(const FaultSpec&, bool)> lens_hook_;
    int fired_ = 0;
};

}  // namespace vcam
