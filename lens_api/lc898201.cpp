#include "lens_api/lc898201.h"

#include <atomic>
#include <cstring>
#include <initializer_list>

#include "base/dbgout.h"
#include "lens_api/iris.h"
#include "lens_api/spi_link.h"
#include "platform/clock.h"

namespace {

// Registers (16-bit addresses).
constexpr uint16_t kRegZoomDir = 0x0102;
constexpr uint16_t kRegZoomGain = 0x0103;
constexpr uint16_t kRegZoomPeriodLo = 0x0104;
constexpr uint16_t kRegZoomCountLo = 0x0106;
constexpr uint16_t kRegFocusSensor = 0x010C;  // focus home sensor lives in the zoom block
constexpr uint16_t kRegZoomStart = 0x010E;
constexpr uint16_t kRegFocusDir = 0x0142;
constexpr uint16_t kRegFocusGain = 0x0143;
constexpr uint16_t kRegFocusPeriodLo = 0x0144;
constexpr uint16_t kRegFocusCountLo = 0x0146;
constexpr uint16_t kRegZoomSensor = 0x014C;  // zoom home sensor lives in the focus block
constexpr uint16_t kRegFocusStart = 0x014E;
constexpr uint16_t kRegSensorSupply = 0x01A0;
constexpr uint16_t kRegServoMode = 0x000C;
constexpr uint16_t kRegServoTake = 0x000D;
constexpr uint16_t kRegHallOffset = 0x0079;
constexpr uint16_t kRegHallBias = 0x007C;
constexpr uint16_t kRegServoTarget = 0x1027;
constexpr uint16_t kRegOpenLoopDrive = 0x122E;
constexpr uint16_t kRegHallReading = 0x1230;
constexpr uint16_t kRegServoDrive = 0x0314;
constexpr uint16_t kRegFilterEnable = 0x0240;

constexpr uint8_t kHomeSensorBit = 0x10;
constexpr uint8_t kDirWord1 = 0x96;
constexpr uint8_t kDirWord0 = 0x16;
constexpr uint8_t kSupplyOn = 0x11;
constexpr uint8_t kServoRunning = 7;
constexpr uint8_t kDriveOn = 0x80;
constexpr uint32_t kFloatPlusOne = 0x3F800000;

constexpr uint32_t kSupplySettleUs = 50000;
constexpr uint32_t kTableAPauseUs = 5000;
constexpr uint32_t kFilterPulseUs = 100000;
constexpr uint32_t kHallSettleUs = 1000000;
constexpr uint32_t kHallStepUs = 50000;
constexpr uint16_t kIrisMax = 2300;

// Zoom gives 4 pulses per step, focus 2.
constexpr uint16_t kZoomPulsesPerStep = 4;
constexpr uint16_t kFocusPulsesPerStep = 2;

// Homing limits (moves of 16 steps, then single steps).
constexpr int kCoarseSteps = 16;
constexpr int kZoomSearchMoves = 500;
constexpr int kZoomBackMoves = 100;
constexpr int kZoomFineSteps = 300;
constexpr int kFocusSearchMoves = 300;
constexpr int kFocusBackMoves = 100;
constexpr int kFocusFineSteps = 200;

struct RegValue {
    uint16_t reg;
    uint16_t value;
};
constexpr uint16_t kEnd = 0xFFFF;

// General set-up; entry 0 and 1 reset a block and need 5 ms between them.
constexpr RegValue kTableA[] = {
    {0x0278, 0x00}, {0x0278, 0x0F}, {0x0268, 0x48}, {0x0210, 0x00}, {0x0211, 0x04},
    {0x0212, 0x04}, {0x0240, 0x00}, {0x0077, 0x03}, {kEnd, 0},
};
// Zoom channel; the focus channel is the same 0x40 higher.
constexpr RegValue kTableB[] = {
    {0x0100, 0x0C}, {0x0101, 0x82}, {0x0102, 0x96}, {0x0103, 0xCC}, {0x0104, 0x88},
    {0x0105, 0x01}, {0x0106, 0x00}, {0x0107, 0x00}, {0x0108, 0x00}, {0x0109, 0x00},
    {0x010A, 0x00}, {0x010C, 0x00}, {0x0112, 0x7F}, {0x010D, 0x03}, {0x0118, 0x00},
    {0x0119, 0x08}, {0x011A, 0x00}, {0x011B, 0x08}, {kEnd, 0},
};
constexpr RegValue kTableC[] = {
    {0x0140, 0x0C}, {0x0141, 0x82}, {0x0142, 0x96}, {0x0143, 0xCC}, {0x0144, 0x88},
    {0x0145, 0x01}, {0x0146, 0x00}, {0x0147, 0x00}, {0x0148, 0x00}, {0x0149, 0x00},
    {0x014A, 0x00}, {0x014C, 0x00}, {0x0152, 0x7F}, {0x014D, 0x03}, {0x0158, 0x00},
    {0x0159, 0x08}, {0x015A, 0x00}, {0x015B, 0x08}, {kEnd, 0},
};
// Third channel (unused by the lens, parked).
constexpr RegValue kTableD[] = {
    {0x0180, 0x0C}, {0x0183, 0xA8}, {0x0184, 0x4B}, {0x0185, 0x1D}, {0x0186, 0x00},
    {0x0187, 0x00}, {0x0192, 0xA8}, {0x018D, 0x07}, {0x0198, 0xD8}, {0x0199, 0x04},
    {0x019A, 0x6C}, {0x019B, 0x02}, {kEnd, 0},
};

// Servo set-up: filter coefficients and loop settings of the Hall servo. Four entries take the
// per-unit settings instead of a fixed value.
enum Width : uint8_t { k8, k32 };
enum Source : uint8_t { kFixed, kVarIrisOffset, kVarBiasOffset, kVarS1, kVarS2 };
struct ServoWrite {
    uint16_t reg;
    uint32_t value;
    Width width;
    Source source;
};
constexpr ServoWrite kServoSetup[] = {
#include "lens_api/lc898201_servo.inc"
};
static_assert(sizeof kServoSetup / sizeof kServoSetup[0] == 151, "servo set-up has 151 writes");

// Pulse period per step count: n steps of the zoom channel take the same time for any n.
struct PeriodTable {
    uint16_t v[123];
    constexpr PeriodTable() : v() {
        v[0] = 18750;
        for (int n = 1; n < 123; ++n)
            v[n] = static_cast<uint16_t>(18750 / n);
    }
};
constexpr PeriodTable kPeriod;
constexpr uint16_t kFocusPeriodFast = 0x0138;
constexpr uint16_t kFocusPeriodAlone = 0x0200;

constexpr LcSettings kDefaultSettings = {176, 64, 0xCC, 0xCC, 3, 3};

struct Channel {
    const char* name;
    uint16_t dir_reg;
    uint16_t period_lo;
    uint16_t count_lo;
    uint16_t start_reg;
    uint16_t pulses_per_step;
};
constexpr Channel kZoom = {"zoom",          kRegZoomDir,   kRegZoomPeriodLo,
                           kRegZoomCountLo, kRegZoomStart, kZoomPulsesPerStep};
constexpr Channel kFocus = {"focus",          kRegFocusDir,   kRegFocusPeriodLo,
                            kRegFocusCountLo, kRegFocusStart, kFocusPulsesPerStep};

// A channel whose busy flag stayed set through a whole bounded wait. Until a read finds it idle
// again, its waits read the flag once instead of polling for seconds: a stuck channel then costs
// each move one register read, not the frame rate. Both threads may move the lens (homing).
struct StuckChannel {
    std::atomic<bool> stuck{false};
    std::atomic<uint32_t> dropped{0};  // waits given up since it stuck
    DbgRepeat report;                  // "busy stuck" lines, first one then a count
};

struct LcState {
    LcSettings settings = kDefaultSettings;
    int16_t zoom_travel = 0;
    int16_t focus_travel = 0;
    std::atomic<uint32_t> busy_timeouts{0};
    StuckChannel zoom;
    StuckChannel focus;
};

LcState g_lc;

void write_table(const RegValue* t) {
    for (; t->reg != kEnd; ++t)
        spi_lc_write8(t->reg, static_cast<uint8_t>(t->value & 0xFF));
}

void write16(uint16_t lo_reg, uint16_t value) {
    spi_lc_write8(lo_reg, static_cast<uint8_t>(value & 0xFF));
    spi_lc_write8(static_cast<uint16_t>(lo_reg + 1), static_cast<uint8_t>(value >> 8));
}

// Waits until the channel's start/busy register no longer reads 1. sleep_us between polls (0:
// none). False when the channel is still busy at the bound, or at once when it was already found
// stuck and still reads busy.
bool wait_idle(const Channel& ch, uint32_t sleep_us) {
    StuckChannel& st = &ch == &kZoom ? g_lc.zoom : g_lc.focus;
    const bool was_stuck = st.stuck.load();
    const uint32_t max_polls = was_stuck ? 1 : kLcBusyWaitMaxPolls;
    const uint64_t t0 = platform::monotonic_us();
    for (uint32_t polls = 0; polls < max_polls; ++polls) {
        if (spi_lc_read8(ch.start_reg) != 1) {
            if (was_stuck && st.stuck.exchange(false)) {
                dbg_err(__FILE__, __func__, __LINE__, "%s channel idle again, %u moves dropped\n",
                        ch.name, st.dropped.exchange(0));
                st.report.reset();
            }
            return true;
        }
        if (sleep_us != 0)
            platform::sleep_us(sleep_us);
        if (platform::monotonic_us() - t0 >= kLcBusyWaitLimitUs)
            break;
    }
    st.stuck.store(true);
    st.dropped.fetch_add(1);
    g_lc.busy_timeouts.fetch_add(1);
    dbg_err_limited(st.report, __FILE__, __func__, __LINE__,
                    "%s channel busy stuck (0x%04X), move dropped\n", ch.name, ch.start_reg);
    return false;
}

// Direction word and pulse count of a move; the caller starts it.
void load_move(const Channel& ch, uint8_t direction, uint8_t steps) {
    spi_lc_write8(ch.dir_reg, direction == 1 ? kDirWord1 : kDirWord0);
    write16(ch.count_lo, static_cast<uint16_t>(steps * ch.pulses_per_step));
}

// One move of a channel. False when the channel was stuck busy, or the bus failed while the move
// was loaded or started: then nothing was started (a half-loaded move is not started at all).
bool channel_step(const Channel& ch, uint8_t direction, uint8_t steps) {
    if (steps == 0)
        return true;
    if (!wait_idle(ch, 0))
        return false;
    const uint32_t failures = spi_lc_failures();
    load_move(ch, direction, steps);
    if (spi_lc_failures() != failures)
        return false;
    spi_lc_write8(ch.start_reg, 1);
    return spi_lc_failures() == failures;
}

bool sensor_on(uint16_t reg) {
    return (spi_lc_read8(reg) & kHomeSensorBit) != 0;
}

// Homing of one channel on its home-sensor bit. The home is where the sensor turns on while the
// channel moves in single steps in fine_dir; the coarse moves go there from either side in
// 16-step moves without waiting for each to finish (the next move waits). sign converts a move in
// direction 1 into position units. Returns kHomeOk or kHomeFailed; travel gets the net distance.
struct HomingPlan {
    const Channel& ch;
    uint16_t sensor_reg;
    uint8_t fine_dir;  // direction that turns the sensor on
    int sign_dir1;     // position change per step in direction 1
    int search_moves;
    int back_moves;
    int fine_steps;
};

uint32_t home_channel(const HomingPlan& p, int16_t& travel) {
    const uint8_t away_dir = p.fine_dir == 1 ? 0 : 1;
    const int step_fine = p.fine_dir == 1 ? p.sign_dir1 : -p.sign_dir1;
    int t = 0;
    travel = 0;
    int moves = 0;
    if (sensor_on(p.sensor_reg)) {
        // On the sensor already: leave it.
        do {
            if (moves >= p.search_moves || !channel_step(p.ch, away_dir, kCoarseSteps))
                return kHomeFailed;
            ++moves;
            t -= step_fine * kCoarseSteps;
            travel = static_cast<int16_t>(t);
        } while (sensor_on(p.sensor_reg));
    } else {
        // Find the sensor, then step back off it so the fine approach meets the edge from the
        // same side every time.
        do {
            if (moves >= p.search_moves || !channel_step(p.ch, p.fine_dir, kCoarseSteps))
                return kHomeFailed;
            ++moves;
            t += step_fine * kCoarseSteps;
            travel = static_cast<int16_t>(t);
        } while (!sensor_on(p.sensor_reg));
        moves = 0;
        do {
            if (moves >= p.back_moves || !channel_step(p.ch, away_dir, kCoarseSteps))
                return kHomeFailed;
            ++moves;
            t -= step_fine * kCoarseSteps;
            travel = static_cast<int16_t>(t);
        } while (sensor_on(p.sensor_reg));
    }
    // Fine approach in single steps, each one finished before the sensor is read.
    int steps = 0;
    while (!sensor_on(p.sensor_reg)) {
        if (steps >= p.fine_steps || !channel_step(p.ch, p.fine_dir, 1) || !wait_idle(p.ch, 1))
            return kHomeFailed;
        ++steps;
        t += step_fine;
        travel = static_cast<int16_t>(t);
    }
    return kHomeOk;
}

uint32_t float_bits(float f) {
    uint32_t u;
    std::memcpy(&u, &f, sizeof u);
    return u;
}

}  // namespace

