// The climb's decisions on crafted histories: the multiplier (table rule, history rule, big jump,
// contrast, flat frames, rise ratios, cap by zoom), whether a fall is a real peak, the low-light
// drop confirmation, and the end test with what the coarse approach and the climb do when it
// passes, including the coarse approach's return from an end of the range.
#include <algorithm>
#include <iterator>

#include "tests/af/af_rules_fixture.h"

namespace {

class ClimbRuleTest : public afrules::AfRulesTest {
  protected:
    void SetUp() override {
        AfRulesTest::SetUp();
        lens_set_positions(6000, 4000);  // the zoom cap (10) stays out of the way
        select_only({12});
    }
    // One multiplier call over a 10-step move: the zone's window changes by rate x 10.
    static uint8_t mult(uint8_t m, uint8_t b, uint32_t rate, uint32_t fv0 = 1000) {
        g_climb.climbMult = m;
        set_fv({fv0, 1000, 900, 800, 700}, {4010, 4000, 3990, 3980, 3970});
        g_focusValue.winHist[1][12] = 1000;
        g_focusValue.winHist[0][12] = 1000 + rate * 10;
        return ClimbMultiplier(b);
    }
};

TEST_F(ClimbRuleTest, MultiplierFollowsTheSlopeOfTheZone) {
    struct Case {
        bool low_light;
        uint16_t zoom;
        uint8_t m, b;
        uint32_t rate;
        uint8_t expect;
        uint32_t fv0 = 1000;
    };
    const Case cases[] = {
        // Table rule, limit L = 40, 20, 20, 15, 15, 10, 12 for rates 0 to 6.
        {false, 6000, 3, 2, 0, 4},  // m x b under L: + 1
        {false, 6000, 2, 5, 5, 3},  // at L: + 1
        {false, 6000, 2, 6, 5, 1},  // over L from 2
        {false, 6000, 4, 6, 3, 3},  // over L, under 2L: - 1
        {false, 6000, 5, 6, 3, 3},  // at 2L: - 2
        {false, 6000, 2, 6, 6, 3},  // rate 6 is the table in daylight
        {true, 6000, 2, 6, 6, 2},   // but not in low light: small m kept
        {true, 6000, 8, 1, 6, 4},   // low light 6 or 7, m above 6, flat past: halved
        {true, 6000, 5, 2, 7, 4},   // low light 6 or 7, m 5: - 1
        {false, 6000, 5, 2, 8, 4},  // daylight 7 or 8: - 1
        {true, 6000, 1, 2, 8, 2},   // low light 8 is the history rule
        // History rule.
        {false, 6000, 5, 2, 21, 3},  // m 4-5 steep (above 20): - 2
        {false, 6000, 5, 2, 20, 4},  // not steep: - 1
        {false, 6000, 8, 2, 11, 4},  // m 8-9 steep (above 10): - 4
        {false, 6000, 7, 2, 10, 3},  // m 7 not steep, rate before below 3: - 4
        {false, 6000, 1, 2, 24, 2},  // small m, rate below 25: 2
        {false, 6000, 1, 2, 25, 1},
        {false, 6000, 2, 2, 49, 2},  // m 2, rate below 50: 2
        {false, 6000, 2, 2, 50, 1},
        {false, 6000, 1, 2, 10, 1, 990},  // a falling value: 1
        // Cap by zoom position / 512 (2, 2, 2, 2, 2, 3, 3, 4, 7, ...), then at most 5.
        {false, 2559, 4, 1, 0, 2},
        {false, 2560, 4, 1, 0, 3},
        {false, 4096, 4, 1, 0, 5},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const Case& c = cases[i];
        SCOPED_TRACE(i);
        climb_state_reset();
        set_low_light(c.low_light);
        lens_set_positions(c.zoom, 4000);
        EXPECT_EQ(mult(c.m, c.b, c.rate, c.fv0), c.expect);
    }
}

TEST_F(ClimbRuleTest, MultiplierRemembersItsLastRates) {
    mult(1, 2, 10);
    mult(1, 2, 11);
    EXPECT_EQ(mult(1, 2, 30), 2) << "30 > 11 > 10 > 9";
    mult(8, 2, 3);
    EXPECT_EQ(mult(7, 2, 10), 5) << "the rate before was 3: - 2";
    // Six flat low-light frames in a row add 2; a steeper frame ends the run.
    set_low_light(true);
    for (int i = 1; i <= 5; ++i)
        EXPECT_EQ(mult(1, 50, 0), 1) << "flat frame " << i;
    EXPECT_EQ(mult(1, 50, 0), 3);
    EXPECT_EQ(mult(1, 50, 6), 1);
    EXPECT_EQ(mult(1, 50, 0), 1);
}

TEST_F(ClimbRuleTest, MultiplierBigJumpsContrastAndStandingStill) {
    set_windows(0, 50);  // every window at the floor: no contrast
    set_windows(1, 50);
    auto call = [](uint8_t m, uint8_t b, uint32_t fv0, uint32_t fv1, uint16_t p0 = 4010) {
        g_climb.climbMult = m;
        set_fv({fv0, fv1, 90, 80, 70}, {p0, 4000, 3990, 3980, 3970});
        return ClimbMultiplier(b);
    };
    EXPECT_EQ(call(4, 1, 301, 100), 2) << "value more than doubled: halved, counts as contrast";
    EXPECT_EQ(call(2, 1, 301, 100), 1);
    EXPECT_EQ(call(1, 2, 200, 100), 4) << "doubled only: table 1 to 2, no contrast + 2";
    g_focusValue.winHist[0][3] = g_focusValue.winHist[1][3] = 1000;
    EXPECT_EQ(call(1, 2, 200, 100), 4) << "a window outside the zone shows no contrast";
    g_focusValue.winHist[0][12] = g_focusValue.winHist[1][12] = 51;
    EXPECT_EQ(call(1, 2, 200, 100), 2) << "51 is contrast";
    g_focusValue.winHist[0][12] = g_focusValue.winHist[1][12] = 50;
    EXPECT_EQ(call(1, 2, 200, 100, 4000), 2) << "lens stood still: rate 4 with contrast";
}

TEST_F(ClimbRuleTest, MultiplierRiseRatioKeepsASteadyClimbAtTwo) {
    set_windows(0, 1000);  // contrast, rate 0: the table keeps 1 at this step
    set_windows(1, 1000);
    // After two rises of (1100 - 1000) x 128 / 1100 = 11, a third between 8 and 14 gives 2.
    auto third = [](uint32_t fv1, uint32_t fv2) {
        climb_state_reset();
        for (int i = 0; i < 2; ++i) {
            g_climb.climbMult = 1;
            set_fv({1100, 1000, 900, 800, 700}, {4010, 4000, 3990, 3980, 3970});
            ClimbMultiplier(50);
        }
        g_climb.climbMult = 1;
        set_fv({1280, fv1, fv2, 800, 700}, {4010, 4000, 3990, 3980, 3970});
        return ClimbMultiplier(50);
    };
    EXPECT_EQ(third(1140, 900), 2);   // 14
    EXPECT_EQ(third(1130, 900), 1);   // 15
    EXPECT_EQ(third(1200, 900), 2);   // 8
    EXPECT_EQ(third(1210, 900), 1);   // 7
    EXPECT_EQ(third(1140, 1140), 1);  // fv2 equals fv1
}

TEST_F(ClimbRuleTest, PeakIsRealWhenTheFallBehindExceedsAShareGrowingWithTheSpan) {
    struct Case {
        uint16_t span;
        uint32_t rise;  // above a minimum of 1024, so the share in 1024ths is the threshold
        bool real;
    };
    const Case cases[] = {
        {14, 101, true}, {14, 100, false},  {15, 101, false}, {15, 151, true},
        {24, 151, true}, {25, 151, false},  {49, 201, true},  {50, 201, false},
        {99, 251, true}, {100, 251, false}, {100, 301, true},
    };
    g_search.searchDir = 1;
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "span " << c.span << ", rise " << c.rise);
        g_climb.unconfirmed = 0;
        g_climb.runMin = 1024;
        g_climb.runMinPos = 4000;
        g_climb.runMax = 1024 + c.rise;
        g_climb.runMaxPos = static_cast<uint16_t>(4000 + c.span);  // behind, moving down
        EXPECT_EQ(ClimbPeakReal(), c.real);
    }
    g_search.searchDir = 2;
    EXPECT_FALSE(ClimbPeakReal()) << "the maximum lies ahead";
    g_climb.runMaxPos = 3900;
    EXPECT_TRUE(ClimbPeakReal());
}

