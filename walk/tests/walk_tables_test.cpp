#include <gtest/gtest.h>

#include <cmath>
#include <numeric>

#include "walk/absorption_table.h"
#include "walk/step_schedule.h"

namespace nmr {
namespace {

// With these values one fine step (0.5 voxel of 1 um) lasts 1 ms and a coarse step
// (1 voxel) 4 ms, up to rounding; times are compared to 1e-12 relative for that reason.
constexpr double kVoxel = 1e-6;
constexpr double kWaterD = 2.5e-13 * 1000.0 / 6.0;
constexpr double kOilD = kWaterD * 4.0;
constexpr double kRelative = 1e-12;

// Cumulative step counts k' of the first intervals, worked by hand from
// k' = round(k * 10^0.025) + 1: single steps until k * 0.0593 reaches one half.
const std::vector<std::int32_t> kFirstEnds = {1,  2,  3,  4,  5,  6,  7,  8,  9,
                                              11, 13, 15, 17, 19, 21, 23, 25, 27};

TEST(StepSchedule, FirstIntervalsAndGrowthWithoutSwitch) {
    StepSchedule s;
    // Coarse step 0.1 does not arm the switch: every time is a fine-step time.
    const auto k = buildStepSchedule(kVoxel, 0.5, 0.1, 0.0, kWaterD, kOilD, 1.0, 300, s);
    EXPECT_EQ(k, 0u);
    EXPECT_EQ(s.fineIntervals, 0u);
    ASSERT_EQ(s.stepsPerInterval.size(), 300u);
    ASSERT_EQ(s.intervalEndTime.size(), 300u);
    for (std::size_t i = 0; i < kFirstEnds.size(); ++i) {
        EXPECT_NEAR(s.intervalEndTime[i], kFirstEnds[i], kFirstEnds[i] * kRelative) << i;
        EXPECT_EQ(s.stepsPerInterval[i], i < 9 ? 1u : 2u) << i;
    }
    // The total stays an exact int32 count; the tail grows by 10^0.025 per interval.
    const double total = std::accumulate(s.stepsPerInterval.begin(), s.stepsPerInterval.end(), 0.0);
    EXPECT_EQ(total, 498135025.0);
    EXPECT_NEAR(s.intervalEndTime[299], total, total * kRelative);
    EXPECT_NEAR(double(s.stepsPerInterval[299]) / s.stepsPerInterval[298], std::pow(10.0, 0.025),
                1e-6);  // counts of ~2.7e7 are rounded to whole steps
}

TEST(StepSchedule, SwitchKeepsTheFiringIntervalAndContinuesInCoarseSteps) {
    StepSchedule s;
    // The first end time past 5.5 ms is 6 ms at interval 5.
    const auto k = buildStepSchedule(kVoxel, 0.5, 1.0, 5.5, kWaterD, kOilD, 0.7, 300, s);
    EXPECT_EQ(k, 5u);
    EXPECT_EQ(s.fineIntervals, 5u);
    EXPECT_NEAR(s.intervalEndTime[5], 6.0, 6.0 * kRelative);
    EXPECT_EQ(s.stepsPerInterval[5], 1u);
    // From k = trunc(6 / 4) = 1 coarse step: 2, 3, 4 ... coarse steps of 4 ms each.
    EXPECT_EQ(s.stepsPerInterval[6], 1u);
    EXPECT_NEAR(s.intervalEndTime[6], 8.0, 8.0 * kRelative);
    EXPECT_NEAR(s.intervalEndTime[7], 12.0, 12.0 * kRelative);
}

TEST(StepSchedule, OilDiffusionWithoutBulkWaterAndNoSwitchWhenNeverPassed) {
    StepSchedule water, oil;
    buildStepSchedule(kVoxel, 0.5, 1.0, 1e30, kWaterD, kOilD, 1e-9, 300, water);
    const auto k = buildStepSchedule(kVoxel, 0.5, 1.0, 1e30, kWaterD, kOilD, 0.0, 300, oil);
    EXPECT_EQ(k, 0u) << "switch time never passed";
    EXPECT_EQ(oil.stepsPerInterval, water.stepsPerInterval);
    for (std::size_t i : {0u, 10u, 299u}) {
        // Four times the diffusion constant: a quarter of the step time.
        EXPECT_NEAR(oil.intervalEndTime[i], water.intervalEndTime[i] / 4.0,
                    water.intervalEndTime[i] * kRelative)
            << i;
    }
}

TEST(AbsorptionTable, FormulaPerMineralWithMatrixForcedToZero) {
    MineralValueMap<double> rho;
    rho.set(Mineral::Clay, 2.3e-9);
    rho.set(Mineral::Quartz, 1.6e-5);
    rho.set(Mineral::Matrix, 5e-5);
    rho.set(Mineral::Unspecified4, 1e-4);
    AbsorptionTable table = {7.0};  // refilled whole
    buildAbsorptionTable(rho, 0.25, 2e-6, 2.3e-9, table);
    ASSERT_EQ(table.size(), 14u);
    for (Mineral::Type m : Mineral::allTypes()) {
        const double expected =
            m == Mineral::Matrix ? 0.0 : rho.valueOr(m) * (25.0 / 36.0) * 0.25 * 2e-6 / 2.3e-9;
        // 25/36 is held as the 16-digit decimal 0.6944444444444444: 1e-15 relative apart.
        EXPECT_NEAR(table[m], expected, expected * 1e-14) << Mineral::name(m);
    }
    EXPECT_EQ(table[Mineral::FeldsparsDissolvable], 0.0) << "an unlisted mineral does not relax";
}

}  // namespace
}  // namespace nmr
