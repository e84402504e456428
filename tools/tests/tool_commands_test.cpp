// The tools as a user runs them: exit status, console lines and the files they write.

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>

#include "analysis/t2_summary.h"
#include "common/exception.h"
#include "io/grain_bed_grid_writer.h"
#include "t2/decay_output.h"
#include "testutil/command.h"
#include "testutil/temp_dir.h"

namespace nmr::tools {
namespace {

using namespace test;
using namespace analysis;

// The number after "label" in a tool's console output, or NaN.
double printed(const std::string& output, const std::string& label) {
    const auto at = output.find(label);
    return at == std::string::npos ? std::nan("")
                                   : std::strtod(output.c_str() + at + label.size(), nullptr);
}

// Amplitude and amplitude-weighted log-mean T2 of the distribution within [lo, hi] ms.
std::pair<double, double> peak(const std::string& file, double lo, double hi) {
    std::ifstream in(file);
    double t2, a, sum = 0.0, logSum = 0.0;
    while (in >> t2 >> a)
        if (t2 >= lo && t2 <= hi) {
            sum += a;
            logSum += a * std::log(t2);
        }
    return {sum, sum > 0.0 ? std::exp(logSum / sum) : 0.0};
}

TEST(InvertCommand, RecoversBothPeaksOfATwoComponentDecay) {
    TempDir dir;
    {
        // 0.2 ms echo spacing out to 1.2 s, 40 % at 3 ms and 60 % at 200 ms, a ripple for
        // noise; as two columns, and as four with the signal rotated by 40 degrees.
        std::ofstream two(dir.file("two.csv")), four(dir.file("four.txt"));
        two << "# time (ms), amplitude\n";
        const double c = std::cos(40.0 * M_PI / 180.0), s = std::sin(40.0 * M_PI / 180.0);
        for (int i = 1; i <= 6000; ++i) {
            const double t = 0.2 * i;
            const double m =
                0.4 * std::exp(-t / 3.0) + 0.6 * std::exp(-t / 200.0) + 1e-3 * std::sin(1.7 * i);
            two << t << ", " << m << "\n";
            four << t << "\t0\t" << m * c << "\t" << m * s << "\n";
        }
    }
    for (const std::string name : {"two.csv", "four.txt"}) {
        for (auto f : {"T2inversion.out", "T2summary.json"}) std::filesystem::remove(dir.file(f));
        const CommandResult r = runCommand(
            {programPath("nmrwalk-invert"), dir.file(name), "-o", dir.file("T2inversion.out")});
        ASSERT_EQ(r.exitStatus, 0) << r.errorOutput;
        const auto [fast, fastT2] = peak(dir.file("T2inversion.out"), 0.5, 20.0);
        const auto [slow, slowT2] = peak(dir.file("T2inversion.out"), 50.0, 1000.0);
        // Regularisation broadens and slightly shifts the peaks; areas within 0.05 and
        // positions within a factor 1.3 are what the L-curve choice gives on this train.
        EXPECT_NEAR(fast, 0.4, 0.05) << name;
        EXPECT_NEAR(slow, 0.6, 0.05) << name;
        EXPECT_NEAR(std::log(fastT2 / 3.0), 0.0, std::log(1.3)) << name;
        EXPECT_NEAR(std::log(slowT2 / 200.0), 0.0, std::log(1.3)) << name;
        EXPECT_NEAR(printed(r.output, "Bound fraction (T2 < cut-off): "), 0.4, 0.05);
        EXPECT_GT(printed(readFile(dir.file("T2summary.json")), "\"lambda\": "), 0.0);
        if (name == "four.txt") {
            EXPECT_NEAR(printed(r.output, "Phase-rotated by "), 40.0, 0.5);
        }
    }
}

TEST(InvertCommand, MalformedLinesAreNamedByNumber) {
    TempDir dir;
    const std::pair<std::string, std::string> cases[] = {
        {"# t m\n1 0.9\n2 0.8\n\n3 abc\n", "line 5"},
        {"1 0.9 0 0.1\n2 0.8\n", "line 2"},
        {"1 0.9\n2 0.8 7\n", "line 2"},
        {"1 0.9\n1 0.8\n", "line 2"},
        {"# only a comment\n", "No data"}};
    for (const auto& [content, expected] : cases) {
        writeFile(dir.file("bad.txt"), content);
        const CommandResult r = runCommand(
            {programPath("nmrwalk-invert"), dir.file("bad.txt"), "-o", dir.file("bad.out")});
        EXPECT_EQ(r.exitStatus, 1) << content;
        EXPECT_NE(r.errorOutput.find(expected), std::string::npos) << r.errorOutput;
        EXPECT_NE(r.errorOutput.find("bad.txt"), std::string::npos) << r.errorOutput;
    }
}

// A user's first -o names a folder that is not there yet: it is made. One that cannot be
// made is refused before the work, with the system's reason.
TEST(OutputFolders, AreMadeOrRefusedBeforeTheWork) {
    TempDir dir;
    {
        std::ofstream decay(dir.file("decay.txt"));
        for (int i = 1; i <= 300; ++i) decay << 0.5 * i << " " << std::exp(-0.5 * i / 40.0) << "\n";
    }
    CommandResult r = runCommand({programPath("nmrwalk-invert"), dir.file("decay.txt"), "-o",
                                  dir.file("lab/new/T2inversion.out")});
    ASSERT_EQ(r.exitStatus, 0) << r.errorOutput;
    EXPECT_TRUE(dir.exists("lab/new/T2inversion.out"));
    const std::string json = readFile(dir.file("lab/new/T2summary.json"));
    for (const char* key : {"\"source\": \"nmrwalk-invert\"", "\"units\": {\"t2\": \"ms\"",
                            "\"t2Ms\": [0.0001, ", "\"amplitude\": ["})
        EXPECT_NE(json.find(key), std::string::npos) << key << json;

    r = runCommand(
        {programPath("nmrwalk-grid"), "slab", "--width", "4", "-o", dir.file("rocks/slab.binc")});
    EXPECT_EQ(r.exitStatus, 0) << r.errorOutput;
    EXPECT_TRUE(dir.exists("rocks/slab.binc"));

    // A folder below a plain file cannot be made: nothing is read or written first.
    for (const std::vector<std::string>& command :
         {std::vector<std::string>{programPath("nmrwalk-invert"), dir.file("decay.txt"), "-o",
                                   dir.file("decay.txt/T2inversion.out")},
          {programPath("nmrwalk-grid"), "slab", "--width", "4", "-o",
           dir.file("decay.txt/slab.binc")}}) {
        r = runCommand(command);
        EXPECT_EQ(r.exitStatus, 1);
        EXPECT_EQ(r.output, "");
        EXPECT_NE(r.errorOutput.find("error: Cannot write " + dir.file("decay.txt/")),
                  std::string::npos)
            << r.errorOutput;
        EXPECT_NE(r.errorOutput.find("Not a directory"), std::string::npos) << r.errorOutput;
    }
}

TEST(GridTools, AMissingRequiredOptionIsNamed) {
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{programPath("nmrwalk-grid"), "slab", "--size", "8"},
         "nmrwalk-grid: error: Missing option: --output"},
        {{programPath("nmrwalk-import"), "volume.raw", "-o", "out.binc"},
         "nmrwalk-import: error: Missing option (e.g. --labels 0=Pore,1=Quartz): --labels"}};
    for (const auto& [command, expected] : cases) {
        const CommandResult r = runCommand(command);
        EXPECT_EQ(r.exitStatus, 1) << command[0];
        EXPECT_NE(r.errorOutput.find(expected), std::string::npos) << r.errorOutput;
    }
}

