#include "lens_api/iris.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "base/command_state.h"
#include "lens_api/lens_driver.h"
#include "lens_api/lens_position.h"
#include "platform/paths.h"
#include "store/lens_data.h"

#include <atomic>

namespace {

constexpr uint16_t kLcTable[kIrisSteps] = {1984, 1600, 1300, 1100, 1000, 900, 800,
                                           700,  600,  500,  400,  300,  0};
constexpr uint16_t kMsTable[kIrisSteps] = {960, 900, 628, 563, 498, 458, 423,
                                           396, 374, 356, 340, 336, 5};
constexpr uint16_t kLcMaxIris = 2300;
constexpr uint16_t kMsMaxIris = 1023;
constexpr const char* kIrisDevice = "/dev/sm_af_iris_value";
constexpr size_t kIrisDeviceSize = 36;

// Target brightness band of the automatic loop, in the ISP's brightness units.
constexpr uint32_t kDark = 200;
constexpr uint32_t kBright = 250;
constexpr uint32_t kOpenTarget = 230;
constexpr uint32_t kCloseTarget = 225;
// Adjustments inside the band before the loop goes idle.
constexpr uint8_t kSettleAdjustments = 10;

struct IrisState {
    std::atomic<uint16_t> value{0};
    std::atomic<uint8_t> mode{1};
    uint16_t table[kIrisSteps] = {};
    uint8_t hold_off = 2;
    uint8_t phase = 0;
    uint8_t state = 0;
    uint8_t side = 0;
    uint8_t opening = 0;
    uint8_t active = 0;
    uint8_t step = 0;
    uint8_t settle = 0;
    uint32_t day_night_upper = 200;
    uint32_t day_night_lower = 200;
    uint8_t day_night_enable = 0;
    volatile uint8_t* map = nullptr;
};

// Mean exposure luma of the last frame: the ISP link's exposure record, installed at start-up
// (the ISP link sits above the lens hardware). Without a source the loop does not run.
uint32_t (*g_brightness)() = nullptr;

IrisState g_iris;

// The LC898201's table is the default; chip detection switches to the MS41908's.
const bool g_tableInit = [] {
    for (uint8_t i = 0; i < kIrisSteps; ++i)
        g_iris.table[i] = kLcTable[i];
    return true;
}();

uint8_t index_of(uint8_t step) {
    return step > 12 ? 12 : step;
}

void put16(size_t at, uint16_t v) {
    if (g_iris.map == nullptr)
        return;
    g_iris.map[at] = static_cast<uint8_t>(v & 0xFF);
    g_iris.map[at + 1] = static_cast<uint8_t>(v >> 8);
}

uint16_t max_iris() {
    return lens_is_ms41908() ? kMsMaxIris : kLcMaxIris;
}

uint8_t clamp_step(int32_t s) {
    if (s < 2)
        return 2;
    if (s > 10)
        return 10;
    return static_cast<uint8_t>(s);
}

void adjust() {
    const uint16_t* T = g_iris.table;
    const int32_t I = g_iris.value;
    const int32_t step = g_iris.step;
    if (!g_iris.active)
        return;
    int32_t next = I;
    if (g_iris.opening) {
        if (I + step / 2 >= T[5]) {
            next = I + step >= T[3] ? I + 2 * step : I + step;
            if (next > max_iris())
                next = max_iris();
        } else {
            next = step > 1 ? I + step / 2 : I + step;
        }
        if (next < T[8])
            next = T[8];
    } else if (I > T[3] + 2 * step) {
        next = I - 2 * step;
    } else if (I > T[5] + step) {
        next = I - step;
    } else if (I <= T[8] + step / 2) {
        next = T[8];
    } else {
        next = step > 1 ? I - step / 2 : I - step;
    }
    iris_set(static_cast<uint16_t>(next < 0 ? 0 : next));
}

void evaluate(uint32_t B) {
    IrisState& s = g_iris;
    const auto open_step = [B] {
        return B > 114 ? clamp_step((230 - static_cast<int32_t>(B)) / 10) : 10;
    };
    if (s.state == 0) {
        if (B < kDark) {
            s.state = 1;
            s.side = 0;
            s.step = open_step();
            s.opening = 1;
            s.active = 1;
            s.settle = 0;
        } else if (B > kBright) {
            s.state = 1;
            s.side = 1;
            s.step = clamp_step((static_cast<int32_t>(B) - 250) / 5);
            s.opening = 0;
            s.active = 1;
            s.settle = 0;
        }
    } else if (s.state == 1 && s.side == 0) {
        if (B > kOpenTarget) {
            if (s.settle == kSettleAdjustments) {
                s.state = 0;
                s.settle = 0;
            } else {
                s.active = 0;
                s.step = 0;
                ++s.settle;
            }
        } else {
            s.step = open_step();
            s.active = 1;
        }
    } else if (s.state == 1 && s.side == 1) {
        if (B < kCloseTarget) {
            if (s.settle == kSettleAdjustments) {
                s.state = 0;
                s.settle = 0;
            } else {
                s.active = 0;
                s.step = 0;
                ++s.settle;
                s.opening = 0;
            }
        } else {
            s.step = clamp_step((static_cast<int32_t>(B) - 225) / 5);
            s.active = 1;
        }
    } else {
        s.state = 0;
        s.side = 0;
    }
}

// The MS41908's iris output is coarse in the middle of its range, where one count moves the blades
// most: smaller steps there keep the loop from overshooting.
void limit_ms_step() {
    const uint16_t* T = g_iris.table;
    const uint16_t I = g_iris.value;
    if (I >= T[3])
        return;
    if (I >= T[5] && I < T[4]) {
        if (g_iris.step >= 5)
            g_iris.step = 4;
    } else if (g_iris.step > 8) {
        g_iris.step = 8;
    }
}

}  // namespace

