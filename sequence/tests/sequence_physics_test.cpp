// The CPMG phase walk against closed forms and against nmrwalk's own decay. Statistical
// checks with many walkers: labelled physics, left out of the sanitizer build.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <sstream>
#include <vector>

#include "grid/byte_mineral_grid.h"
#include "sequence/cpmg.h"
#include "testutil/command.h"
#include "testutil/temp_dir.h"

namespace nmr {
namespace {

constexpr double kDiffusion = 2.5e-9;  // m^2/s
constexpr double kTwoPi = 6.283185307179586;

NuclearMagneticResonanceParameters freeWater() {
    NuclearMagneticResonanceParameters parameters;
    parameters.setGyroMagneticRatio(42.58e6);
    parameters.setDiffusionConstantWater(kDiffusion);
    parameters.setStepLength(0.5);
    parameters.setBulkWaterT2(1e9);
    return parameters;
}

// Free diffusion in a uniform gradient G: E(t) = exp(-gamma^2 G^2 D TE^2 t / 12) for the
// continuum, and (1 + 1/(2 N^2)) times that exponent for a walk of N steps per half echo
// (Gaussian order). The box is all pore and its mirror images continue it, so the walkers
// diffuse freely. The gradient is chosen to bring E near 1/e at the last echo.
//
// Bound per echo: the phase is Gaussian, so Var(cos phi) = (1 + E^4) / 2 - E^2, and the
// mean of W walkers is within 4 sqrt(Var / W) of E but for 1 in 15000; 0.002 more holds the
// non-Gaussian phase of steps of fixed length (a few 1e-4 at N = 8). gamma without its 2 pi
// (E near 0.97 at the end), a pi pulse at the echo instead of half-way, or the step's tau
// taken from nmr.yaml's step instead of the shortened one all miss by 0.05 or more.
TEST(CpmgPhysics, FreeDiffusionInAUniformGradientDecaysAsTheClosedForm) {
    const auto box = std::make_shared<ByteMineralGrid>(8, 8, 8, 0, 0, 0, 10.0);
    const double cellSize = 10e-6, echoSpacingMs = 0.4;
    const std::uint32_t echoes = 40;
    const double t = echoes * echoSpacingMs * 1e-3;
    const double gamma = kTwoPi * 42.58e6;
    const double echoSpacing = echoSpacingMs * 1e-3;
    const double gradient =
        std::sqrt(12.0 / (gamma * gamma * kDiffusion * echoSpacing * echoSpacing * t));
    EchoSpacingPlan plan = planEchoSpacing(freeWater(), cellSize, echoSpacingMs, gradient, {});
    plan.phase.echoes = echoes;
    const std::uint32_t n = plan.phase.stepsPerHalfEcho;
    ASSERT_EQ(n, kLeastStepsPerHalfEcho) << "the step is shortened to 8 a half echo";
    constexpr std::uint32_t kWalkers = 20000;
    const FieldMap none;
    EchoTrainWalk<ByteMineralGrid> walk(*box, none, plan.phase, 77, 0);
    ExactSums sums = walk.emptyTally();
    for (std::uint32_t i = 0; i < kWalkers; ++i) walk.walk(i, sums);

    const double rate = gamma * gamma * gradient * gradient * kDiffusion * echoSpacing *
                        echoSpacing / 12.0 * (1.0 + 0.5 / (n * n));
    for (std::uint32_t k = 0; k < echoes; ++k) {
        const double e = std::exp(-rate * (k + 1) * echoSpacing);
        const double sd = std::sqrt(((1.0 + e * e * e * e) / 2.0 - e * e) / kWalkers);
        EXPECT_NEAR(sums.sum(k) / kWalkers, e, 4.0 * sd + 0.002) << "echo " << k + 1;
    }
}

// With no field and no gradient the echo train is the walkers' survival, which nmrwalk's
// decay also is once its gradient factor is 0 and its clay model off. The two differ by:
//  - Monte Carlo: each amplitude A is a mean of W survivals, so the difference of two
//    independent runs has a standard deviation sqrt(A (1 - A) (1/W1 + 1/W2)); allowed 4 of
//    them.
//  - the step: the kill probability p = (25/36) rho s a / D is made so that p times the
//    rate of wall hits (which goes as 1/s) gives the same relaxivity at any step s; what is
//    left is the depletion of walkers within a step of an absorbing wall, a relative
//    change of the rate of order p. Two steps change the rate by at most |p1 - p2|, and A
//    by A |ln A| |p1 - p2|, taken for the most absorbing mineral.
// Leaving out the bulk factor (6 % at the last point), or killing with the table of another
// step, misses by several times the bound.
TEST(CpmgPhysics, WithoutFieldOrGradientTheTrainIsNmrwalksDecay) {
    using namespace nmr::test;
    TempDir dir("nmr_cpmg_physics");
    const auto made = makeClayPack(dir.path(), "24x24x24");
    ASSERT_EQ(made.exitStatus, 0) << made.errorOutput;
    constexpr int kWalkers = 20000;
    const double quartz = 2e-5, clay = 3e-5, cellSize = 2e-6;
    dir.write("nmr.yaml",
              parameterFile({{"magneticFieldGradient", "0.0"},
                             {"clayMicroPorosity", "0.0"},
                             {"diffusionConstantWater", "2.5e-09"},
                             {"surfaceRelaxationStrengthWater", "{Clay: 3.0e-05, Quartz: 2.0e-5}"},
                             {"numberOfWalkers", std::to_string(kWalkers)}}));
    const auto reference = runCommand(nmrwalkCommand(2), dir.path(), std::chrono::seconds(600));
    ASSERT_EQ(reference.exitStatus, 0) << reference.errorOutput;
    const auto train = runCommand(
        launcherCommand(2, programPath("nmrwalk-sequence"), {"cpmg", "--echo-spacing", "1.2"}),
        dir.path(), std::chrono::seconds(600));
    ASSERT_EQ(train.exitStatus, 0) << train.errorOutput;
    NuclearMagneticResonanceParameters parameters = freeWater();
    MineralValueMap<double> relaxivity;
    relaxivity.set(Mineral::Quartz, quartz);
    relaxivity.set(Mineral::Clay, clay);
    parameters.setSurfaceRelaxationStrengthWater(relaxivity);
    const EchoSpacingPlan plan = planEchoSpacing(parameters, cellSize, 1.2, 0.0, {});
    const double kill = 25.0 / 36.0 * std::max(quartz, clay) * cellSize / kDiffusion;
    const double stepTerm = kill * std::abs(plan.phase.step - 0.5);

    const auto decay = columns(dir.read("T2decay.out"));
    ASSERT_GT(decay.size(), 10u);
    // nmrwalk's amplitude at time t, log-linear between its points.
    auto nmrwalkAt = [&decay](double t) {
        for (std::size_t i = 1; i < decay.size(); ++i) {
            if (decay[i].first < t) continue;
            const auto [t0, a0] = decay[i - 1];
            const auto [t1, a1] = decay[i];
            return std::exp(std::log(a0) + (t - t0) / (t1 - t0) * (std::log(a1) - std::log(a0)));
        }
        return 0.0;
    };
    std::vector<std::vector<double>> echoes;
    for (const std::string& line : lines(dir.read("cpmg.out"))) {
        std::istringstream fields(line);
        double te = 0, t = 0, a = 0;
        fields >> te >> t >> a;
        echoes.push_back({t, a});
    }
    for (double level : {0.7, 0.4, 0.15}) {
        const auto at = std::find_if(echoes.begin(), echoes.end(),
                                     [level](const auto& e) { return e[1] <= level; });
        ASSERT_NE(at, echoes.end()) << level;
        const double t = (*at)[0], a = (*at)[1];
        const double sd = std::sqrt(a * (1.0 - a) * 2.0 / kWalkers);
        EXPECT_NEAR(a, nmrwalkAt(t), 4.0 * sd + a * std::abs(std::log(a)) * stepTerm)
            << "at " << t << " ms";
    }
}

}  // namespace
}  // namespace nmr
