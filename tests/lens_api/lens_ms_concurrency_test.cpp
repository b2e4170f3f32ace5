// The MS41908 driver shared by two threads, as in the running daemon: the main thread moves the
// lens every frame while the command thread re-homes, drives the iris and switches the sensor
// supplies. Every strobed register group must reach the chip whole, from one thread, and the
// control words the driver keeps must match the chip's registers afterwards.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "lens_api/gpio_pins.h"
#include "lens_api/iris.h"
#include "lens_api/lens_driver.h"
#include "lens_api/lens_ms.h"
#include "lens_api/lens_position.h"
#include "lens_api/spi_link.h"
#include "platform/sim/virtual_clock.h"
#include "tests/lens_api/fake_ms41908.h"
#include "tests/support/test_env.h"

namespace {

using msfake::Event;
using testsupport::capture_stdout;

// The register sequences a strobe may close: a channel step, move_both, an iris drive.
bool known_group(const std::vector<uint8_t>& regs) {
    static const std::vector<std::vector<uint8_t>> kGroups = {
        {0x24, 0x29}, {0x2A, 0x29, 0x25, 0x24}, {0x00, 0x24, 0x29}};
    for (const auto& g : kGroups)
        if (regs == g)
            return true;
    return false;
}

// Walks the log; returns "" when every vd-low ... vd-high span holds one known group written by
// the thread that lowered vd (other threads may read pls or a sensor meanwhile: their waits run
// outside the lock), else a description of the first fault.
std::string check_groups(const std::vector<Event>& log, int* groups) {
    *groups = 0;
    for (std::size_t i = 0; i < log.size(); ++i) {
        if (log[i].kind == Event::kVdHigh)
            return "vd raised outside a group at event " + std::to_string(i);
        if (log[i].kind != Event::kVdLow)
            continue;
        const int owner = log[i].thread;
        std::vector<uint8_t> regs;
        std::size_t j = i + 1;
        for (; j < log.size() && log[j].kind != Event::kVdHigh; ++j) {
            const Event& e = log[j];
            if (e.kind == Event::kBusyRead || e.kind == Event::kHomeRead)
                continue;
            if (e.thread != owner)
                return "thread " + std::to_string(e.thread) + " wrote inside a group of thread " +
                       std::to_string(owner) + " at event " + std::to_string(j);
            if (e.kind != Event::kWrite)
                return "vd lowered twice at event " + std::to_string(j);
            regs.push_back(e.reg);
        }
        if (j == log.size())
            return "group at event " + std::to_string(i) + " never strobed";
        if (log[j].thread != owner)
            return "another thread strobed the group at event " + std::to_string(j);
        if (!known_group(regs))
            return "unexpected register group at event " + std::to_string(i);
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

class MsConcurrencyTest : public msfake::RigTest<YieldingClock> {
  protected:
    void SetUp() override {
        RigTest::SetUp();
        capture_stdout([] {
            gpio_load_pins();
            lens_detect_chip();
        });
        chip.set_zoom(3000);
        chip.focus_pos = 3000;
        chip.busy_reads = 2;
        uint8_t r = 0xFF;
        // Opens the MS41908 link before the second thread exists.
        capture_stdout([&] { r = lens_motor_init(); });
        ASSERT_EQ(r, 0);
        chip.clear_events();
        chip.write_pause = std::chrono::microseconds(2);
    }
};

TEST_F(MsConcurrencyTest, CommandThreadNeverSplitsTheMainThreadsRegisterGroups) {
    std::atomic<bool> go{false};
    std::atomic<bool> done{false};
    std::atomic<int> rehomes{0};
    // Standard output is captured once around both threads: capturing is not thread-safe.
    const std::string out = capture_stdout([&] {
        std::thread command([&] {
            while (!go)
                std::this_thread::yield();
            for (int round = 0; round < 10; ++round) {
                lens_motor_rehome();
                ++rehomes;
                for (uint16_t v = 0; v < 60; ++v) {
                    ms_iris_drive(static_cast<uint16_t>(300 + v + 60 * round));
                    ms_sensor_command(static_cast<uint8_t>(0x10 | (v & 1)));
                }
            }
            done = true;
        });
        // The frame loop: a move with both channels every frame, reversing now and then.
        int frame = 0;
        go = true;
        while (!done || frame < 500) {
            const uint8_t zd = (frame / 7) % 2;
            const uint8_t fd = (frame / 5) % 2;
            lens_ops().move_both(zd, static_cast<uint8_t>(1 + frame % 40), fd,
                                 static_cast<uint8_t>(frame % 23));
            ++frame;
        }
        command.join();
    });
    EXPECT_EQ(rehomes.load(), 10);

    int groups = 0;
    const std::vector<Event> log = chip.events();
    EXPECT_EQ(check_groups(log, &groups), "");
    EXPECT_GT(groups, 1000);
    // Both threads really ran interleaved: some of the command thread's groups sit between two
    // groups of the main thread.
    int switches = 0;
    int last = -1;
    for (const Event& e : log) {
        if (e.kind != Event::kVdLow)
            continue;
        if (last >= 0 && e.thread != last)
            ++switches;
        last = e.thread;
    }
    EXPECT_GT(switches, 10);
    // No update of a control word was lost between the threads.
    EXPECT_EQ(ms_zoom_word(), chip.reg(0x24));
    EXPECT_EQ(ms_focus_word(), chip.reg(0x29));
    EXPECT_EQ(out.find("busy line stuck"), std::string::npos);
}

}  // namespace
