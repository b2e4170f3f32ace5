// The ISP service's wire records, little-endian and packed, as the daemon reads them:
//   statistics frame   5504 bytes: 12-byte frame stamp, then luma, fir_v, fir_h, iir1, iir2 and
//                      highlight, 225 u32 each, then 23 unused words
//   AF attribute record 264 bytes: kept as written by the client; the filter parameters
//                      C (u16 @226), D (u16 @228), A (u8 @230), B (u8 @232) select the profile
//   exposure record    292 bytes: floats brightness (word 2), exposure time (word 11), gain
//                      (word 12); informational words 20..22 (see exposure.h)
#pragma once

#include <cstddef>
#include <cstdint>

#include "data/frame_stamp.h"
#include "sim/optics.h"

namespace vcam {

inline constexpr std::size_t kStatFrameSize = 5504;
inline constexpr std::size_t kAfAttrSize = 264;
inline constexpr std::size_t kExposureRecordSize = 292;

// Word offsets of the six block arrays in the statistics frame.
inline constexpr std::size_t kLumaWord = 3;
inline constexpr std::size_t kFirVWord = 228;
inline constexpr std::size_t kFirHWord = 453;
inline constexpr std::size_t kIir1Word = 678;
inline constexpr std::size_t kIir2Word = 903;
inline constexpr std::size_t kHighlightWord = 1128;

// Offsets of the filter parameters in the AF attribute record.
inline constexpr std::size_t kAttrFilterC = 226;
inline constexpr std::size_t kAttrFilterD = 228;
inline constexpr std::size_t kAttrFilterA = 230;
inline constexpr std::size_t kAttrFilterB = 232;

struct FilterParams {
    uint8_t a;
    uint8_t b;
    uint16_t c;
    uint16_t d;
};

inline void put_u32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<uint8_t>(v >> (8 * i));
}
inline uint32_t get_u32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}
inline uint16_t get_u16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | p[1] << 8);
}
void put_f32(uint8_t* p, float v);
float get_f32(const uint8_t* p);

// Quantises the statistics to u32 (rounded, never negative) and writes the whole frame.
void encode_frame(const BlockStats& s, const afdata::FrameStamp& stamp, uint8_t* out);

// The record the ISP boots with: zero except the window constants the daemon prints at set-up
// and the low-noise filter parameters.
void default_af_attr(uint8_t* out);
FilterParams decode_filter(const uint8_t* attr);

// 64-bit FNV-1a over a buffer (frame digests in the telemetry).
uint64_t fnv1a(const uint8_t* p, std::size_t n);

}  // namespace vcam
