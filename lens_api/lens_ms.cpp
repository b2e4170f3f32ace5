#include "lens_api/lens_ms.h"

#include <atomic>
#include <mutex>

#include "base/dbgout.h"
#include "lens_api/gpio_pins.h"
#include "lens_api/iris.h"
#include "lens_api/spi_link.h"
#include "platform/clock.h"

namespace {

// The driver's diagnostics name its source file as the field logs know it.
constexpr const char* kSource = "lens_api/lens_ms";

// Registers.
constexpr uint8_t kRegIris = 0x00;
constexpr uint8_t kRegZoomWord = 0x24;
constexpr uint8_t kRegZoomPeriod = 0x25;
constexpr uint8_t kRegFocusWord = 0x29;
constexpr uint8_t kRegFocusPeriod = 0x2A;
constexpr uint8_t kRegFilter = 0x2C;

// Control word fields.
constexpr uint16_t kWordSetup = 0x1520;
constexpr uint16_t kCountMask = 0x00FF;
constexpr uint16_t kKeepNoCount = 0xFF00;     // clears the pulse count
constexpr uint16_t kKeepNoCountDir = 0xFE00;  // clears the pulse count and the direction bit
constexpr uint16_t kDirBit = 0x0100;          // set for direction 0
constexpr uint16_t kSupplyBit = 0x0800;       // home-sensor supply
constexpr uint16_t kKeepNoSupply = 0xF700;    // bits 8..15 without the supply

constexpr uint16_t kIrisMax = 1023;
// Focus period of a focus-only move: a comfortable speed for the focus motor on its own.
constexpr uint16_t kFocusAlonePeriod = 374;

constexpr uint8_t kFilterDrive1 = 6;
constexpr uint8_t kFilterDrive0 = 5;
constexpr uint8_t kFilterStop = 2;

constexpr uint32_t kSupplySettleUs = 50000;
constexpr uint32_t kFilterPulseUs = 100000;
constexpr uint32_t kIrisSettleUs = 2000;
// Coarse homing moves read the sensor this long after the strobe, without waiting for idle.
constexpr uint32_t kCoarseSettleUs = 8000;
constexpr uint32_t kFineSettleUs = 1000;
constexpr uint32_t kHomingPollUs = 1;

// Set-up tables, {register, value} pairs ending with register 255.
struct RegValue {
    uint32_t reg;
    uint32_t value;
};
constexpr uint32_t kTableEnd = 255;
constexpr RegValue kMotorTable[] = {
    {0x20, 0x1E01}, {0x21, 0x0087}, {0x22, 0x0001}, {0x23, 0xF0F0}, {0x24, 0x1520}, {0x25, 0x0232},
    {0x27, 0x0001}, {0x28, 0xF0F0}, {0x29, 0x1520}, {0x2A, 0x0232}, {kTableEnd, 0},
};
constexpr RegValue kIrisTable[] = {
    {0x00, 0x0000}, {0x01, 0x708A}, {0x02, 0x66F0}, {0x03, 0x0E10}, {0x04, 0x8A40},
    {0x05, 0x0924}, {0x0B, 0x0480}, {0x0A, 0x0000}, {0x0E, 0x0C00}, {kTableEnd, 0},
};

// Pulse period per step count: entry n makes a move of n steps last about as long as any other
// move (n x entry n is nearly constant), so zoom and focus finish together in move_both.
constexpr uint16_t kPeriod[kMsPeriodEntries] = {
    14638, 14638, 7318, 4878, 3658, 2926, 2438, 2090, 1828, 1625, 1462, 1329, 1218, 1125, 1044,
    974,   913,   860,  812,  769,  730,  696,  664,  635,  608,  584,  562,  541,  521,  503,
    486,   471,   456,  442,  429,  417,  405,  394,  384,  374,  364,  356,  347,  339,  331,
    324,   317,   310,  303,  297,  291,  286,  280,  275,  270,  265,  260,  255,  251,  247,
    242,   238,   235,  231,  227,  224,  220,  217,  214,  211,  208,  205,  202,  199,  196,
    194,   191,   189,  186,  184,  181,  179,  177,  175,  173,  171,  169,  167,  165,  163,
    161,   159,   158,  156,  154,  153,  151,  149,  148,  146,  145,
};

// Homing limits and the lines their failure messages carry.
constexpr uint8_t kCoarseSteps = 16;

struct HomingPlan {
    const char* routine;     // reported routine name
    const char* name;        // "zoom" / "focus"
    uint8_t sensor_channel;  // gpio_read_home channel
    bool zoom;
    int search_moves;  // moves towards the sensor from off
    int back_moves;    // moves back off the sensor after it was found
    int away_moves;    // moves off the sensor when it was on at the start
    int fine_steps;    // single steps of the final approach
    int line_search, line_back, line_away, line_fine;
    const char* msg_search;
    const char* msg_back;
    const char* msg_away;
    const char* msg_fine;
};

constexpr HomingPlan kZoomPlan = {"lens_zoom_init_ms",
                                  "zoom",
                                  1,
                                  true,
                                  500,
                                  100,
                                  500,
                                  3000,
                                  973,
                                  986,
                                  998,
                                  1017,
                                  "zoom initial fail!\n",
                                  "zoom initial fail! 1\n",
                                  "zoom initial fail! 2\n",
                                  "zoom initial fail!\n"};
constexpr HomingPlan kFocusPlan = {"lens_focus_init_ms",
                                   "focus",
                                   0,
                                   false,
                                   300,
                                   100,
                                   300,
                                   200,
                                   1099,
                                   1111,
                                   1122,
                                   1146,
                                   "focus initial fail!\n",
                                   "focus initial fail!\n",
                                   "focus initial fail!\n",
                                   "focus initial fail!\n"};

struct MsState {
    // Guards the control words, the toggle state and every register group ending with a strobe.
    std::mutex mu;
    uint16_t zoom_word = kWordSetup;
    uint16_t spare_word = kWordSetup;
    uint16_t focus_word = kWordSetup;
    uint8_t toggle = 0;
    // Read before the mutex is taken (iris_drive returns early on an unchanged value), from the
    // main thread and the command thread.
    std::atomic<uint16_t> last_iris{0};
    std::atomic<uint8_t> sensor_command{0};
    std::atomic<uint32_t> busy_timeouts{0};
    // The busy line stayed high through a whole bounded wait. Until a read finds it low again,
    // waits read it once instead of polling for seconds: a dead line (or no GPIO device at all)
    // then costs each move one read, not the frame rate.
    std::atomic<bool> busy_stuck{false};
    std::atomic<uint32_t> dropped_while_stuck{0};
    DbgRepeat stuck_report;  // "busy line stuck" lines: the first one, then a count
};

MsState g_ms;

// Polls pls until it reads 0. sleep_us between polls (0: none). False when the line is still high
// at the bound, or at once when it was already found stuck and still reads high; the caller then
// drops its move.
bool wait_idle(uint32_t sleep_us, const char* who) {
    const bool was_stuck = g_ms.busy_stuck.load(std::memory_order_relaxed);
    const uint32_t max_polls = was_stuck ? 1 : kMsBusyWaitMaxPolls;
    const uint64_t t0 = platform::monotonic_us();
    int level = 0;
    for (uint32_t polls = 0; polls < max_polls; ++polls) {
        level = gpio_read_busy();
        if (level == 0) {
            if (was_stuck && g_ms.busy_stuck.exchange(false)) {
                dbg_err(kSource, who, __LINE__, "busy line idle again, %u moves dropped\n",
                        g_ms.dropped_while_stuck.exchange(0));
                g_ms.stuck_report.reset();
            }
            return true;
        }
        if (sleep_us != 0)
            platform::sleep_us(sleep_us);
        if (platform::monotonic_us() - t0 >= kMsBusyWaitLimitUs)
            break;
    }
    g_ms.busy_stuck.store(true, std::memory_order_relaxed);
    g_ms.dropped_while_stuck.fetch_add(1, std::memory_order_relaxed);
    g_ms.busy_timeouts.fetch_add(1, std::memory_order_relaxed);
    dbg_err_limited(g_ms.stuck_report, kSource, who, __LINE__,
                    "busy line stuck (pls reads %d), move dropped\n", level);
    return false;
}

uint16_t with_direction(uint16_t word, uint8_t direction) {
    word &= kKeepNoCountDir;
    return direction == 1 ? word : static_cast<uint16_t>(word | kDirBit);
}

uint16_t with_count(uint16_t word, uint16_t pulses) {
    // The count field is 8 bits; a larger count would spill into the direction bit.
    if (pulses > kCountMask)
        pulses = kCountMask;
    return static_cast<uint16_t>(word + pulses);
}

void write_table(const RegValue* t) {
    for (; t->reg != kTableEnd; ++t)
        spi_ms_write(static_cast<uint8_t>(t->reg), static_cast<uint16_t>(t->value));
}

void write_words() {
    spi_ms_write(kRegZoomWord, g_ms.zoom_word);
    spi_ms_write(kRegFocusWord, g_ms.focus_word);
}

// One channel move as the homing makes it. Steps are taken as a signed 8-bit number; a negative
// count moves 127 steps. False when the busy line was stuck and nothing was started.
bool channel_step(bool zoom, uint8_t direction, uint8_t steps, const char* who) {
    const int8_t signed_steps = static_cast<int8_t>(steps);
    const uint16_t n = signed_steps < 0 ? 127 : static_cast<uint16_t>(signed_steps);
    if (!wait_idle(kHomingPollUs, who))
        return false;
    if (n == 0)
        return true;
    std::lock_guard<std::mutex> lock(g_ms.mu);
    gpio_set_vd(0);
    const uint16_t pulses = static_cast<uint16_t>((n % 128) * (zoom ? 2 : 1));
    uint16_t& own = zoom ? g_ms.zoom_word : g_ms.focus_word;
    uint16_t& other = zoom ? g_ms.focus_word : g_ms.zoom_word;
    own = with_count(with_direction(own, direction), pulses);
    other &= kKeepNoCount;
    const uint32_t failures = spi_ms_failures();
    write_words();
    if (spi_ms_failures() != failures)
        return false;  // not strobed: nothing latched, nothing moved (see ms_move_both)
    gpio_set_vd(1);
    return true;
}

bool sensor_on(const HomingPlan& p) {
    return gpio_read_home(p.sensor_channel) != 0;
}

uint32_t fail(const HomingPlan& p, int line, const char* msg) {
    dbg_err(kSource, p.routine, line, "%s", msg);
    return kHomeFailed;
}

// Homing on a GPIO home sensor. Both sensors are lit on the side that direction 0 moves towards
// (zoom at and above its edge, focus at and below), so the home is where the sensor turns on
// while the channel moves in single steps of direction 0. From off, the coarse moves find the
// sensor and step back off it, so the final approach meets the edge from the same side every
// time; from on, they first leave it. The coarse moves read the sensor 8 ms after the strobe
// without waiting for the move to end (the next move waits), the single steps wait for idle.
uint32_t home_channel(const HomingPlan& p) {
    int moves = 0;
    if (!sensor_on(p)) {
        do {
            if (moves >= p.search_moves || !channel_step(p.zoom, 0, kCoarseSteps, p.routine))
                return fail(p, p.line_search, p.msg_search);
            ++moves;
            platform::sleep_us(kCoarseSettleUs);
        } while (!sensor_on(p));
        traceout("%s init: 1 time = %d\n", p.name, moves);
        moves = 0;
        do {
            if (moves >= p.back_moves || !channel_step(p.zoom, 1, kCoarseSteps, p.routine))
                return fail(p, p.line_back, p.msg_back);
            ++moves;
            platform::sleep_us(kCoarseSettleUs);
        } while (sensor_on(p));
    } else {
        do {
            if (moves >= p.away_moves || !channel_step(p.zoom, 1, kCoarseSteps, p.routine))
                return fail(p, p.line_away, p.msg_away);
            ++moves;
            platform::sleep_us(kCoarseSettleUs);
            traceout("%s init: 2 time = %d\n", p.name, moves);
        } while (sensor_on(p));
    }
    int steps = 0;
    while (!sensor_on(p)) {
        if (steps >= p.fine_steps || !channel_step(p.zoom, 0, 1, p.routine))
            return fail(p, p.line_fine, p.msg_fine);
        ++steps;
        platform::sleep_us(kFineSettleUs);
        if (!wait_idle(kHomingPollUs, p.routine))
            return fail(p, p.line_fine, p.msg_fine);
    }
    traceout("%s init: 3 time = %d\n", p.name, steps);
    return kHomeOk;
}

}  // namespace