const LensDriverOps kLc898201Ops = {
    lc_init_regs,  lc_sensor_power_on, lc_sensor_power_off, lc_zoom_home,
    lc_focus_home, lc_init_all,        lc_filter_switch,    lc_iris_drive,
    lc_focus_step, lc_zoom_step,       lc_move_both,
};

LcSettings lc_get_settings() {
    return g_lc.settings;
}
void lc_set_settings(const LcSettings& s) {
    g_lc.settings = s;
}

void lc_init_regs() {
    spi_lc_write8(kTableA[0].reg, static_cast<uint8_t>(kTableA[0].value));
    platform::sleep_us(kTableAPauseUs);
    write_table(kTableA + 1);

    const LcSettings& s = g_lc.settings;
    for (const ServoWrite& w : kServoSetup) {
        uint32_t v = w.value;
        switch (w.source) {
            case kVarIrisOffset:
                v = s.iris_offset;
                break;
            case kVarBiasOffset:
                v = s.bias_offset;
                break;
            case kVarS1:
                v = s.s1;
                break;
            case kVarS2:
                v = s.s2;
                break;
            case kFixed:
                break;
        }
        if (w.width == k32)
            spi_lc_write32(w.reg, v);
        else
            spi_lc_write8(w.reg, static_cast<uint8_t>(v));
    }

    write_table(kTableB);
    spi_lc_write8(kRegZoomGain, s.zoom_gain);
    write_table(kTableC);
    spi_lc_write8(kRegFocusGain, s.focus_gain);
    write_table(kTableD);
}

