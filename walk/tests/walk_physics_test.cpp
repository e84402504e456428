#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <functional>
#include <numbers>
#include <vector>

#include "grid/sliced_grid.h"
#include "walk/absorption_table.h"
#include "walk/step_schedule.h"
#include "walk/walk.h"
#include "walk/walker_creation.h"

namespace nmr {
namespace {

using MineralGrid = SlicedGrid<Mineral::Type>;

constexpr double kVoxel = 1e-6;  // m
constexpr double kD = 2.3e-9;    // m^2/s, water
constexpr double kCoarse = 0.5;  // voxels
constexpr double kFine = 0.25;
constexpr double kContactFactor = 0.6944444444444444;  // 25/36, as in the tables

#ifdef NDEBUG
constexpr int kWalkers = 100000;
#else
constexpr int kWalkers = 20000;  // sanitizer and debug builds: same test, wider bound
#endif

// ---------------------------------------------------------------------------------------
// Effective surface relaxivity of the walk rule.
//
// A step of length s (voxels of size dx) lasts tau = (s dx)^2 / (6 D): the mean square
// step is (s dx)^2 whatever the direction law, and the cube-uniform law has cubic
// symmetry, so <d_x^2> = <d_y^2> = <d_z^2> = 1/3 and diffusion is isotropic with D.
//
// At a wall normal to an axis, a walker at depth h from it crosses when s dx d_n > h,
// d_n the normal component of the unit direction. With density c near the wall, the
// crossing attempts per unit area per step are c s dx E[max(d_n, 0)] = c s dx E|d_n| / 2.
// A crossing attempt is absorbed with probability p and otherwise rejected (the walker
// stays). Rejection of a symmetric proposal keeps the uniform density stationary, so
// for small p the density at the wall stays c, and the absorbed flux per unit area per
// unit time is
//     J = p c s dx E|d_n| / (2 tau) = 3 p D E|d_n| c / (s dx) =: rho_eff c.
// With p = (25/36) rho s dx / D from the absorption table:
//     rho_eff = 3 (25/36) E|d_n| rho = (25/12) E|d_n| rho.
// For directions uniform on the sphere E|d_n| = 1/2 and rho_eff = 25/24 rho. The walk
// normalises a point of the cube [-1, 1)^3 instead; then
//     E|d_n| = E[|u_x| / |u|] over u in [0, 1]^3
//            = integral over (y, z) in [0, 1]^2 of sqrt(1 + y^2 + z^2) - sqrt(y^2 + z^2),
// after integrating x / sqrt(x^2 + r^2) over x in closed form. Numerically 0.51559, so
// rho_eff = 1.0742 rho, 3 % above the isotropic value.
//
// First-order step-size corrections, both of order s / pore size:
// - Gradient: in front of an absorbing wall the density rises away from it as
//   c(h) = c0 (1 + h rho_eff / D). Weighting the attempts by depth, the mean depth of an
//   attempt is s dx E[d_n^2] / (2 E|d_n|) = s dx / (6 E|d_n|), so the walk absorbs
//   faster than rho_eff c0 by the relative amount eps = s dx rho_eff / (6 E|d_n| D).
// - Edges: a step that crosses two walls at once (near an edge) is one contact, one
//   absorption chance, where the continuum counts both walls. By inclusion-exclusion
//   over the planes crossed, a box of side L voxels sees fewer contacts than its faces
//   alone by delta = (s / L) E|d_1 d_2| / E|d_n| - (s / L)^2 E|d_1 d_2 d_3| / (3 E|d_n|).
// ---------------------------------------------------------------------------------------
struct DirectionMoments {
    double normal = 0.0;  // E|d_1|
    double pair = 0.0;    // E|d_1 d_2|
    double triple = 0.0;  // E|d_1 d_2 d_3|
};

DirectionMoments directionMoments() {
    DirectionMoments m;
    // E|d_1|: the x integral in closed form, then a 2-D midpoint rule; the kink at the
    // origin leaves an error below 1e-6.
    const int n2 = 1500;
    for (int i = 0; i < n2; ++i) {
        const double y = (i + 0.5) / n2;
        for (int j = 0; j < n2; ++j) {
            const double z = (j + 0.5) / n2;
            const double r2 = y * y + z * z;
            m.normal += std::sqrt(1.0 + r2) - std::sqrt(r2);
        }
    }
    m.normal /= double(n2) * n2;
    // The edge moments enter a few-percent correction: a 3-D midpoint rule (error
    // ~1e-5) is ample.
    const int n3 = 120;
    for (int i = 0; i < n3; ++i)
        for (int j = 0; j < n3; ++j)
            for (int k = 0; k < n3; ++k) {
                const double x = (i + 0.5) / n3, y = (j + 0.5) / n3, z = (k + 0.5) / n3;
                const double r2 = x * x + y * y + z * z;
                m.pair += x * y / r2;
                m.triple += x * y * z / (r2 * std::sqrt(r2));
            }
    m.pair /= double(n3) * n3 * n3;
    m.triple /= double(n3) * n3 * n3;
    return m;
}

const DirectionMoments& moments() {
    static const DirectionMoments m = directionMoments();
    return m;
}

double effectiveRelaxivity(double rho) { return 3.0 * kContactFactor * moments().normal * rho; }

double gradientCorrection(double rhoEff) {
    return kCoarse * kVoxel * rhoEff / (6.0 * moments().normal * kD);
}

double edgeCorrection(double sideVoxels) {
    const double r = kCoarse / sideVoxels;
    return r * moments().pair / moments().normal -
           r * r * moments().triple / (3.0 * moments().normal);
}

// Surviving fraction in a slab of half-width a with relaxivity rho on both faces, from a
// uniform start (Brownstein and Tarr): sum over the roots xi_n of xi tan xi = rho a / D
// of 4 sin^2 xi / (xi (2 xi + sin 2 xi)) exp(-xi^2 D t / a^2).
double slabSurvival(double rhoEff, double halfWidth, double t) {
    const double kappa = rhoEff * halfWidth / kD;
    const double theta = kD * t / (halfWidth * halfWidth);
    double sum = 0.0;
    for (int n = 0; n < 400; ++n) {
        // xi tan xi - kappa rises from -kappa to +inf on [n pi, n pi + pi/2): bisect.
        double lo = n * std::numbers::pi, hi = lo + std::numbers::pi / 2;
        for (int it = 0; it < 100; ++it) {
            const double mid = 0.5 * (lo + hi);
            (mid * std::tan(mid) < kappa ? lo : hi) = mid;
        }
        const double xi = 0.5 * (lo + hi);
        const double term = 4.0 * std::sin(xi) * std::sin(xi) /
                            (xi * (2.0 * xi + std::sin(2.0 * xi))) * std::exp(-xi * xi * theta);
        sum += term;
        if (term < 1e-16) break;
    }
    return sum;
}

// Surviving fraction after each interval, at the time actually walked: the end times of
// the schedule mix fine and coarse step times around the switch, so the time is summed
// here from the step counts and the step length of each phase.
struct Survival {
    std::vector<double> time;  // s
    std::vector<double> fraction;
};

Survival simulate(const MineralGrid& grid, double rho, double switchTimeMs, std::uint32_t seed) {
    StepSchedule schedule;
    buildStepSchedule(kVoxel, kFine, kCoarse, switchTimeMs, kD, kD, 1.0, kIntervalCount, schedule);
    MineralValueMap<double> relaxivity;
    relaxivity.set(Mineral::Quartz, rho);
    AbsorptionTable fine, coarse;
    buildAbsorptionTable(relaxivity, kFine, kVoxel, kD, fine);
    buildAbsorptionTable(relaxivity, kCoarse, kVoxel, kD, coarse);

    const auto view = makeWalkGridView(grid);
    RandomStream stream(seed);
    std::vector<Walker> walkers;
    createWalkers(stream, view, kWalkers, walkers);
    std::vector<double> absorbed(kIntervalCount, 0.0);
    for (const Walker& w : walkers) {
        absorbed[walkWalker(stream, w, view, schedule.stepsPerInterval, schedule.fineIntervals,
                            kFine, kCoarse, fine, coarse)] += 1.0;
    }

    Survival s;
    double t = 0.0, gone = 0.0;
    for (std::uint32_t i = 0; i < kIntervalCount; ++i) {
        const double step = (i < schedule.fineIntervals ? kFine : kCoarse) * kVoxel;
        t += schedule.stepsPerInterval[i] * step * step / (6.0 * kD);
        gone += absorbed[i];
        s.time.push_back(t);
        s.fraction.push_back(1.0 - gone / kWalkers);
    }
    return s;
}

// Largest excess of |simulated - model| over the bound, over every interval where the
// model's survival lies in [0.05, 0.95] (positive: the model is rejected). The bound
// is 5 binomial standard errors of the surviving fraction, sqrt(S (1 - S) / N), plus
// the given allowance for what the model leaves out.
double worstExcess(const Survival& sim, const std::function<double(double)>& model,
                   const std::function<double(double)>& allowance, double* worstSigmas = nullptr) {
    double worst = -1.0, sigmas = 0.0;
    int checked = 0;
    for (std::size_t i = 0; i < sim.time.size(); ++i) {
        const double expected = model(sim.time[i]);
        if (expected < 0.05 || expected > 0.95) continue;
        ++checked;
        const double sigma = std::sqrt(expected * (1.0 - expected) / kWalkers);
        const double deviation = std::abs(sim.fraction[i] - expected);
        worst = std::max(worst, deviation - 5.0 * sigma - allowance(sim.time[i]));
        sigmas = std::max(sigmas, deviation / sigma);
    }
    EXPECT_GT(checked, 10) << "too few intervals inside the checked range";
    if (worstSigmas) *worstSigmas = sigmas;
    return worst;
}

// A pore of nx * ny * nz voxels in a one-voxel quartz shell; with closedXY false the
// shell only closes z, and the mirrored extension makes the pore an infinite slab.
MineralGrid makePore(std::uint32_t nx, std::uint32_t ny, std::uint32_t nz, bool closedXY) {
    const std::uint32_t bx = closedXY ? nx + 2 : nx, by = closedXY ? ny + 2 : ny;
    MineralGrid grid(bx, by, nz + 2, 0, 0, 0, 1.0);
    for (std::uint32_t z = 0; z < nz + 2; ++z)
        for (std::uint32_t y = 0; y < by; ++y)
            for (std::uint32_t x = 0; x < bx; ++x) {
                const bool wallXY = closedXY && (x % (bx - 1) == 0 || y % (by - 1) == 0);
                if (wallXY || z % (nz + 1) == 0) grid.sliceData(z)[y * bx + x] = Mineral::Quartz;
            }
    return grid;
}

TEST(SlabPore, SurvivalFollowsTheEigenfunctionSeriesAtTheEffectiveRelaxivity) {
    const std::uint32_t width = 16;
    const double halfWidth = 0.5 * width * kVoxel;
    // rho chosen for rho_eff a / D = 1: neither the fast- nor the slow-diffusion limit.
    const double rho = kD / halfWidth / effectiveRelaxivity(1.0);
    const double rhoEff = effectiveRelaxivity(rho);
    // The fine phase (first 2 ms) is walked too; its corrections are half the coarse ones.
    const auto sim = simulate(makePore(2, 2, width, false), rho, 2.0, 12345u);

    auto series = [halfWidth](double r) {
        return [=](double t) { return slabSurvival(r, halfWidth, t); };
    };
    // Discretisation allowance: the first-order gradient correction (2 % in rho here),
    // with a quarter more for higher orders. No edges in a slab.
    const double eps = 1.25 * gradientCorrection(rhoEff);
    auto allowance = [&](double t) {
        return std::abs(slabSurvival(rhoEff * (1.0 + eps), halfWidth, t) -
                        slabSurvival(rhoEff, halfWidth, t));
    };
    double sigmas = 0.0;
    EXPECT_LE(worstExcess(sim, series(rhoEff), allowance, &sigmas), 0.0);
    EXPECT_GT(worstExcess(sim, series(1.2 * rhoEff), allowance), 0.0) << "20 % too strong";
    EXPECT_GT(worstExcess(sim, series(0.8 * rhoEff), allowance), 0.0) << "20 % too weak";
    double corrected = 0.0;
    worstExcess(sim, series(rhoEff * (1.0 + gradientCorrection(rhoEff))), allowance, &corrected);
    std::printf(
        "slab, %d walkers: worst deviation %.2f sigma from the series at rho_eff, "
        "%.2f sigma with the gradient correction\n",
        kWalkers, sigmas, corrected);
}

TEST(SmallPore, FastDiffusionDecayIsEffectiveRelaxivityTimesSurfaceOverVolume) {
    const std::uint32_t side = 6;
    const double halfWidth = 0.5 * side * kVoxel;
    const double surfaceOverVolume = 6.0 / (side * kVoxel);
    // rho_eff a / D = 0.05: diffusion across the pore is 20 times faster than relaxation.
    const double rho = 0.05 * kD / halfWidth / effectiveRelaxivity(1.0);
    const double rhoEff = effectiveRelaxivity(rho);
    // Switch time 0: every interval walks the coarse step (the corrections are for it).
    const auto sim = simulate(makePore(side, side, side, true), rho, 0.0, 777u);

    auto fastDiffusion = [surfaceOverVolume](double r) {
        return [=](double t) { return std::exp(-r * surfaceOverVolume * t); };
    };
    // Allowance: the distance between the limit and the exact cube solution (the cube of
    // the slab series), the latter at the relaxivity corrected for the gradient and the
    // edges, with a quarter of the corrections more for higher orders.
    const double corrected =
        rhoEff * (1.0 + 1.25 * gradientCorrection(rhoEff)) * (1.0 - 1.25 * edgeCorrection(side));
    auto exactCube = [&](double r, double t) { return std::pow(slabSurvival(r, halfWidth, t), 3); };
    auto allowance = [&](double t) {
        return std::max(std::abs(exactCube(corrected, t) - fastDiffusion(rhoEff)(t)),
                        std::abs(exactCube(rhoEff, t) - fastDiffusion(rhoEff)(t)));
    };
    double sigmas = 0.0;
    EXPECT_LE(worstExcess(sim, fastDiffusion(rhoEff), allowance, &sigmas), 0.0);
    EXPECT_GT(worstExcess(sim, fastDiffusion(1.2 * rhoEff), allowance), 0.0) << "20 % too strong";
    EXPECT_GT(worstExcess(sim, fastDiffusion(0.8 * rhoEff), allowance), 0.0) << "20 % too weak";
    const double firstOrder =
        rhoEff * (1.0 + gradientCorrection(rhoEff)) * (1.0 - edgeCorrection(side));
    double withCorrections = 0.0;
    worstExcess(
        sim, [&](double t) { return exactCube(firstOrder, t); }, allowance, &withCorrections);
    std::printf(
        "cube, %d walkers: worst deviation %.2f sigma from rho_eff S/V, %.2f sigma "
        "from the corrected exact solution (edge correction %.3f)\n",
        kWalkers, sigmas, withCorrections, edgeCorrection(side));
}

}  // namespace
}  // namespace nmr
