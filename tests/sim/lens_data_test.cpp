// The nominal lens data and the true in-focus position built on it. The generator checks every
// reference value and monotonicity of the tables itself and fails when one is off, so running it
// and comparing with the committed tables covers the data; the truth model is tested here.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "data/lens_tables.h"
#include "sim/lens_model.h"
#include "sim_test_util.h"

namespace {

using afdata::kDefaultCurveShape;

const afdata::DistanceRow& row_for(uint32_t key) {
    for (const auto& r : afdata::kDistanceTable)
        if (r.key == key)
            return r;
    ADD_FAILURE() << "no row for key " << key;
    return afdata::kDistanceTable[0];
}

TEST(LensDataGenerator, PassesItsChecksAndReproducesTheCommittedTables) {
    const std::string out = simtest::temp_path("lens_tables.cpp");
    ASSERT_EQ(std::system((std::string(LENS_DATA_GEN_EXE) + " " + out).c_str()), 0);
    const std::string generated = simtest::read_file(out);
    EXPECT_FALSE(generated.empty());
    EXPECT_TRUE(generated ==
                simtest::read_file(std::string(AFD_SOURCE_DIR) + "/data/lens_tables.cpp"))
        << "data/lens_tables.cpp differs from the generator";
    std::remove(out.c_str());
}

TEST(TrueFocus, FollowsTheTablesAtTheirSamplesAndIsContinuousBetween) {
    const vcam::LensUnit nominal;
    for (int s : {0, 50, 100, 150, 207}) {
        const double z = 32.0 * s;
        for (uint32_t d : {1000u, 100000u, 500u}) {
            EXPECT_DOUBLE_EQ(vcam::true_focus(nominal, d, z),
                             kDefaultCurveShape[s] + row_for(d).offset[s])
                << "distance " << d << " step " << s;
        }
    }
    const double mid = vcam::nominal_base_focus(32.0 * 100 + 16);
    EXPECT_LT(mid, kDefaultCurveShape[100]);
    EXPECT_GT(mid, kDefaultCurveShape[101]);
}

TEST(TrueFocus, NearerObjectsFocusAtSmallerPositionsAtEveryZoom) {
    const vcam::LensUnit nominal;
    for (double z = 0; z <= vcam::kZoomMax; z += 331) {
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
    const vcam::LensUnit nominal;
    vcam::LensUnit unit;
    unit.base_offset = 12;
    unit.base_tele_offset = 40;
    auto shift = [&](double z) {
        return vcam::true_focus(unit, 3000, z) - vcam::true_focus(nominal, 3000, z);
    };
    EXPECT_DOUBLE_EQ(shift(0), 12);
    EXPECT_DOUBLE_EQ(shift(vcam::kZoomMax), 52);
    EXPECT_DOUBLE_EQ(shift(vcam::kZoomMax / 2), 32);
    unit = {};
    unit.distance_scale = 1.1;
    EXPECT_NEAR(vcam::true_focus(unit, 300, 3200) - vcam::nominal_base_focus(3200),
                1.1 * (vcam::true_focus(nominal, 300, 3200) - vcam::nominal_base_focus(3200)),
                1e-9);
}

TEST(Magnification, FollowsTheFieldOfViewTable) {
    EXPECT_DOUBLE_EQ(vcam::magnification(0), 1.0);
    EXPECT_DOUBLE_EQ(vcam::magnification(2556), 2.0);
    EXPECT_DOUBLE_EQ(vcam::magnification(vcam::kZoomMax), 12.0);
    EXPECT_NEAR(vcam::magnification((2556 + 3746) / 2.0), 2.5, 1e-9);
}

}  // namespace
