// The MS41908 driver shared by two threads, as in the running daemon: the main thread moves the
// lens every frame while the command thread re-homes, drives the iris and switches the sensor
// supplies. Every strobed register group must reach the chip whole, from one thread, and the
// control words the driver keeps must match the chip's registers afterwards.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>

#include "tests/lens_api/fake_devices.h"

namespace {

using lensfake::Call;
using lensfake::MsChip;
using testsupport::capture_stdout;

bool is_vd(const Call& c, unsigned long request) {
    return c.kind == Call::kGpio && c.request == request && c.value == MsChip::kVd;
}

// Walks the log; returns "" when every vd-low ... vd-high span holds one known register group
// (a channel step, move_both, an iris drive) written by the thread that lowered vd, else the
// first fault. Other threads may read pls or a sensor meanwhile: their waits run outside the lock.
std::string check_groups(const std::vector<Call>& log, int* groups) {
    const std::vector<std::vector<uint8_t>> known = {
        {0x24, 0x29}, {0x2A, 0x29, 0x25, 0x24}, {0x00, 0x24, 0x29}};
    *groups = 0;
    for (std::size_t i = 0; i < log.size(); ++i) {
        const std::string at = " at call " + std::to_string(i);
        if (is_vd(log[i], kGpioReqVdHigh))
            return "vd raised outside a group" + at;
        if (!is_vd(log[i], kGpioReqVdLow))
            continue;
        std::vector<uint8_t> regs;
        std::size_t j = i + 1;
        for (; j < log.size() && !is_vd(log[j], kGpioReqVdHigh); ++j) {
            if (log[j].kind == Call::kGpio && log[j].request == kGpioReqRead)
                continue;
            if (log[j].thread != log[i].thread || log[j].kind != Call::kTransfer)
                return "foreign call inside a group" + at;
            regs.push_back(log[j].tx[0]);
        }
        if (j == log.size() || log[j].thread != log[i].thread)
            return "group not strobed by its own thread" + at;
        if (std::find(known.begin(), known.end(), regs) == known.end())
            return "unexpected register group" + at;
        ++*groups;
        i = j;
    }
    return "";
}

// Virtual time, but the longer waits (the homing's settling times, the iris's 2 ms) also give up
// the processor for a moment, as the real sleeps do on the board; otherwise a re-homing that
// never really sleeps would keep the driver's lock to itself.
class YieldingClock final : public platform::Clock {
  public:
    int wall_time(timeval* tv) override { return clock_.wall_time(tv); }
    uint64_t monotonic_us() override { return clock_.monotonic_us(); }
    void sleep_us(uint32_t us) override {
        clock_.sleep_us(us);
        if (us >= 1000)
            std::this_thread::sleep_for(std::chrono::microseconds(20));
    }
    void on_frame(const afdata::FrameStamp& s) override { clock_.on_frame(s); }
    bool is_virtual() const override { return true; }

  private:
    platform::VirtualClock clock_;
};

class Ms41908Concurrency : public lensfake::Rig<YieldingClock> {
  protected:
    void SetUp() override {
        Rig::SetUp();
        chip.set_zoom(3000);
        chip.focus = 3000;
        chip.busy_reads = 2;
        uint8_t r = 0xFF;
        // Opens the MS41908 link before the second thread exists.
        capture_stdout([&] {
            gpio_load_pins();
            lens_detect_chip();
            r = lens_motor_init();
        });
        ASSERT_EQ(r, 0);
        board.clear();
        // A bus transfer takes time, so that two threads' register groups overlap in time.
        board.after_call = [](const Call& c) {
            if (c.kind == Call::kTransfer)
                std::this_thread::sleep_for(std::chrono::microseconds(2));
        };
    }
    MsChip chip{board};
};

TEST_F(Ms41908Concurrency, CommandThreadNeverSplitsTheMainThreadsRegisterGroups) {
    std::atomic<bool> go{false};
    std::atomic<bool> done{false};
    // Standard output is captured once around both threads: capturing is not thread-safe.
    const std::string out = capture_stdout([&] {
        std::thread command([&] {
            while (!go)
                std::this_thread::yield();
            for (int round = 0; round < 10; ++round) {
                // Its result is not checked: the frame loop below keeps moving the lens while
                // the homing looks for the sensor edges, and on a loaded machine a move can land
                // between a homing step and its sensor read and fail the homing. What matters
                // here is the register groups both threads send.
                (void)lens_motor_rehome();
                for (uint16_t v = 0; v < 60; ++v) {
                    ms_iris_drive(static_cast<uint16_t>(300 + v + 60 * round));
                    ms_sensor_command(static_cast<uint8_t>(0x10 | (v & 1)));
                }
            }
            done = true;
        });
        // The frame loop: a move with both channels every frame, reversing now and then.
        go = true;
        for (int frame = 0; !done || frame < 500; ++frame)
            lens_ops().move_both((frame / 7) % 2, static_cast<uint8_t>(1 + frame % 40),
                                 (frame / 5) % 2, static_cast<uint8_t>(frame % 23));
        command.join();
    });
    const std::vector<Call> log = board.calls();
    int groups = 0;
    EXPECT_EQ(check_groups(log, &groups), "");
    EXPECT_GT(groups, 1000);
    // Both threads really ran interleaved: the owner of consecutive groups changes often.
    int switches = 0, last = -1;
    for (const Call& c : log) {
        if (!is_vd(c, kGpioReqVdLow))
            continue;
        switches += last >= 0 && c.thread != last;
        last = c.thread;
    }
    EXPECT_GT(switches, 10);
    // No update of a control word was lost between the threads.
    EXPECT_EQ(ms_zoom_word(), chip.regs[0x24]);
    EXPECT_EQ(ms_focus_word(), chip.regs[0x29]);
    EXPECT_EQ(out.find("busy line stuck"), std::string::npos);
}

}  // namespace
