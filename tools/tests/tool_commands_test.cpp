// The tools as a user runs them: exit status, console lines and the files they write.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <regex>
#include <sstream>

#include "t2/decay_output.h"
#include "tools/decay_file.h"
#include "tools/t2_summary.h"
#include "tools/tests/test_support.h"

namespace nmr::tools {
namespace {

using testing::CommandResult;
using testing::runCommand;
using testing::shellQuote;
using testing::TempDir;
using testing::toolPath;

// The number after "label" in a tool's console output, or NaN.
double printed(const std::string& output, const std::string& label) {
    const auto at = output.find(label);
    return at == std::string::npos ? std::nan("")
                                   : std::strtod(output.c_str() + at + label.size(), nullptr);
}

TEST(GridCommand, WritesTheRockAndPrintsItsFigures) {
    TempDir dir;
    const std::string out = dir.file("slab.binc");
    CommandResult r =
        runCommand(toolPath("nmrwalk-grid") + " slab --width 8 --size 10x4x4 --cell-size 2 -o " +
                   shellQuote(out));
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_DOUBLE_EQ(printed(r.output, "Porosity: "), 0.8);
    EXPECT_DOUBLE_EQ(printed(r.output, "Surface-to-volume ratio S/V (1/um): "), 2.0 / (8 * 2.0));
    EXPECT_EQ(testing::readGridFile(out).cells.size(), 160u);

    r = runCommand(toolPath("nmrwalk-grid") + " pack --radius 4 --porosity 0.3 -o " +
                   shellQuote(dir.file("p.binc")));
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.output.find("--size"), std::string::npos) << r.output;
    r = runCommand(toolPath("nmrwalk-grid") + " sphere --radius 3 --mineral quartz -o " +
                   shellQuote(dir.file("s.binc")));
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.output.find("Feldspars (non-dissolvable)"), std::string::npos) << r.output;
    EXPECT_FALSE(std::filesystem::exists(dir.file("s.binc")));
}

TEST(ExampleRock, ScriptMakesTheRockItsParameterFileDescribes) {
    const char* source = std::getenv("NMR_SOURCE_DIR");
    if (!source) GTEST_SKIP() << "NMR_SOURCE_DIR not set (run through ctest)";
    const std::string example = std::string(source) + "/examples/sandstone/";
    TempDir dir;
    const CommandResult r =
        runCommand("bash " + shellQuote(example + "make_rock.sh") + " " +
                   shellQuote(NMR_TOOLS_BINARY_DIR) + " " + shellQuote(dir.file("sandstone.binc")));
    ASSERT_EQ(r.status, 0) << r.output;
    const std::string yaml = testing::readText(example + "nmr.yaml");
    EXPECT_NE(yaml.find("  grid: sandstone.binc\n"), std::string::npos);
    // The figures quoted in the parameter file's header are the ones the script gives.
    for (const char* label :
         {"Porosity: ", "Clay fraction: ", "Surface-to-volume ratio S/V (1/um): "}) {
        std::ostringstream figure;
        figure.precision(4);
        figure << printed(r.output, label);
        EXPECT_NE(yaml.find(figure.str()), std::string::npos) << label << figure.str();
    }
}

TEST(ImportCommand, RefusesToGuessAVoxelSize) {
    TempDir dir;
    testing::writeBytes(dir.file("v.raw"), std::string(64, '\1'));
    const std::string base = toolPath("nmrwalk-import") + " " + shellQuote(dir.file("v.raw")) +
                             " --size 4 --labels 1=Pore -o " + shellQuote(dir.file("v.binc"));
    CommandResult r = runCommand(base);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.output.find("--voxel-size"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("v.raw"), std::string::npos) << r.output;
    r = runCommand(base + " --voxel-size 3");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_DOUBLE_EQ(printed(r.output, "Porosity: "), 1.0);
}

