#include <gtest/gtest.h>

#include <algorithm>
#include <regex>

#include "e2e_support.h"
#include "params/parameter_file.h"

namespace nmr::test {
namespace {

const std::string kMemoryLine = "Memory limit per CPU: 1500 MB\n";

long countLines(const std::string& output, const std::string& line) {
    const auto all = lines(output);
    return std::count(all.begin(), all.end(), line);
}

// Parameterised by the number of processes: what only process 0 prints must appear once
// however many there are, and every early end must leave all of them with status 255.
class Nmrwalk : public ::testing::TestWithParam<int> {
protected:
    CommandResult run(const std::vector<std::string>& arguments = {}) {
        auto result = runCommand(nmrwalkCommand(GetParam(), arguments), dir_.path(),
                                 std::chrono::seconds(120), launcherEnvironment());
        EXPECT_FALSE(result.timedOut);
        return result;
    }
    void writeValidParameters() { writeTemplateFile((dir_ / "nmr.yaml").string()); }

    ScratchDirectory dir_;
};

TEST_P(Nmrwalk, RequestsEndTheRunAfterTheirOutput) {
    auto result = run({"-h"});
    EXPECT_EQ(result.output, std::string("Usage: ") + nmrwalkPath() +
                                 " [-m memoryLimitInMB]\n"
                                 " -h --help            Show this help screen\n"
                                 " -V --version         Show version information\n"
                                 " -m memoryLimitInMB   The amount of memory available per CPU\n"
                                 " -p --parameters      Write default parameters\n" +
                                 kMemoryLine);
    EXPECT_EQ(result.exitStatus, 255);
    EXPECT_TRUE(dir_.exists("STOPPED"));
    EXPECT_FALSE(dir_.exists("STARTED"));

    result = run({"-V"});
    // path, name and version, ". ", system-version-processor; compiler; maker; the limit.
    const std::regex banner(std::string(nmrwalkPath()) +
                            " .+ version [0-9.]+\\. [^ ]+-[^ ]+-[^ ]+\n"
                            "Compiled with the [^\n]+ compiler\\.\n[^\n]+\n" +
                            kMemoryLine);
    EXPECT_TRUE(std::regex_match(result.output, banner)) << result.output;
    EXPECT_EQ(result.exitStatus, 255);

    result = run({"-p"});
    EXPECT_EQ(result.output, kMemoryLine);
    EXPECT_EQ(result.exitStatus, 255);
    EXPECT_EQ(readParameters((dir_ / "nmr.yaml").string())->echoSpacing(), 0.001);
}

TEST_P(Nmrwalk, MemoryLimit) {
    writeValidParameters();
    auto result = run({"-m", "64x"});
    EXPECT_EQ(countLines(result.output, "Invalid input for memory limit in MB"), GetParam());
    EXPECT_EQ(countLines(result.output, "Memory limit per CPU: 1500 MB"), 1);
    EXPECT_EQ(lines(result.output).size(), static_cast<std::size_t>(GetParam() + 1));
    EXPECT_EQ(result.exitStatus, 255);
    EXPECT_FALSE(dir_.exists("STARTED"));

    result = run({"-m", "2048"});
    EXPECT_EQ(countLines(result.output, "Memory limit per CPU: 2048 MB"), 1) << result.output;
    // Past the command line and the parameter file: the start was announced.
    EXPECT_TRUE(dir_.exists("STARTED"));
    EXPECT_EQ(dir_.read("message.txt"),
              "Initializing#Reading grid and distributing walkers..#0#0#2\n");
    EXPECT_EQ(dir_.read("PROGRESS"), "Progress: 0\n");
}

TEST_P(Nmrwalk, LeftoverAbortEndsEveryProcessAtTheFirstPoll) {
    writeValidParameters();
    dir_.write("ABORT", "");
    const auto result = run();
    EXPECT_EQ(result.output, kMemoryLine + "Job aborted!\n");
    EXPECT_EQ(result.exitStatus, 255);
    EXPECT_TRUE(dir_.exists("STARTED"));
    EXPECT_EQ(dir_.read("STOPPED"), "");
    EXPECT_TRUE(dir_.exists("ABORT"));
}

TEST_P(Nmrwalk, BrokenParameterFileEndsTheRun) {
    dir_.write("nmr.yaml", "NuclearMagneticResonanceParameters:\n  grid: rock.binc\n");
    const auto result = run();
    EXPECT_EQ(result.output, kMemoryLine +
                                 "An error occurred while reading the input file ./nmr.yaml: "
                                 "bulkOilT2 parameter is missing. Tag: 'bulkOilT2'.\n");
    EXPECT_EQ(result.exitStatus, 255);
    EXPECT_FALSE(dir_.exists("STARTED"));
    EXPECT_TRUE(dir_.exists("STOPPED"));
}

INSTANTIATE_TEST_SUITE_P(Processes, Nmrwalk, ::testing::Values(1, 2),
                         [](const ::testing::TestParamInfo<int>& testCase) {
                             return "np" + std::to_string(testCase.param);
                         });

}  // namespace
}  // namespace nmr::test
