// Wire records of the command channel, shared by the daemon, the control client (afctl) and the
// virtual camera's scripted control peer, so all three encode the datagrams with the same code.
// Every field is little-endian and packed; encoders write bytes one by one, so the layout does not
// depend on the host's alignment or byte order.
#pragma once

#include <cstddef>
#include <cstdint>

// The motion command record: 18 bytes on the wire.
struct MotionCommand {
    uint8_t mode;            // motion mode 0..7; 8..16 are sub-commands in a write
    uint8_t focus_speed;     // index 0..7 into the focus speed table
    uint8_t zoom_speed;      // zoom speed, clamped to 8
    uint8_t focus_dir;       // 1 towards the focus maximum, 0 towards the minimum
    uint8_t zoom_dir;        // 0 towards the minimum zoom, 1 towards the maximum
    uint8_t reserved[3];     // copied, not used
    uint16_t zoom_target;    // target zoom position
    uint16_t focus_target;   // target focus position
    uint8_t move;            // copy of the zoom-motion-active flag
    uint8_t autofocus_mode;  // autofocus_en: 0 off, 1..3
    uint8_t zone_type;       // 1..3 (4 while the type-4 flag is set)
    uint8_t region;          // window preset 0..3
    uint16_t ezoom_target;   // part of the target beyond the optical maximum
};

inline constexpr std::size_t kMotionCommandWireSize = 18;
inline constexpr std::size_t kPositionRecordSize = 16;

namespace afdata {

inline void put_u16(uint8_t* p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v & 0xFF);
    p[1] = static_cast<uint8_t>(v >> 8);
}
inline uint16_t get_u16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}
inline void put_u32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<uint8_t>(v >> (8 * i));
}
inline uint32_t get_u32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

}  // namespace afdata

inline void motion_command_encode(const MotionCommand& m, uint8_t* out) {
    out[0] = m.mode;
    out[1] = m.focus_speed;
    out[2] = m.zoom_speed;
    out[3] = m.focus_dir;
    out[4] = m.zoom_dir;
    out[5] = m.reserved[0];
    out[6] = m.reserved[1];
    out[7] = m.reserved[2];
    afdata::put_u16(out + 8, m.zoom_target);
    afdata::put_u16(out + 10, m.focus_target);
    out[12] = m.move;
    out[13] = m.autofocus_mode;
    out[14] = m.zone_type;
    out[15] = m.region;
    afdata::put_u16(out + 16, m.ezoom_target);
}

inline MotionCommand motion_command_decode(const uint8_t* in) {
    MotionCommand m{};
    m.mode = in[0];
    m.focus_speed = in[1];
    m.zoom_speed = in[2];
    m.focus_dir = in[3];
    m.zoom_dir = in[4];
    m.reserved[0] = in[5];
    m.reserved[1] = in[6];
    m.reserved[2] = in[7];
    m.zoom_target = afdata::get_u16(in + 8);
    m.focus_target = afdata::get_u16(in + 10);
    m.move = in[12];
    m.autofocus_mode = in[13];
    m.zone_type = in[14];
    m.region = in[15];
    m.ezoom_target = afdata::get_u16(in + 16);
    return m;
}

namespace afdata {

// The position record (8 x u16): zoom (+ electronic), focus, max zoom (+ electronic maximum),
// focus maximum, min zoom, focus minimum, electronic zoom, electronic maximum.
struct PositionRecord {
    uint16_t zoom, focus, max_zoom, focus_max, min_zoom, focus_min, ezoom, max_ezoom;
};
inline PositionRecord position_record_decode(const uint8_t* in) {
    PositionRecord r{};
    uint16_t* f[8] = {&r.zoom,     &r.focus,     &r.max_zoom, &r.focus_max,
                      &r.min_zoom, &r.focus_min, &r.ezoom,    &r.max_ezoom};
    for (int i = 0; i < 8; ++i)
        *f[i] = get_u16(in + 2 * i);
    return r;
}

// Builders of the datagrams a control client sends. Each returns the datagram length.
inline std::size_t build_read(uint8_t* out, uint8_t id) {
    out[0] = 'r';
    out[1] = id;
    return 2;
}
inline std::size_t build_motion(uint8_t* out, const MotionCommand& m) {
    out[0] = 'w';
    out[1] = 0;
    motion_command_encode(m, out + 2);
    return 2 + kMotionCommandWireSize;
}
// A sub-command (mode 8..16) with the bytes it uses set by the caller through m.
inline std::size_t build_sub_command(uint8_t* out, uint8_t mode, MotionCommand m) {
    m.mode = mode;
    return build_motion(out, m);
}

}  // namespace afdata
