#include <gtest/gtest.h>

#include "params/nmr_parameters.h"

namespace nmr {
namespace {

TEST(NuclearMagneticResonanceParameters, FieldContributionIsComputedOnceAndKept) {
    NuclearMagneticResonanceParameters p;
    p.setGyroMagneticRatio(2.0);
    p.setMagneticFieldGradient(3.0);
    p.setDiffusionConstantWater(5.0);
    p.setEchoSpacing(7.0);
    EXPECT_EQ(p.magneticFieldContributionWater(), 8.82);  // 2*2*3*3*5*7*7/1000
    p.setEchoSpacing(14.0);
    EXPECT_EQ(p.magneticFieldContributionWater(), 8.82);
    p.setMagneticFieldContributionWater(-1.0);  // "not computed" again
    EXPECT_EQ(p.magneticFieldContributionWater(), 35.28);
}

}  // namespace
}  // namespace nmr