void lc_sensor_power_on() {
    spi_lc_write8(kRegSensorSupply, kSupplyOn);
    platform::sleep_us(kSupplySettleUs);
}

void lc_sensor_power_off() {
    spi_lc_write8(kRegSensorSupply, 0x00);
}

uint32_t lc_zoom_home() {
    // Zoom direction 1 lowers the position; the zoom sensor is on above its edge, so the home
    // is met while rising (direction 0).
    const HomingPlan plan = {kZoom,          kRegZoomSensor, 0, -1, kZoomSearchMoves,
                             kZoomBackMoves, kZoomFineSteps};
    return home_channel(plan, g_lc.zoom_travel);
}

uint32_t lc_focus_home() {
    // Focus direction 1 raises the position; the focus sensor is on below its edge, so the home
    // is met while falling (direction 0).
    const HomingPlan plan = {kFocus,          kRegFocusSensor, 0, +1, kFocusSearchMoves,
                             kFocusBackMoves, kFocusFineSteps};
    return home_channel(plan, g_lc.focus_travel);
}

int32_t lc_init_all() {
    lc_init_regs();
    lc_sensor_power_on();
    if (lc_focus_home() == kHomeFailed) {
        lc_sensor_power_off();
        return -1;
    }
    if (lc_zoom_home() == kHomeFailed) {
        lc_sensor_power_off();
        return -2;
    }
    lc_sensor_power_off();
    return 0;
}