const LensDriverOps kMs41908Ops = {
    ms_init_regs,       ms_sensor_power_on, ms_sensor_power_off, lens_zoom_init_ms,
    lens_focus_init_ms, ms_init_all,        ms_filter_switch,    ms_iris_drive,
    ms_focus_step,      ms_zoom_step,       ms_move_both,
};

uint16_t ms_period_for_steps(uint8_t steps) {
    return kPeriod[steps < kMsPeriodEntries ? steps : kMsPeriodEntries - 1];
}

void ms_init_regs() {
    // The mutex itself lives for the whole process: it is never re-created, so a set-up that runs
    // while the other thread holds it (re-initialisation on request) cannot break the lock.
    std::lock_guard<std::mutex> lock(g_ms.mu);
    g_ms.zoom_word = kWordSetup;
    g_ms.spare_word = kWordSetup;
    g_ms.focus_word = kWordSetup;
    write_table(kMotorTable);
    write_table(kIrisTable);
}

void ms_sensor_power_on() {
    {
        std::lock_guard<std::mutex> lock(g_ms.mu);
        g_ms.zoom_word = static_cast<uint16_t>((g_ms.zoom_word & kKeepNoSupply) | kSupplyBit);
        g_ms.focus_word = static_cast<uint16_t>((g_ms.focus_word & kKeepNoSupply) | kSupplyBit);
        write_words();
    }
    platform::sleep_us(kSupplySettleUs);
}