class PlotCommand : public ::testing::Test {
protected:
    void SetUp() override {
        if (python_.empty()) GTEST_SKIP() << "no python3 found at configure time";
        // Structure in every bin, to exercise the bin splitting and the log-mean everywhere.
        std::vector<double> grid, amplitudes, t, m;
        for (int j = 0; j < 60; ++j) {
            grid.push_back(0.01 * std::pow(10.0, j * 0.1));
            amplitudes.push_back(0.2 + std::sin(0.37 * j) * std::sin(0.37 * j) * (j % 7));
            t.push_back((j + 1) * 15.0);
            m.push_back(std::exp(-t.back() / 300.0));
        }
        ASSERT_TRUE(t2::writeColumns(grid, amplitudes, dir_.file("T2inversion.out")));
        ASSERT_TRUE(t2::writeColumns(t, m, dir_.file("T2decay.out")));
        writeFile(dir_.file("nmr.yaml"),
                  "NuclearMagneticResonanceParameters:\n  grid: rock.binc\n");
        // A measured decay inverted into its own folder, as nmrwalk-invert leaves it.
        std::ofstream decay(lab_.file("decay.txt"));
        for (int i = 1; i <= 400; ++i) decay << 0.5 * i << " " << std::exp(-0.5 * i / 40.0) << "\n";
        decay.close();
        inverted_ = runCommand({programPath("nmrwalk-invert"), lab_.file("decay.txt"), "-o",
                                lab_.file("T2inversion.out")});
        ASSERT_EQ(inverted_.exitStatus, 0) << inverted_.errorOutput;
    }
    CommandResult plot(std::vector<std::string> args) {
        args.insert(args.begin(), {python_, programPath("nmrwalk-plot")});
        args.push_back(dir_.path().string());
        return runCommand(args);
    }
    std::string python_ = NMR_PYTHON3;
    TempDir dir_;
    TempDir lab_;
    CommandResult inverted_;
};