void lc_filter_switch(uint8_t direction) {
    for (int i = 0; i < 2; ++i) {
        spi_lc_write8(kRegFilterEnable,
                      static_cast<uint8_t>(spi_lc_read8(kRegFilterEnable) | 0x01));
        spi_lc_write8(0x01B1, 0x80);
        spi_lc_write8(0x01B2, direction != 0 ? 0x81 : 0x01);
        spi_lc_write8(0x01B3, 0xFF);
        spi_lc_write8(0x01B4, 0x7F);
        spi_lc_write8(0x01B5, 0xFF);
        spi_lc_write8(0x01B6, 0x07);
        spi_lc_write8(0x01B7, 0x01);
        platform::sleep_us(kFilterPulseUs);
        spi_lc_write8(0x01B1, 0x00);
    }
}

uint32_t lc_iris_target_bits(uint16_t value) {
    // The servo target spans [-1, 1) over iris values 0..2047 with 1024 at the middle; above
    // 1024 it sits half a code higher. Every value is exact in single precision.
    const int v = value > 2047 ? 2047 : value;
    if (v == 1024)
        return 0;
    if (v < 1024)
        return float_bits(-static_cast<float>(1024 - v) / 1024.0f);
    return float_bits((static_cast<float>(v - 1024) + 0.5f) / 1024.0f);
}