TEST_F(ClimbRuleTest, PeakOtherwiseNeedsRepeatedFallsOrADaylightScene) {
    g_search.searchDir = 1;
    g_climb.runMin = g_climb.runMax = 1000;
    g_climb.runMinPos = 4000;
    g_climb.runMaxPos = 4050;
    for (int i = 0; i < 3; ++i)
        EXPECT_FALSE(ClimbPeakReal()) << "far apart: not counted";
    g_climb.runMaxPos = 4010;
    for (int i = 0; i < 3; ++i)
        EXPECT_FALSE(ClimbPeakReal()) << "unconfirmed " << i;
    EXPECT_TRUE(ClimbPeakReal()) << "the fourth time";
    // A new climb counts its own unconfirmed falls.
    ClimbReset();
    EXPECT_FALSE(ClimbPeakReal()) << "the first of a new climb";
    for (int i = 0; i < 2; ++i)
        ClimbPeakReal();
    EXPECT_TRUE(ClimbPeakReal());
    g_climb.flatFrames = 5;
    EXPECT_FALSE(ClimbPeakReal()) << "not during a flat low-light stretch";
    g_seams.pointLightZone = 0;
    EXPECT_TRUE(ClimbPeakReal()) << "without the point-light zone flag";
    set_low_light(true);
    g_climb.runMin = 100;
    g_climb.runMax = 400;
    EXPECT_FALSE(ClimbPeakReal()) << "a dim low-light maximum is never a peak";
    g_climb.runMax = 401;
    EXPECT_TRUE(ClimbPeakReal());
}