// A CPMG-like train: 0.2 ms echo spacing out to 1.2 s, 40 % at 3 ms and 60 % at 200 ms,
// with a small deterministic ripple standing in for noise.
struct Decay {
    std::vector<double> t, m;
};
Decay twoPeakDecay() {
    Decay d;
    for (int i = 1; i <= 6000; ++i) {
        const double t = 0.2 * i;
        d.t.push_back(t);
        d.m.push_back(0.4 * std::exp(-t / 3.0) + 0.6 * std::exp(-t / 200.0) +
                      1e-3 * std::sin(1.7 * i));
    }
    return d;
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

void expectBothPeaks(const std::string& distribution) {
    const auto [fast, fastT2] = peak(distribution, 0.5, 20.0);
    const auto [slow, slowT2] = peak(distribution, 50.0, 1000.0);
    // Regularisation broadens and slightly shifts the peaks; areas within 0.05 and
    // positions within a factor 1.3 are what the L-curve choice gives on this train.
    EXPECT_NEAR(fast, 0.4, 0.05);
    EXPECT_NEAR(slow, 0.6, 0.05);
    EXPECT_NEAR(std::log(fastT2 / 3.0), 0.0, std::log(1.3));
    EXPECT_NEAR(std::log(slowT2 / 200.0), 0.0, std::log(1.3));
}

TEST(InvertCommand, RecoversBothPeaksOfATwoComponentDecay) {
    TempDir dir;
    const Decay d = twoPeakDecay();
    {
        std::ofstream two(dir.file("two.csv")), four(dir.file("four.txt"));
        two << "# time (ms), amplitude\n";
        four << "# time, unused, real, imaginary: rotated by 40 degrees\n";
        const double c = std::cos(40.0 * M_PI / 180.0), s = std::sin(40.0 * M_PI / 180.0);
        for (std::size_t i = 0; i < d.t.size(); ++i) {
            two << d.t[i] << ", " << d.m[i] << "\n";
            four << d.t[i] << "\t0\t" << d.m[i] * c << "\t" << d.m[i] * s << "\n";
        }
    }
    CommandResult r =
        runCommand(toolPath("nmrwalk-invert") + " " + shellQuote(dir.file("two.csv")) + " -o " +
                   shellQuote(dir.file("two.out")));
    ASSERT_EQ(r.status, 0) << r.output;
    expectBothPeaks(dir.file("two.out"));
    EXPECT_GT(printed(r.output, "Lambda: "), 0.0);
    const std::string json = testing::readText(dir.file("T2summary.json"));
    EXPECT_NE(json.find("\"lambda\""), std::string::npos);
    EXPECT_NEAR(printed(r.output, "Bound fraction (T2 < cut-off): "), 0.4, 0.05);

    r = runCommand(toolPath("nmrwalk-invert") + " " + shellQuote(dir.file("four.txt")) + " -o " +
                   shellQuote(dir.file("four.out")));
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NEAR(printed(r.output, "Phase-rotated by "), 40.0, 0.5);
    expectBothPeaks(dir.file("four.out"));
}

TEST(InvertCommand, MalformedLinesAreNamedByNumber) {
    TempDir dir;
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"# t m\n1 0.9\n2 0.8\n\n3 abc\n", "line 5"},
        {"1 0.9 0 0.1\n2 0.8\n", "line 2"},
        {"1 0.9\n2 0.8 7\n", "line 2"},
        {"1 0.9\n1 0.8\n", "line 2"},
        {"# only a comment\n", "No data"}};
    for (const auto& [content, expected] : cases) {
        testing::writeBytes(dir.file("bad.txt"), content);
        const CommandResult r =
            runCommand(toolPath("nmrwalk-invert") + " " + shellQuote(dir.file("bad.txt")) + " -o " +
                       shellQuote(dir.file("bad.out")));
        EXPECT_EQ(r.status, 1) << content;
        EXPECT_NE(r.output.find(expected), std::string::npos) << r.output;
        EXPECT_NE(r.output.find("bad.txt"), std::string::npos) << r.output;
    }
}

