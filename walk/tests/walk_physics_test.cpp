#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <vector>

#include "grid/sliced_grid.h"
#include "walk/step_schedule.h"
#include "walk/walk.h"
#include "walk/walker_creation.h"

namespace nmr {
namespace {

constexpr double kVoxel = 1e-6, kD = 2.3e-9, kStep = 0.5;  // m, m^2/s (water), voxels
#ifdef NDEBUG
constexpr int kWalkers = 100000;
#else
constexpr int kWalkers = 20000;  // sanitizer and debug builds: same test, wider bound
#endif

// Effective relaxivity of the walk rule. A step of s voxels lasts tau = (s dx)^2 / (6 D)
// (the cube-uniform direction law has cubic symmetry: diffusion is isotropic). A walker at
// depth h crosses a wall when s dx d_n > h (d_n: normal component of the unit direction):
// a density c makes c s dx E|d_n| / 2 attempts per area and step, and rejection keeps the
// density uniform, so with the table's p = (25/36) rho s dx / D the absorbed flux is
//     J = p c s dx E|d_n| / (2 tau) = (25/12) E|d_n| rho c =: rho_eff c,
// E|d_n| = E[u_x / |u|], u in [0, 1]^3, = integral over [0, 1]^2 of sqrt(1 + y^2 + z^2) -
// sqrt(y^2 + z^2) = 0.515594 (0.5 on the sphere). To first order in s / pore size, the
// density c0 (1 + h rho_eff / D) at an absorbing wall and the attempts' mean depth
// s dx / (6 E|d_n|) make the walk absorb faster by s dx rho_eff / (6 E|d_n| D), and a step
// crossing two walls at an edge is one contact: a box of side L voxels sees
// (s / L) E|d_1 d_2| / E|d_n| fewer, with E|d_1 d_2| = E[u_x u_y / |u|^2] = 0.23544.
constexpr double kNormal = 0.515594, kPair = 0.23544, kRhoEffPerRho = 25.0 / 12.0 * kNormal;

// Slab of half-width a, relaxivity rho on both faces, uniform start: the sum over the roots
// xi of xi tan xi = rho a / D of 4 sin^2 xi / (xi (2 xi + sin 2 xi)) exp(-xi^2 D t / a^2).
double slabSurvival(double rho, double a, double t) {
    double sum = 0.0, term = 1.0;
    for (int n = 0; n < 400 && term > 1e-16; ++n) {
        // xi tan xi - rho a / D rises from below 0 to +inf on [n pi, n pi + pi/2): bisect.
        double lo = n * std::numbers::pi, hi = lo + std::numbers::pi / 2;
        for (int it = 0; it < 100; ++it) {
            const double mid = 0.5 * (lo + hi);
            (mid * std::tan(mid) < rho * a / kD ? lo : hi) = mid;
        }
        const double xi = 0.5 * (lo + hi), sx = std::sin(xi);
        term =
            4 * sx * sx / (xi * (2 * xi + std::sin(2 * xi))) * std::exp(-xi * xi * kD * t / a / a);
        sum += term;
    }
    return sum;
}

// Walks an n^3 pore (closed) or an n-voxel slab (open: the shell closes z only). Where the
// model keeps 5 % to 95 %, the surviving fraction must stay within 5 binomial standard errors
// plus the model's distance at rho_eff from the exact solution at rho_eff (1 + correction)
// and at rho_eff; the model 20 % off must fall outside (also when nothing is checked).
template <typename Model, typename Exact>  // surviving fraction (rho, t in s)
void expectWalkFollows(std::uint32_t n, bool closed, double rhoEff, std::uint32_t seed, Model model,
                       Exact exact, double correction) {
    const std::uint32_t m = n + 2;
    SlicedGrid<Mineral::Type> grid(m, m, m, 0, 0, 0, 1.0);
    auto wall = [n](std::uint32_t c) { return c % (n + 1) == 0; };
    for (std::uint32_t i = 0; i < m * m * m; ++i)
        if (wall(i / m / m) || (closed && (wall(i % m) || wall(i / m % m))))
            grid.sliceData(i / m / m)[i % (m * m)] = Mineral::Quartz;
    WalkPlan plan;  // the switch never fires: one step length throughout
    plan.schedule = buildStepSchedule({.voxelSize = kVoxel,
                                       .fineStep = kStep,
                                       .coarseStep = kStep,
                                       .switchTime = 1e30,
                                       .diffusionWater = kD,
                                       .diffusionOil = kD,
                                       .waterSelector = 1.0});
    plan.fineStep = plan.coarseStep = kStep;
    MineralValueMap<double> relaxivity;
    relaxivity.set(Mineral::Quartz, rhoEff / kRhoEffPerRho);
    buildAbsorptionTable(relaxivity, kStep, kVoxel, kD, plan.coarseTable);
    const StepSchedule& schedule = plan.schedule;
    RandomStream stream(seed);
    std::vector<Walker> walkers;
    createWalkers(stream, makeWalkGridView(grid), kWalkers, walkers);
    std::vector<int> absorbed(kIntervalCount, 0);
    for (const Walker& w : walkers) ++absorbed[walkWalker(stream, w, makeWalkGridView(grid), plan)];
    auto worstExcess = [&](double rho) {
        double worst = -1.0, survived = 1.0;
        for (std::uint32_t i = 0; i < kIntervalCount; ++i) {
            const double t = schedule.intervalEndTime[i] / 1000, expected = model(rho, t);
            survived -= double(absorbed[i]) / kWalkers;
            if (expected < 0.05 || expected > 0.95) continue;
            const double base = model(rhoEff, t),
                         se = std::sqrt(expected * (1 - expected) / kWalkers);
            const double allowance = std::max(std::abs(exact(rhoEff, t) - base),
                                              std::abs(exact(rhoEff * (1 + correction), t) - base));
            worst = std::max(worst, std::abs(survived - expected) - 5 * se - allowance);
        }
        return worst;
    };
    EXPECT_LE(worstExcess(rhoEff), 0.0);
    EXPECT_GT(worstExcess(1.2 * rhoEff), 0.0) << "20 % too strong";
    EXPECT_GT(worstExcess(0.8 * rhoEff), 0.0) << "20 % too weak";
}

double gradientCorrection(double rhoEff) { return kStep * kVoxel * rhoEff / (6 * kNormal * kD); }

TEST(WalkPhysics, SlabFollowsTheEigenfunctionSeriesAtTheEffectiveRelaxivity) {
    // rho_eff a / D = 1: neither the fast- nor the slow-diffusion limit.
    const double a = 8 * kVoxel, rhoEff = kD / a;
    auto series = [a](double r, double t) { return slabSurvival(r, a, t); };
    // Gradient correction (2 % here) and a quarter more for higher orders; no edges.
    expectWalkFollows(16, false, rhoEff, 12345u, series, series, 1.25 * gradientCorrection(rhoEff));
}

TEST(WalkPhysics, SmallCubeDecaysAtEffectiveRelaxivityTimesSurfaceOverVolume) {
    // 6 voxels across (S / V = 3 / a); rho_eff a / D = 0.05: fast diffusion.
    const double a = 3 * kVoxel, rhoEff = 0.05 * kD / a;
    auto fastDiffusion = [a](double r, double t) { return std::exp(-r * 3 / a * t); };
    auto exactCube = [a](double r, double t) { return std::pow(slabSurvival(r, a, t), 3); };
    // Gradient and edge corrections (4 % here), each a quarter more for higher orders.
    const double edge = kStep / 6 * kPair / kNormal;
    const double correction = (1 + 1.25 * gradientCorrection(rhoEff)) * (1 - 1.25 * edge) - 1;
    expectWalkFollows(6, true, rhoEff, 777u, fastDiffusion, exactCube, correction);
}

}  // namespace
}  // namespace nmr
