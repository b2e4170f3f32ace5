// The 12-byte header of a statistics frame is not read by the ISP consumer on the camera. The
// virtual camera fills it with a frame stamp so that a daemon running on virtual time can follow
// the frame clock exactly:
//   bytes 0..3   u32 frame sequence number (little-endian)
//   bytes 4..11  u64 capture time of the frame, microseconds on the virtual time line
// A real ISP leaves the header zero or undefined; only a daemon in virtual-clock mode reads it.
#pragma once

#include <cstddef>
#include <cstdint>

namespace afdata {

inline constexpr std::size_t kFrameStampSize = 12;

struct FrameStamp {
    uint32_t sequence;
    uint64_t time_us;
};

inline void frame_stamp_encode(const FrameStamp& s, uint8_t* out) {
    for (int i = 0; i < 4; ++i)
        out[i] = static_cast<uint8_t>(s.sequence >> (8 * i));
    for (int i = 0; i < 8; ++i)
        out[4 + i] = static_cast<uint8_t>(s.time_us >> (8 * i));
}

inline FrameStamp frame_stamp_decode(const uint8_t* in) {
    FrameStamp s{0, 0};
    for (int i = 0; i < 4; ++i)
        s.sequence |= static_cast<uint32_t>(in[i]) << (8 * i);
    for (int i = 0; i < 8; ++i)
        s.time_us |= static_cast<uint64_t>(in[4 + i]) << (8 * i);
    return s;
}

// Shared virtual-time page. In virtual-clock mode the daemon publishes its current virtual time
// here (one little-endian u64, microseconds) so that the virtual camera can answer a frame request
// with the first frame that starts after the daemon's "now", exactly as a real sensor would when
// the daemon was late. The file path is given to both programs by the environment.
inline constexpr const char* kVirtualClockEnv = "AFD_VCLOCK_FILE";
inline constexpr std::size_t kVirtualClockFileSize = 8;

}  // namespace afdata
