#include "command/motion_command.h"

namespace {
void put16(uint8_t* p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v & 0xFF);
    p[1] = static_cast<uint8_t>(v >> 8);
}
uint16_t get16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}
}  // namespace

void motion_command_encode(const MotionCommand& m, uint8_t* out) {
    out[0] = m.mode;
    out[1] = m.focus_speed;
    out[2] = m.zoom_speed;
    out[3] = m.focus_dir;
    out[4] = m.zoom_dir;
    out[5] = m.reserved[0];
    out[6] = m.reserved[1];
    out[7] = m.reserved[2];
    put16(out + 8, m.zoom_target);
    put16(out + 10, m.focus_target);
    out[12] = m.move;
    out[13] = m.autofocus_mode;
    out[14] = m.zone_type;
    out[15] = m.region;
    put16(out + 16, m.ezoom_target);
}

MotionCommand motion_command_decode(const uint8_t* in) {
    MotionCommand m{};
    m.mode = in[0];
    m.focus_speed = in[1];
    m.zoom_speed = in[2];
    m.focus_dir = in[3];
    m.zoom_dir = in[4];
    m.reserved[0] = in[5];
    m.reserved[1] = in[6];
    m.reserved[2] = in[7];
    m.zoom_target = get16(in + 8);
    m.focus_target = get16(in + 10);
    m.move = in[12];
    m.autofocus_mode = in[13];
    m.zone_type = in[14];
    m.region = in[15];
    m.ezoom_target = get16(in + 16);
    return m;
}
