// Builds raw statistics replies for the ISP tests: six arrays of 225 little-endian u32 after the
// 12-byte header, as the ISP service sends them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "data/frame_stamp.h"
#include "isp/af_stat.h"

namespace isptest {

enum class Field { kLuma, kFirV, kFirH, kIir1, kIir2, kHighlight };

class StatFrame {
  public:
    StatFrame() : bytes_(kAfStatFrameSize, 0) {}

    static std::size_t offset(Field f) {
        switch (f) {
            case Field::kLuma:
                return kAfStatLumaOffset;
            case Field::kFirV:
                return kAfStatFirVOffset;
            case Field::kFirH:
                return kAfStatFirHOffset;
            case Field::kIir1:
                return kAfStatIir1Offset;
            case Field::kIir2:
                return kAfStatIir2Offset;
            case Field::kHighlight:
                return kAfStatHighlightOffset;
        }
        return 0;
    }

    StatFrame& set(Field f, int r, int c, uint32_t v) {
        put(offset(f) + 4 * static_cast<std::size_t>(r * 15 + c), v);
        return *this;
    }
    StatFrame& fill(Field f, uint32_t v) {
        for (int i = 0; i < 225; ++i)
            put(offset(f) + 4 * static_cast<std::size_t>(i), v);
        return *this;
    }
    // Sets fir_v and iir1 so that the block's sharpness (fir_v + iir1) / 2 is s.
    StatFrame& sharp(int r, int c, uint32_t s) {
        set(Field::kFirV, r, c, s);
        return set(Field::kIir1, r, c, s);
    }
    StatFrame& stamp(uint32_t seq, uint64_t time_us) {
        afdata::frame_stamp_encode({seq, time_us}, bytes_.data());
        return *this;
    }
    StatFrame& raw_word(std::size_t word, uint32_t v) {
        put(4 * word, v);
        return *this;
    }

    const uint8_t* data() const { return bytes_.data(); }
    const std::vector<uint8_t>& bytes() const { return bytes_; }

  private:
    void put(std::size_t off, uint32_t v) {
        for (int i = 0; i < 4; ++i)
            bytes_[off + i] = static_cast<uint8_t>(v >> (8 * i));
    }
    std::vector<uint8_t> bytes_;
};

}  // namespace isptest
