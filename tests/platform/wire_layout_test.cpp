// Byte layouts of the records that cross a process boundary, checked against hand-written bytes.
// Every record is little-endian and packed whatever the host is, so these tests fail on a host
// (or a code change) that copies host-endian or padded structs onto the wire.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>

#include "data/frame_stamp.h"

namespace {

using Bytes12 = std::array<uint8_t, afdata::kFrameStampSize>;

// sequence 0x04030201, time 0x0C0B0A0908070605: every byte distinct, so a swapped, shifted or
// misplaced byte shows.
constexpr Bytes12 kDistinctBytes = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06,
                                    0x07, 0x08, 0x09, 0x0A, 0x0B, 0x0C};

TEST(FrameStampLayout, RecordIsTwelveBytes) {
    EXPECT_EQ(afdata::kFrameStampSize, 12u);
}

TEST(FrameStampLayout, EncodesSequenceThenTimeLittleEndian) {
    Bytes12 out{};
    afdata::frame_stamp_encode({0x04030201u, 0x0C0B0A0908070605ull}, out.data());
    EXPECT_EQ(out, kDistinctBytes);
}

TEST(FrameStampLayout, DecodesHandWrittenBytes) {
    const afdata::FrameStamp s = afdata::frame_stamp_decode(kDistinctBytes.data());
    EXPECT_EQ(s.sequence, 0x04030201u);
    EXPECT_EQ(s.time_us, 0x0C0B0A0908070605ull);
}

TEST(FrameStampLayout, EncodesARealisticStamp) {
    // Frame 300 captured 5 s into the virtual time line.
    Bytes12 out{};
    afdata::frame_stamp_encode({300u, 5000000ull}, out.data());
    const Bytes12 expected = {0x2C, 0x01, 0x00, 0x00,                           // 300
                              0x40, 0x4B, 0x4C, 0x00, 0x00, 0x00, 0x00, 0x00};  // 5000000
    EXPECT_EQ(out, expected);
}

TEST(FrameStampLayout, HighBitsSurviveWithoutSignExtension) {
    const Bytes12 ones = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    const afdata::FrameStamp s = afdata::frame_stamp_decode(ones.data());
    EXPECT_EQ(s.sequence, 0xFFFFFFFFu);
    EXPECT_EQ(s.time_us, 0xFFFFFFFFFFFFFFFFull);

    // Only the top byte of each field set: 0x80 must not spread into the neighbouring bytes.
    const Bytes12 tops = {0x00, 0x00, 0x00, 0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x80};
    const afdata::FrameStamp t = afdata::frame_stamp_decode(tops.data());
    EXPECT_EQ(t.sequence, 0x80000000u);
    EXPECT_EQ(t.time_us, 0x8000000000000000ull);
    Bytes12 out{};
    afdata::frame_stamp_encode(t, out.data());
    EXPECT_EQ(out, tops);
}

TEST(FrameStampLayout, WorksAtAnUnalignedOffsetAndTouchesOnlyItsTwelveBytes) {
    // The stamp heads a statistics reply that may sit anywhere in a receive buffer.
    std::array<uint8_t, 16> buf;
    buf.fill(0xEE);
    afdata::frame_stamp_encode({0x04030201u, 0x0C0B0A0908070605ull}, buf.data() + 1);
    EXPECT_EQ(buf[0], 0xEE);
    for (std::size_t i = 0; i < kDistinctBytes.size(); ++i)
        EXPECT_EQ(buf[1 + i], kDistinctBytes[i]) << "byte " << i;
    EXPECT_EQ(buf[13], 0xEE);
    EXPECT_EQ(buf[14], 0xEE);
    EXPECT_EQ(buf[15], 0xEE);

    const afdata::FrameStamp s = afdata::frame_stamp_decode(buf.data() + 1);
    EXPECT_EQ(s.sequence, 0x04030201u);
    EXPECT_EQ(s.time_us, 0x0C0B0A0908070605ull);
}

}  // namespace
