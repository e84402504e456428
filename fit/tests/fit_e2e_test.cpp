// nmrwalk-fit run for real under mpiexec, on grain packs made by nmrwalk-grid, against
// decays that nmrwalk itself simulated.
#include <gtest/gtest.h>

#include <cmath>
#include <sstream>

#include "fit/recorded_walk_file.h"
#include "fit/reweighted_decay.h"
#include "fit/tests/fit_runs.h"
#include "testutil/command.h"
#include "testutil/temp_dir.h"

namespace nmr::test {
namespace {

struct Rock {
    int size = 30;
    double radius = 5.0;
    double clayFraction = 0.5;
};

std::string parameters(int walkers, int seed, double quartz, double clay) {
    return fitParameters(walkers, seed, {{"Clay", clay}, {"Quartz", quartz}},
                         {{"echoSpacing", "0.0002"}, {"magneticFieldGradient", "0.1"}});
}

class Fit : public ::testing::Test {
protected:
    void makeRock(const Rock& rock) {
        std::ostringstream pack;
        pack << shellQuoted(programPath("nmrwalk-grid")) << " pack --size " << rock.size
             << " --cell-size 2 --radius " << rock.radius << " --radius-spread 0.3 --porosity 0.3"
             << " --clay-thickness 1 --clay-fraction " << rock.clayFraction << " --seed 17"
             << " -o rock.binc";
        const auto result = runCommand({"sh", "-c", pack.str()}, dir_.path());
        ASSERT_EQ(result.exitStatus, 0) << result.errorOutput;
    }
    // nmrwalk's decay with these relaxivities, as the measured file `name`.
    void simulate(const std::string& name, int walkers, double quartz, double clay) {
        dir_.write("nmr.yaml", parameters(walkers, 4711, quartz, clay));
        const auto result = runCommand(nmrwalkCommand(2), dir_.path(), std::chrono::seconds(600),
                                       launcherEnvironment());
        ASSERT_EQ(result.exitStatus, 0) << result.output << result.errorOutput;
        std::filesystem::rename(dir_ / "T2decay.out", dir_ / name);
    }
    CommandResult fit(const std::vector<std::string>& arguments, int processes = 2) {
        return runCommand(launcherCommand(processes, programPath("nmrwalk-fit"), arguments),
                          dir_.path(), std::chrono::seconds(900), launcherEnvironment());
    }
    TempDir dir_{"nmr_fit_e2e"};
};

TEST_F(Fit, ReweightedDecayAtTheFilesRelaxivitiesAgreesWithTheRunWithinItsMonteCarloBand) {
    makeRock(Rock{});
    const int walkers = 20000;
    simulate("measured.txt", walkers, 3e-5, 5e-6);
    // Bounds near the file's values keep the walk short; the band holds for any floor.
    const auto result = fit({"measured.txt", "--bounds", "2.5e-6:6e-5"});
    ASSERT_EQ(result.exitStatus, 0) << result.output << result.errorOutput;
    EXPECT_NE(result.output.find("* Recording walk time: "), std::string::npos);

    const fit::RecordedWalk walk = fit::readRecordedWalk((dir_ / "fit.walk").string());
    EXPECT_EQ(walk.histories.walkers(), static_cast<std::uint64_t>(walkers));
    const auto sums =
        fit::survivalSums(fit::expandHistories(walk.histories), walk.run, walk.run.relaxivity, 2);
    const DecayCurve curve = fit::reweightedDecay(sums, walk.run, walk.run.relaxivity, false);
    const auto run = columns(dir_.read("measured.txt"));
    ASSERT_GT(run.size(), 50u);
    std::size_t compared = 0;
    for (std::size_t i = 0; i < run.size() && i < curve.times.size(); ++i) {
        // One schedule for both; the file holds six significant digits.
        ASSERT_NEAR(run[i].first, curve.times[i], 1e-5 * curve.times[i]) << i;
        // Two independent estimates of a surviving fraction p from N walkers each: the
        // binomial error of their difference is sqrt(2 p (1 - p) / N). The amplitude is the
        // survival damped by factors below 1, so that bounds its error too; the recording's
        // roulette keeps its own error within the binomial one at and above its floor. 5
        // sigma keeps some hundred correlated points from failing by chance, while a 5 %
        // error in the re-weighted survival would fail.
        const double p = std::clamp(run[i].second, 0.0, 1.0);
        const double sigma = std::sqrt(2.0 * std::max(p * (1.0 - p), 1.0 / walkers) / walkers);
        EXPECT_NEAR(curve.values[i], run[i].second, 5.0 * sigma) << "t = " << run[i].first;
        ++compared;
    }
    EXPECT_GT(compared, 50u);
}

TEST_F(Fit, BadInputEndsWithTheFileAndLineAndLeavesNoOutput) {
    makeRock(Rock{});
    simulate("measured.txt", 3000, 3e-5, 5e-6);
    const auto decay = columns(dir_.read("measured.txt"));
    std::ostringstream few, late;
    for (std::size_t i = 0; i < 6; ++i) few << decay[i].first << " " << decay[i].second << "\n";
    for (const auto& [t, a] : decay) late << t * 1e6 + 1e7 << " " << a << "\n";
    dir_.write("few.txt", few.str());
    dir_.write("late.txt", "# shifted far beyond the walk\n" + late.str());
    struct Case {
        std::vector<std::string> arguments;
        std::string message;
    };
    const std::vector<Case> cases = {
        {{"few.txt"}, "few.txt lines 1 to 6 hold 6 points; a fit needs at least 10"},
        {{"late.txt"}, "late.txt lines 2 to "},
        {{"measured.txt", "--minerals", "Pyrite"}, "Mineral not in the grid rock.binc: Pyrite"},
        {{"measured.txt", "--bounds", "1e-4:1e-5"},
         "--bounds needs LO:HI in m/s with 0 < LO < HI: 1e-4:1e-5"},
        {{"measured.txt", "-o", "rock.binc/fitted.yaml"}, "Cannot create the folder of -o"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.arguments.front() + " " + c.message);
        const auto result = fit(c.arguments);
        EXPECT_NE(result.exitStatus, 0);
        EXPECT_NE(result.errorOutput.find("nmrwalk-fit: error: " + c.message), std::string::npos)
            << result.errorOutput;
        for (const char* output : {"fit.walk", "nmr.fitted.yaml", "T2fit.png", "T2fit.json"})
            EXPECT_FALSE(dir_.exists(output)) << output;
    }
    EXPECT_NE(fit({"late.txt"}).errorOutput.find("only 0 measured times lie within the simulated"),
              std::string::npos);
    // A negative relaxivity would walk without end; nmrwalk-fit refuses it outright.
    dir_.write("nmr.yaml", parameters(3000, 4711, -3e-5, 5e-6));
    EXPECT_NE(
        fit({"measured.txt"})
            .errorOutput.find(
                "nmrwalk-fit: error: surfaceRelaxationStrengthWater of Quartz is -3e-05 m/s: a "
                "relaxivity cannot be negative"),
        std::string::npos);
    // Without a Clay relaxivity the walk never switches to its coarse step, and the
    // recording says so as nmrwalk does.
    dir_.write("nmr.yaml", parameters(1000, 4711, 3e-5, 0.0));
    const auto noClay = fit({"measured.txt", "--minerals", "Quartz", "--bounds", "2e-5:5e-5"});
    EXPECT_NE(noClay.errorOutput.find("Warning: "), std::string::npos) << noClay.errorOutput;
    EXPECT_NE(noClay.errorOutput.find("times too short"), std::string::npos) << noClay.errorOutput;
}

TEST_F(Fit, ALaterFitReusesTheWalkAndWalksAgainWhenItCannotServe) {
    makeRock(Rock{});
    simulate("measured.txt", 5000, 3e-5, 5e-6);
    const auto first = fit({"measured.txt", "--bounds", "1e-5:6e-5"});
    ASSERT_EQ(first.exitStatus, 0) << first.output << first.errorOutput;
    const std::string walk = dir_.read("fit.walk");
    EXPECT_TRUE(dir_.exists("nmr.fitted.yaml"));
    EXPECT_NE(dir_.read("nmr.fitted.yaml").find("echoSpacing: 0.0002"), std::string::npos);

    // Another measurement, narrower bounds, another output: the same walk, and the first
    // fit's plot stays as it was.
    const auto decay = columns(dir_.read("measured.txt"));
    std::ostringstream half;
    for (std::size_t i = 0; i < decay.size(); i += 2)
        half << decay[i].first << " " << decay[i].second << "\n";
    dir_.write("half.txt", half.str());
    const std::string plotData = dir_.read("T2fit.json");
    const auto again = fit({"half.txt", "--bounds", "2e-5:5e-5", "-o", "narrow/again.yaml"});
    ASSERT_EQ(again.exitStatus, 0) << again.output << again.errorOutput;
    EXPECT_NE(again.output.find("Reusing the recorded walk fit.walk"), std::string::npos);
    EXPECT_EQ(again.output.find("* Recording walk time"), std::string::npos);
    EXPECT_EQ(dir_.read("fit.walk"), walk);
    EXPECT_TRUE(dir_.exists("narrow/again.yaml") && dir_.exists("narrow/again.json"));
    EXPECT_EQ(dir_.read("T2fit.json"), plotData);

    const auto sweep = fit({"half.txt", "--sweep", "Quartz=1e-5:6e-5:4"});
    ASSERT_EQ(sweep.exitStatus, 0) << sweep.output << sweep.errorOutput;
    EXPECT_NE(sweep.output.find("Sweep of the Quartz relaxivity"), std::string::npos);
    EXPECT_NE(sweep.output.find("           6e-05"), std::string::npos);

    // What the walk cannot serve is walked again, with the reason on one line.
    const auto lower = fit({"half.txt", "--bounds", "5e-6:6e-5"});
    ASSERT_EQ(lower.exitStatus, 0) << lower.output << lower.errorOutput;
    EXPECT_NE(lower.output.find("Recording the walk again, since fit.walk cannot serve this fit: "
                                "it was recorded for Clay down to 1e-05 m/s, and this fit goes "
                                "down to 5e-06 m/s"),
              std::string::npos)
        << lower.output;
    EXPECT_NE(lower.output.find("* Recording walk time"), std::string::npos);
    dir_.write("nmr.yaml", parameters(5000, 4712, 3e-5, 5e-6));
    const auto reseeded = fit({"half.txt", "--bounds", "5e-6:6e-5"});
    ASSERT_EQ(reseeded.exitStatus, 0) << reseeded.output << reseeded.errorOutput;
    EXPECT_NE(reseeded.output.find("cannot serve this fit: it was recorded with the seed 4711 "
                                   "and the run now has 4712"),
              std::string::npos);

    // What cannot be mended is refused and left alone.
    const std::string recorded = dir_.read("fit.walk");
    std::string damaged = recorded;
    damaged[damaged.size() / 2] = static_cast<char>(damaged[damaged.size() / 2] ^ 0x5a);
    for (const auto& [content, message] : std::vector<std::pair<std::string, std::string>>{
             {damaged,
              "The recorded walk is damaged (checksum): fit.walk (delete it to walk "
              "again)"},
             {"my notes\n", "fit.walk is not a recorded walk; move it away or delete it"}}) {
        dir_.write("fit.walk", content);
        const auto refused = fit({"half.txt", "--bounds", "5e-6:6e-5"});
        EXPECT_NE(refused.exitStatus, 0);
        EXPECT_NE(refused.errorOutput.find(message), std::string::npos) << refused.errorOutput;
        EXPECT_EQ(dir_.read("fit.walk"), content);
    }
}

}  // namespace
}  // namespace nmr::test
