// nmrwalk-fit against decays that nmrwalk simulated with known relaxivities, from a guess
// five times off and with no --bounds: what the decay holds is found, what it cannot tell
// apart is said, and the stated uncertainties cover the truth as standard deviations do.
// Statistical and some minutes long: label physics.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <functional>
#include <sstream>

#include "fit/tests/fit_runs.h"
#include "io/grain_bed_grid_writer.h"
#include "testutil/command.h"
#include "testutil/temp_dir.h"

namespace nmr::test {
namespace {

// Slab pores across z in a 4 x 4 x n grid of 10 um cells: each z layer is pore or a wall
// whose cells come from wall(x, y). The walk mirrors the grid, so every slab is infinite.
using Layer = std::function<std::uint32_t(std::uint32_t x, std::uint32_t y)>;

Layer all(std::uint32_t mineral) {
    return [mineral](std::uint32_t, std::uint32_t) { return mineral; };
}

void writeLayers(const std::filesystem::path& path, const std::vector<Layer>& layers) {
    constexpr std::uint32_t n = 4;
    GrainBedGridWriter writer(path.string(), n, n, static_cast<std::uint32_t>(layers.size()), 0, 0,
                              0, 10.0);
    std::vector<GrainBedGridCell> slice(std::size_t{n} * n);
    for (const Layer& layer : layers) {
        for (std::uint32_t y = 0; y < n; ++y)
            for (std::uint32_t x = 0; x < n; ++x)
                slice[y * n + x] = GrainBedGridCell::make(0, layer(x, y));
        writer.writeSlice(slice.data());
    }
    writer.close();
}

// A quartz-lined slab 10 cells wide beside three clay-lined slits of 2: two pore
// populations, each lined by one mineral, whose relaxation times differ tenfold.
std::vector<Layer> twoPopulations() {
    std::vector<Layer> layers = {all(Mineral::Quartz)};
    for (int i = 0; i < 10; ++i) layers.push_back(all(Mineral::Pore));
    layers.push_back(all(Mineral::Quartz));
    for (int slit = 0; slit < 3; ++slit) {
        layers.push_back(all(Mineral::Clay));
        layers.push_back(all(Mineral::Pore));
        layers.push_back(all(Mineral::Pore));
    }
    layers.push_back(all(Mineral::Clay));
    return layers;
}

// One slab 8 cells wide whose walls are a checkerboard of quartz and mica: both minerals
// line the same pore, so only their surface-weighted mean shapes the decay.
std::vector<Layer> sharedPore() {
    const Layer checkerboard = [](std::uint32_t x, std::uint32_t y) {
        return (x + y) % 2 == 0 ? Mineral::Quartz : Mineral::Mica;
    };
    std::vector<Layer> layers = {checkerboard};
    for (int i = 0; i < 8; ++i) layers.push_back(all(Mineral::Pore));
    layers.push_back(checkerboard);
    return layers;
}

using Relaxivities = std::vector<std::pair<std::string, double>>;

std::string parameters(int walkers, int seed, const Relaxivities& r) {
    return fitParameters(walkers, seed, r,
                         {{"magneticFieldGradient", "0.0"}, {"clayMicroPorosity", "0.0"}});
}

class Recovery : public ::testing::Test {
protected:
    // nmrwalk's decay at the true relaxivities, as the measured file.
    void measure(const Relaxivities& truth, int walkers, int seed) {
        dir_.write("nmr.yaml", parameters(walkers, seed, truth));
        const auto run = runCommand(nmrwalkCommand(2), dir_.path(), std::chrono::seconds(600),
                                    launcherEnvironment());
        ASSERT_EQ(run.exitStatus, 0) << run.output << run.errorOutput;
        std::filesystem::rename(dir_ / "T2decay.out", dir_ / "measured.txt");
    }
    CommandResult fit(const Relaxivities& guess, int walkers, int seed,
                      const std::vector<std::string>& options = {}) {
        dir_.write("nmr.yaml", parameters(walkers, seed, guess));
        std::vector<std::string> arguments = {"measured.txt"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return runCommand(launcherCommand(2, programPath("nmrwalk-fit"), arguments), dir_.path(),
                          std::chrono::seconds(900), launcherEnvironment());
    }
    TempDir dir_{"nmr_fit_recovery"};
};

TEST_F(Recovery, TwoPorePopulationsGiveBothRelaxivitiesFromAGuessFiveTimesOff) {
    writeLayers(dir_ / "rock.binc", twoPopulations());
    measure({{"Quartz", 2e-5}, {"Clay", 5e-5}}, 60000, 4711);
    const auto result = fit({{"Quartz", 1e-5}, {"Clay", 1e-5}}, 20000, 99);
    ASSERT_EQ(result.exitStatus, 0) << result.output << result.errorOutput;
    // The slab and the slits relax ten times apart, so each relaxivity has a decay of its
    // own: 3 % is some five times the uncertainty this many walkers leave.
    EXPECT_NEAR(fitted(result.output, "Quartz").value, 2e-5, 0.03 * 2e-5) << result.output;
    EXPECT_NEAR(fitted(result.output, "Clay").value, 5e-5, 0.03 * 5e-5) << result.output;
    EXPECT_EQ(result.output.find("Not separately determined"), std::string::npos);
    EXPECT_EQ(result.errorOutput.find("Warning"), std::string::npos) << result.errorOutput;
}

TEST_F(Recovery, MineralsLiningTheSamePoreAreNotSeparatelyDeterminedAndTheUncertaintySaysSo) {
    writeLayers(dir_ / "rock.binc", sharedPore());
    measure({{"Quartz", 3e-5}, {"Mica", 5e-6}}, 60000, 4711);
    const auto result = fit({{"Quartz", 6e-6}, {"Mica", 2.5e-5}}, 20000, 99);
    ASSERT_EQ(result.exitStatus, 0) << result.output << result.errorOutput;
    EXPECT_NE(result.output.find("\nNot separately determined: Quartz and Mica (correlation -"),
              std::string::npos)
        << result.output;
    // The valley of equally good fits runs through the truth: each stated uncertainty must
    // reach it.
    for (const auto& [name, truth] : {std::pair<std::string, double>{"Quartz", 3e-5},
                                      std::pair<std::string, double>{"Mica", 5e-6}}) {
        const Fitted f = fitted(result.output, name);
        EXPECT_LE(std::abs(f.value - truth), f.uncertainty) << name << "\n" << result.output;
    }
    // What the decay does fix, the mean of the two weighted by their equal surfaces.
    const std::string key = "Surface-weighted mean relaxivity of Quartz and Mica: ";
    const auto at = result.output.find(key);
    ASSERT_NE(at, std::string::npos) << result.output;
    double mean = NAN, uncertainty = NAN;
    std::sscanf(result.output.c_str() + at + key.size(), "%lf m/s (+- %lf)", &mean, &uncertainty);
    EXPECT_LT(uncertainty, 0.05 * mean);
    EXPECT_NEAR(mean, 1.75e-5, 3.0 * uncertainty) << result.output;
}

// Ten independent truth recoveries (each with its own measurement and walk): a standard
// deviation that means what it says puts the truth within two of them about 95 % of the
// time, so at least 8 of 10 must pass for both minerals (a binomial tail of 1 % at 95 %).
// Uncertainties a third as large, or the walk's noise alone, fail it.
TEST_F(Recovery, StatedUncertaintiesCoverTheTruthAsStandardDeviationsDo) {
    writeLayers(dir_ / "rock.binc", twoPopulations());
    const Relaxivities truth{{"Quartz", 2e-5}, {"Clay", 5e-5}};
    int covered = 0;
    std::ostringstream report;
    for (int seed = 1; seed <= 10; ++seed) {
        measure(truth, 30000, 17 * seed);
        const auto result =
            fit({{"Quartz", 1e-5}, {"Clay", 1e-5}}, 8000, 31 * seed + 5, {"--bounds", "4e-6:2e-4"});
        ASSERT_EQ(result.exitStatus, 0) << result.output << result.errorOutput;
        bool inside = true;
        for (const auto& [name, value] : {std::pair<std::string, double>{"Quartz", 2e-5},
                                          std::pair<std::string, double>{"Clay", 5e-5}}) {
            const Fitted f = fitted(result.output, name);
            report << "seed " << seed << " " << name << " " << f.value << " +- " << f.uncertainty
                   << "\n";
            inside = inside && std::abs(f.value - value) <= 2.0 * f.uncertainty;
        }
        covered += inside ? 1 : 0;
        std::filesystem::remove(dir_ / "fit.walk");
    }
    EXPECT_GE(covered, 8) << report.str();
}

}  // namespace
}  // namespace nmr::test
