// Zoom-focus curves and the distance table on the committed lens data.
#include "tracking/curves.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "data/lens_tables.h"
#include "lens_api/lc898201.h"
#include "lens_api/lens_position.h"
#include "tests/support/test_env.h"
#include "tracking/distance_table.h"

namespace {

void write_curve(const testsupport::SandboxRoot& root, const std::vector<uint16_t>& v) {
    std::string path = root.host("/data/curve.dat");
    std::string dir = root.host("/data");
    std::system(("mkdir -p " + dir).c_str());
    FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    for (uint16_t x : v) {
        unsigned char b[2] = {static_cast<unsigned char>(x & 0xFF),
                              static_cast<unsigned char>(x >> 8)};
        std::fwrite(b, 1, 2, f);
    }
    std::fclose(f);
}

std::vector<uint16_t> file_with(uint16_t marker, uint16_t r0) {
    std::vector<uint16_t> v(kCurvePoints, 0);
    v[0] = r0;
    v[kCurvePoints - 1] = marker;
    return v;
}

class CurveTest : public ::testing::Test {
  protected:
    void SetUp() override {
        lens_set_positions(0, 0);
        set_calibration_offset(0);
    }
    void TearDown() override {
        lens_set_positions(0, 0);
        set_calibration_offset(0);
    }
    static std::string load() {
        return testsupport::capture_stdout([] { EXPECT_EQ(curve_load(), 1); });
    }
    testsupport::SandboxRoot root_;
};

TEST_F(CurveTest, NoFileBuildsTheDefaultShapeAroundSixThousand) {
    const std::string out = load();
    EXPECT_NE(out.find("Curve File is not exist \n"), std::string::npos);
    EXPECT_EQ(curve_get_point(0), 6000);
    for (uint16_t s = 1; s < kCurvePoints; ++s) {
        const uint16_t shape = afdata::kDefaultCurveShape[s];
        EXPECT_EQ(curve_get_point(s), shape >= 19 ? shape - 19 : 0) << s;
    }
    EXPECT_EQ(curve_get_anchor_zoom(), 0);
    EXPECT_EQ(curve_get_anchor_focus(), 6000);
}

TEST_F(CurveTest, LoadLogsEveryPointSixteenToALine) {
    const std::string out = load();
    const size_t start = out.find("6000,");
    ASSERT_NE(start, std::string::npos) << out;
    const std::string body = out.substr(start - 0);
    EXPECT_EQ(body.substr(0, 10), "6000,5988,");
    int lines = 0;
    for (char c : body)
        lines += c == '\n';
    EXPECT_EQ(lines, 14) << "13 full lines of 16, one of 1, and the final break";
}

TEST_F(CurveTest, ReferencePointAtFactoryValueGivesTheFactoryShape) {
    write_curve(root_, file_with(0xAA55, kCurveReferenceFocus));
    load();
    for (uint16_t s = 0; s < kCurvePoints; ++s) {
        const uint16_t shape = afdata::kDefaultCurveShape[s];
        EXPECT_EQ(curve_get_point(s), shape > lens_get_focus_max() ? lens_get_focus_max() : shape)
            << s;
    }
}

TEST_F(CurveTest, HalfStepReferencePointIsDoubled) {
    write_curve(root_, file_with(0xAA55, 3000));
    load();
    EXPECT_EQ(curve_get_point(0), 6000);
    EXPECT_EQ(curve_get_point(50), afdata::kDefaultCurveShape[50] - 19);
}

TEST_F(CurveTest, ReferencePointCarriesPackedHallValues) {
    std::vector<uint16_t> v = file_with(0xAA55, kCurveReferenceFocus);
    v[1] = static_cast<uint16_t>((40 << 8) | (255 - 40));  // valid: 40 + 215 = 255
    v[2] = static_cast<uint16_t>((60 << 8) | 10);          // invalid packing: ignored
    write_curve(root_, v);
    LcSettings before = lc_get_settings();
    before.bias_offset = 33;
    before.iris_offset = 176;
    lc_set_settings(before);
    load();  // the chip is absent here: its register writes fail quietly into captured output
    EXPECT_EQ(lc_get_settings().iris_offset, 40);
    EXPECT_EQ(lc_get_settings().bias_offset, 33) << "an invalid packing leaves the bias alone";
}

TEST_F(CurveTest, FullFormIsKeptAsReadAndHalfStepUnitsDoubled) {
    std::vector<uint16_t> v = file_with(0xAA44, 5000);
    for (int s = 1; s < kCurvePoints - 1; ++s)
        v[s] = static_cast<uint16_t>(5000 - 20 * s);
    write_curve(root_, v);
    load();
    EXPECT_EQ(curve_get_point(0), 5000);
    EXPECT_EQ(curve_get_point(100), 3000);

    for (int s = 0; s < kCurvePoints - 1; ++s)
        v[s] = static_cast<uint16_t>(v[s] / 2);
    write_curve(root_, v);
    load();
    EXPECT_EQ(curve_get_point(0), 5000);
    EXPECT_EQ(curve_get_point(100), 3000);
    EXPECT_EQ(curve_get_point(kCurvePoints - 1), 0xAA44) << "the marker is not doubled";
}

TEST_F(CurveTest, ShortFileCountsAsMissing) {
    std::vector<uint16_t> v = file_with(0xAA44, 5000);
    v.resize(100);
    write_curve(root_, v);
    const std::string out = load();
    EXPECT_NE(out.find("Curve File is not exist"), std::string::npos);
    EXPECT_EQ(curve_get_point(0), 6000);
}

TEST_F(CurveTest, BaseCurveInterpolationTruncatesAsTheBoardDoes) {
    load();
    curve_set_point(1, 6007);
    curve_set_point(2, 5995);
    EXPECT_EQ(curve_focus_at(0, 33), 6007) << "6007 - 12/32";
    EXPECT_EQ(curve_focus_at(0, 32), 6007);
    EXPECT_EQ(curve_focus_at(0, 63), 6007 - (31 * 12) / 32);
    curve_set_point(1, 100);
    curve_set_point(2, 164);
    EXPECT_EQ(curve_focus_at(0, 47), 130) << "rising segments round: 100 + (15*64+16)/32";
}

TEST_F(CurveTest, FarCurvesAddTheirOffsetRow) {
    load();
    const auto& O = afdata::kFarCurveOffsets;
    for (uint8_t c : {1, 10, 25, 51}) {
        for (uint16_t s : {0, 50, 100, 150, 200}) {
            EXPECT_EQ(curve_focus_at(c, static_cast<uint16_t>(32 * s)),
                      curve_get_point(s) + O[c - 1][s])
                << "curve " << int(c) << " step " << s;
        }
    }
    // Between samples the offset is carried from the lower sample and the slope from both.
    const uint16_t s = 120;
    const int32_t a = curve_get_point(s) + O[50][s];
    const int32_t b = curve_get_point(s + 1) + O[50][s + 1];
    const int32_t t = (16 * (a > b ? a - b : b - a)) / 32;
    const int32_t expect =
        b <= a ? curve_get_point(s) - t + O[50][s] : curve_get_point(s) + t + O[50][s];
    EXPECT_EQ(curve_focus_at(51, static_cast<uint16_t>(32 * s + 16)), expect);
    EXPECT_GE(curve_focus_at(51, 3000), curve_focus_at(1, 3000)) << "far curves lie farther out";
}

TEST_F(CurveTest, FarCurveSlopeIsLimitedByTheFocusMaximum) {
    load();
    // Both samples beyond the focus maximum: no slope at all between them.
    curve_set_point(10, 6200);
    curve_set_point(11, 6300);
    const uint16_t o = afdata::kFarCurveOffsets[0][10];
    EXPECT_EQ(curve_focus_at(1, 10 * 32 + 16), 6200 + o);
}

TEST_F(CurveTest, SearchBoundsSpanNearestDistanceToFarthestCurve) {
    load();
    const uint16_t fmax = lens_get_focus_max();
    for (uint16_t s = 0; s < kCurvePoints; s += 13) {
        EXPECT_EQ(curve_get_lower_bound(s), expected_focus_at(20, static_cast<uint16_t>(32 * s)));
        const uint32_t o50 = afdata::kFarCurveOffsets[50][s];
        const uint32_t m = o50 < 100 ? 100 : (o50 > 300 ? 300 : o50);
        const uint32_t up = curve_get_point(s) + o50 + m / 2;
        EXPECT_EQ(curve_get_upper_bound(s), up >= fmax ? fmax : up) << s;
        EXPECT_LT(curve_get_lower_bound(s), curve_get_upper_bound(s)) << s;
    }
    EXPECT_EQ(curve_get_upper_bound(0), curve_get_point(0) + afdata::kFarCurveOffsets[50][0] + 50);
    curve_set_point(0, 6100);
    curve_rebuild_bounds();
    EXPECT_EQ(curve_get_upper_bound(0), fmax) << "6100 + 13 + 50 passes the focus maximum";
}

TEST_F(CurveTest, AnchorFollowsTheLensOnlyNearTheWideEnd) {
    load();
    lens_set_positions(150, 5800);
    curve_anchor(1);
    EXPECT_EQ(curve_get_anchor_zoom(), 150);
    EXPECT_EQ(curve_get_anchor_focus(), 5800);
    lens_set_positions(200, 5700);
    curve_anchor(1);
    EXPECT_EQ(curve_get_anchor_zoom(), 150) << "zoom 200 is past the wide-end range";
    curve_anchor(0);
    EXPECT_EQ(curve_get_anchor_zoom(), 0);
    EXPECT_EQ(curve_get_anchor_focus(), curve_get_point(0));
}

// ---- Distance table ----

TEST_F(CurveTest, ReferenceDistanceHasNoOffset) {
    load();
    for (uint16_t z = 0; z <= 6624; z += 97) {
        lens_set_positions(z, 0);
        EXPECT_EQ(focus_offset(1000), 0) << z;
        EXPECT_EQ(focus_offset_at(1000, z), 0) << z;
    }
    set_calibration_offset(-7);
    lens_set_positions(3200, 0);
    EXPECT_EQ(expected_focus(1000), curve_get_point(100) - 7);
}

TEST_F(CurveTest, DistanceOffsetsMatchTheLensData) {
    load();
    struct Case {
        uint16_t d;
        uint16_t s;
        int16_t off;
    };
    // Keys below 65536 that lie on table rows.
    const Case cases[] = {{3000, 0, 9},    {3000, 100, 41},   {3000, 208, 814}, {500, 0, -12},
                          {500, 100, -56}, {500, 208, -1095}, {100, 100, -351}, {30, 208, -2920}};
    for (const Case& c : cases) {
        EXPECT_EQ(focus_offset_at(c.d, static_cast<uint16_t>(32 * c.s)), c.off)
            << c.d << " at step " << c.s;
        lens_set_positions(static_cast<uint16_t>(32 * c.s), 0);
        EXPECT_EQ(focus_offset(c.d), c.off) << c.d << " at step " << c.s;
    }
}

TEST_F(CurveTest, FarthestDistanceInterpolatesBetweenTheTwoFarRows) {
    load();
    const int32_t a = afdata::kDistanceTable[0].offset[100];  // 100000
    const int32_t b = afdata::kDistanceTable[1].offset[100];  // 50000
    ASSERT_EQ(afdata::kDistanceTable[1].key, 50000u);
    lens_set_positions(3200, 0);
    EXPECT_EQ(focus_offset(65535), b + (a - b) * (65535 - 50000) / 50000);
    EXPECT_EQ(focus_offset_at(65535, 3200), a - (a - b) * (100000 - 65535) / 50000);
}

TEST_F(CurveTest, NearerThanTheTableTakesTheNearestRow) {
    load();
    EXPECT_EQ(focus_offset_at(20, 0), -220);
    EXPECT_EQ(focus_offset_at(0, 208 * 32), -2920);
    lens_set_positions(100 * 32, 0);
    EXPECT_EQ(focus_offset(20), -644);
}

TEST_F(CurveTest, ExpectedFocusNeverGoesNegative) {
    load();
    for (uint16_t s = 0; s < kCurvePoints; ++s)
        curve_set_point(s, 100);
    EXPECT_EQ(expected_focus_at(20, 6000), 0);
    lens_set_positions(6000, 0);
    EXPECT_EQ(expected_focus(20), 0);
    set_calibration_offset(15);
    EXPECT_EQ(expected_focus_at(1000, 6000), 115);
}

TEST_F(CurveTest, ExpectedFocusInterpolatesTheBaseCurveAlongZoom) {
    load();
    curve_set_point(10, 5000);
    curve_set_point(11, 4900);
    lens_set_positions(10 * 32 + 8, 0);
    EXPECT_EQ(expected_focus(1000), 5000 - 100 * 8 / 32);
}

}  // namespace