TEST_F(ClimbRuleTest, DropConfirmedGuardsOnlyDimLowLightFalls) {
    struct Case {
        bool low_light;
        uint32_t fv2, fv1, fv0;
        bool confirmed;
    };
    const Case cases[] = {
        {false, 100, 120, 140, true},  // daylight: always
        {true, 121, 200, 300, true},   // above 120: always
        {true, 120, 103, 80, true},    // 17 > 103 x 5 / 32 = 16 and 23 > 12
        {true, 120, 104, 80, false},   // 16 is not above 16
        {true, 120, 100, 86, true},    // 14 > 86 x 5 / 32 = 13
        {true, 120, 100, 87, false},   // 13 is not above 13
        {true, 110, 120, 90, true},    // a rise wraps round as an unsigned difference
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.fv2 << " " << c.fv1 << " " << c.fv0);
        set_low_light(c.low_light);
        set_fv({c.fv0, c.fv1, c.fv2, 100, 100});
        EXPECT_EQ(DropConfirmed(), c.confirmed);
    }
}

// Frame-history samples with window 12 as the zone: its blocks read `v` in the block sharpness
// grid and `h` in the horizontal one; the rest reads 100, or 3000 at the best sample so that it is
// the frame history's candidate.
class EndTestTest : public ClimbRuleTest {
  protected:
    static void sample_at(uint16_t pos, uint32_t v, uint32_t h, bool best = false) {
        uint32_t a[kGridBlocks];
        uint32_t b[kGridBlocks];
        std::fill_n(a, kGridBlocks, best ? 3000u : 100u);
        std::fill_n(b, kGridBlocks, best ? 3000u : 100u);
        for (int d = 0; d < 9; ++d) {
            a[afrules::block_of(12, d / 3, d % 3)] = v;
            b[afrules::block_of(12, d / 3, d % 3)] = h;
        }
        fh_record_sample(a, b, pos);
    }
    // Five samples from p on the side of travel reading v[k] and h[k], four on the other side at
    // 5000 (never to be read), and five around the candidate at 1000.
    static void lay_out(uint16_t p, uint32_t dir, uint16_t cand, const uint32_t* v,
                        const uint32_t* h) {
        fh_reset_for_search();
        const int step = dir == 1 ? -10 : 10;
        for (int k = 0; k < 5; ++k)
            sample_at(static_cast<uint16_t>(p + k * step), v[k], h[k]);
        for (int k = 1; k < 5; ++k)
            sample_at(static_cast<uint16_t>(p - k * step), 5000, 5000);
        for (int k = -2; k <= 2; ++k)
            sample_at(static_cast<uint16_t>(cand + 10 * k), 1000, 1000, k == 0);
        g_search.searchDir = dir;
        g_search.framesInDir = 5;
        g_focusValue.posHist[0] = p;
        lens_set_positions(6000, p);
    }
    static void lay_out(uint16_t p, uint32_t dir, uint16_t cand, uint32_t v, uint32_t h) {
        const uint32_t vv[5] = {v, v, v, v, v};
        const uint32_t hh[5] = {h, h, h, h, h};
        lay_out(p, dir, cand, vv, hh);
    }
};

