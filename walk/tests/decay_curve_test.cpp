#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "walk/clay_micro_porosity.h"
#include "walk/decay_curve.h"

namespace nmr {

constexpr double kUlps = 1e-15;  // the same operations in another order

TEST(DecayAmplitude, PoreWaterAndClayWaterWithTheirWeights) {
    const ClayComponents a{{10.0, 20.0}, {0.5, 0.5}}, silent{{40.0, 80.0}, {0.0, 0.0}};
    const ClayComponents b{{40.0, 80.0, 1.0}, {0.25, 0.75, 9.0}};  // third entry never read
    const double t = 5.0, w = 0.9, s = 0.3, damping = std::exp(-t / 1000.0 - t * 0.002);
    const double sumA = 0.5 * std::exp(-t / 10.0) + 0.5 * std::exp(-t / 20.0);
    const double sumB = 0.25 * std::exp(-t / 40.0) + 0.75 * std::exp(-t / 80.0);
    ClayMicroPorosityModel clay{a, b, 0.0};
    EXPECT_NEAR(decayAmplitude(0.2, t, DecayModel{clay, w, s, 1000.0, 0.002}),
                ((w - s) * 0.8 + (0.95 * sumA + 0.050000000000000044 * sumB) * s) * damping, kUlps);
    // A silent list B leaves list A the whole clay signal.
    clay.listB = silent;
    EXPECT_NEAR(decayAmplitude(0.2, t, DecayModel{clay, w, s, 1000.0, 0.002}),
                ((w - s) * 0.8 + sumA * s) * damping, kUlps);
}

TEST(BuildDecayCurve, RunningFractionOverRequestedWalkersAndStrictCut) {
    // 10 requested, 7 counted: without clay or damping, exactly the fraction left.
    const double inf = std::numeric_limits<double>::infinity();
    const DecayModel plain{{}, 1.0, 0.0, inf, 0.0}, damped{{}, 1.0, 0.0, 10.0, 0.0};
    const auto curve = buildDecayCurve({2, 3, 2}, {1, 2, 3, 4}, 10, plain);
    EXPECT_EQ(curve.times, (std::vector<double>{1, 2, 3}));
    EXPECT_EQ(curve.values, (std::vector<double>{1 - 0.2, 1 - 0.5, 1 - 0.7}));
    EXPECT_TRUE(buildDecayCurve({}, {1.0}, 10, plain).times.empty());  // M = 0
    // w - s = 0.001 at t = 0 is dropped; a late, damped point is skipped, not a stop.
    EXPECT_TRUE(
        buildDecayCurve({0}, {0.0}, 4, DecayModel{{}, 0.001, 0.0, 10.0, 0.0}).times.empty());
    const auto gap = buildDecayCurve({0, 0, 0}, {1, 1e6, 2}, 4, damped);
    EXPECT_EQ(gap.times, (std::vector<double>{1, 2}));
}

TEST(ClayMicroPorosityModel, VolumeWeightedSpheresBetweenTheRadii) {
    // R log-spaced from mu 50 nm to mu voxels (40 times that), T2 = R / (3 rho) (the last: the
    // mean of the last two), amplitudes ~ R^0.3 (volume weights of R^-2.7); B: quartz-lined.
    const double mu = 0.5, voxel = 2e-6, rhoClay = 3e-6, rhoQuartz = 1.5e-5;
    const auto m = buildClayMicroPorosityModel(mu, voxel, rhoClay, rhoQuartz);
    ASSERT_TRUE(m.listA.size() == 11u && m.listB.size() == 11u);
    double t2[11], volume = 0.0, mean = 0.0;
    for (int k = 0; k < 11; ++k) t2[k] = 1e3 * mu * 5e-8 * std::pow(40.0, k / 10.0) / (3 * rhoClay);
    for (int k = 0; k < 11; ++k) volume += std::pow(t2[k], 0.3);
    for (int k = 0; k < 11; ++k) {
        const double expectedT2 = k < 10 ? t2[k] : (t2[9] + t2[10]) / 2.0;
        EXPECT_NEAR(m.listA.t2[k], expectedT2, expectedT2 * 1e-12) << k;
        EXPECT_NEAR(m.listB.t2[k], expectedT2 * rhoClay / rhoQuartz, expectedT2 * 1e-12) << k;
        EXPECT_NEAR(m.listA.amplitude[k], std::pow(t2[k], 0.3) / volume, 1e-12) << k;
        mean += m.listA.amplitude[k] * expectedT2;
    }
    EXPECT_NEAR(m.t2Micro, mean, mean * 1e-12);
    // No pore-size range: no clay signal. Pores as large as a voxel: list B silent.
    const auto none = buildClayMicroPorosityModel(0.0, 1e-6, 1e-6, 1e-5);
    EXPECT_TRUE(none.listA.empty() && none.t2Micro == 0.0);
    EXPECT_EQ(buildClayMicroPorosityModel(1.0, 1e-6, 1e-6, 1e-5).listB.amplitude,
              std::vector<double>(11, 0.0));
}

}  // namespace nmr
