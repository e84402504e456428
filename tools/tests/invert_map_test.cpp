// nmrwalk-invert --dt2 / --t1t2 as a user runs it: a small synthetic data file in, the
// map, its picture and the printed figures out; and every refusal ends with a message,
// status 1 and no file written.

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <random>

#include "inversion/data_file.h"
#include "testutil/command.h"
#include "testutil/temp_dir.h"

namespace nmr::tools {
namespace {

using namespace test;
using inversion::Data2d;
using inversion::KernelKind;

double printed(const std::string& output, const std::string& label) {
    const auto at = output.find(label);
    return at == std::string::npos ? std::nan("")
                                   : std::strtod(output.c_str() + at + label.size(), nullptr);
}

// 12 first-column values x 300 echoes 2 ms apart, two peaks, noise 0.01: seconds even in a
// Debug build with sanitizers, on a map of 20 x 20.
Data2d twoPeaks(KernelKind kind) {
    Data2d d;
    const bool diffusion = kind == KernelKind::Diffusion;
    d.first = diffusion ? inversion::logAxis(1e7, 3e10, 12) : inversion::logAxis(1.0, 1e4, 12);
    for (int i = 1; i <= 300; ++i) d.times.push_back(2.0 * i);
    const double a1 = diffusion ? 1.5e-10 : 100.0;
    const double a2 = diffusion ? 2.3e-9 : 1000.0;
    d.amplitude = 0.5 * inversion::kernelMatrix(kind, d.first, {a1}) *
                      inversion::kernelMatrix(KernelKind::Decay, d.times, {20.0}).transpose() +
                  0.5 * inversion::kernelMatrix(kind, d.first, {a2}) *
                      inversion::kernelMatrix(KernelKind::Decay, d.times, {200.0}).transpose();
    std::mt19937 generator(3);
    std::normal_distribution<double> noise(0.0, 0.01);
    for (Eigen::Index j = 0; j < d.amplitude.size(); ++j)
        d.amplitude.reshaped()[j] += noise(generator);
    return d;
}

struct Mode {
    const char* flag;
    KernelKind kind;
    const char* map;
    const char* png;
    double logMean1;  // geometric mean of the two peaks on axis 1
};

class MapCommand : public ::testing::TestWithParam<Mode> {};

TEST_P(MapCommand, WritesTheMapAndItsPictureAndPrintsItsFigures) {
    const Mode& m = GetParam();
    TempDir dir;
    inversion::writeData2d(dir.file("data.txt"), twoPeaks(m.kind));
    // A folder of -o that is not there yet is made, as by every tool.
    const std::string map = dir.file(std::string("out/maps/") + m.map);
    const CommandResult r = runCommand({programPath("nmrwalk-invert"), m.flag, dir.file("data.txt"),
                                        "-o", map, "--map-points", "20"});
    ASSERT_EQ(r.exitStatus, 0) << r.errorOutput;
    const Data2d cells = inversion::readData2d(map);
    ASSERT_EQ(cells.amplitude.rows(), 20);
    ASSERT_EQ(cells.amplitude.cols(), 20);
    EXPECT_GE(cells.amplitude.minCoeff(), 0.0);
    // Nine digits in the file, six on the console.
    EXPECT_NEAR(printed(r.output, "Total amplitude: "), cells.amplitude.sum(), 1e-5);
    // 3600 data and a coarse map: the sum within a few percent, the peaks within 0.05 decade.
    EXPECT_NEAR(cells.amplitude.sum(), 1.0, 0.05);
    EXPECT_NEAR(printed(r.output, "Noise level: "), 0.01, 0.001);
    EXPECT_NEAR(printed(r.output, "RMS residual: ") / 0.01, 1.0, 0.05);
    EXPECT_GT(printed(r.output, "Alpha: "), 0.0);
    // Equal amplitudes: the log-means are the geometric means of the peaks.
    const std::string name = m.kind == KernelKind::Diffusion ? "D (m^2/s): " : "T1 (ms): ";
    EXPECT_NEAR(std::log10(printed(r.output, "Log-mean " + name)), std::log10(m.logMean1), 0.05);
    EXPECT_NEAR(std::log10(printed(r.output, "Log-mean T2 (ms): ")), std::log10(63.25), 0.05);
    if (r.errorOutput.empty()) {
        EXPECT_EQ(readFile(dir.file(std::string("out/maps/") + m.png)).substr(1, 3), "PNG");
    } else {
        // Without matplotlib the picture is missing and the run goes on.
        EXPECT_NE(r.errorOutput.find("warning"), std::string::npos) << r.errorOutput;
    }
}

INSTANTIATE_TEST_SUITE_P(Modes, MapCommand,
                         ::testing::Values(Mode{"--dt2", KernelKind::Diffusion, "DT2map.out",
                                                "DT2map.png", std::sqrt(1.5e-10 * 2.3e-9)},
                                           Mode{"--t1t2", KernelKind::InversionRecovery,
                                                "T1T2map.out", "T1T2map.png", 316.2}));

// A copy of the program in a folder without nmrwalk-plot beside it: the plot fails, the
// map does not.
TEST(MapCommandWithoutPlot, WarnsAndWritesTheMapInTheCurrentFolder) {
    TempDir dir;
    std::filesystem::copy_file(programPath("nmrwalk-invert"), dir / "nmrwalk-invert");
    inversion::writeData2d(dir.file("data.txt"), twoPeaks(KernelKind::InversionRecovery));
    const CommandResult r = runCommand(
        {dir.file("nmrwalk-invert"), "--t1t2", "data.txt", "--map-points", "12"}, dir.path());
    ASSERT_EQ(r.exitStatus, 0) << r.errorOutput;
    EXPECT_EQ(inversion::readData2d(dir.file("T1T2map.out")).first.size(), 12u);
    EXPECT_FALSE(dir.exists("T1T2map.png"));
    EXPECT_NE(r.errorOutput.find("nmrwalk-invert: warning: T1T2map.png not drawn"),
              std::string::npos)
        << r.errorOutput;
}

TEST(MapCommandRefusals, MessageStatusOneAndNoFile) {
    TempDir dir;
    const std::string data = dir.file("data.txt");
    const std::string good =
        "1 0.5 0.9\n1 1.0 0.8\n1 1.5 0.7\n10 0.5 0.5\n10 1.0 0.4\n10 1.5 0.3\n";
    const struct {
        std::string content;
        std::vector<std::string> arguments;
        std::string message;
    } cases[] = {
        {"", {"--t1t2", data}, "No data lines in the 2-D data file: " + data},
        {"1 0.5 0.9\n1 1.0 x\n", {"--t1t2", data}, "Not a number in " + data + " line 2: 1 1.0 x"},
        {"1 0.5 0.9\n1 1.0 0.8\n10 0.5 0.5\n10 1.0 0.4\n1 0.5 0.3\n",
         {"--dt2", data},
         "The first column does not repeat in blocks: 1 in " + data +
             " line 5 comes back after its block ended"},
        {"1 0.5 0.9\n1 1.0 0.8\n",
         {"--dt2", data},
         "Fewer than 2 blocks in " + data +
             ": the first column never changes (one block of 2 rows)"},
        {"0 0.5 0.9\n0 1.0 0.8\n1e9 0.5 0.5\n1e9 1.0 0.4\n",
         {"--dt2", data},
         "The D axis needs at least two different positive sample values in " + data},
        {good, {"--dt2", data, "--t1t2", data}, "Give one of --dt2 and --t1t2, not both"},
        {good, {"--t1t2", data, "--d0", "2e-9"}, "Not an option of --t1t2: --d0"},
        {good,
         {"--dt2", data, "--cutoff", "33"},
         "Not an option of --dt2 (1-D decays only): --cutoff"},
        {good,
         {"--t1t2", data, "--map-points", "5"},
         "--map-points must lie between 10 and 100: 5"},
        {good, {"--t1t2", data, "--noise", "0"}, "--noise must be positive: 0.000000"},
        {good,
         {"--t1t2", data, "--t1-min", "50", "--t1-max", "20"},
         "The T1 axis needs --t1-min < --t1-max: 50.000000 20.000000"},
        {good, {data, "--noise", "0.01"}, "--noise is an option of --dt2 and --t1t2 only"},
    };
    for (const auto& c : cases) {
        writeFile(data, c.content);
        std::vector<std::string> command = {programPath("nmrwalk-invert")};
        command.insert(command.end(), c.arguments.begin(), c.arguments.end());
        const CommandResult r = runCommand(command, dir.path());
        EXPECT_EQ(r.exitStatus, 1) << c.message;
        EXPECT_EQ(r.errorOutput, "nmrwalk-invert: error: " + c.message + "\n");
        EXPECT_EQ(r.output, "") << c.message;
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1)
            << "a refusal left a file: " << c.message;
    }
}

}  // namespace
}  // namespace nmr::tools