TEST_F(EndTestTest, PassesUnlessTheCurrentSideIsThirtyPercentSharper) {
    struct Case {
        uint32_t dir, v, h;
        bool passes;
    };
    const Case cases[] = {
        {1, 1299, 1000, true}, {1, 1300, 1000, false}, {1, 1000, 1300, false},
        {2, 1299, 1299, true}, {2, 1300, 500, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "direction " << c.dir << ": " << c.v << ", " << c.h);
        const uint16_t cand = c.dir == 1 ? 4100 : 3900;
        lay_out(4000, c.dir, cand, c.v, c.h);
        ASSERT_EQ(fh_best_position(), cand);
        EXPECT_EQ(EndTest(), c.passes);
        EXPECT_EQ(EndTestClimb(), c.passes) << "a flat current side";
    }
    const uint32_t rising[5] = {1000, 1030, 1060, 1090, 1120};  // from the lens on
    lay_out(4000, 2, 3900, rising, rising);
    EXPECT_TRUE(EndTest()) << "mean 1060 against 1000";
    EXPECT_FALSE(EndTestClimb()) << "the climb's current side still rises";
}

TEST_F(EndTestTest, CoarseApproachTurnsAtAnEndAndHeadsForACandidate) {
    // Start at 3850 (near end) or 4050 (far end); the best sample below the start is the near
    // candidate, the best above it the far candidate.
    auto run = [](uint16_t p0, uint32_t dir, uint16_t frames, uint32_t fv0, uint32_t other_tried) {
        const bool near = dir == 1;
        lay_out(p0, dir, near ? 3900 : 4100, 500, 500);
        sample_at(near ? 3780 : 4000, 500, 500, true);
        fh_set_position(near ? 3850 : 4050, 1);
        g_coarse = CoarseState{};
        (near ? g_coarse.farEndTried : g_coarse.nearEndTried) = other_tried;
        g_focusZone.enabled = 1;
        g_search.searchPhase = 1;
        g_search.framesInDir = frames;
        set_fv({fv0, fv0, fv0, fv0, fv0}, {p0, p0, p0, p0, p0});
        CoarseStep();
        return (near ? g_coarse.nearEndTried : g_coarse.farEndTried) == 1;
    };
    ASSERT_TRUE(run(3800, 1, 5, 299, 0));
    EXPECT_EQ(g_search.searchDir, 2u);
    EXPECT_EQ(g_coarse.endReturn, 1);
    EXPECT_EQ(g_focusZone.enabled, 0);
    EXPECT_EQ(g_coarse.endTarget, 3780) << "the near candidate";
    ASSERT_TRUE(run(3800, 1, 5, 299, 1));
    EXPECT_EQ(g_coarse.endTarget, 3900) << "the far end was tried: the far candidate";
    EXPECT_FALSE(run(3800, 1, 4, 299, 0)) << "only after more than 4 frames";
    EXPECT_FALSE(run(3800, 1, 5, 300, 0)) << "only below 300";
    EXPECT_FALSE(run(3801, 1, 5, 299, 0)) << "only at or below the near threshold";

    g_search.farThreshold = 4300;
    EXPECT_FALSE(run(4299, 2, 5, 299, 0)) << "only at or above the far threshold";
    ASSERT_TRUE(run(4300, 2, 5, 299, 0));
    EXPECT_EQ(g_search.searchDir, 1u);
    EXPECT_EQ(g_coarse.endTarget, 4000) << "the near candidate";
    ASSERT_TRUE(run(4300, 2, 5, 299, 1));
    EXPECT_EQ(g_coarse.endTarget, 4100) << "the near end was tried: the far candidate";

    lay_out(3800, 1, 3900, 1300, 1300);
    g_coarse = CoarseState{};
    CoarseStep();
    EXPECT_EQ(g_coarse.nearEndTried, 0u) << "the end test fails";
}

