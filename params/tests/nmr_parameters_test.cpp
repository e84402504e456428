#include <gtest/gtest.h>

#include "params/nmr_parameters.h"

namespace nmr {
namespace {

TEST(NuclearMagneticResonanceParameters, ConstructionValues) {
    NuclearMagneticResonanceParameters p;
    EXPECT_EQ(p.randomSeed(), 8008);
    EXPECT_EQ(p.t2Minimum(), 0.0001);
    EXPECT_EQ(p.t2Maximum(), 10000.0);
    EXPECT_EQ(p.t2Components(), 100);
    EXPECT_EQ(p.numberOfWalkers(), 0);
    EXPECT_EQ(p.stepLength(), 0.0);
    EXPECT_FALSE(p.saturationFile() || p.secondFlag());
    EXPECT_TRUE(p.grid().empty() && p.bulkOilT2().empty());
    EXPECT_EQ(p.regionOfInterest(), nullptr);
}

TEST(NuclearMagneticResonanceParameters, FieldContributionIsComputedOnceAndKept) {
    NuclearMagneticResonanceParameters p;
    p.setGyroMagneticRatio(42580000.0);
    p.setMagneticFieldGradient(0.2);
    p.setDiffusionConstantWater(2.5e-9);
    p.setEchoSpacing(0.001);
    // Same multiplication order as the record, so the comparison can be exact.
    const double expected = 42580000.0 * 42580000.0 * 0.2 * 0.2 * 2.5e-9 * 0.001 * 0.001 / 1000.0;
    EXPECT_EQ(p.magneticFieldContributionWater(), expected);
    p.setEchoSpacing(0.002);
    EXPECT_EQ(p.magneticFieldContributionWater(), expected);
    p.setMagneticFieldContributionWater(-1.0);  // "not computed" again
    // Doubling TE quadruples the term; a few ulps of rounding differ between the two orders.
    EXPECT_DOUBLE_EQ(p.magneticFieldContributionWater(), 4.0 * expected);
}

}  // namespace
}  // namespace nmr
