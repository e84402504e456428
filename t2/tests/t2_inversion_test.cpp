#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <new>
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
    EXPECT_GT(k(1, 0), 0.0);  // exponent -99.98, above the cut-off
    EXPECT_EQ(k(2, 0), 0.0);  // exponent exactly -100
    EXPECT_EQ(k(3, 0), 0.0);
    EXPECT_NEAR(k(3, 1), std::exp(-0.08), 1e-16);  // one rounding of exp(-0.08)
}

TEST(T2Kernel, SizeOverflowIsAnAllocationFailure) {
    const std::size_t big = std::size_t{1} << 32;
    EXPECT_EQ(checkedElementCount(big / 2, big - 1), (std::int64_t{1} << 63) - (big / 2));
    EXPECT_THROW(checkedElementCount(big / 2, big), std::bad_alloc);  // exactly 2^63
    EXPECT_THROW(checkedElementCount(big, big), std::bad_alloc);
}

TEST(T2Inversion, RankCutsAtTheFirstRatioStrictlyAboveTheLimit) {
    EXPECT_EQ(truncationRank(Eigen::Vector3d(1e6, 10.0, 1.0), 1e6), 3);  // ratio == limit
    EXPECT_EQ(truncationRank(Eigen::Vector3d(1e6, 10.0, 0.5), 1e6), 2);
    EXPECT_EQ(truncationRank(Eigen::Vector3d(3.0, 2e-6, 1e-9), 1e6), 1);
    EXPECT_EQ(truncationRank(Eigen::Vector2d(1.0, 0.0), 1e6), 1);
}

TEST(T2Inversion, WellConditionedKernelKeepsEveryDirection) {
    T2Inversion inversion;
    inversion.buildKernel({0.5, 1.0, 2.0, 4.0, 8.0, 16.0}, {1.0, 4.0, 16.0});
    const std::vector<double> values{0.9, 0.8, 0.6, 0.4, 0.2, 0.05};
    inversion.compress(values, 1000000.0);
    ASSERT_EQ(inversion.rank(), 3);
    const Eigen::MatrixXd& u = inversion.leftVectors();
    // Nothing truncated: U_r A_r rebuilds K, to rounding of a 6x3 SVD.
    EXPECT_LT((u * inversion.compressedKernel() - inversion.kernel()).norm(), 1e-13);
    const Eigen::VectorXd m = Eigen::Map<const Eigen::VectorXd>(values.data(), 6);
    EXPECT_LT((inversion.compressedData() - u.transpose() * m).norm(), 1e-14);
    const Eigen::VectorXd& s = inversion.singularValues();
    EXPECT_GT(s[0], s[1]);
    EXPECT_GT(s[1], s[2]);
}

TEST(T2Inversion, CurvesWithoutSignalGiveZeroAmplitudesAtOnce) {
    const std::vector<double> grid = makeT2Grid(0.0001, 10000.0, 100);
    for (const std::vector<double>& times : {std::vector<double>{}, {0.1, 1.0, 10.0, 100.0}}) {
        T2Inversion inversion;
        std::vector<double> amplitudes{1.0};
        double lambda = -1.0;
        inversion.solve(times, std::vector<double>(times.size(), 0.0), grid, 1000000.0, amplitudes,
                        lambda);
        ASSERT_EQ(amplitudes.size(), grid.size());
        for (double a : amplitudes) EXPECT_EQ(a, 0.0);
        EXPECT_TRUE(std::isfinite(lambda));
    }
}

// End times (ms) of the walk's 300 intervals for a 1e-6 m voxel, a step of 0.5 voxel
// (fine step 0.25), water diffusion 2.5e-9 m^2/s and a switch time of 0: the switch
// fires after interval 0, from where the coarse step's duration applies.
std::vector<double> intervalEndTimes() {
    const double ratio = std::pow(10.0, 0.025);
    const auto stepTime = [](double step) {
        return std::pow(1e-6 * step, 2) / (6 * 2.5e-9) * 1000;
    };
    double tau = stepTime(0.25);
    bool armed = true;
    std::int32_t k = 0;
    std::vector<double> times;
    for (int i = 0; i < 300; ++i) {
        k = static_cast<std::int32_t>(std::lround(k * ratio)) + 1;
        const double t = k * tau;
        times.push_back(t);
        if (armed && t > 0.0) {
            armed = false;
            tau = stepTime(0.5);
            k = static_cast<std::int32_t>(t / tau);
        }
    }
    return times;
}

struct Peak {
    double t2;
    double weight;
};

struct TruthCase {
    const char* name;
    std::vector<Peak> peaks;
};

class InversionTruth : public ::testing::TestWithParam<TruthCase> {};

// Noise-free multi-exponential curves, sampled where the walk reports and cut below 0.001
// as the decay curve is, inverted onto the default axis. Peaks are compared by the
// amplitude they hold within +-0.35 decade and by their mean log10 T2 there.
TEST_P(InversionTruth, RecoversPeakMassAndPosition) {
    const std::vector<Peak>& peaks = GetParam().peaks;
    std::vector<double> times, values;
    for (double t : intervalEndTimes()) {
        double m = 0.0;
        for (const Peak& p : peaks) m += p.weight * std::exp(-t / p.t2);
        if (m > 0.001) {
            times.push_back(t);
            values.push_back(m);
        }
    }
    const std::vector<double> grid = makeT2Grid(0.0001, 10000.0, 100);
    T2Inversion inversion;
    std::vector<double> amplitudes;
    double lambda = -1.0;
    inversion.solve(times, values, grid, 1000000.0, amplitudes, lambda);
    ASSERT_EQ(amplitudes.size(), grid.size());
    EXPECT_GT(lambda, 0.0);

    double total = 0.0;
    for (double a : amplitudes) {
        EXPECT_GE(a, 0.0);
        total += a;
    }
    double totalWeight = 0.0;
    for (const Peak& p : peaks) {
        double mass = 0.0, logSum = 0.0;
        for (std::size_t j = 0; j < grid.size(); ++j) {
            if (std::abs(std::log10(grid[j] / p.t2)) <= 0.35) {
                mass += amplitudes[j];
                logSum += amplitudes[j] * std::log10(grid[j]);
            }
        }
        totalWeight += p.weight;
        // Regularisation spreads a peak over a few neighbouring components but keeps its
        // mass; 2 % of the weight and 0.05 decade are well outside what it moves.
        EXPECT_NEAR(mass, p.weight, 0.02 * p.weight) << "peak at " << p.t2;
        EXPECT_NEAR(logSum / mass, std::log10(p.t2), 0.05) << "peak at " << p.t2;
    }
    EXPECT_NEAR(total, totalWeight, 0.02 * totalWeight);
}

INSTANTIATE_TEST_SUITE_P(
    Curves, InversionTruth,
    ::testing::Values(
        // 7.0548... is element 60 of the default axis; 7.05 lies 0.0003 decade beside it.
        TruthCase{"OnAxis", {{makeT2Grid(0.0001, 10000.0, 100)[60], 1.0}}},
        TruthCase{"NearAxis", {{7.05, 1.0}}}, TruthCase{"TwoPeaks", {{10.0, 0.4}, {300.0, 0.6}}}),
    [](const ::testing::TestParamInfo<TruthCase>& c) { return std::string(c.param.name); });

}  // namespace
}  // namespace nmr::t2
