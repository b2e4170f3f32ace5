#include "sim/isp_records.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace vcam {

void put_f32(uint8_t* p, float v) {
    uint32_t u = 0;
    std::memcpy(&u, &v, sizeof u);
    put_u32(p, u);
}

float get_f32(const uint8_t* p) {
    const uint32_t u = get_u32(p);
    float v = 0.0f;
    std::memcpy(&v, &u, sizeof v);
    return v;
}

void encode_frame(const BlockStats& s, const afdata::FrameStamp& stamp, uint8_t* out) {
    std::memset(out, 0, kStatFrameSize);
    afdata::frame_stamp_encode(stamp, out);
    auto put = [out](std::size_t word, const BlockValues& v) {
        for (int b = 0; b < kBlocks; ++b) {
            const double x = std::clamp(std::round(v[b]), 0.0, 4294967280.0);
            put_u32(out + 4 * (word + static_cast<std::size_t>(b)), static_cast<uint32_t>(x));
        }
    };
    put(kLumaWord, s.luma);
    put(kFirVWord, s.fir_v);
    put(kFirHWord, s.fir_h);
    put(kIir1Word, s.iir1);
    put(kIir2Word, s.iir2);
    put(kHighlightWord, s.highlight);
}

void default_af_attr(uint8_t* out) {
    std::memset(out, 0, kAfAttrSize);
    out[69] = 15;   // first AF window constant
    out[198] = 19;  // second (s16), the first coefficient of the last group
    out[kAttrFilterC] = 60;
    out[kAttrFilterD] = 80;
    out[kAttrFilterA] = 1;
    out[kAttrFilterB] = 2;
}

FilterParams decode_filter(const uint8_t* attr) {
    return FilterParams{attr[kAttrFilterA], attr[kAttrFilterB], get_u16(attr + kAttrFilterC),
                        get_u16(attr + kAttrFilterD)};
}

uint64_t fnv1a(const uint8_t* p, std::size_t n) {
    uint64_t h = 0xCBF29CE484222325ULL;
    for (std::size_t i = 0; i < n; ++i) {
        h ^= p[i];
        h *= 0x100000001B3ULL;
    }
    return h;
}

}  // namespace vcam
