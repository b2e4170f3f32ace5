// Zoom-focus curves and the distance table on the committed lens data.
#include "tracking/curves.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "data/lens_tables.h"
#include "lens_api/lc898201.h"
#include "lens_api/lens_position.h"
#include "tests/support/test_env.h"
#include "tracking/distance_table.h"

namespace {

using afdata::kDefaultCurveShape;
using afdata::kFarCurveOffsets;

std::vector<uint16_t> file_with(uint16_t marker, uint16_t r0) {
    std::vector<uint16_t> v(kCurvePoints, 0);
    v[0] = r0;
    v[kCurvePoints - 1] = marker;
    return v;
}
// The full form: a point for every zoom step, falling by 20 a step from 5000.
std::vector<uint16_t> full_file() {
    std::vector<uint16_t> v = file_with(0xAA44, 5000);
    for (int s = 1; s < kCurvePoints - 1; ++s)
        v[s] = static_cast<uint16_t>(5000 - 20 * s);
    return v;
}

const afdata::DistanceRow& row_for(uint32_t key) {
    return *std::find_if(std::begin(afdata::kDistanceTable), std::end(afdata::kDistanceTable),
                         [&](const afdata::DistanceRow& r) { return r.key == key; });
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
    // Writes /data/curve.dat (u16 in the host's order, little-endian like the board's); an empty
    // vector removes it.
    void write_curve(const std::vector<uint16_t>& v) {
        const std::string path = root_.host("/data/curve.dat");
        std::filesystem::create_directories(root_.host("/data"));
        std::filesystem::remove(path);
        if (!v.empty())
            std::ofstream(path, std::ios::binary)
                .write(reinterpret_cast<const char*>(v.data()), std::streamsize(2 * v.size()));
    }
    testsupport::SandboxRoot root_;
};

// The reference-point form (and a missing file, taken as reference 6000) gives the factory shape
// shifted by the reference point; the full form is kept as read; half-step units are doubled.
TEST_F(CurveTest, LoadBuildsTheBaseCurveFromEachFileForm) {
    const std::vector<uint16_t> full = full_file();
    std::vector<uint16_t> half = full;
    for (int s = 0; s < kCurvePoints - 1; ++s)
        half[s] = static_cast<uint16_t>(half[s] / 2);
    std::vector<uint16_t> short_file = full;
    short_file.resize(100);
    auto shape_from = [](int r0) {
        return [r0](int s) {
            const int v = s == 0 ? r0 : kDefaultCurveShape[s] + r0 - kCurveReferenceFocus;
            return std::clamp(v, 0, int(lens_get_focus_max()));
        };
    };
    auto as_full = [&](int s) { return full[s]; };  // the marker stays as it is
    const struct {
        const char* what;
        std::vector<uint16_t> file;
        std::function<int(int)> expect;
        bool missing;
    } cases[] = {
        {"no file", {}, shape_from(6000), true},
        {"short file", short_file, shape_from(6000), true},
        {"factory reference", file_with(0xAA55, kCurveReferenceFocus),
         shape_from(kCurveReferenceFocus), false},
        {"half-step reference", file_with(0xAA55, 3000), shape_from(6000), false},
        {"full", full, as_full, false},
        {"half-step full", half, as_full, false},
    };
    for (const auto& c : cases) {
        write_curve(c.file);
        const std::string out = load();
        EXPECT_EQ(out.find("Curve File is not exist") != std::string::npos, c.missing) << c.what;
        for (int s = 0; s < kCurvePoints; ++s) {
            ASSERT_EQ(curve_get_point(static_cast<uint16_t>(s)), c.expect(s))
                << c.what << ", step " << s;
        }
    }
}

// A curve file with a point the focus cannot reach (a corrupted flash page, half-step values
// that double past the range) is not used: the default curve stands in, and the log says why.
TEST_F(CurveTest, PointBeyondTheFocusRangeFallsBackToTheDefaultCurve) {
    for (const uint16_t bad : {uint16_t(65535), uint16_t(lens_get_focus_max() + 1)}) {
        std::vector<uint16_t> full = full_file();
        full[100] = bad;
        write_curve(full);
        const std::string out = load();
        EXPECT_NE(out.find("beyond the focus range"), std::string::npos) << bad;
        EXPECT_EQ(curve_get_point(0), 6000) << "the missing-file reference, for " << bad;
        EXPECT_LE(curve_get_point(100), lens_get_focus_max()) << bad;
    }
    std::vector<uint16_t> half = file_with(0xAA44, 3000);
    for (int s = 1; s < kCurvePoints - 1; ++s)
        half[s] = 3000;
    half[7] = static_cast<uint16_t>(lens_get_focus_max() / 2 + 1);  // doubles past the range
    write_curve(half);
    EXPECT_NE(load().find("beyond the focus range"), std::string::npos);
    EXPECT_EQ(curve_get_point(0), 6000);
    // The reference-point form: only its reference point is a position, and the Hall values of a
    // file not used are not used either. A half-step reference below 2250 is doubled twice, which
    // takes the curve out of the range.
    const uint8_t iris_offset = lc_get_settings().iris_offset;
    for (const uint16_t r0 : {uint16_t(59779), uint16_t(1788)}) {
        std::vector<uint16_t> v = file_with(0xAA55, r0);
        v[1] = static_cast<uint16_t>((40 << 8) | (255 - 40));
        write_curve(v);
        EXPECT_NE(load().find("beyond the focus range"), std::string::npos) << r0;
        EXPECT_EQ(curve_get_point(0), 6000) << r0;
        EXPECT_EQ(lc_get_settings().iris_offset, iris_offset) << r0;
    }
}

TEST_F(CurveTest, ReferencePointCarriesPackedHallValues) {
    std::vector<uint16_t> v = file_with(0xAA55, kCurveReferenceFocus);
    v[1] = static_cast<uint16_t>((40 << 8) | (255 - 40));  // valid: 40 + 215 = 255
    v[2] = static_cast<uint16_t>((60 << 8) | 10);          // invalid packing: ignored
    write_curve(v);
    LcSettings before = lc_get_settings();
    before.bias_offset = 33;
    before.iris_offset = 176;
    lc_set_settings(before);
    load();  // the chip is absent here: its register writes fail quietly into captured output
    EXPECT_EQ(lc_get_settings().iris_offset, 40);
    EXPECT_EQ(lc_get_settings().bias_offset, 33) << "an invalid packing leaves the bias alone";
}

TEST_F(CurveTest, BaseCurveInterpolationTruncatesAsTheBoardDoes) {
    load();
    curve_set_point(1, 6007);
    curve_set_point(2, 5995);
    EXPECT_EQ(curve_focus_at(0, 32), 6007);
    EXPECT_EQ(curve_focus_at(0, 33), 6007) << "6007 - 12/32";
    EXPECT_EQ(curve_focus_at(0, 63), 6007 - (31 * 12) / 32);
    curve_set_point(1, 100);
    curve_set_point(2, 164);
    EXPECT_EQ(curve_focus_at(0, 47), 130) << "rising segments round: 100 + (15*64+16)/32";
}

TEST_F(CurveTest, FarCurvesAddTheirOffsetRow) {
    load();
    for (uint8_t c : {1, 10, 25, 51}) {
        for (uint16_t s : {0, 50, 100, 150, 200}) {
            EXPECT_EQ(curve_focus_at(c, static_cast<uint16_t>(32 * s)),
                      curve_get_point(s) + kFarCurveOffsets[c - 1][s])
                << "curve " << int(c) << " step " << s;
        }
    }
    // On a flat stretch of the base curve, half way between samples is half the offset's rise.
    const uint16_t* o = kFarCurveOffsets[50];
    curve_set_point(120, 3000);
    curve_set_point(121, 3000);
    EXPECT_EQ(curve_focus_at(51, 32 * 120 + 16), 3000 + o[120] + (o[121] - o[120]) / 2);
    // Both samples beyond the focus maximum: no slope at all between them.
    curve_set_point(10, 6200);
    curve_set_point(11, 6300);
    EXPECT_EQ(curve_focus_at(1, 10 * 32 + 16), 6200 + kFarCurveOffsets[0][10]);
}

// The autofocus search runs from where the nearest distance focuses to a margin beyond the
// farthest curve, never past the focus maximum.
TEST_F(CurveTest, SearchBoundsSpanNearestDistanceToBeyondTheFarthestCurve) {
    load();
    const uint16_t fmax = lens_get_focus_max();
    for (uint16_t s = 0; s < kCurvePoints; s += 13) {
        EXPECT_EQ(curve_get_lower_bound(s), expected_focus_at(20, static_cast<uint16_t>(32 * s)));
        const int far = curve_focus_at(51, static_cast<uint16_t>(32 * s));
        EXPECT_GE(curve_get_upper_bound(s), std::min<int>(far + 50, fmax)) << s;
        EXPECT_LE(curve_get_upper_bound(s), std::min<int>(far + 150, fmax)) << s;
        EXPECT_LT(curve_get_lower_bound(s), curve_get_upper_bound(s)) << s;
    }
    curve_set_point(0, 6100);
    curve_rebuild_bounds();
    EXPECT_EQ(curve_get_upper_bound(0), fmax);
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

// A distance on a table row (the reference distance 1000 included) reads that row exactly, at
// the current zoom and at a given one; nearer than the table reads the nearest row.
TEST_F(CurveTest, DistancesOnTableRowsReadTheirRow) {
    load();
    for (int r = 1; r < afdata::kDistanceRows; ++r) {
        const afdata::DistanceRow& row = afdata::kDistanceTable[r];
        for (uint16_t s : {0, 100, 208}) {
            const auto z = static_cast<uint16_t>(32 * s);
            lens_set_positions(z, 0);
            EXPECT_EQ(focus_offset_at(static_cast<uint16_t>(row.key), z), row.offset[s])
                << row.key << " at step " << s;
            EXPECT_EQ(focus_offset(static_cast<uint16_t>(row.key)), row.offset[s])
                << row.key << " at step " << s;
        }
    }
    const afdata::DistanceRow& nearest = afdata::kDistanceTable[afdata::kDistanceRows - 1];
    EXPECT_EQ(focus_offset_at(20, 0), nearest.offset[0]);
    EXPECT_EQ(focus_offset_at(0, 208 * 32), nearest.offset[208]);
    // Half way between zoom samples the current-zoom offset is half way between the entries.
    lens_set_positions(200 * 32 + 16, 0);
    EXPECT_EQ(focus_offset(30),
              nearest.offset[200] + (nearest.offset[201] - nearest.offset[200]) / 2);
}

TEST_F(CurveTest, FarthestDistanceInterpolatesBetweenTheTwoFarRows) {
    load();
    const int32_t a = row_for(100000).offset[100];
    const int32_t b = row_for(50000).offset[100];
    lens_set_positions(3200, 0);
    EXPECT_EQ(focus_offset(65535), b + (a - b) * (65535 - 50000) / 50000);
    EXPECT_EQ(focus_offset_at(65535, 3200), a - (a - b) * (100000 - 65535) / 50000);
}

TEST_F(CurveTest, ExpectedFocusIsBasePlusOffsetPlusCalibrationNeverBelowZero) {
    load();
    curve_set_point(10, 5000);
    curve_set_point(11, 4900);
    lens_set_positions(10 * 32 + 8, 0);
    EXPECT_EQ(expected_focus(1000), 5000 - 100 * 8 / 32) << "base curve interpolated along zoom";
    set_calibration_offset(-7);
    EXPECT_EQ(expected_focus(1000), 5000 - 25 - 7);
    EXPECT_EQ(expected_focus_at(3000, 320), 5000 + row_for(3000).offset[10] - 7);

    for (uint16_t s = 0; s < kCurvePoints; ++s)
        curve_set_point(s, 100);
    set_calibration_offset(15);
    EXPECT_EQ(expected_focus_at(20, 6000), 0);
    lens_set_positions(6000, 0);
    EXPECT_EQ(expected_focus(20), 0);
    EXPECT_EQ(expected_focus_at(1000, 6000), 115);
}

}  // namespace