TEST_F(EndTestTest, ClimbAtAnEndMarksBothEndsAndHeadsForTheFarCandidate) {
    lay_out(3800, 1, 3900, 500, 500);
    fh_set_position(3850, 1);
    ClimbReset();
    g_search.searchPhase = 2;
    g_search.searchStartPos = 4000;
    set_fv({299, 299, 299, 299, 299}, {3800, 3802, 3804, 3806, 3808});
    ClimbStep();
    EXPECT_EQ(g_search.searchPhase, 1u);
    EXPECT_EQ(g_search.searchDir, 2u);
    EXPECT_EQ(g_coarse.nearEndTried + g_coarse.farEndTried, 2u);
    EXPECT_EQ(g_coarse.endReturn, 1);
    EXPECT_EQ(g_coarse.endTarget, 3900);
}

TEST_F(ClimbRuleTest, EndReturnMovesTwiceSThenSThenTheRest) {
    struct Case {
        uint16_t zoom, from, target, after;
    };
    // s is 35 up to zoom 5000, else 50; a step move never goes beyond 60.
    const Case cases[] = {
        {3200, 4000, 4070, 4060}, {3200, 4000, 4069, 4035}, {3200, 4000, 4034, 4034},
        {3200, 4000, 3931, 3965}, {5000, 4000, 4099, 4060}, {5001, 4000, 4099, 4050},
        {3200, 4480, 4600, 4500},  // the target is kept inside the range
        {3200, 3720, 3600, 3700},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.zoom << ": " << c.from << " to " << c.target);
        lens_set_positions(c.zoom, c.from);
        g_coarse.endReturn = 1;
        g_coarse.endTarget = c.target;
        g_coarse.nearEndTried = 1;
        g_search.searchPhase = 0;
        CoarseStep();
        EXPECT_EQ(lens_get_focus_pos(), c.after);
        const bool arrived = c.after == std::clamp<uint16_t>(c.target, 3700, 4500);
        EXPECT_EQ(g_coarse.endReturn, arrived ? 0 : 1);
        EXPECT_EQ(g_search.searchPhase, arrived ? 1u : 0u);
        EXPECT_EQ(g_coarse.coarseFrames, 0) << "nothing else runs";
    }
    // With both ends tried the two windows that peaked highest become the zone.
    uint32_t a[kGridBlocks];
    std::fill_n(a, kGridBlocks, 100u);
    for (int d = 0; d < 9; ++d) {
        a[afrules::block_of(7, d / 3, d % 3)] = 900;
        a[afrules::block_of(18, d / 3, d % 3)] = 800;
    }
    fh_record_sample(a, a, 4010);
    g_focusZone.blockMask[0] = 0;
    lens_set_positions(3200, 4000);
    g_coarse.endReturn = 1;
    g_coarse.endTarget = 4010;
    g_coarse.farEndTried = 1;
    CoarseStep();
    EXPECT_EQ(g_search.searchPhase, 3u);
    EXPECT_EQ(selected(), (std::vector<int>{7, 18}));
    EXPECT_EQ(g_focusZone.blockMask[0], 1);
}

}  // namespace
