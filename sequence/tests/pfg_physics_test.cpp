// Narrow-pulse PFG against closed forms: free diffusion, the diffraction of a slab, and
// Mitra's short-time law in a grain pack. Statistical checks with many walkers: labelled
// physics, left out of the sanitizer build.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <memory>
#include <vector>

#include "grid/byte_mineral_grid.h"
#include "rock/pore_geometry.h"
#include "sequence/pfg.h"
#include "walk/field_map.h"

namespace nmr {
namespace {

constexpr double kDiffusion = 2.5e-9;  // m^2/s
constexpr double kPi = 3.141592653589793;

NuclearMagneticResonanceParameters water(double stepLength) {
    NuclearMagneticResonanceParameters parameters;
    parameters.setGyroMagneticRatio(42.58e6);
    parameters.setDiffusionConstantWater(kDiffusion);
    parameters.setStepLength(stepLength);
    parameters.setBulkWaterT2(1e9);
    return parameters;
}

ExactSums walkAll(const ByteMineralGrid& grid, const DiffusionTimePlan& plan, std::uint32_t walkers,
                  std::int32_t seed) {
    DisplacementWalk<ByteMineralGrid> walk(grid, plan, seed, 0);
    ExactSums sums = walk.emptyTally();
    for (std::uint32_t i = 0; i < walkers; ++i) walk.walk(i, sums);
    return sums;
}

// The standard deviation of the mean of W values cos(q x), x Gaussian of E(q) = E:
// Var cos = (1 + E(2q)) / 2 - E^2 with E(2q) = E^4.
double cosineError(double e, double walkers) {
    return std::sqrt(std::max(0.0, (1.0 + std::pow(e, 4)) / 2.0 - e * e) / walkers);
}

// Free diffusion in an all-pore box (its mirror images continue it): E = exp(-q^2 D0 Delta)
// at every q, and D(Delta) from the slope and from the mean square displacement equal D0.
// Bounds: 1 % plus 4 standard errors; the step is 0.1 voxels, so q s <= 0.17 and the
// fixed-step term c (q s)^2 of -ln E stays below 0.12 %. For the slope, the error of D is
// at most sum b_i sd_i / E_i / sum b_i^2 (the points' errors taken fully correlated); for
// the displacement D, Var(dx^2) = 2 (2 D0 Delta)^2 per axis, three axes a walker.
// b without its Delta, q taken in cycles (2 pi q), the cell size left out, or the
// displacement divided by 6 Delta per axis all miss by far more.
TEST(PfgPhysics, FreeDiffusionGivesTheGaussianSignalAndD0) {
    const ByteMineralGrid box(8, 8, 8, 0, 0, 0, 10.0);
    PfgRequest request;
    request.diffusionTimesMs = {40.0};
    request.axes = {0, 1, 2};
    const DiffusionTimePlan plan = planDiffusionTime(water(0.1), 10e-6, 40.0, request);
    ASSERT_EQ(plan.steps.steps, 600u);
    constexpr std::uint32_t kWalkers = 20000;
    const DiffusionTimeResult result = diffusionTimeResult(plan, walkAll(box, plan, kWalkers, 41));
    const double samples = 3.0 * kWalkers;  // three axes, nearly independent
    double slopeError = 0.0, bb = 0.0;
    for (std::size_t m = 0; m < result.q.size(); ++m) {
        const double e = std::exp(-result.b[m] * kDiffusion);
        const double sd = cosineError(e, kWalkers);
        EXPECT_NEAR(result.e[m], e, 0.01 * e + 4.0 * sd) << "q " << result.q[m];
        if (result.e[m] >= kSlopeFloor && result.b[m] > 0.0) {
            slopeError += result.b[m] * sd / e;
            bb += result.b[m] * result.b[m];
        }
    }
    ASSERT_GE(result.slopePoints, 3u);
    EXPECT_NEAR(result.d, kDiffusion, 0.01 * kDiffusion + 4.0 * slopeError / bb);
    EXPECT_NEAR(result.msdD, kDiffusion, kDiffusion * (0.01 + 4.0 * std::sqrt(2.0 / samples)));

    // The jackknife's errors against their closed forms. Var D = sum a_m a_n C_mn / W over
    // the slope's points, a_m = b_m / (E_m sum b^2) and C_mn the covariance of the three
    // axes' mean cosine, (E(q_m - q_n) + E(q_m + q_n)) / 6 - E_m E_n / 3; Var of the
    // displacement D is 2 D0^2 / (3 W). From 32 batches the jackknife's error is itself
    // uncertain by 1/sqrt(62) = 13 %: the bound is three of those. The factor (K - 1) / K
    // taken as 1 / (K (K - 1)), batches of the sums left out of their replicates, or the
    // points' correlation ignored (the error then 1.5 times too small) miss it.
    const auto gauss = [](double q) { return std::exp(-q * q * kDiffusion * 40e-3); };
    double variance = 0.0;
    for (std::size_t m = 0; m < result.q.size(); ++m) {
        for (std::size_t n = 0; n < result.q.size(); ++n) {
            if (!(result.b[m] > 0.0 && result.e[m] >= kSlopeFloor && result.b[n] > 0.0 &&
                  result.e[n] >= kSlopeFloor))
                continue;
            const double qm = result.q[m], qn = result.q[n];
            const double covariance =
                (gauss(qm - qn) + gauss(qm + qn)) / 6.0 - gauss(qm) * gauss(qn) / 3.0;
            variance += result.b[m] / (gauss(qm) * bb) * result.b[n] / (gauss(qn) * bb) *
                        covariance / kWalkers;
        }
    }
    EXPECT_NEAR(result.dError / std::sqrt(variance), 1.0, 0.38);
    EXPECT_NEAR(result.msdDError / (kDiffusion * std::sqrt(2.0 / (3.0 * kWalkers))), 1.0, 0.38);
}

// Rectangular pulses of delta in free diffusion: E = exp(-q^2 D0 (Delta - delta/3 + tau^2 /
// (3 delta))), the last term that of positions summed after each step (exact for the
// walk's variance; 1/(2 n^2) of the rest at most, here 1e-4 with n = 75 steps of 0.1
// voxels, so that q s <= 0.44 and the walk's non-Gaussian term stays far below 1 %).
// Bounds: 1 % + 4 standard errors, E's from its closed form (three axes averaged) and D's
// the jackknife's. b without its delta/3, the first pulse not reversed, or the pulses'
// sums not divided by n miss by far more.
TEST(PfgPhysics, FinitePulsesInFreeDiffusionGiveTheirEffectiveTime) {
    const ByteMineralGrid box(8, 8, 8, 0, 0, 0, 1.0);
    PfgRequest request;
    request.axes = {0, 1, 2};
    request.pulseDurationMs = 0.05;
    constexpr std::uint32_t kWalkers = 20000;
    for (double separations : {1.0, 5.0}) {
        const double deltaMs = 0.05 * separations;
        request.diffusionTimesMs = {deltaMs};
        const DiffusionTimePlan plan = planDiffusionTime(water(0.1), 1e-6, deltaMs, request);
        ASSERT_EQ(plan.pulseSteps, 75u);
        ASSERT_EQ(plan.separationSteps, static_cast<std::uint32_t>(75 * separations));
        const DiffusionTimeResult result =
            diffusionTimeResult(plan, walkAll(box, plan, kWalkers, 23));
        const double tau = plan.steps.tauMs;
        const double encoding = deltaMs - 0.05 / 3.0;
        const double effective = (encoding + tau * tau / (3.0 * 0.05)) / encoding;
        for (std::size_t m = 1; m < result.q.size(); m += 3) {
            const double e = std::exp(-result.b[m] * kDiffusion * effective);
            EXPECT_NEAR(result.e[m], e, 0.01 * e + 4.0 * cosineError(e, 3.0 * kWalkers))
                << "Delta " << deltaMs << " q " << result.q[m];
        }
        EXPECT_NEAR(result.d / kDiffusion, effective, 0.01 + 4.0 * result.dError / kDiffusion)
            << "Delta " << deltaMs;
    }
}

// Finite pulses in a uniform background gradient G0 along B0 (z), the field read from a
// map (dB/B0 = G0 (z - zc) / B0) that acts over the whole encoding. For free diffusion the
// phase is a sum of Gaussian steps: with the walker's position summed after each step k
// with weight w_k (q a / n under each pulse, the first reversed, and gamma G0 a tau before
// the pi pulse reversed and after it not), its variance is (s^2 / 3) sum_j c_j^2, c_j =
// sum_{k >= j} w_k, and E = exp(-(V(q) - V(0)) / 2): the continuum's q^2 (Delta - delta/3)
// + 2 q gamma G0 ((Delta + delta)^2 / 4 - delta^2 / 3) times D0, with the walk's own
// finite-step terms. Here the cross term is about half the pulses' own. A column of 2000
// cells keeps the walkers off its mirrored ends. Bound: 1 % + 4 standard errors; a field
// that acts only during the pulses, or is not reversed at the pi pulse, misses by far more.
TEST(PfgPhysics, FinitePulsesFeelABackgroundGradientThroughTheWholeEncoding) {
    constexpr std::uint32_t kLength = 2000;
    const ByteMineralGrid column(2, 2, kLength, 0, 0, 0, 1.0);
    constexpr double kCell = 1e-6, kB0 = 1.0, kG0 = 9.0;  // m, T, T/m
    std::vector<float> cells;
    cells.reserve(std::size_t{4} * kLength);
    for (std::uint32_t z = 0; z < kLength; ++z) {
        const double centre = z + 0.5 - kLength / 2.0;
        cells.insert(cells.end(), 4, static_cast<float>(kG0 * kCell * centre / kB0));
    }
    const FieldMap field = bricked(cells.data(), 2, 2, kLength);
    PfgRequest request;
    request.axes = {2};
    request.pulseDurationMs = 0.05;
    request.diffusionTimesMs = {0.25};
    request.qPoints = 7;
    const NuclearMagneticResonanceParameters parameters = water(0.1);
    const DiffusionTimePlan plan =
        planDiffusionTime(parameters, kCell, 0.25, request, StaticField{kB0, 2});
    constexpr std::uint32_t kWalkers = 20000;
    DisplacementWalk<ByteMineralGrid> walk(column, plan, 31, 0, field);
    ExactSums sums = walk.emptyTally();
    for (std::uint32_t i = 0; i < kWalkers; ++i) walk.walk(i, sums);
    const DiffusionTimeResult result = diffusionTimeResult(plan, sums);

    const std::uint32_t n = plan.pulseSteps, m = plan.separationSteps, steps = plan.steps.steps;
    const double background = 2.0 * kPi * parameters.gyroMagneticRatio() * kG0 * kCell *
                              plan.steps.tauMs / 1000.0;  // rad per voxel a step
    const auto variance = [&](double q) {
        const double pulse = q * kCell / n;
        double c = 0.0, squares = 0.0;
        for (std::uint32_t k = steps; k >= 1; --k) {
            c += (k <= n ? -pulse : 0.0) + (k > m ? pulse : 0.0) +
                 (2 * k <= steps ? -background : background);
            squares += c * c;
        }
        return squares * plan.steps.step * plan.steps.step / 3.0;
    };
    const double unencoded = variance(0.0);
    for (std::size_t j = 1; j < result.q.size(); ++j) {
        const double e = std::exp(-(variance(result.q[j]) - unencoded) / 2.0);
        EXPECT_NEAR(result.e[j], e, 0.01 * e + 4.0 * cosineError(e, kWalkers))
            << "q " << result.q[j];
    }
    // The continuum's cross term against the pulses' own at the largest q, as stated.
    const double q = result.q.back(), gamma = 2.0 * kPi * parameters.gyroMagneticRatio();
    const double own = q * q * (0.25e-3 - 0.05e-3 / 3.0);
    const double cross = 2.0 * q * gamma * kG0 * (0.09e-6 - 0.0025e-6 / 3.0);
    EXPECT_GT(cross, 0.3 * own);
}

// A slab of W = 20 voxels across x whose walls do not relax, at D0 Delta / W^2 = 1: the
// walkers have forgotten where they started, so <dx^2> = W^2 / 6 (the transient term is
// 1e-5 of it) and E(q) = 2 (1 - cos qW) / (qW)^2, zero at qW = 2 pi. Bounds: 4 standard
// errors, from Var(dx^2) = W^4 (1/15 - 1/36) of two uniform positions and Var cos as for
// any mean of cosines, plus 0.003 in E for what is left of the transient. q applied to the
// position instead of the displacement, the 2 pi of q, or walkers that pass the walls all
// fail it.
TEST(PfgPhysics, ASlabDiffractsWithItsFirstZeroAtTwoPiOverItsWidth) {
    constexpr std::uint32_t kWidth = 20;
    ByteMineralGrid slab(kWidth + 2, 4, 4, 0, 0, 0, 1.0);
    for (std::uint32_t z = 0; z < 4; ++z) {
        for (std::uint32_t y = 0; y < 4; ++y) {
            slab.setCell(0, y, z, Mineral::Quartz);
            slab.setCell(kWidth + 1, y, z, Mineral::Quartz);
        }
    }
    const double cell = 1e-6, width = kWidth * cell;
    const double deltaMs = width * width / kDiffusion * 1000.0;
    PfgRequest request;
    request.diffusionTimesMs = {deltaMs};
    request.axes = {0};
    request.qMax = 4.0 * kPi / width;
    request.qPoints = 17;
    const DiffusionTimePlan plan = planDiffusionTime(water(1.0), cell, deltaMs, request);
    constexpr std::uint32_t kWalkers = 10000;
    const DiffusionTimeResult result = diffusionTimeResult(plan, walkAll(slab, plan, kWalkers, 5));
    ASSERT_EQ(result.survivors, kWalkers) << "walls that do not relax keep every walker";

    const double meanSquare = result.msdD * 2.0 * deltaMs / 1000.0;
    const double sdSquare = width * width * std::sqrt(1.0 / 15 - 1.0 / 36) / std::sqrt(kWalkers);
    EXPECT_NEAR(meanSquare, width * width / 6.0, 4.0 * sdSquare);
    for (std::size_t m = 1; m < result.q.size(); ++m) {
        const double qw = result.q[m] * width;
        const double e = 2.0 * (1.0 - std::cos(qw)) / (qw * qw);
        const double e2 = 2.0 * (1.0 - std::cos(2.0 * qw)) / (4.0 * qw * qw);
        const double sd = std::sqrt(std::max(0.0, (1.0 + e2) / 2.0 - e * e) / kWalkers);
        EXPECT_NEAR(result.e[m], e, 4.0 * sd + 0.003) << "qW = " << qw;
    }
}

// Mitra's law in a pack of overlapping grains of radius R = 8 voxels at porosity 0.3: the
// short-time fit gives the smooth grains' S/V, -3 ln(phi) / R for a Boolean model of equal
// spheres, within 15 %, over sqrt(D0 Delta) of 1 to 4 voxels. The voxel faces offer some
// 1.4 times that surface, which the walk's steps of half a voxel do not feel; a fit forced
// through D/D0 = 1, a slope without its sqrt(pi), or sqrt(Delta) in place of sqrt(D0 Delta)
// misses by more.
TEST(PfgPhysics, ShortTimesInAGrainPackGiveTheGrainsSurfaceToVolume) {
    rock::SpherePackSettings settings;
    settings.radius = 8.0;
    settings.targetPorosity = 0.3;
    settings.seed = 3;
    const rock::SpherePack pack(64, 64, 64, settings);
    ByteMineralGrid grid(64, 64, 64, 0, 0, 0, 2.0);
    std::vector<GrainBedGridCell> slice(std::size_t{64} * 64);
    for (std::uint32_t z = 0; z < 64; ++z) {
        pack.fillSlice(z, slice.data());
        for (std::uint32_t y = 0; y < 64; ++y)
            for (std::uint32_t x = 0; x < 64; ++x)
                grid.setCell(x, y, z, slice[y * 64 + x].mineral());
    }
    const double cell = 2e-6;
    NuclearMagneticResonanceParameters parameters = water(0.5);
    MineralValueMap<double> relaxivity;
    relaxivity.set(Mineral::Quartz, 0.0);
    parameters.setSurfaceRelaxationStrengthWater(relaxivity);
    PfgRequest request;
    request.axes = {0, 1, 2};
    const auto fitWithSeed = [&](std::int32_t seed, std::uint32_t walkers) {
        std::vector<DiffusionTimeResult> results;
        for (double lengths : {1.0, 1.5, 2.0, 2.5, 3.0, 4.0}) {
            const double deltaMs = std::pow(lengths * cell, 2) / kDiffusion * 1000.0;
            request.diffusionTimesMs = {deltaMs};
            const DiffusionTimePlan plan = planDiffusionTime(parameters, cell, deltaMs, request);
            results.push_back(diffusionTimeResult(plan, walkAll(grid, plan, walkers, seed)));
        }
        return fitShortTimes(results, kDiffusion);
    };
    const ShortTimeFit fit = fitWithSeed(17, 80000);
    ASSERT_TRUE(fit.determined);
    const double smooth = -3.0 * std::log(pack.porosity()) / (settings.radius * cell);
    EXPECT_NEAR(fit.surfaceToVolume, smooth, 0.1 * smooth + 4.0 * fit.surfaceToVolumeError);
    EXPECT_LT(fit.intercept + 4.0 * fit.interceptError, 1.0) << "the walls slow the motion";
    // Another seed's fit lies within four of the two fits' joint jackknife errors: errors
    // several times too small, as from fitting each time's replicates apart from the
    // others', would leave the two seeds further apart than that.
    const ShortTimeFit other = fitWithSeed(18, 20000);
    ASSERT_TRUE(other.determined);
    EXPECT_LT(fit.surfaceToVolumeError, 0.1 * fit.surfaceToVolume);
    EXPECT_NEAR(fit.surfaceToVolume, other.surfaceToVolume,
                4.0 * std::hypot(fit.surfaceToVolumeError, other.surfaceToVolumeError));
    EXPECT_NEAR(fit.intercept, other.intercept,
                4.0 * std::hypot(fit.interceptError, other.interceptError));
    std::printf("S/V %.6g +- %.3g and %.6g +- %.3g; a %.5f +- %.2g and %.5f +- %.2g\n",
                fit.surfaceToVolume, fit.surfaceToVolumeError, other.surfaceToVolume,
                other.surfaceToVolumeError, fit.intercept, fit.interceptError, other.intercept,
                other.interceptError);
}

}  // namespace
}  // namespace nmr