void ms_sensor_power_off() {
    {
        std::lock_guard<std::mutex> lock(g_ms.mu);
        g_ms.zoom_word &= kKeepNoSupply;
        g_ms.focus_word &= kKeepNoSupply;
        write_words();
    }
    platform::sleep_us(kSupplySettleUs);
}

uint32_t lens_zoom_init_ms() {
    return home_channel(kZoomPlan);
}

uint32_t lens_focus_init_ms() {
    return home_channel(kFocusPlan);
}

int32_t ms_init_all() {
    ms_init_regs();
    ms_sensor_power_on();
    if (lens_zoom_init_ms() == kHomeFailed) {
        ms_sensor_power_off();
        return -2;
    }
    if (lens_focus_init_ms() == kHomeFailed) {
        ms_sensor_power_off();
        return -1;
    }
    ms_filter_switch(0);
    ms_sensor_power_off();
    return 0;
}

void ms_filter_switch(uint8_t direction) {
    spi_ms_write(kRegFilter, direction == 1 ? kFilterDrive1 : kFilterDrive0);
    platform::sleep_us(kFilterPulseUs);
    spi_ms_write(kRegFilter, kFilterStop);
}

void ms_iris_drive(uint16_t value) {
    // The same value again moves nothing; the strobe would only cost 4 ms.
    const uint16_t previous = g_ms.last_iris.exchange(value, std::memory_order_relaxed);
    if (previous == value)
        return;
    std::lock_guard<std::mutex> lock(g_ms.mu);
    platform::sleep_us(kIrisSettleUs);
    if (!wait_idle(0, __func__)) {
        // Nothing reached the chip: the next request for this value must try again.
        g_ms.last_iris.store(previous, std::memory_order_relaxed);
        return;
    }
    gpio_set_vd(0);
    if (value > kIrisMax)
        value = kIrisMax;
    // The limited value is where the iris stands from now on: the automatic loop, relative iris
    // commands and the published state all work from it.
    iris_note_driven(value);
    const uint32_t failures = spi_ms_failures();
    spi_ms_write(kRegIris, static_cast<uint16_t>(kIrisMax - value));
    // The strobe also latches the control words: with both counts cleared no motor moves.
    g_ms.zoom_word &= kKeepNoCount;
    g_ms.focus_word &= kKeepNoCount;
    write_words();
    if (spi_ms_failures() != failures) {
        // The chip may still hold the last move's words with their counts: a strobe now would run
        // that move again behind the counts' back. No strobe; the next request for this value
        // tries again.
        g_ms.last_iris.store(previous, std::memory_order_relaxed);
        return;
    }
    gpio_set_vd(1);
    platform::sleep_us(kIrisSettleUs);
}