void lc_iris_drive(uint16_t value) {
    if (value == 0) {
        // Drive stage off; the target stays as it was, and so does the iris module's value: with
        // the stage off there is no new position to record.
        spi_lc_write8(kRegServoDrive, 0x00);
        return;
    }
    if (value > kIrisMax)
        value = kIrisMax;
    spi_lc_write8(kRegServoDrive, kDriveOn);
    // What the servo is told to hold is where the iris stands from now on: the automatic loop,
    // relative iris commands and the published state all work from it.
    iris_note_driven(value);
    spi_lc_write32(kRegServoTarget, lc_iris_target_bits(value));
    spi_lc_write8(kRegServoTake, 1);
}

void lc_focus_step(uint8_t direction, uint8_t steps) {
    channel_step(kFocus, direction, steps);
}

void lc_zoom_step(uint8_t direction, uint8_t steps) {
    channel_step(kZoom, direction, steps);
}

void lc_move_both(uint8_t zoom_dir, uint8_t zoom_steps, uint8_t focus_dir, uint8_t focus_steps) {
    // Both channels are loaded before either starts, and their periods are matched so that they
    // finish together (focus gives 2 pulses per step, zoom 4). A channel stuck busy is dropped
    // and reported to the position counts; the other one still moves. So is a channel whose
    // registers the bus failed to load (it is not started on half-written registers) or whose
    // start did not reach the chip: the counts must follow only what the motors did.
    bool focus_go = false;
    bool zoom_go = false;
    uint32_t failures = spi_lc_failures();
    if (focus_steps != 0) {
        focus_go = wait_idle(kFocus, 0);
        if (focus_go)
            load_move(kFocus, focus_dir, focus_steps);
        if (focus_go && spi_lc_failures() != failures)
            focus_go = false;
        if (!focus_go)
            lens_report_dropped(kMoveFocusDropped);
    }
    if (zoom_steps != 0) {
        failures = spi_lc_failures();
        zoom_go = wait_idle(kZoom, 0);
        if (zoom_go) {
            load_move(kZoom, zoom_dir, zoom_steps);
            spi_lc_write8(kRegZoomGain, g_lc.settings.zoom_gain);
        }
        if (zoom_go && spi_lc_failures() != failures)
            zoom_go = false;
        if (!zoom_go)
            lens_report_dropped(kMoveZoomDropped);
    }
    if (focus_go) {
        uint16_t period;
        if (zoom_steps != 0)
            period = focus_steps <= 50 ? kPeriod.v[focus_steps / 2] : kFocusPeriodFast;
        else
            period = focus_steps <= 80 ? kFocusPeriodAlone : kFocusPeriodFast;
        failures = spi_lc_failures();
        write16(kRegFocusPeriodLo, period);
        if (spi_lc_failures() == failures)
            spi_lc_write8(kRegFocusStart, 1);
        if (spi_lc_failures() != failures)
            lens_report_dropped(kMoveFocusDropped);
    }
    if (zoom_go) {
        // The table ends at 122 steps; longer zoom moves take its last (fastest) period.
        const uint8_t idx = zoom_steps < 123 ? zoom_steps : 122;
        failures = spi_lc_failures();
        write16(kRegZoomPeriodLo, kPeriod.v[idx]);
        if (spi_lc_failures() == failures)
            spi_lc_write8(kRegZoomStart, 1);
        if (spi_lc_failures() != failures)
            lens_report_dropped(kMoveZoomDropped);
    }
}