class PlotCommand : public ::testing::Test {
protected:
    void SetUp() override {
        python_ = NMR_PYTHON3;
        if (python_.empty()) GTEST_SKIP() << "no python3 found at configure time";
        plot_ = shellQuote(python_) + " " + shellQuote(toolPath("nmrwalk-plot"));
        // A distribution with some structure in every bin, so that the bin splitting and
        // the log-mean are exercised everywhere.
        grid_ = {};
        for (int j = 0; j < 60; ++j) grid_.push_back(0.01 * std::pow(10.0, j * 0.1));
        for (int j = 0; j < 60; ++j)
            amplitudes_.push_back(0.2 + std::sin(0.37 * j) * std::sin(0.37 * j) * (j % 7));
        ASSERT_TRUE(t2::writeColumns(grid_, amplitudes_, dir_.file("T2inversion.out")));
        std::vector<double> t, m;
        for (int i = 1; i < 200; ++i) {
            t.push_back(i * 5.0);
            m.push_back(std::exp(-i * 5.0 / 300.0));
        }
        ASSERT_TRUE(t2::writeColumns(t, m, dir_.file("T2decay.out")));
        testing::writeBytes(dir_.file("nmr.yaml"),
                            "NuclearMagneticResonanceParameters:\n  grid: rock.binc\n");
    }
    std::string python_, plot_;
    std::vector<double> grid_, amplitudes_;
    TempDir dir_;
};

TEST_F(PlotCommand, SummaryAgreesWithTheLibrary) {
    for (const double cutoff : {33.0, 3.3, 0.0123, 500.0}) {
        std::ostringstream cut;
        cut.precision(17);
        cut << cutoff;
        const CommandResult r = runCommand(plot_ + " --summary-only --cutoff " + cut.str() + " " +
                                           shellQuote(dir_.path().string()));
        ASSERT_EQ(r.status, 0) << r.output;
        const std::string json = testing::readText(dir_.file("T2summary.json"));
        // The script sees the file's 6-digit numbers; so must the library.
        std::ifstream in(dir_.file("T2inversion.out"));
        std::vector<double> t2, a;
        for (double x, y; in >> x >> y;) {
            t2.push_back(x);
            a.push_back(y);
        }
        ASSERT_EQ(t2.size(), grid_.size());
        const T2Summary s = summariseT2(t2, a, cutoff);
        const std::pair<const char*, double> fields[] = {
            {"\"logMeanT2Ms\": ", s.logMeanT2},
            {"\"peakT2Ms\": ", s.peakT2},
            {"\"boundFraction\": ", s.boundFraction},
            {"\"freeFraction\": ", s.freeFraction},
            {"\"totalAmplitude\": ", s.totalAmplitude}};
        for (const auto& [key, value] : fields) {
            // Same inputs, same sums in double precision: only rounding order may differ.
            EXPECT_NEAR(printed(json, key), value, 1e-12 * std::abs(value))
                << key << " at cut-off " << cutoff;
        }
    }
}

TEST_F(PlotCommand, WritesAPngOfTheRequestedSize) {
    if (runCommand(shellQuote(python_) + " -c 'import matplotlib'").status != 0)
        GTEST_SKIP() << "matplotlib is not installed for " << python_;
    const std::string png = dir_.file("plot.png");
    const CommandResult r = runCommand(plot_ + " --size 800x600 -o " + shellQuote(png) + " " +
                                       shellQuote(dir_.path().string()));
    ASSERT_EQ(r.status, 0) << r.output;
    const std::string bytes = testing::readText(png);
    ASSERT_GT(bytes.size(), 24u);
    EXPECT_EQ(bytes.substr(1, 3), "PNG");
    auto be32 = [&](std::size_t at) {
        const auto* b = reinterpret_cast<const unsigned char*>(bytes.data() + at);
        return std::uint32_t{b[0]} << 24 | std::uint32_t{b[1]} << 16 | std::uint32_t{b[2]} << 8 |
               b[3];
    };
    EXPECT_EQ(be32(16), 800u);  // IHDR width
    EXPECT_EQ(be32(20), 600u);  // IHDR height
    EXPECT_GT(bytes.size(), 10000u) << "a plot with curves and text is not this small";
}

TEST_F(PlotCommand, MissingOutputsAreAnError) {
    std::filesystem::remove(dir_.file("T2inversion.out"));
    const CommandResult r = runCommand(plot_ + " " + shellQuote(dir_.path().string()));
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.output.find("T2inversion.out"), std::string::npos) << r.output;
}

}  // namespace
}  // namespace nmr::tools
