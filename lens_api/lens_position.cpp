#include "lens_api/lens_position.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>

#include "lens_api/lens_driver.h"
#include "platform/paths.h"
#include "store/lens_data.h"

#include <atomic>

namespace {

constexpr uint16_t kDefaultFocusHome = 2400;
constexpr uint16_t kDefaultFocusMax = 6120;
constexpr uint8_t kMaxStepsPerMove = 80;

// Lens parameter record entries (each valid only with its bitwise complement beside it).
constexpr uint8_t kParFocusHome = 0;
constexpr uint8_t kParFocusSpan = 2;
constexpr uint8_t kParZoomMax = 8;
constexpr uint8_t kParZoomMin = 10;
constexpr uint8_t kParValid = 99;

// Zoom speed table: bands of zoom position, and steps per frame by band, offset by speed.
constexpr uint16_t kZoomBands[10] = {3500, 4000, 4400, 4700, 5000, 5200, 5350, 5500, 5650, 6624};
constexpr uint8_t kSpeed8Steps[32] = {65, 60, 55, 50, 46, 42, 38, 34, 31, 28, 25,
                                      22, 19, 16, 14, 13, 12, 11, 10, 9,  8,  7,
                                      6,  5,  4,  3,  2,  1,  0,  0,  0,  0};
constexpr uint8_t kSpeed17Steps[32] = {78, 70, 65, 60, 55, 50, 46, 42, 38, 34, 31,
                                       28, 25, 22, 19, 16, 14, 13, 12, 11, 10, 9,
                                       8,  7,  6,  5,  4,  3,  2,  1,  0,  0};
constexpr const char* kSpeedDevice = "/dev/sm_zoom_speed_info";
constexpr size_t kSpeedDeviceSize = 132;

struct LensPosition {
    std::atomic<uint16_t> zoom{0};
    std::atomic<uint16_t> focus{0};
    uint16_t zoom_max = kZoomTravelLimit;
    uint16_t zoom_min = 0;
    uint16_t focus_min = 0;
    uint16_t focus_max = kDefaultFocusMax;
    uint16_t focus_home = kDefaultFocusHome;
    uint16_t focus_ceiling = kDefaultFocusMax;
    uint16_t zoom_backlash = 1;
    uint16_t focus_backlash = 2;
    uint8_t zoom_dir = 0;
    uint8_t focus_dir = 0;
    uint8_t* speed_map = nullptr;
    bool speed_published = false;
};

LensPosition g_lens;

bool complementary(uint8_t index) {
    return static_cast<uint16_t>(lens_param_get(index) + lens_param_get(index + 1)) == 0xFFFF;
}

// Steps available between a position and a bound in the direction of travel. A position already
// beyond the bound (a zoom maximum configured below the homing position) has none: the count
// never wraps and the lens never moves further out of range.
uint8_t available(uint8_t steps, int32_t room) {
    if (room <= 0)
        return 0;
    return room < steps ? static_cast<uint8_t>(room) : steps;
}

// One channel: bounds the steps, works out the new count and the motor command with backlash.
// down_dir / up_dir are the motor directions that lower / raise the position. Nothing is stored:
// the count and the remembered direction change only once the driver has started the move.
struct Channel {
    uint16_t old_pos;
    uint16_t new_pos;
    uint8_t motor_dir;
    uint8_t motor_steps;
    bool reverses;  // the motor turns the other way than last time (backlash added)
};

Channel channel_plan(uint16_t pos, uint8_t dir, uint8_t steps, uint16_t min, uint16_t max,
                     uint16_t ceiling, uint8_t down_dir, uint8_t up_dir, uint8_t last_dir,
                     uint16_t backlash) {
    if (steps == 0)
        return {pos, pos, last_dir, 0, false};
    if (steps > kMaxStepsPerMove)
        steps = kMaxStepsPerMove;
    const int32_t p = pos;
    uint8_t motor_dir = 0;
    int32_t next = p;
    switch (dir) {
        case 0:
            motor_dir = down_dir;
            steps = available(steps, p - min);
            next = p - steps;
            break;
        case 1:
            motor_dir = up_dir;
            steps = available(steps, max - p);
            next = p + steps;
            break;
        case 2:
            motor_dir = down_dir;
            steps = available(steps, p);
            next = p - steps;
            break;
        default:
            motor_dir = up_dir;
            steps = available(steps, ceiling - p);
            next = p + steps;
            break;
    }
    const bool reverses = steps > 0 && motor_dir != last_dir;
    const uint8_t motor_steps = reverses ? static_cast<uint8_t>(steps + backlash) : steps;
    return {pos, static_cast<uint16_t>(next), motor_dir, motor_steps, reverses};
}

// Takes over a planned move that the driver started. A homing on the command thread that set the
// count while the move was on its way has the last word: its count is where the lens is.
void channel_commit(const Channel& c, std::atomic<uint16_t>& pos, uint8_t& last_dir) {
    uint16_t expected = c.old_pos;
    pos.compare_exchange_strong(expected, c.new_pos);
    if (c.reverses)
        last_dir = c.motor_dir;
}

void map_speed_device() {
    if (g_lens.speed_map != nullptr) {
        munmap(g_lens.speed_map, kSpeedDeviceSize);
        g_lens.speed_map = nullptr;
    }
    platform::Path path(kSpeedDevice);
    const int fd = open(path.c_str(), O_RDWR | O_CREAT, 0777);
    if (fd < 0)
        return;
    const uint8_t zero = 0;
    void* map = MAP_FAILED;
    if (pwrite(fd, &zero, 1, kSpeedDeviceSize) == 1) {
        map = mmap(nullptr, kSpeedDeviceSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    }
    close(fd);
    if (map != MAP_FAILED)
        g_lens.speed_map = static_cast<uint8_t*>(map);
}

void publish_speed_table() {
    uint8_t* m = g_lens.speed_map;
    m[0] = 30;
    for (int i = 0; i < 30; ++i)
        m[1 + i] = kSpeed17Steps[i];
    m[65] = 10;
    for (int i = 0; i < 10; ++i) {
        m[66 + 2 * i] = static_cast<uint8_t>(kZoomBands[i] & 0xFF);
        m[67 + 2 * i] = static_cast<uint8_t>(kZoomBands[i] >> 8);
    }
    m[130] = 0;
    g_lens.speed_published = true;
}

}  // namespace

uint8_t lens_move(uint8_t zoom_dir, uint8_t zoom_steps, uint8_t focus_dir, uint8_t focus_steps) {
    if (zoom_steps == 0 && focus_steps == 0)
        return 1;
    if ((zoom_steps != 0 && zoom_dir > 3) || (focus_steps != 0 && focus_dir > 3))
        return 1;
    // The zoom motor turns the other way round: motor direction 1 lowers the zoom position.
    const Channel z =
        channel_plan(g_lens.zoom, zoom_dir, zoom_steps, g_lens.zoom_min, g_lens.zoom_max,
                     kZoomTravelLimit, 1, 0, g_lens.zoom_dir, g_lens.zoom_backlash);
    const Channel f =
        channel_plan(g_lens.focus, focus_dir, focus_steps, g_lens.focus_min, g_lens.focus_max,
                     g_lens.focus_ceiling, 0, 1, g_lens.focus_dir, g_lens.focus_backlash);
    // The counts are the only record of where the lens stands, so they take over only the moves
    // the driver really started. A channel it dropped (stuck busy) keeps its count and its
    // remembered direction: the motor did not turn, so the next reversal still owes the backlash.
    lens_take_dropped();
    lens_ops().move_both(z.motor_dir, z.motor_steps, f.motor_dir, f.motor_steps);
    const uint8_t dropped = lens_take_dropped();
    if ((dropped & kMoveZoomDropped) == 0)
        channel_commit(z, g_lens.zoom, g_lens.zoom_dir);
    if ((dropped & kMoveFocusDropped) == 0)
        channel_commit(f, g_lens.focus, g_lens.focus_dir);
    return dropped != 0 ? kMoveDropped : 0;
}

void lens_apply_parameters() {
    if (lens_param_get(kParValid) != kLensParamValid)
        return;
    if (complementary(kParZoomMax))
        lens_set_zoom_max(lens_param_get(kParZoomMax));
    if (complementary(kParZoomMin))
        lens_set_zoom_min(lens_param_get(kParZoomMin));
    const uint32_t home = lens_param_get(kParFocusHome);
    const uint32_t top = home + lens_param_get(kParFocusSpan);
    if (complementary(kParFocusHome) && complementary(kParFocusSpan) && top > 5849 && top < 6351) {
        g_lens.focus_home = static_cast<uint16_t>(home);
        g_lens.focus_max = static_cast<uint16_t>(top);
    } else {
        g_lens.focus_home = kDefaultFocusHome;
        g_lens.focus_max = kDefaultFocusMax;
    }
}

uint16_t lens_get_zoom_pos() {
    return g_lens.zoom;
}
uint16_t lens_get_focus_pos() {
    return g_lens.focus;
}
void lens_set_positions(uint16_t zoom, uint16_t focus) {
    g_lens.zoom = zoom;
    g_lens.focus = focus;
}
void lens_clear_directions() {
    g_lens.zoom_dir = 0;
    g_lens.focus_dir = 0;
}

uint16_t lens_get_zoom_min() {
    return g_lens.zoom_min;
}
uint16_t lens_get_zoom_max() {
    return g_lens.zoom_max;
}
uint8_t lens_set_zoom_max(uint16_t value) {
    if (value > kZoomTravelLimit)
        return 1;
    g_lens.zoom_max = value;
    lens_param_set(kParZoomMax, value);
    lens_param_set(kParZoomMax + 1, static_cast<uint16_t>(~value));
    return 0;
}
uint8_t lens_set_zoom_min(uint16_t value) {
    if (value > g_lens.zoom_max)
        return 1;
    g_lens.zoom_min = value;
    lens_param_set(kParZoomMin, value);
    lens_param_set(kParZoomMin + 1, static_cast<uint16_t>(~value));
    return 0;
}
uint16_t lens_get_focus_min() {
    return g_lens.focus_min;
}
uint16_t lens_get_focus_max() {
    return g_lens.focus_max;
}
uint16_t lens_get_focus_home() {
    return g_lens.focus_home;
}
uint16_t lens_get_focus_ceiling() {
    return g_lens.focus_ceiling;
}

void lens_set_focus_backlash(uint16_t steps) {
    g_lens.focus_backlash = steps;
    std::printf("focus offset %d\n", steps);
    std::fflush(stdout);
}
void lens_set_zoom_backlash(uint16_t steps) {
    g_lens.zoom_backlash = steps;
    std::printf("zoom offset %d\n", steps);
    std::fflush(stdout);
}
uint16_t lens_get_focus_backlash() {
    return g_lens.focus_backlash;
}
uint16_t lens_get_zoom_backlash() {
    return g_lens.zoom_backlash;
}

uint8_t zoom_speed_steps(uint8_t speed, uint8_t fallback) {
    if (!g_lens.speed_published)
        map_speed_device();
    if (speed == 0)
        return fallback;
    if (speed > 8)
        speed = 8;
    uint8_t band = 10;
    for (uint8_t i = 0; i < 10; ++i) {
        if (g_lens.zoom <= kZoomBands[i]) {
            band = i;
            break;
        }
    }
    const uint8_t offset = static_cast<uint8_t>((8 - speed) * 2);
    if (g_lens.speed_map != nullptr && !g_lens.speed_published)
        publish_speed_table();
    return speed == 8 ? kSpeed8Steps[offset + band] : kSpeed17Steps[offset + band];
}

void lens_position_reset_for_testing() {
    if (g_lens.speed_map != nullptr)
        munmap(g_lens.speed_map, kSpeedDeviceSize);
    const LensPosition fresh;
    g_lens.zoom = 0;
    g_lens.focus = 0;
    g_lens.zoom_max = fresh.zoom_max;
    g_lens.zoom_min = fresh.zoom_min;
    g_lens.focus_min = fresh.focus_min;
    g_lens.focus_max = fresh.focus_max;
    g_lens.focus_home = fresh.focus_home;
    g_lens.focus_ceiling = fresh.focus_ceiling;
    g_lens.zoom_backlash = fresh.zoom_backlash;
    g_lens.focus_backlash = fresh.focus_backlash;
    g_lens.zoom_dir = 0;
    g_lens.focus_dir = 0;
    g_lens.speed_map = nullptr;
    g_lens.speed_published = false;
}
