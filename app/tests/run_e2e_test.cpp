// Whole runs of the real program under mpiexec on small generated rocks.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <sstream>
#include <thread>

#include "app/tests/layered_rock.h"
#include "testutil/command.h"
#include "testutil/temp_dir.h"

namespace nmr::test {
namespace {

bool everySixth(std::uint32_t z) { return z % 6 == 0; }

std::size_t indexOf(const std::vector<std::string>& all, const std::string& prefix) {
    for (std::size_t i = 0; i < all.size(); ++i)
        if (all[i].rfind(prefix, 0) == 0) return i;
    return all.size();
}

class Run : public ::testing::TestWithParam<int> {
protected:
    CommandResult run(const std::vector<std::string>& arguments = {},
                      std::chrono::seconds timeout = std::chrono::seconds(240)) {
        auto result = runCommand(nmrwalkCommand(GetParam(), arguments), dir_.path(), timeout,
                                 launcherEnvironment());
        EXPECT_FALSE(result.timedOut);
        return result;
    }
    void prepare(const std::vector<std::pair<std::string, std::string>>& changes = {}) {
        writeLayeredRock(dir_ / "rock.binc", 16, everySixth);
        dir_.write("nmr.yaml", parameterFile(changes));
    }
    void expectEarlyEnd(const CommandResult& result, const std::string& message) {
        EXPECT_EQ(result.exitStatus, 255) << result.output << result.errorOutput;
        EXPECT_NE(result.output.find(message), std::string::npos) << result.output;
        EXPECT_FALSE(dir_.exists("T2decay.out"));
        EXPECT_FALSE(dir_.exists("T2inversion.out"));
        EXPECT_TRUE(dir_.exists("STOPPED"));
    }
    TempDir dir_;
};

TEST_P(Run, CompleteRunPrintsItsReportInOrderAndWritesBothFiles) {
    prepare();
    const auto result = run();
    ASSERT_EQ(result.exitStatus, 0) << result.output << result.errorOutput;
    const auto out = lines(result.output);
    const std::vector<std::string> order = {
        "Memory limit per CPU: 1500 MB",
        "* Read grid time: ",
        "Data size: [16, 16, 16]",
        "Is sub region: 0",
        "Intergranular porosity: ",
        "Clay amount: 0",
        "Clay Micro Porosity (input): 0.3",
        "Total porosity: ",
        "Micro Porosity (input): 0",
        "Swi (in clay): 1",
        "Sw (bulk+clay): 0",
        "Sw (bulk): 1",
        "Soil: 0",
        "Bulk T2 Water: 3000",
        "T2_micro: ",
        "Step (voxels): 0.5",
        "Resolution: 1e-06",
        "Diffusion constant water: 2.5e-09",
        "Diffusion constant oil: 1e-10",
        "Magnetic field contribution water: ",
        "Random Walkers: 400",
        "0%   10   20   30   40   50   60   70   80   90   100%",
        "Job stopped",
        "--------------------------------------",
        "* Spent ",
        "* Total time: "};
    std::size_t last = 0;
    for (const auto& prefix : order) {
        const std::size_t at = indexOf(out, prefix);
        ASSERT_LT(at, out.size()) << "missing: " << prefix << "\n" << result.output;
        EXPECT_GE(at, last) << "out of order: " << prefix;
        last = at;
    }
    EXPECT_EQ(indexOf(out, "* Distribute time: ") < out.size(), GetParam() > 1);
    // 1 - 13/16 of the cells are quartz slabs: the z layers 0, 6 and 12.
    EXPECT_EQ(out[indexOf(out, "Intergranular porosity: ")], "Intergranular porosity: 0.8125");

    // Each kept decay point is echoed "t: a" and written "t a", in the same order.
    std::vector<std::string> echoed;
    for (const auto& line : out)
        if (line.find(": ") != std::string::npos &&
            std::isdigit(static_cast<unsigned char>(line[0])))
            echoed.push_back(line);
    const auto written = lines(dir_.read("T2decay.out"));
    ASSERT_FALSE(written.empty());
    ASSERT_EQ(echoed.size(), written.size());
    for (std::size_t i = 0; i < written.size(); ++i) {
        std::string expected = echoed[i];
        expected.replace(expected.find(": "), 2, " ");
        EXPECT_EQ(written[i], expected);
        EXPECT_GT(std::stod(expected.substr(expected.find(' ') + 1)), 0.001);
    }
    const auto inversion = lines(dir_.read("T2inversion.out"));
    ASSERT_EQ(inversion.size(), 40u);
    EXPECT_EQ(inversion.front().substr(0, 5), "0.01 ");
    EXPECT_EQ(inversion.back().substr(0, 6), "10000 ");
    for (const auto& line : inversion) EXPECT_GE(std::stod(line.substr(line.find(' ') + 1)), 0.0);

    EXPECT_TRUE(dir_.exists("STARTED"));
    EXPECT_EQ(dir_.read("STOPPED"), "");
    // Process 0 (with one extra walker when the division leaves a remainder) signals every
    // local/50 walkers, the last at the last multiple below its count; no poll follows.
    const int local = 400 / GetParam() + (400 % GetParam() != 0 ? 1 : 0);
    const int interval = local / 50;
    // Whole intervals on purpose: the bar reports at multiples of the interval.
    // NOLINTNEXTLINE(bugprone-integer-division)
    const double fraction = static_cast<double>((local - 1) / interval * interval) / local;
    std::ostringstream progress, message;
    progress << "Progress: " << fraction << "\n";
    message << "Random walk NMR#Simulating..#" << fraction << "#1#2\n";
    EXPECT_EQ(dir_.read("PROGRESS"), progress.str());
    EXPECT_EQ(dir_.read("message.txt"), message.str());
}

// Every failure of the grid's distribution takes the same way out of the run; what each
// failure prints on every process count is checked where the grid is distributed.
TEST_P(Run, BadInputEndsEveryProcessWithoutOutputFiles) {
    prepare({{"grid", "absent.binc"}});
    expectEarlyEnd(run(), "Unable to read grid file: absent.binc\n");
    prepare();
    expectEarlyEnd(run({"-m", "0"}), "Not enough memory available, need at least ");
}

TEST_P(Run, AbortFileDuringTheWalkEndsEveryProcess) {
    // Far more walkers than the test lets walk, and weak walls.
    prepare({{"numberOfWalkers", "4000000"},
             {"surfaceRelaxationStrengthWater", "{Clay: 3.0e-05, Quartz: 2.0e-6}"}});
    std::atomic<bool> done{false};
    std::thread supervisor([this, &done] {
        // Once the walk reports progress, ask the job to stop.
        while (!done) {
            if (dir_.exists("message.txt") &&
                dir_.read("message.txt").rfind("Random walk NMR", 0) == 0) {
                dir_.write("ABORT", "");
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });
    const auto result = run();
    done = true;
    supervisor.join();
    ASSERT_TRUE(dir_.exists("ABORT")) << "the run ended before the walk began";
    expectEarlyEnd(result, "Job aborted!\n");
    EXPECT_EQ(result.output.find("* Spent "), std::string::npos);
}

// A rock too large for the memory limit is walked as compressed blocks; the walkers are
// placed differently (one sorted set from process 0), but the physics must agree with a
// plain-grid run of the same rock within the Monte Carlo error.
TEST(CompressedRun, AgreesWithThePlainRunWithinTheMonteCarloError) {
    TempDir dir;
    // 200^3 cells: the plain estimate is 3.8 MiB, above 3 / 0.8, so -m 3 compresses.
    writeLayeredRock(dir / "rock.binc", 200, [](std::uint32_t z) { return z % 7 == 0; });
    const int walkers = 3000;
    dir.write("nmr.yaml", parameterFile({{"numberOfWalkers", std::to_string(walkers)}}));
    auto runWith = [&dir](const std::vector<std::string>& arguments) {
        auto result = runCommand(nmrwalkCommand(2, arguments), dir.path(),
                                 std::chrono::seconds(600), launcherEnvironment());
        EXPECT_EQ(result.exitStatus, 0) << result.output << result.errorOutput;
        return result;
    };
    const auto plainRun = runWith({});
    EXPECT_EQ(plainRun.output.find("* Create walkers time: "), std::string::npos);
    const auto plain = columns(dir.read("T2decay.out"));
    const auto compressedRun = runWith({"-m", "3"});
    EXPECT_NE(compressedRun.output.find("* Create walkers time: "), std::string::npos);
    const auto compressed = columns(dir.read("T2decay.out"));

    ASSERT_GT(plain.size(), 10u);
    ASSERT_GT(compressed.size(), 10u);
    const std::size_t common = std::min(plain.size(), compressed.size());
    const double n = walkers;
    for (std::size_t i = 0; i < common; ++i) {
        ASSERT_EQ(plain[i].first, compressed[i].first);  // one schedule for both
        // Without clay the amplitude is the surviving fraction times a damping factor
        // below 1, so the binomial error of a difference of two independent estimates,
        // sqrt(2 p (1 - p) / n), bounds it; 5 sigma keeps ~150 correlated points from
        // failing by chance while a 10 % bias in the survival would still be caught.
        const double p = std::clamp(plain[i].second, 0.0, 1.0);
        const double sigma = std::sqrt(2.0 * std::max(p * (1.0 - p), 1.0 / n) / n);
        EXPECT_NEAR(plain[i].second, compressed[i].second, 5.0 * sigma) << "t = " << plain[i].first;
    }
}

INSTANTIATE_TEST_SUITE_P(Processes, Run, ::testing::Values(1, 2, 3, 4),
                         [](const ::testing::TestParamInfo<int>& testCase) {
                             return "np" + std::to_string(testCase.param);
                         });

}  // namespace
}  // namespace nmr::test