void lc_alt_setup() {
    g_lc.settings.s1 = 2;
    g_lc.settings.s2 = 2;
}

int lc_hall_calibrate() {
    // The Hall reading with the iris driven fully open must land in a narrow window just below
    // 1.0. The offset shifts the reading, the bias scales it: walk the offset in steps of 5 and,
    // when it runs out of range, move the bias by 16 and start the offset again.
    constexpr int32_t kWindowLow = 0x3F7AFFFF;   // just below 0.98046875
    constexpr int32_t kWindowHigh = 0x3F7E0001;  // just above 0.9921875
    int offset = 128;
    int bias = 64;
    spi_lc_write8(kRegServoMode, 0);
    spi_lc_write8(kRegHallBias, static_cast<uint8_t>(bias));
    spi_lc_write8(kRegHallOffset, static_cast<uint8_t>(offset));
    spi_lc_write32(kRegOpenLoopDrive, kFloatPlusOne);
    platform::sleep_us(kHallSettleUs);

    auto reading = [] {
        const int32_t r = static_cast<int32_t>(spi_lc_read32(kRegHallReading));
        return r < 0 ? 0 : r;
    };
    int32_t r = reading();
    while (r > kWindowLow) {
        if (offset < 65) {
            offset = 128;
            bias -= 16;
            if (bias < 48) {
                spi_lc_write8(kRegHallBias, 48);
                spi_lc_write8(kRegHallOffset, 64);
                spi_lc_write8(kRegServoMode, kServoRunning);
                return 1;
            }
            spi_lc_write8(kRegHallBias, static_cast<uint8_t>(bias));
        } else {
            offset -= 5;
        }
        spi_lc_write8(kRegHallOffset, static_cast<uint8_t>(offset));
        platform::sleep_us(kHallStepUs);
        r = reading();
    }
    while (r < kWindowHigh) {
        if (offset > 239) {
            offset = 64;
            bias += 16;
            if (bias > 96) {
                spi_lc_write8(kRegHallBias, 208);
                spi_lc_write8(kRegHallOffset, 96);
                spi_lc_write8(kRegServoMode, kServoRunning);
                return 2;
            }
            spi_lc_write8(kRegHallBias, static_cast<uint8_t>(bias));
        } else {
            offset += 5;
        }
        spi_lc_write8(kRegHallOffset, static_cast<uint8_t>(offset));
        platform::sleep_us(kHallStepUs);
        r = reading();
    }
    // Centre the offset in the window for the bias it ended with.
    if (offset < 223) {
        if (bias == 64)
            offset += 32;
        else if (bias == 80)
            offset += 24;
        else if (bias == 96 && offset >= 9)
            offset -= 8;
    }
    spi_lc_write8(kRegHallOffset, static_cast<uint8_t>(offset));
    spi_lc_write8(kRegServoMode, kServoRunning);
    return 0;
}

void lc_set_iris_offset(uint8_t offset) {
    g_lc.settings.iris_offset = offset;
    spi_lc_write8(kRegHallOffset, offset);
}

void lc_set_bias_offset(uint8_t bias) {
    g_lc.settings.bias_offset = bias;
    spi_lc_write8(kRegHallBias, bias);
}

int32_t lc_get_iris_offset() {
    return spi_lc_read8(kRegHallOffset);
}

int32_t lc_get_bias_offset() {
    return spi_lc_read8(kRegHallBias);
}

int16_t lc_zoom_travel() {
    return g_lc.zoom_travel;
}
int16_t lc_focus_travel() {
    return g_lc.focus_travel;
}
uint32_t lc_busy_timeouts() {
    return g_lc.busy_timeouts.load();
}

void lc_reset_for_testing() {
    g_lc.settings = kDefaultSettings;
    g_lc.zoom_travel = 0;
    g_lc.focus_travel = 0;
    g_lc.busy_timeouts.store(0);
    for (StuckChannel* c : {&g_lc.zoom, &g_lc.focus}) {
        c->stuck.store(false);
        c->dropped.store(0);
        c->report.reset();
    }
}
