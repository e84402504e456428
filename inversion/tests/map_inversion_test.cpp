// The pieces of the inversion where a slip would still give a plausible-looking map: the
// kernels and their axes, the layout of the compressed problem, the optimality of the
// non-negative solve, where the noise level comes from, and a 1-D T1 distribution.

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "common/exception.h"
#include "inversion/map_inversion.h"
#include "testutil/checks.h"

namespace nmr::inversion {
namespace {

using test::thrownMessage;

TEST(Kernels, ValuesOfEachKindAndTheirDefaultAxes) {
    const Eigen::MatrixXd decay = kernelMatrix(KernelKind::Decay, {0.0, 10.0, 5000.0}, {10.0});
    EXPECT_EQ(decay(0, 0), 1.0);
    EXPECT_DOUBLE_EQ(decay(1, 0), std::exp(-1.0));
    EXPECT_EQ(decay(2, 0), 0.0);  // exponent -500, below the cut-off
    const Eigen::MatrixXd recovery =
        kernelMatrix(KernelKind::InversionRecovery, {0.0, 100.0 * std::log(2.0)}, {100.0});
    EXPECT_EQ(recovery(0, 0), -1.0);          // fully inverted at once
    EXPECT_NEAR(recovery(1, 0), 0.0, 1e-15);  // the null at T1 ln 2
    const Eigen::MatrixXd diffusion = kernelMatrix(KernelKind::Diffusion, {1e9}, {2.3e-9, 1e-11});
    EXPECT_DOUBLE_EQ(diffusion(0, 0), std::exp(-2.3));
    EXPECT_DOUBLE_EQ(diffusion(0, 1), std::exp(-0.01));

    // Zeros (a b of 0, an echo at 0) are skipped; the slow end is three times the record.
    EXPECT_EQ(resolvableRange(KernelKind::Decay, {0.0, 0.2, 0.4, 2000.0}),
              std::make_pair(0.2, 6000.0));
    EXPECT_EQ(resolvableRange(KernelKind::InversionRecovery, {10000.0, 1.0}),
              std::make_pair(1.0, 30000.0));
    const auto [dLo, dHi] = resolvableRange(KernelKind::Diffusion, {0.0, 1e7, 3e10});
    EXPECT_DOUBLE_EQ(dLo, 1.0 / 9e10);
    EXPECT_DOUBLE_EQ(dHi, 1e-7);
    EXPECT_EQ(thrownMessage([] {
                  resolvableRange(KernelKind::Diffusion, {0.0, 5e8, 5e8});
              }),
              "The D axis needs at least two different positive sample values");

    const std::vector<double> axis = logAxis(0.2, 6000.0, 50);
    EXPECT_EQ(axis.front(), 0.2);
    EXPECT_EQ(axis.back(), 6000.0);
    EXPECT_NEAR(std::log(axis[1] / axis[0]), std::log(30000.0) / 49, 1e-12);
    EXPECT_EQ(thrownMessage([] { logAxis(5.0, 5.0, 10); }),
              "A map axis needs 0 < lower end < upper end: 5.000000 5.000000");
}

// Different sizes on every side, so that a transposed factor or a row-major vec cannot
// pass: exact data K1 F K2^T must compress to exactly kernel * vec(F).
TEST(Compression, KernelAndDataShareTheColumnMajorLayoutOfTheMap) {
    const std::vector<double> tau = logAxis(1.0, 5000.0, 13);
    std::vector<double> echoes;
    for (int i = 1; i <= 400; ++i) echoes.push_back(0.5 * i);
    const SeparableKernel k =
        separableKernel(KernelKind::InversionRecovery, tau, logAxis(2.0, 4000.0, 7),
                        KernelKind::Decay, echoes, logAxis(1.0, 600.0, 11));
    std::mt19937 generator(5);
    std::uniform_real_distribution<double> uniform(0.0, 1.0);
    Eigen::MatrixXd f(7, 11);
    for (Eigen::Index j = 0; j < f.size(); ++j) f.reshaped()[j] = uniform(generator);
    const Eigen::MatrixXd data = k.k1 * f * k.k2.transpose();
    const CompressedProblem p = compressProblem(k.k1, k.k2, data, 1e-12);
    ASSERT_EQ(p.kernel.rows(), p.k1.s.size() * p.k2.s.size());
    ASSERT_EQ(p.kernel.cols(), 77);
    // Rounding of a sum over 5200 data of order 1.
    EXPECT_LT((p.kernel * f.reshaped() - p.data).norm(), 1e-10 * p.data.norm());
    EXPECT_LT(p.outsideSquares, 1e-20 * data.squaredNorm());
    EXPECT_EQ(p.outsideCount, Eigen::Index{13} * 400 - p.kernel.rows());
    EXPECT_EQ(thrownMessage([&] { compressProblem(k.k1, k.k2, data.transpose(), 1e-4); }),
              "The data (400 x 13) do not match the kernels' samples (13 x 400)");
}

struct Small {
    SeparableKernel kernel;
    Eigen::MatrixXd data;
};

// Two peaks of a T1-T2 map on 16 x 200 noisy data: small enough for seconds in a Debug
// build with sanitizers, noisy enough that the constraint binds on most of the map.
Small smallT1T2(unsigned seed, double sigma) {
    Small s;
    const std::vector<double> tau = logAxis(1.0, 10000.0, 16);
    std::vector<double> echoes;
    for (int i = 1; i <= 200; ++i) echoes.push_back(3.0 * i);
    s.kernel = separableKernel(KernelKind::InversionRecovery, tau, logAxis(1.0, 30000.0, 16),
                               KernelKind::Decay, echoes, logAxis(3.0, 1800.0, 14));
    s.data = 0.6 * kernelMatrix(KernelKind::InversionRecovery, tau, {150.0}) *
                 kernelMatrix(KernelKind::Decay, echoes, {60.0}).transpose() +
             0.4 * kernelMatrix(KernelKind::InversionRecovery, tau, {1500.0}) *
                 kernelMatrix(KernelKind::Decay, echoes, {500.0}).transpose();
    std::mt19937 generator(seed);
    std::normal_distribution<double> noise(0.0, sigma);
    for (Eigen::Index j = 0; j < s.data.size(); ++j) s.data.reshaped()[j] += noise(generator);
    return s;
}

// The Karush-Kuhn-Tucker conditions of min ||m - K f||^2 + alpha ||f||^2, f >= 0: the
// gradient K^T (K f - m) + alpha f vanishes where f > 0 and is >= 0 where f = 0. They hold
// for the true minimiser only, whatever path the solver took to it.
TEST(BrdSolver, MeetsTheOptimalityConditionsAtEveryAlpha) {
    const Small s = smallT1T2(3, 0.01);
    const CompressedProblem p = compressProblem(s.kernel.k1, s.kernel.k2, s.data, 1e-4);
    BrdSolver warm(p);
    for (double alpha : {1e3, 10.0, 0.1, 1e-3}) {
        const Eigen::VectorXd f = warm.solve(alpha);
        EXPECT_TRUE(warm.lastConverged()) << alpha;
        const Eigen::VectorXd g = p.kernel.transpose() * (p.kernel * f - p.data) + alpha * f;
        // Relative to the size of the terms that cancel in g.
        const double tolerance = 1e-8 * (p.kernel.transpose() * p.data).cwiseAbs().maxCoeff();
        int positive = 0;
        for (Eigen::Index j = 0; j < f.size(); ++j) {
            ASSERT_GE(f[j], 0.0);
            if (f[j] > 0.0) {
                ++positive;
                EXPECT_LE(std::abs(g[j]), tolerance) << "alpha " << alpha << " cell " << j;
            } else {
                EXPECT_GE(g[j], -tolerance) << "alpha " << alpha << " cell " << j;
            }
        }
        EXPECT_GT(positive, 0);
        EXPECT_LT(positive, f.size());  // the constraint binds somewhere
        // A fresh solver reaches the same map from its own start.
        EXPECT_LT((BrdSolver(p).solve(alpha) - f).norm(), 1e-6 * f.norm()) << alpha;
    }
}

TEST(MapInversion, SameDataSameBitsAndTheFiguresOfTheResult) {
    const Small s = smallT1T2(4, 0.01);
    const MapResult a = invertMap(s.kernel, s.data);
    const MapResult b = invertMap(s.kernel, s.data);
    EXPECT_TRUE(a.map == b.map);
    EXPECT_EQ(a.alpha, b.alpha);
    EXPECT_EQ(a.noiseSource, NoiseSource::Estimated);
    EXPECT_NEAR(a.noise, 0.01, 0.001);  // 3200 data, ~3100 of them outside the subspace
    EXPECT_GT(a.alpha, 0.0);
    ASSERT_EQ(a.projection1.size(), 16u);
    ASSERT_EQ(a.projection2.size(), 14u);
    // Log-means of 0.6 at (150, 60) ms and 0.4 at (1500, 500) ms: exp(0.6 ln 150 +
    // 0.4 ln 1500) = 377 ms and exp(0.6 ln 60 + 0.4 ln 500) = 140 ms.
    EXPECT_NEAR(std::log10(a.logMean1), std::log10(377.0), 0.05);
    EXPECT_NEAR(std::log10(a.logMean2), std::log10(140.0), 0.05);
    EXPECT_NEAR(a.residualRms / 0.01, 1.0, 0.05);
}

TEST(MapInversion, TheNoiseLevelIsGivenEstimatedOrTheFloor) {
    const Small noisy = smallT1T2(5, 0.01);
    MapOptions given;
    given.noise = 0.03;
    const MapResult g = invertMap(noisy.kernel, noisy.data, given);
    EXPECT_EQ(g.noiseSource, NoiseSource::Given);
    EXPECT_EQ(g.noise, 0.03);
    EXPECT_NEAR(g.estimatedNoise, 0.01, 0.001);
    // A larger noise lets the map give up more of the fit: a smoother map.
    EXPECT_GT(g.alpha, invertMap(noisy.kernel, noisy.data).alpha);

    // Exact data: all the estimate sees is the signal of the dropped singular components,
    // and the floor, 1e-4 of the largest |datum|, decides.
    const Small exact = smallT1T2(5, 0.0);
    const MapResult e = invertMap(exact.kernel, exact.data);
    EXPECT_EQ(e.noiseSource, NoiseSource::Floor);
    EXPECT_EQ(e.noise, kNoiseFloor * exact.data.cwiseAbs().maxCoeff());
    EXPECT_LT(e.estimatedNoise, e.noise);

    // No signal at all: no noise either, and an empty map rather than a failure.
    const MapResult zero = invertMap(exact.kernel, Eigen::MatrixXd::Zero(16, 200));
    EXPECT_EQ(zero.map.cwiseAbs().maxCoeff(), 0.0);
    EXPECT_EQ(zero.noiseSource, NoiseSource::Floor);
    EXPECT_TRUE(std::isnan(zero.logMean1));

    MapOptions fixed;
    fixed.alpha = 0.5;
    EXPECT_EQ(invertMap(noisy.kernel, noisy.data, fixed).alpha, 0.5);
    fixed.noise = -1.0;
    EXPECT_EQ(thrownMessage([&] { invertMap(noisy.kernel, noisy.data, fixed); }),
              "The noise level must be positive: -1.000000");
}

// A T1 distribution from 60 recovery times between 1 ms and 10 s, noise 0.01: the two
// components of the two-pore example, 0.6 at 187.5 ms and 0.4 at 1200 ms. One curve holds
// 5000 times fewer data than the maps, so each peak is looser: positions within 0.1
// decade, fractions within 0.05.
TEST(Curve, T1DistributionFromARecoveryCurve) {
    for (unsigned seed : {11u, 12u, 13u}) {
        const std::vector<double> tau = logAxis(1.0, 10000.0, 60);
        std::vector<double> values(tau.size());
        std::mt19937 generator(seed);
        std::normal_distribution<double> noise(0.0, 0.01);
        for (std::size_t i = 0; i < tau.size(); ++i)
            values[i] = 0.6 * (1.0 - 2.0 * std::exp(-tau[i] / 187.5)) +
                        0.4 * (1.0 - 2.0 * std::exp(-tau[i] / 1200.0)) + noise(generator);
        const auto [lo, hi] = resolvableRange(KernelKind::InversionRecovery, tau);
        const CurveResult r =
            invertCurve(KernelKind::InversionRecovery, tau, values, logAxis(lo, hi, 100));
        double weight[2] = {0.0, 0.0}, logSum[2] = {0.0, 0.0};
        for (std::size_t j = 0; j < r.axis.size(); ++j) {
            const int side = r.axis[j] > 474.0 ? 1 : 0;  // the geometric mean of the two
            weight[side] += r.amplitude[j];
            logSum[side] += r.amplitude[j] * std::log10(r.axis[j]);
        }
        const double total = weight[0] + weight[1];
        EXPECT_NEAR(logSum[0] / weight[0], std::log10(187.5), 0.1) << seed;
        EXPECT_NEAR(logSum[1] / weight[1], std::log10(1200.0), 0.1) << seed;
        EXPECT_NEAR(weight[0] / total, 0.6, 0.05) << seed;
        EXPECT_NEAR(total, 1.0, 0.02) << seed;
        EXPECT_EQ(r.noiseSource, NoiseSource::Estimated);
    }
}

}  // namespace
}  // namespace nmr::inversion
