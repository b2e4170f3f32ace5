// The nominal lens data: every reference value, every monotonicity, the generator reproducing
// the committed tables, and the true in-focus position built on them.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <string>

#include "data/lens_tables.h"
#include "sim/lens_model.h"
#include "sim_test_util.h"

namespace {

using afdata::kCurveSamples;
using afdata::kDefaultCurveShape;
using afdata::kDistanceTable;
using afdata::kFarCurveOffsets;

const afdata::DistanceRow& row_for(uint32_t key) {
    for (const auto& r : kDistanceTable)
        if (r.key == key)
            return r;
    ADD_FAILURE() << "no row for key " << key;
    return kDistanceTable[0];
}

TEST(LensDataShape, PassesEveryReferenceValueAndNeverRises) {
    const int ref[][2] = {{0, 6019},   {1, 6007},  {10, 5898}, {50, 5336}, {100, 4389},
                          {150, 2971}, {200, 738}, {206, 421}, {207, 369}, {208, 369}};
    for (const auto& [s, v] : ref)
        EXPECT_EQ(kDefaultCurveShape[s], v) << "step " << s;
    for (int s = 1; s < kCurveSamples; ++s)
        EXPECT_LE(kDefaultCurveShape[s], kDefaultCurveShape[s - 1]) << "step " << s;
}

TEST(LensDataFarCurves, PassesEveryReferenceValue) {
    const int rows[] = {0, 9, 24, 49, 50};
    const int cols[] = {0, 50, 100, 150, 200, 207};
    const int ref[5][6] = {{0, 0, 1, 3, 19, 25},
                           {2, 5, 12, 39, 193, 252},
                           {6, 13, 31, 99, 485, 631},
                           {13, 26, 61, 195, 947, 1221},
                           {13, 27, 63, 199, 968, 1248}};
    for (int i = 0; i < 5; ++i)
        for (int j = 0; j < 6; ++j)
            EXPECT_EQ(kFarCurveOffsets[rows[i]][cols[j]], ref[i][j])
                << "row " << rows[i] << " step " << cols[j];
}

TEST(LensDataFarCurves, GrowWithRowAndZoomAndRow50IsTheFarthestDistance) {
    for (int r = 0; r < afdata::kFarCurveRows; ++r)
        for (int s = 0; s < kCurveSamples; ++s) {
            if (s > 0) {
                ASSERT_GE(kFarCurveOffsets[r][s], kFarCurveOffsets[r][s - 1]) << r << "," << s;
            }
            if (r > 0) {
                ASSERT_GE(kFarCurveOffsets[r][s], kFarCurveOffsets[r - 1][s]) << r << "," << s;
            }
        }
    const afdata::DistanceRow& far = row_for(100000);
    for (int s = 0; s < kCurveSamples; ++s)
        EXPECT_EQ(kFarCurveOffsets[50][s], far.offset[s]) << "step " << s;
}

TEST(LensDataDistanceTable, KeysAndReferenceValues) {
    const uint32_t keys[] = {100000, 50000, 30000, 20000, 15000, 10000, 8000, 5000, 3000,
                             2800,   2600,  2400,  2200,  2100,  2000,  1900, 1800, 1700,
                             1600,   1500,  1400,  1300,  1200,  1100,  1000, 900,  800,
                             700,    600,   500,   400,   300,   200,   100,  50,   30};
    for (int i = 0; i < afdata::kDistanceRows; ++i)
        EXPECT_EQ(kDistanceTable[i].key, keys[i]) << "row " << i;
    const struct {
        uint32_t key;
        int s0, s100, s208;
    } ref[] = {{100000, 13, 63, 1248}, {3000, 9, 41, 814},      {1000, 0, 0, 0},
               {500, -12, -56, -1095}, {100, -96, -351, -2440}, {30, -220, -644, -2920}};
    for (const auto& r : ref) {
        const afdata::DistanceRow& row = row_for(r.key);
        EXPECT_EQ(row.offset[0], r.s0) << r.key;
        EXPECT_EQ(row.offset[100], r.s100) << r.key;
        EXPECT_EQ(row.offset[208], r.s208) << r.key;
    }
    for (const auto& row : kDistanceTable)
        EXPECT_EQ(row.offset[209], 0) << row.key;
    for (int s = 0; s < afdata::kDistanceColumns; ++s)
        EXPECT_EQ(row_for(1000).offset[s], 0);
}

TEST(LensDataDistanceTable, MonotoneInDistanceAndGrowingWithZoom) {
    for (int r = 0; r < afdata::kDistanceRows; ++r) {
        const afdata::DistanceRow& row = kDistanceTable[r];
        for (int s = 0; s < kCurveSamples; ++s) {
            if (row.key < 1000) {
                ASSERT_LE(row.offset[s], 0) << row.key << "," << s;
            } else {
                ASSERT_GE(row.offset[s], 0) << row.key << "," << s;
            }
            if (s > 0) {
                ASSERT_GE(std::abs(row.offset[s]), std::abs(row.offset[s - 1]))
                    << row.key << "," << s;
            }
            if (r > 0) {  // nearer objects never need a larger focus position
                ASSERT_LE(row.offset[s], kDistanceTable[r - 1].offset[s]) << row.key << "," << s;
            }
        }
    }
}

TEST(LensDataGenerator, ReproducesTheCommittedTables) {
    const std::string out = simtest::temp_path("lens_tables.cpp");
    const std::string cmd = std::string(LENS_DATA_GEN_EXE) + " " + out;
    ASSERT_EQ(std::system(cmd.c_str()), 0);
    const std::string generated = simtest::read_file(out);
    const std::string committed =
        simtest::read_file(std::string(AFD_SOURCE_DIR) + "/data/lens_tables.cpp");
    EXPECT_FALSE(generated.empty());
    EXPECT_TRUE(generated == committed) << "data/lens_tables.cpp differs from the generator";
    std::remove(out.c_str());
}

TEST(TrueFocus, FollowsTheTablesAtTheirSamples) {
    const vcam::LensUnit nominal;
    for (int s : {0, 50, 100, 150, 207}) {
        const double z = 32.0 * s;
        EXPECT_DOUBLE_EQ(vcam::true_focus(nominal, 1000, z), kDefaultCurveShape[s]);
        EXPECT_DOUBLE_EQ(vcam::true_focus(nominal, 100000, z),
                         kDefaultCurveShape[s] + row_for(100000).offset[s]);
        EXPECT_DOUBLE_EQ(vcam::true_focus(nominal, 500, z),
                         kDefaultCurveShape[s] + row_for(500).offset[s]);
    }
    // Between zoom samples the truth is continuous, between the neighbouring samples.
    const double mid = vcam::nominal_base_focus(32.0 * 100 + 16);
    EXPECT_LT(mid, kDefaultCurveShape[100]);
    EXPECT_GT(mid, kDefaultCurveShape[101]);
}

TEST(TrueFocus, NearerObjectsFocusAtSmallerPositionsAtEveryZoom) {
    const vcam::LensUnit nominal;
    for (double z = 0; z <= 6624; z += 331) {
        double prev = -1e9;
        for (double d : {30.0, 45.0, 100.0, 250.0, 700.0, 1000.0, 1500.0, 2500.0, 7000.0, 40000.0,
                         100000.0, 1e6}) {
            const double f = vcam::true_focus(nominal, d, z);
            EXPECT_GE(f, prev) << "distance " << d << " zoom " << z;
            prev = f;
        }
    }
}

TEST(TrueFocus, UnitDeviationShiftsTheCurve) {
    vcam::LensUnit unit;
    unit.base_offset = 12;
    unit.base_tele_offset = 40;
    const vcam::LensUnit nominal;
    EXPECT_DOUBLE_EQ(vcam::true_focus(unit, 3000, 0) - vcam::true_focus(nominal, 3000, 0), 12);
    EXPECT_DOUBLE_EQ(vcam::true_focus(unit, 3000, 6624) - vcam::true_focus(nominal, 3000, 6624),
                     52);
    unit = {};
    unit.distance_scale = 1.1;
    const double d_nom = vcam::true_focus(nominal, 300, 3200) - vcam::nominal_base_focus(3200);
    const double d_unit = vcam::true_focus(unit, 300, 3200) - vcam::nominal_base_focus(3200);
    EXPECT_NEAR(d_unit, 1.1 * d_nom, 1e-9);
}

TEST(Magnification, FollowsTheFieldOfViewTable) {
    EXPECT_DOUBLE_EQ(vcam::magnification(0), 1.0);
    EXPECT_DOUBLE_EQ(vcam::magnification(2556), 2.0);
    EXPECT_DOUBLE_EQ(vcam::magnification(6624), 12.0);
    EXPECT_NEAR(vcam::magnification((2556 + 3746) / 2.0), 2.5, 1e-9);
}

}  // namespace
