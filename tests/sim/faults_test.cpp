// Fault injection: the fault keys from the command line and the scenario file, the plan's timing
// (one-shot, windows, reply classes, lens faults switching on and off), and what a client of the
// ISP service sees of each ISP fault.
#include "sim/faults.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <memory>
#include <thread>
#include <vector>

#include "sim/camera.h"
#include "sim/isp_server.h"
#include "sim/scenario.h"
#include "sim_test_util.h"

namespace {

using vcam::FaultKind;
using vcam::FaultPlan;
using vcam::FaultSpec;
using vcam::IspAction;
using vcam::ReplyClass;

FaultSpec parsed(const std::string& text) {
    FaultSpec f;
    std::string err;
    EXPECT_TRUE(vcam::fault_parse(text, 30, &f, &err)) << text << ": " << err;
    return f;
}

TEST(FaultSpecs, CommandLineAndScenarioTakeTheSameKeysAndNameWhatIsWrong) {
    const FaultSpec f = parsed("fault=isp_split, frame=60, for=2, parts=4, reply=any");
    EXPECT_EQ(f.kind, FaultKind::kIspSplit);
    EXPECT_DOUBLE_EQ(f.at, 2.0) << "frame 60 at 30 frames/s";
    EXPECT_DOUBLE_EQ(f.duration, 2.0);
    EXPECT_EQ(f.parts, 4);
    EXPECT_EQ(f.reply, ReplyClass::kAny);
    EXPECT_TRUE(std::isinf(parsed("fault=zoom_busy,at=1").duration)) << "no 'for': to the end";

    const struct {
        const char* text;
        const char* error;
    } bad[] = {
        {"fault=lens_on_fire,at=1", "fault: unknown fault ('lens_on_fire')"},
        {"fault=isp_drop", "at: give either 'at' (seconds) or 'frame'"},
        {"fault=isp_drop,at=1,frame=3", "at: give either 'at' (seconds) or 'frame'"},
        {"at=1", "fault: missing (the kind of fault)"},
        {"fault=isp_split,at=1,parts=1", "parts: expected 2 .. 64 ('1')"},
        {"fault=isp_stall,at=-2", "at: expected seconds 0 .. 1e7 ('-2')"},
        {"fault=isp_drop,at=1,for=0", "for: expected seconds above 0 ('0')"},
        {"fault=isp_drop,at=1,colour=red", "unknown key 'colour'"},
        {"isp_drop,at=1", "expected key=value: 'isp_drop'"},
    };
    for (const auto& b : bad) {
        FaultSpec f;
        std::string err;
        EXPECT_FALSE(vcam::fault_parse(b.text, 30, &f, &err)) << b.text;
        EXPECT_EQ(err, b.error) << b.text;
    }

    vcam::Scenario sc;
    std::string err;
    ASSERT_TRUE(vcam::parse_scenario(
        "fps: 25\nfaults:\n  - {fault: bus_errors, frame: 50, for: 1}\n", "f.yaml", &sc, &err))
        << err;
    ASSERT_EQ(sc.faults.size(), 1u);
    EXPECT_DOUBLE_EQ(sc.faults[0].at, 2.0);
    EXPECT_FALSE(vcam::parse_scenario("faults:\n  - fault: isp_drop\n    at: 1\n  - fault: x\n",
                                      "f.yaml", &sc, &err));
    EXPECT_EQ(err, "f.yaml:4: faults[1]: fault: unknown fault ('x')");
    EXPECT_FALSE(vcam::parse_scenario("faults:\n  - {fault: isp_drop}\n", "f.yaml", &sc, &err));
    EXPECT_EQ(err, "f.yaml:2: faults[0]: at: give either 'at' (seconds) or 'frame'");
}

TEST(FaultPlanTiming, OneShotWindowsReplyClassesAndLensSwitches) {
    FaultPlan plan({parsed("fault=isp_garbage,at=1"), parsed("fault=isp_wrong_size,at=2,for=1"),
                    parsed("fault=isp_split,at=0,reply=exposure"),
                    parsed("fault=isp_drop,at=5,for=2"), parsed("fault=zoom_busy,at=3,for=0.5"),
                    parsed("fault=focus_sensor,at=4")});
    std::vector<std::pair<double, bool>> lens;
    plan.set_lens_hook([&](const FaultSpec& f, bool on) {
        EXPECT_TRUE(vcam::fault_is_lens(f.kind));
        lens.emplace_back(f.at, on);
    });
    auto frame_at = [&](double t) { return plan.on_reply(t, ReplyClass::kFrame).kind; };

    EXPECT_EQ(frame_at(-1), IspAction::kNormal) << "a held timeline injects nothing";
    EXPECT_EQ(frame_at(0.5), IspAction::kNormal) << "the split waits for an exposure reply";
    EXPECT_EQ(plan.on_reply(0.6, ReplyClass::kExposure).kind, IspAction::kSplit);
    EXPECT_EQ(plan.on_reply(0.7, ReplyClass::kExposure).kind, IspAction::kNormal) << "once";
    EXPECT_EQ(frame_at(1.5), IspAction::kGarbage) << "first frame reply at or after its time";
    EXPECT_EQ(frame_at(1.6), IspAction::kNormal);
    EXPECT_EQ(frame_at(2.0), IspAction::kWrongSize);
    EXPECT_EQ(frame_at(2.9), IspAction::kWrongSize) << "every reply of the window";
    EXPECT_EQ(frame_at(3.0), IspAction::kNormal) << "the window is half open";

    plan.update(-1);
    plan.update(2.9);
    EXPECT_TRUE(lens.empty());
    plan.update(3.2);
    plan.update(3.4);
    plan.update(4.1);
    EXPECT_EQ(lens, (std::vector<std::pair<double, bool>>{{3, true}, {3, false}, {4, true}}))
        << "switched once each way; without 'for' a lens fault stays";

    EXPECT_FALSE(plan.refusing(4.9));
    EXPECT_TRUE(plan.refusing(5.0));
    EXPECT_EQ(plan.on_reply(5.5, ReplyClass::kAttr).kind, IspAction::kDrop)
        << "a drop hits whatever request comes";
    EXPECT_FALSE(plan.refusing(7.0));
    EXPECT_EQ(plan.fired(), 6);
}

// A client of the service sees each ISP fault on the wire.
TEST(FaultsOnTheWire, SplitWrongSizeJunkAndDrop) {
    vcam::LensMechanics mech;
    vcam::Camera camera(simtest::chart_scenario(3000, 3200), &mech);
    vcam::ServerConfig cfg;
    cfg.port = 0;
    cfg.mode = vcam::TimeMode::kVirtual;
    vcam::IspServer server(&camera, cfg, nullptr);
    // Frames come at 30 per second from 1/30 s on: the faults hit frames 2, 3 and 4, then 5.
    FaultPlan plan({parsed("fault=isp_split,frame=2,parts=4"),
                    parsed("fault=isp_wrong_size,frame=3,size=6000"),
                    parsed("fault=isp_garbage,frame=4,bytes=7"), parsed("fault=isp_drop,frame=5")});
    server.set_faults(&plan);
    ASSERT_EQ(server.listen(), 0);
    std::atomic<bool> stop{false};
    std::thread t([&] { server.run(stop); });

    simtest::IspClient c(server.port());
    const std::vector<uint8_t> clean = c.request(1, 5504);
    ASSERT_EQ(clean.size(), 5504u);
    EXPECT_EQ(c.request(1, 5504).size(), 5504u) << "a split reply arrives whole";
    ASSERT_TRUE(c.send_bytes({1}));
    EXPECT_EQ(c.recv_once(6000).size(), 6000u);
    ASSERT_TRUE(c.send_bytes({1}));
    const std::vector<uint8_t> junk = c.recv_once(5504 + 7);
    ASSERT_EQ(junk.size(), 5511u);
    EXPECT_EQ(std::vector<uint8_t>(junk.begin() + 7, junk.begin() + 11),
              std::vector<uint8_t>({4, 0, 0, 0}))
        << "the frame (sequence 4) follows the junk";
    ASSERT_TRUE(c.send_bytes({1}));
    EXPECT_TRUE(c.closed_by_peer());
    simtest::IspClient next(server.port());
    EXPECT_EQ(next.request(1, 5504).size(), 5504u) << "the service goes on";
    stop.store(true);
    t.join();
    EXPECT_EQ(server.stats().sends, 1u + 4u + 1u + 1u + 1u) << "the split reply took four sends";
    EXPECT_EQ(server.stats().connections, 2u);
}

}  // namespace