void ms_focus_step(uint8_t direction, uint8_t steps) {
    channel_step(false, direction, steps, __func__);
}

void ms_zoom_step(uint8_t direction, uint8_t steps) {
    channel_step(true, direction, steps, __func__);
}

void ms_move_both(uint8_t zoom_dir, uint8_t zoom_steps, uint8_t focus_dir, uint8_t focus_steps) {
    if (!wait_idle(0, __func__)) {
        // One busy line for both channels: the whole move is dropped.
        lens_report_dropped(static_cast<uint8_t>((zoom_steps != 0 ? kMoveZoomDropped : 0) |
                                                 (focus_steps != 0 ? kMoveFocusDropped : 0)));
        return;
    }
    std::lock_guard<std::mutex> lock(g_ms.mu);
    gpio_set_vd(0);
    g_ms.focus_word = focus_steps != 0
                          ? with_count(with_direction(g_ms.focus_word, focus_dir), focus_steps)
                          : static_cast<uint16_t>(g_ms.focus_word & kKeepNoCount);
    g_ms.zoom_word = zoom_steps != 0 ? with_count(with_direction(g_ms.zoom_word, zoom_dir),
                                                  static_cast<uint16_t>(zoom_steps * 2))
                                     : static_cast<uint16_t>(g_ms.zoom_word & kKeepNoCount);
    // A zoom step is two pulses at the zoom period, a focus step one pulse at twice the focus
    // period: with both taken from the table the two channels finish together.
    const uint16_t focus_period = zoom_steps != 0
                                      ? static_cast<uint16_t>(2 * ms_period_for_steps(focus_steps))
                                      : kFocusAlonePeriod;
    const uint32_t failures = spi_ms_failures();
    spi_ms_write(kRegFocusPeriod, focus_period);
    spi_ms_write(kRegFocusWord, g_ms.focus_word);
    spi_ms_write(kRegZoomPeriod, ms_period_for_steps(zoom_steps));
    spi_ms_write(kRegZoomWord, g_ms.zoom_word);
    if (spi_ms_failures() != failures) {
        // The chip holds a mix of old and new words: no strobe, so it latches none of them and
        // the move is dropped from the counts. vd stays low; the next move's strobe (its rising
        // edge) latches that move's own words.
        lens_report_dropped(static_cast<uint8_t>((zoom_steps != 0 ? kMoveZoomDropped : 0) |
                                                 (focus_steps != 0 ? kMoveFocusDropped : 0)));
        return;
    }
    gpio_set_vd(1);
}

