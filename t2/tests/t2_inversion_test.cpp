#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "t2/t2_grid.h"
#include "t2/t2_inversion.h"

namespace nmr::t2 {
namespace {

TEST(T2Kernel, ElementsAtOrBeyondOneHundredT2AreExactZeros) {
    T2Inversion inversion;
    inversion.buildKernel({0.0, 49.99, 50.0, 80.0}, {0.5, 1000.0});
    const Eigen::MatrixXd& k = inversion.kernel();
    ASSERT_EQ(k.rows(), 4);
    ASSERT_EQ(k.cols(), 2);
    EXPECT_EQ(k(0, 0), 1.0);
    EXPECT_GT(k(1, 0), 0.0);  // exponent -99.98
    EXPECT_EQ(k(2, 0), 0.0);  // exactly -100
    EXPECT_EQ(k(3, 0), 0.0);
    EXPECT_NEAR(k(3, 1), std::exp(-0.08), 1e-16);
}

TEST(T2Inversion, RankCutsAtTheFirstRatioStrictlyAboveTheLimit) {
    EXPECT_EQ(truncationRank(Eigen::Vector3d(1e6, 10.0, 1.0), 1e6), 3);  // ratio == limit
    EXPECT_EQ(truncationRank(Eigen::Vector3d(1e6, 10.0, 0.5), 1e6), 2);
    EXPECT_EQ(truncationRank(Eigen::Vector3d(3.0, 2e-6, 1e-9), 1e6), 1);
    EXPECT_EQ(truncationRank(Eigen::Vector2d(1.0, 0.0), 1e6), 1);
}

TEST(T2Inversion, CurvesWithoutSignalGiveZeroAmplitudes) {
    const std::vector<double> grid = makeT2Grid(0.0001, 10000.0, 100);
    for (const std::vector<double>& times : {std::vector<double>{}, {0.1, 1.0, 10.0, 100.0}}) {
        std::vector<double> amplitudes{1.0};
        double lambda = -1.0;
        T2Inversion().solve(times, std::vector<double>(times.size(), 0.0), grid, 1e6, amplitudes,
                            lambda);
        EXPECT_EQ(amplitudes, std::vector<double>(grid.size(), 0.0));
        EXPECT_TRUE(std::isfinite(lambda));
    }
}

struct Peak {
    double t2, weight;
};

class InversionTruth : public ::testing::TestWithParam<std::vector<Peak>> {};

// Noise-free multi-exponential curves, sampled as the walk reports (spacing growing by
// 10^0.025 per interval on top of a 1/60 ms step) and cut below 0.001 as the decay curve
// is, inverted onto the default axis. Each peak is judged by the amplitude within
// +-0.35 decade of it and by its mean log10 T2 there.
TEST_P(InversionTruth, RecoversPeakMassAndPosition) {
    const std::vector<Peak>& peaks = GetParam();
    std::vector<double> times, values;
    for (double t = 1.0 / 60.0; times.size() < 300; t = t * std::pow(10.0, 0.025) + 1.0 / 60.0) {
        double m = 0.0;
        for (const Peak& p : peaks) m += p.weight * std::exp(-t / p.t2);
        if (m <= 0.001) break;
        times.push_back(t);
        values.push_back(m);
    }
    const std::vector<double> grid = makeT2Grid(0.0001, 10000.0, 100);
    std::vector<double> amplitudes;
    double lambda = -1.0, total = 0.0, totalWeight = 0.0;
    T2Inversion().solve(times, values, grid, 1e6, amplitudes, lambda);
    ASSERT_EQ(amplitudes.size(), grid.size());
    EXPECT_GT(lambda, 0.0);
    for (double a : amplitudes) {
        EXPECT_GE(a, 0.0);
        total += a;
    }
    for (const Peak& p : peaks) {
        double mass = 0.0, logSum = 0.0;
        for (std::size_t j = 0; j < grid.size(); ++j) {
            if (std::abs(std::log10(grid[j] / p.t2)) > 0.35) continue;
            mass += amplitudes[j];
            logSum += amplitudes[j] * std::log10(grid[j]);
        }
        totalWeight += p.weight;
        // Regularisation spreads a peak over a few neighbours but keeps its mass.
        EXPECT_NEAR(mass, p.weight, 0.02 * p.weight) << "peak at " << p.t2;
        EXPECT_NEAR(logSum / mass, std::log10(p.t2), 0.05) << "peak at " << p.t2;
    }
    EXPECT_NEAR(total, totalWeight, 0.02 * totalWeight);
}

// 7.05 ms lies 0.0003 decade beside element 60 of the axis.
INSTANTIATE_TEST_SUITE_P(Curves, InversionTruth,
                         ::testing::Values(std::vector<Peak>{{7.05, 1.0}},
                                           std::vector<Peak>{{10.0, 0.4}, {300.0, 0.6}}));

}  // namespace
}  // namespace nmr::t2
