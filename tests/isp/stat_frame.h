// Builds raw statistics replies for the ISP tests: six arrays of 225 little-endian u32 after the
// 12-byte header, as the ISP service sends them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "isp/af_stat.h"

namespace isptest {

enum class Field { kLuma, kFirV, kFirH, kIir1, kIir2, kHighlight };

class StatFrame {
  public:
    StatFrame() : bytes_(kAfStatFrameSize, 0) {}

    StatFrame& set(Field f, int r, int c, uint32_t v) {
        static constexpr std::size_t kOffsets[] = {kAfStatLumaOffset, kAfStatFirVOffset,
                                                   kAfStatFirHOffset, kAfStatIir1Offset,
                                                   kAfStatIir2Offset, kAfStatHighlightOffset};
        return put(kOffsets[static_cast<int>(f)] + 4 * static_cast<std::size_t>(r * 15 + c), v);
    }
    StatFrame& fill(Field f, uint32_t v) {
        for (int i = 0; i < 225; ++i)
            set(f, i / 15, i % 15, v);
        return *this;
    }
    // Sets fir_v and iir1 so that the block's sharpness (fir_v + iir1) / 2 is s.
    StatFrame& sharp(int r, int c, uint32_t s) {
        return set(Field::kFirV, r, c, s).set(Field::kIir1, r, c, s);
    }
    StatFrame& raw_word(std::size_t word, uint32_t v) { return put(4 * word, v); }

    const uint8_t* data() const { return bytes_.data(); }
    const std::vector<uint8_t>& bytes() const { return bytes_; }

  private:
    StatFrame& put(std::size_t off, uint32_t v) {
        for (int i = 0; i < 4; ++i)
            bytes_[off + i] = static_cast<uint8_t>(v >> (8 * i));
        return *this;
    }
    std::vector<uint8_t> bytes_;
};

}  // namespace isptest
