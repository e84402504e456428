#include <gtest/gtest.h>

#include <algorithm>

#include "walk/absorption_table.h"
#include "walk/step_schedule.h"

namespace nmr {

TEST(StepSchedule, SingleStepsThenGeometricGrowthAndTheSwitchToCoarseSteps) {
    // A fine step (0.5 of 1 um) lasts 1 ms, a coarse one 4 ms, up to 1e-12 (rounding).
    const double water = 2.5e-13 * 1000.0 / 6.0, oil = 4.0 * water;
    ScheduleRequest r{.voxelSize = 1e-6,
                      .fineStep = 0.5,
                      .coarseStep = 0.1,
                      .switchTime = 0.0,
                      .diffusionWater = water,
                      .diffusionOil = oil,
                      .waterSelector = 1.0};
    // Coarse step 0.1 does not arm the switch: all fine-step times. By hand from
    // k' = round(k 10^0.025) + 1: single steps until k * 0.0593 reaches 1/2.
    StepSchedule s = buildStepSchedule(r);
    EXPECT_EQ(s.fineIntervals, 0u);
    EXPECT_EQ(s.intervalEndTime.size(), 300u);
    for (auto [i, t] : {std::pair{0, 1.0}, {1, 2.0}, {8, 9.0}, {9, 11.0}, {10, 13.0}, {17, 27.0}})
        EXPECT_NEAR(s.intervalEndTime[i], t, t * 1e-12) << i;
    // The first end time past 5.5 ms is 6 ms, at interval 5; from trunc(6 / 4) = 1 coarse
    // step on come 2, 3, ... coarse steps of 4 ms.
    r.coarseStep = 1.0;
    r.switchTime = 5.5;
    r.waterSelector = 0.7;
    s = buildStepSchedule(r);
    EXPECT_EQ(s.fineIntervals, 5u);
    for (auto [i, t] : {std::pair{4, 5.0}, {5, 6.0}, {6, 8.0}, {7, 12.0}})
        EXPECT_NEAR(s.intervalEndTime[i], t, t * 1e-12) << i;
    // What the walkers really walk: interval 5's one fine-step count is walked as a coarse
    // step, so from there on the walk is 3 ms ahead of the end times (then 5 ms, as the
    // count restarts from trunc(6 / 4) = 1 coarse step).
    const std::vector<double> walked = walkedEndTimes(s, 1.0, 4.0);
    for (auto [i, t] : {std::pair{4, 5.0}, {5, 9.0}, {6, 13.0}, {7, 17.0}})
        EXPECT_NEAR(walked[i], t, t * 1e-12) << i;
}

TEST(AbsorptionTable, ContactFactorTimesStepOverDiffusionWithMatrixForcedToZero) {
    MineralValueMap<double> rho;
    rho.set(Mineral::Quartz, 1.6e-5);
    rho.set(Mineral::Matrix, 5e-5);
    AbsorptionTable table = {7.0};  // refilled whole
    buildAbsorptionTable(rho, 0.25, 2e-6, 2.3e-9, table);
    EXPECT_NEAR(table.at(Mineral::Quartz), 1.6e-5 * 25 / 36 * 0.25 * 2e-6 / 2.3e-9, 1e-16);
    EXPECT_EQ(std::count(table.begin(), table.end(), 0.0), 13) << "of 14: matrix and the rest";
}

}  // namespace nmr
