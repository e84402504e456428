// Whole runs of the real program under mpiexec on small generated rocks.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <fstream>
#include <sstream>
#include <thread>

#include "io/grain_bed_grid_writer.h"
#include "testutil/command.h"
#include "testutil/temp_dir.h"

namespace nmr::test {
namespace {

// Quartz slabs every `period` cells along z with pore in between: every walker meets a
// wall within a few hundred steps, so runs stay short even in the sanitizer build.
void writeSlabRock(const std::filesystem::path& path, std::uint32_t n, std::uint32_t period,
                   std::uint32_t oddCode = 0) {
    GrainBedGridWriter writer(path.string(), n, n, n, 0, 0, 0, 1.0);
    std::vector<GrainBedGridCell> slice(static_cast<std::size_t>(n) * n);
    for (std::uint32_t z = 0; z < n; ++z) {
        const std::uint32_t mineral = z % period == 0 ? Mineral::Quartz : Mineral::Pore;
        std::fill(slice.begin(), slice.end(), GrainBedGridCell::make(0, mineral));
        if (oddCode != 0 && z == n / 2) slice[n + 1] = GrainBedGridCell::make(0, oddCode);
        writer.writeSlice(slice.data());
    }
    writer.close();
}

struct RunSettings {
    std::string grid = "rock.binc";
    int walkers = 400;
    int seed = 8008;
    double quartzRelaxivity = 2.0e-4;
    bool subsample = false;
    std::string region = "{x: [0, 4], y: [0, 4], z: [0, 4]}";
};

std::string parameterFile(const RunSettings& s) {
    std::ostringstream yaml;
    yaml << "NuclearMagneticResonanceParameters:\n"
         << "  grid: " << s.grid << "\n"
         << "  gyroMagneticRatio: 42580000.0\n  echoSpacing: 0.001\n  magneticFieldGradient: 0.2\n"
         << "  saturationFile: false\n  waterSaturation: 1.0\n  clayMicroPorosity: 0.3\n"
         << "  bulkWaterT2: 3.0\n  diffusionConstantWater: 2.5e-09\n  diffusionConstantOil: 1e-10\n"
         << "  surfaceRelaxationStrengthWater: {Clay: 3.0e-05, Quartz: " << s.quartzRelaxivity
         << "}\n"
         << "  bulkOilT2: [1.0]\n  intensityT2: [1.0]\n"
         << "  surfaceRelaxationStrengthOil: {Quartz: 1.6e-15}\n"
         << "  numberOfWalkers: " << s.walkers << "\n  stepLength: 0.5\n"
         << "  randomSeed: " << s.seed << "\n"
         << "  subsampleCalculation: " << (s.subsample ? "true" : "false") << "\n"
         << "  regionOfInterest: " << s.region << "\n"
         << "  t2Components: 40\n  t2Minimum: 0.01\n  t2Maximum: 10000.0\n";
    return yaml.str();
}

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
    void prepare(const RunSettings& settings, std::uint32_t n = 16, std::uint32_t oddCode = 0) {
        writeSlabRock(dir_ / "rock.binc", n, 6, oddCode);
        dir_.write("nmr.yaml", parameterFile(settings));
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
    prepare(RunSettings{});
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
    const double fraction = static_cast<double>((local - 1) / interval * interval) / local;
    std::ostringstream progress, message;
    progress << "Progress: " << fraction << "\n";
    message << "Random walk NMR#Simulating..#" << fraction << "#1#2\n";
    EXPECT_EQ(dir_.read("PROGRESS"), progress.str());
    EXPECT_EQ(dir_.read("message.txt"), message.str());
}

TEST_P(Run, SameSeedAndProcessCountReproduceTheOutputsByteForByte) {
    prepare(RunSettings{});
    ASSERT_EQ(run().exitStatus, 0);
    const std::string decay = dir_.read("T2decay.out");
    const std::string inversion = dir_.read("T2inversion.out");
    ASSERT_EQ(run().exitStatus, 0);
    EXPECT_EQ(dir_.read("T2decay.out"), decay);
    EXPECT_EQ(dir_.read("T2inversion.out"), inversion);

    RunSettings other;
    other.seed = 8009;
    dir_.write("nmr.yaml", parameterFile(other));
    ASSERT_EQ(run().exitStatus, 0);
    EXPECT_NE(dir_.read("T2decay.out"), decay);
}

TEST_P(Run, BadInputEndsEveryProcessWithoutOutputFiles) {
    {
        SCOPED_TRACE("missing grid file");
        RunSettings s;
        s.grid = "absent.binc";
        prepare(s);
        expectEarlyEnd(run(), "Unable to read grid file: absent.binc\n");
    }
    {
        SCOPED_TRACE("region larger than the grid");
        RunSettings s;
        s.subsample = true;
        s.region = "{x: [0, 17], y: [0, 4], z: [0, 4]}";
        prepare(s);
        expectEarlyEnd(run(), "Sub-region size does not match grid size.\n");
    }
    for (std::uint32_t code : {14u, 15u}) {
        SCOPED_TRACE("voxel code " + std::to_string(code));
        prepare(RunSettings{}, 16, code);
        expectEarlyEnd(run(),
                       "The grid contains voxels which have\n"
                       "not been assigned a valid mineral value.\n"
                       "Only mineral and pore voxels are currently supported.\n");
    }
    {
        SCOPED_TRACE("parameter file error");
        prepare(RunSettings{});
        dir_.write("nmr.yaml", "NuclearMagneticResonanceParameters: [1, 2]\n");
        expectEarlyEnd(run(),
                       "An error occurred while reading the input file ./nmr.yaml: "
                       "./nmr.yaml does not contain a yaml map.\n");
    }
    {
        // The header alone of a 16384^3 grid: one byte a cell is 4 TiB on every node.
        SCOPED_TRACE("grid beyond the memory of a node");
        prepare(RunSettings{});
        {
            GrainBedGridWriter header((dir_ / "rock.binc").string(), 16384, 16384, 16384, 0, 0, 0,
                                      1.0);
        }
        expectEarlyEnd(run(),
                       "Not enough memory to hold the grid once per node: 4194304 MB needed, ");
    }
    {
        SCOPED_TRACE("memory limit below one block");
        prepare(RunSettings{});
        expectEarlyEnd(run({"-m", "0"}), "Not enough memory available, need at least ");
    }
}

TEST_P(Run, AbortFileDuringTheWalkEndsEveryProcess) {
    RunSettings s;
    s.walkers = 4000000;  // far more than the test lets it walk
    s.quartzRelaxivity = 2.0e-6;
    prepare(s);
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

std::vector<std::pair<double, double>> readColumns(const std::string& text) {
    std::vector<std::pair<double, double>> points;
    std::istringstream in(text);
    for (double t, a; in >> t >> a;) points.emplace_back(t, a);
    return points;
}

// A rock too large for the memory limit is walked as compressed blocks; the walkers are
// placed differently (one sorted set from process 0), but the physics must agree with a
// plain-grid run of the same rock within the Monte Carlo error.
TEST(CompressedRun, AgreesWithThePlainRunWithinTheMonteCarloError) {
    TempDir dir;
    // 200^3 cells: the plain estimate is 3.8 MiB, above 3 / 0.8, so -m 3 compresses.
    writeSlabRock(dir / "rock.binc", 200, 7);
    RunSettings settings;
    settings.walkers = 3000;
    dir.write("nmr.yaml", parameterFile(settings));
    auto runWith = [&dir](const std::vector<std::string>& arguments) {
        auto result = runCommand(nmrwalkCommand(2, arguments), dir.path(),
                                 std::chrono::seconds(600), launcherEnvironment());
        EXPECT_EQ(result.exitStatus, 0) << result.output << result.errorOutput;
        return result;
    };
    const auto plainRun = runWith({});
    EXPECT_EQ(plainRun.output.find("* Create walkers time: "), std::string::npos);
    const auto plain = readColumns(dir.read("T2decay.out"));
    const auto compressedRun = runWith({"-m", "3"});
    EXPECT_NE(compressedRun.output.find("* Create walkers time: "), std::string::npos);
    const auto compressed = readColumns(dir.read("T2decay.out"));

    ASSERT_GT(plain.size(), 10u);
    ASSERT_GT(compressed.size(), 10u);
    const std::size_t common = std::min(plain.size(), compressed.size());
    const double n = settings.walkers;
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