// A folder of nmrwalk-invert is plotted as it is: no decay file is asked for, and its
// summary (lambda, rank, points) is not replaced.
TEST_F(PlotCommand, AMeasuredFolderIsPlottedAsItIs) {
    const std::string before = lab_.read("T2summary.json");
    const bool canPlot = runCommand({python_, "-c", "import matplotlib"}).exitStatus == 0;
    const CommandResult r = runCommand({python_, programPath("nmrwalk-plot"), lab_.path().string(),
                                        canPlot ? "--size=800x600" : "--summary-only"});
    ASSERT_EQ(r.exitStatus, 0) << r.errorOutput;
    EXPECT_EQ(lab_.read("T2summary.json"), before);
    EXPECT_EQ(printed(r.output, "Log-mean T2 (ms): "),
              printed(inverted_.output, "Log-mean T2 (ms): "));
    if (canPlot) {
        EXPECT_TRUE(lab_.exists("T2plot.png"));
    }
}

// The run's T2LM and the measured one side by side; in porosity units the run's total
// porosity comes from its grid and nmr.yaml as nmrwalk reckons it (margins cut off, the
// region when subsampleCalculation is on, clay counted at its micro-porosity).
TEST_F(PlotCommand, CompareGivesBothT2LMsAndTheRunsPorosity) {
    // 12^3 cells with a margin of 1; interior layer z: quartz below 3, clay at 3, pore above.
    GrainBedGridWriter writer(dir_.file("rock.binc"), 12, 12, 12, 1, 1, 1, 1.0);
    for (std::uint32_t z = 0; z < 12; ++z) {
        const int inner = static_cast<int>(z) - 1;
        const Mineral::Type m = inner < 3 || inner > 9 ? Mineral::Quartz
                                : inner == 3           ? Mineral::Clay
                                                       : Mineral::Pore;
        const std::vector<GrainBedGridCell> slice(144, GrainBedGridCell::make(0, m));
        writer.writeSlice(slice.data());
    }
    writer.close();
    writeFile(dir_.file("nmr.yaml"),
              "NuclearMagneticResonanceParameters:\n  grid: rock.binc\n"
              "  clayMicroPorosity: 0.5\n  subsampleCalculation: true\n"
              "  regionOfInterest:\n    x:\n      - 0\n      - 10\n    y:\n      - 0\n"
              "      - 10\n    z:\n      - 2\n      - 10\n  t2Components: 60\n");
    const auto t2lm = [&](const std::string& folder) {
        const CommandResult r = runCommand({python_, programPath("nmrwalk-plot"), "--summary-only",
                                            "--json", lab_.file("scratch.json"), folder});
        return printed(r.output, "Log-mean T2 (ms): ");
    };
    const CommandResult r = plot({"--compare", lab_.path().string(), "--summary-only",
                                  "--porosity-units", "--lab-porosity", "0.2"});
    ASSERT_EQ(r.exitStatus, 0) << r.errorOutput;
    EXPECT_NEAR(printed(r.output, "Simulated T2LM (ms): "), t2lm(dir_.path().string()),
                1e-5 * t2lm(dir_.path().string()));
    EXPECT_EQ(printed(r.output, "Measured T2LM (ms): "),
              printed(inverted_.output, "Log-mean T2 (ms): "));
    // Region z 2..9 of the interior: one layer of quartz, one of clay, six of pore.
    EXPECT_EQ(printed(r.output, "Simulated porosity (p.u.): "), 81.25) << r.output;
    EXPECT_EQ(printed(r.output, "Measured porosity (p.u.): "), 20.0);

    // The measured folder first is a mistake worth naming.
    const CommandResult swapped =
        runCommand({python_, programPath("nmrwalk-plot"), lab_.path().string(), "--compare",
                    dir_.path().string(), "--summary-only"});
    EXPECT_EQ(swapped.exitStatus, 1);
    EXPECT_NE(swapped.errorOutput.find("holds a measured distribution"), std::string::npos);
}

