// The motion command record of the command channel: 18 bytes on the wire, little-endian, packed.
#pragma once

#include <cstddef>
#include <cstdint>

struct MotionCommand {
    uint8_t mode;            // motion mode 0..7; 8..16 are sub-commands in a write
    uint8_t focus_speed;     // index 0..7 into the focus speed table
    uint8_t zoom_speed;      // zoom speed, clamped to 8
    uint8_t focus_dir;       // 1 towards the focus end in slot 3 of the position record, 0 slot 5
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

// Wire encoding; out and in hold kMotionCommandWireSize bytes.
void motion_command_encode(const MotionCommand& m, uint8_t* out);
MotionCommand motion_command_decode(const uint8_t* in);