void iris_publish_init() {
    platform::Path path(kIrisDevice);
    const int fd = open(path.c_str(), O_RDWR | O_CREAT, 0777);
    if (fd < 0)
        return;
    const uint8_t zero = 0;
    void* map = MAP_FAILED;
    if (pwrite(fd, &zero, 1, kIrisDeviceSize) == 1) {
        map = mmap(nullptr, kIrisDeviceSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    }
    close(fd);
    if (map == MAP_FAILED)
        return;
    g_iris.map = static_cast<volatile uint8_t*>(map);
    put16(0, g_iris.mode);
    const uint16_t v = g_iris.value;
    put16(2, v < g_iris.table[0] ? v : g_iris.table[0]);
    put16(4, g_iris.table[0]);
    put16(6, g_iris.table[12]);
    iris_publish_zoom();
    for (uint8_t i = 0; i < kIrisSteps; ++i)
        put16(10 + 2 * i, g_iris.table[i]);
}

void iris_drive_publish(uint16_t value) {
    const LensDriverOps& ops = lens_ops();
    if (ops.iris_drive != nullptr)
        ops.iris_drive(value);
    // The driver has recorded what it drove; the request itself may lie outside the chip's
    // range or may not have reached the chip at all.
    put16(2, g_iris.value);
}

void iris_set(uint16_t value) {
    iris_drive_publish(value);
}

void iris_note_driven(uint16_t value) {
    g_iris.value = value;
}

void iris_goto_step(uint8_t step) {
    iris_drive_publish(g_iris.table[index_of(step)]);
}

void iris_set_mode(uint8_t mode) {
    g_iris.mode = mode;
    put16(0, mode);
}
uint8_t iris_get_mode() {
    return g_iris.mode;
}

void iris_table_set(uint8_t step, uint16_t value) {
    g_iris.table[index_of(step)] = value;
}
uint16_t iris_table_get(uint8_t step) {
    return g_iris.table[index_of(step)];
}
void iris_table_save() {
    iris_file_write(g_iris.table, kIrisSteps);
}
void iris_table_load() {
    iris_file_read(g_iris.table, kIrisSteps);
}
void iris_use_ms41908_table() {
    for (uint8_t i = 0; i < kIrisSteps; ++i)
        g_iris.table[i] = kMsTable[i];
}

void iris_publish_zoom() {
    put16(8, static_cast<uint16_t>(lens_get_zoom_pos() + command_get_ezoom()));
}

void auto_iris_step() {
    if (g_iris.mode == 0)
        return;
    const uint8_t moving = command_zoom_motion_active();
    const bool ms = lens_is_ms41908() != 0;
    // On the MS41908 the loop also sits out a few calls after a zoom motion or a calibration has
    // ended (the hold-off), so that it does not act on the brightness of a picture that is still
    // settling. A zoom changes the picture as much as a calibration does, so both arm it.
    if (ms && (command_calibration_mode() != 0 || moving != 0)) {
        g_iris.hold_off = 4;
        return;
    }
    if (moving == 1)
        return;
    if (ms) {
        if (g_iris.hold_off > 0) {
            --g_iris.hold_off;
            if (g_iris.hold_off != 0)
                return;
        }
    }
    if (g_brightness == nullptr)
        return;
    const uint32_t B = g_brightness();
    if (g_iris.phase == 0) {
        g_iris.phase = 1;
        return;
    }
    g_iris.phase = 0;
    adjust();
    evaluate(B);
    if (ms)
        limit_ms_step();
}

void iris_set_day_night(uint32_t enable, uint32_t upper, uint32_t lower) {
    g_iris.day_night_enable = enable != 0 ? 1 : 0;
    g_iris.day_night_upper = upper;
    g_iris.day_night_lower = lower;
}

uint16_t iris_get_value() {
    return g_iris.value;
}

void iris_reset_for_testing() {
    volatile uint8_t* map = g_iris.map;
    if (map != nullptr)
        munmap(const_cast<uint8_t*>(map), kIrisDeviceSize);
    g_iris.value = 0;
    g_iris.mode = 1;
    for (uint8_t i = 0; i < kIrisSteps; ++i)
        g_iris.table[i] = kLcTable[i];
    g_iris.hold_off = 2;
    g_iris.phase = g_iris.state = g_iris.side = 0;
    g_iris.opening = g_iris.active = g_iris.step = g_iris.settle = 0;
    g_iris.map = nullptr;
}

void iris_set_brightness_source(uint32_t (*source)()) {
    g_brightness = source;
}