void ms_sensor_command(uint8_t command) {
    g_ms.sensor_command.store(command, std::memory_order_relaxed);
    if (lens_is_ms41908() == 0)
        return;
    const uint8_t action = command & 0x30;
    if (action == 0x00)
        return;
    std::lock_guard<std::mutex> lock(g_ms.mu);
    const bool focus = (command & 0x01) != 0;
    uint16_t& word = focus ? g_ms.focus_word : g_ms.zoom_word;
    bool on;
    switch (action) {
        case 0x10:
            on = g_ms.toggle != 1;
            break;
        case 0x20:
            on = true;
            break;
        default:
            on = false;
            break;
    }
    g_ms.toggle = on ? 1 : 0;
    word =
        on ? static_cast<uint16_t>(word | kSupplyBit) : static_cast<uint16_t>(word & ~kSupplyBit);
    spi_ms_write(focus ? kRegFocusWord : kRegZoomWord, word);
}

uint16_t ms_zoom_word() {
    std::lock_guard<std::mutex> lock(g_ms.mu);
    return g_ms.zoom_word;
}

uint16_t ms_focus_word() {
    std::lock_guard<std::mutex> lock(g_ms.mu);
    return g_ms.focus_word;
}

uint8_t ms_sensor_last_command() {
    return g_ms.sensor_command.load(std::memory_order_relaxed);
}

uint8_t ms_sensor_toggle_state() {
    std::lock_guard<std::mutex> lock(g_ms.mu);
    return g_ms.toggle;
}

uint32_t ms_busy_timeouts() {
    return g_ms.busy_timeouts.load(std::memory_order_relaxed);
}

void ms_reset_for_testing() {
    std::lock_guard<std::mutex> lock(g_ms.mu);
    g_ms.zoom_word = g_ms.spare_word = g_ms.focus_word = kWordSetup;
    g_ms.toggle = 0;
    g_ms.last_iris.store(0);
    g_ms.sensor_command.store(0);
    g_ms.busy_timeouts.store(0);
    g_ms.busy_stuck.store(false);
    g_ms.dropped_while_stuck.store(0);
    g_ms.stuck_report.reset();
}
