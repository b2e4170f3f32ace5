// Exposure record decoding: any 292 bytes, including NaN, infinities, negative and huge floats,
// must give defined values (the conversions saturate like the board's FPU).
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "isp/isp_link.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    uint8_t rec[kExposureRecordSize] = {};
    std::memcpy(rec, data, size < sizeof rec ? size : sizeof rec);
    const ExposureValues v = isp_decode_exposure(rec);
    volatile uint32_t sink = v.luma ^ v.gain_ratio ^ v.index;
    (void)sink;
    return 0;
}
