#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <numeric>

#include "walk/clay_micro_porosity.h"
#include "walk/decay_curve.h"
#include "walk/saturation.h"

namespace nmr {
namespace {

const ClayComponents kNone;
const ClayMicroPorosityModel kNoClay;
constexpr double kInf = std::numeric_limits<double>::infinity();

// The formulas below evaluate the same operations in another order: a few ulps apart.
constexpr double kUlps = 1e-15;

TEST(DecayAmplitude, PoreWaterAndClayWaterWithTheirWeights) {
    // Water only: (1 - f) exp(-t / T2b) exp(-t g).
    for (double f : {0.0, 0.25, 1.0})
        EXPECT_NEAR(decayAmplitude(f, 40.0, kNone, kNone, 1.0, 0.0, 3000.0, 0.002),
                    (1.0 - f) * std::exp(-40.0 / 3000.0 - 40.0 * 0.002), kUlps);

    const ClayComponents a{{10.0, 20.0}, {0.5, 0.5}};
    const ClayComponents b{{40.0, 80.0, 1.0}, {0.25, 0.75, 9.0}};  // third entry never read
    const double t = 5.0, w = 0.9, s = 0.3;
    const double sumA = 0.5 * std::exp(-t / 10.0) + 0.5 * std::exp(-t / 20.0);
    const double sumB = 0.25 * std::exp(-t / 40.0) + 0.75 * std::exp(-t / 80.0);
    const double damping = std::exp(-t / 1000.0);
    EXPECT_NEAR(decayAmplitude(0.2, t, a, b, w, s, 1000.0, 0.0),
                ((w - s) * 0.8 + (0.95 * sumA + 0.050000000000000044 * sumB) * s) * damping, kUlps);
    // A silent list B (zero amplitudes) leaves list A the whole clay signal.
    const ClayComponents silent{{40.0, 80.0}, {0.0, 0.0}};
    EXPECT_NEAR(decayAmplitude(0.2, t, a, silent, w, s, 1000.0, 0.0),
                ((w - s) * 0.8 + sumA * s) * damping, kUlps);
}

TEST(BuildDecayCurve, RunningFractionOverRequestedWalkersAndStrictCut) {
    // 10 walkers requested, 7 counted: absorbed fractions 0.2, 0.5, 0.7.
    const auto curve =
        buildDecayCurve({2, 3, 2}, {1.0, 2.0, 3.0, 4.0}, 10, kNoClay, 1.0, 0.0, kInf, 0.0);
    ASSERT_EQ(curve.times, (std::vector<double>{1.0, 2.0, 3.0}));
    const double survived[] = {0.8, 0.5, 0.3};
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(curve.values[i], survived[i], kUlps);
    EXPECT_TRUE(buildDecayCurve({}, {1.0}, 10, kNoClay, 1.0, 0.0, kInf, 0.0).times.empty());
    // w - s = 0.001 at t = 0 is exactly 0.001: dropped.
    EXPECT_TRUE(buildDecayCurve({0}, {0.0}, 4, kNoClay, 0.001, 0.0, 10.0, 0.0).times.empty());
    // A low point (a late, strongly damped time) is skipped; the curve goes on after it.
    const auto gap = buildDecayCurve({0, 0, 0}, {1.0, 1e6, 2.0}, 4, kNoClay, 1.0, 0.0, 10.0, 0.0);
    EXPECT_EQ(gap.times, (std::vector<double>{1.0, 2.0}));
}

TEST(ClayMicroPorosityModel, VolumeWeightedSpheresBetweenTheRadii) {
    const double mu = 0.5, voxel = 2e-6, rhoClay = 3e-6, rhoQuartz = 1.5e-5;
    const auto m = buildClayMicroPorosityModel(mu, voxel, rhoClay, rhoQuartz);
    ASSERT_EQ(m.listA.size(), 11u);
    ASSERT_EQ(m.listB.size(), 11u);
    auto sphereT2 = [&](int k) {  // T2 = R / (3 rho) in ms, R from mu 50 nm to mu voxels
        return 1000.0 * mu * 5e-8 * std::pow(voxel / 5e-8, k / 10.0) / (3.0 * rhoClay);
    };
    double mean = 0.0;
    for (int k = 0; k < 11; ++k) {
        const double t2 = k < 10 ? sphereT2(k) : (sphereT2(9) + sphereT2(10)) / 2.0;
        EXPECT_NEAR(m.listA.t2[k], t2, t2 * 1e-12) << k;
        EXPECT_NEAR(m.listB.t2[k] / m.listA.t2[k], rhoClay / rhoQuartz, 1e-12) << k;
        // Volume weight of the distribution R^-(d+1), d = 1.7: proportional to R^0.3.
        EXPECT_NEAR(m.listA.amplitude[k] / m.listA.amplitude[0],
                    std::pow(sphereT2(k) / sphereT2(0), 0.3), 1e-12);
        mean += m.listA.amplitude[k] * m.listA.t2[k];
    }
    EXPECT_NEAR(std::accumulate(m.listA.amplitude.begin(), m.listA.amplitude.end(), 0.0), 1.0,
                kUlps * 10);
    EXPECT_NEAR(m.t2Micro, mean, mean * 1e-14);

    // No pore-size range: no clay signal. Pores as large as a voxel: list B silent.
    const auto none = buildClayMicroPorosityModel(0.0, 1e-6, 1e-6, 1e-5);
    EXPECT_TRUE(none.listA.empty() && none.t2Micro == 0.0);
    EXPECT_TRUE(buildClayMicroPorosityModel(0.5, 5e-8, 1e-6, 1e-5).listA.empty());
    const auto full = buildClayMicroPorosityModel(1.0, 1e-6, 1e-6, 1e-5);
    ASSERT_EQ(full.listB.size(), full.listA.size());
    for (double amplitude : full.listB.amplitude) EXPECT_EQ(amplitude, 0.0);
}

TEST(Saturation, EdgeRocksAndTheClampToFullWater) {
    struct Case {
        double pore, clay, mu, clayFraction, bulk;
    };
    for (const Case c : {Case{0.2, 0.0, 0.5, 0.0, 1.0},  // no clay
                         Case{0.0, 1.0, 0.5, 1.0, 0.0},  // clay only
                         Case{0.2, 0.1, 0.5, 0.2, 1.0},  // 0.05 of 0.25 in clay
                         Case{0.13, 0.07, 0.3, 0.021 / 0.151, 1.0}}) {
        const auto s = computeSaturation(c.pore, c.clay, c.mu);
        EXPECT_NEAR(s.totalPorosity, c.mu * c.clay + c.pore, kUlps);
        EXPECT_NEAR(s.clayFraction, c.clayFraction, 1e-12);
        EXPECT_NEAR(s.bulkWaterSaturation, c.bulk, 1e-12);
        // The sums land within rounding of 1; the clamp makes them exactly 1.
        EXPECT_EQ(s.totalWaterSaturation, 1.0);
        EXPECT_EQ(s.oilSaturation, 0.0);
    }
}

}  // namespace
}  // namespace nmr