TEST_F(PlotCommand, SummaryAgreesWithTheLibrary) {
    // The script sees the file's 6-digit numbers; so must the library.
    std::ifstream in(dir_.file("T2inversion.out"));
    std::vector<double> t2, a;
    for (double x, y; in >> x >> y;) {
        t2.push_back(x);
        a.push_back(y);
    }
    ASSERT_EQ(t2.size(), 60u);
    for (const char* cutoff : {"33", "3.3", "0.0101", "8500"}) {
        const CommandResult r = plot({"--summary-only", "--cutoff", cutoff});
        ASSERT_EQ(r.exitStatus, 0) << r.errorOutput;
        const std::string json = readFile(dir_.file("T2summary.json"));
        const T2Summary s = summariseT2(t2, a, std::stod(cutoff));
        for (const auto& [key, value] : {std::pair{"\"logMeanT2Ms\": ", s.logMeanT2},
                                         {"\"peakT2Ms\": ", s.peakT2},
                                         {"\"boundFraction\": ", s.boundFraction},
                                         {"\"freeFraction\": ", s.freeFraction},
                                         {"\"totalAmplitude\": ", s.totalAmplitude}})
            // Same inputs, same sums in double precision: only rounding order may differ.
            EXPECT_NEAR(printed(json, key), value, 1e-12 * std::abs(value)) << key << cutoff;
    }
    std::filesystem::remove(dir_.file("T2inversion.out"));
    const CommandResult r = plot({"--summary-only"});
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_NE(r.errorOutput.find("T2inversion.out"), std::string::npos) << r.errorOutput;
}

TEST_F(PlotCommand, WritesAPngOfTheRequestedSize) {
    if (runCommand({python_, "-c", "import matplotlib"}).exitStatus != 0)
        GTEST_SKIP() << "matplotlib is not installed for " << python_;
    const CommandResult r = plot({"--size", "800x600", "-o", dir_.file("plot.png")});
    ASSERT_EQ(r.exitStatus, 0) << r.errorOutput;
    const std::string bytes = readFile(dir_.file("plot.png"));
    ASSERT_GT(bytes.size(), 24u);
    EXPECT_EQ(bytes.substr(1, 3), "PNG");
    const auto be32 = [&](std::size_t at) {
        const auto* b = reinterpret_cast<const unsigned char*>(bytes.data() + at);
        return std::uint32_t{b[0]} << 24 | std::uint32_t{b[1]} << 16 | std::uint32_t{b[2]} << 8 |
               b[3];
    };
    EXPECT_EQ(be32(16), 800u);  // IHDR width
    EXPECT_EQ(be32(20), 600u);  // IHDR height
    EXPECT_GT(bytes.size(), 10000u) << "a plot with curves and text is not this small";
}

}  // namespace
}  // namespace nmr::tools
