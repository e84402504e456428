#include <gtest/gtest.h>

#include <algorithm>
#include <regex>

#include "params/parameter_file.h"
#include "testutil/command.h"
#include "testutil/temp_dir.h"

namespace nmr::test {
namespace {

const std::string kMemoryLine = "Memory limit per CPU: 1500 MB\n";

// Parameterised by the number of processes: what only process 0 prints must appear once,
// and every early end must leave the launcher with status 255.
class Nmrwalk : public ::testing::TestWithParam<int> {
protected:
    CommandResult run(const std::vector<std::string>& arguments, int expectedStatus = 255) {
        auto result = runCommand(nmrwalkCommand(GetParam(), arguments), dir_.path(),
                                 std::chrono::seconds(120), launcherEnvironment());
        EXPECT_FALSE(result.timedOut);
        EXPECT_TRUE(expectedStatus < 0 || result.exitStatus == expectedStatus)
            << result.exitStatus << result.output;
        return result;
    }
    long count(const std::string& output, const std::string& line) {
        return std::ranges::count(lines(output), line);
    }
    TempDir dir_;
};

TEST_P(Nmrwalk, RequestsEndTheRunAfterTheirOutput) {
    EXPECT_EQ(run({"-h"}).output,
              std::string("Usage: ") + programPath("nmrwalk") +
                  " [-m memoryLimitInMB]\n"
                  " -h --help            Show this help screen\n"
                  " -V --version         Show version information\n"
                  " -m memoryLimitInMB   The amount of memory available per CPU\n"
                  " -p --parameters      Write default parameters\n" +
                  kMemoryLine);
    EXPECT_TRUE(dir_.exists("STOPPED"));
    EXPECT_FALSE(dir_.exists("STARTED"));
    // path, name and version, ". ", system-version-processor; compiler; maker; the limit.
    const std::regex banner(std::string(programPath("nmrwalk")) +
                            " .+ version [0-9.]+\\. [^ ]+-[^ ]+-[^ ]+\n"
                            "Compiled with the [^\n]+ compiler\\.\n[^\n]+\n" +
                            kMemoryLine);
    const std::string version = run({"-V"}).output;
    EXPECT_TRUE(std::regex_match(version, banner)) << version;
    EXPECT_EQ(run({"-p"}).output, kMemoryLine);
    EXPECT_EQ(readParameters((dir_ / "nmr.yaml").string())->echoSpacing(), 0.001);
}

// -p writes exactly what it always wrote, and standard output is unchanged; an edited
// nmr.yaml is kept as nmr.yaml~ (a copy of the template is not worth keeping).
TEST_P(Nmrwalk, TemplateNeverLosesTheUsersFile) {
    const std::string edited = "NuclearMagneticResonanceParameters:\n  grid: mine.binc\n";
    dir_.write("nmr.yaml", edited);
    auto result = run({"-p"});
    EXPECT_EQ(result.output, kMemoryLine);
    EXPECT_NE(result.errorOutput.find("Kept the existing nmr.yaml as nmr.yaml~\n"),
              std::string::npos)
        << result.errorOutput;
    EXPECT_EQ(dir_.read("nmr.yaml~"), edited);
    const std::string written = dir_.read("nmr.yaml");
    EXPECT_EQ(written, encodeParameters(templateParameters()) + "\n");

    result = run({"-p"});
    EXPECT_EQ(result.errorOutput.find("Kept"), std::string::npos) << result.errorOutput;
    EXPECT_EQ(dir_.read("nmr.yaml~"), edited);
    EXPECT_EQ(dir_.read("nmr.yaml"), written);
}

TEST_P(Nmrwalk, MemoryLimit) {
    writeTemplateFile((dir_ / "nmr.yaml").string());
    auto result = run({"-m", "64x"});
    EXPECT_EQ(count(result.output, "Invalid input for memory limit in MB"), GetParam());
    EXPECT_EQ(count(result.output, "Memory limit per CPU: 1500 MB"), 1);
    EXPECT_EQ(lines(result.output).size(), static_cast<std::size_t>(GetParam() + 1));
    EXPECT_FALSE(dir_.exists("STARTED"));

    result = run({"-m", "2048"}, -1);  // ends later for want of the template's grid
    EXPECT_EQ(count(result.output, "Memory limit per CPU: 2048 MB"), 1) << result.output;
    EXPECT_TRUE(dir_.exists("STARTED"));
    EXPECT_EQ(dir_.read("message.txt"),
              "Initializing#Reading grid and distributing walkers..#0#0#2\n");
    EXPECT_EQ(dir_.read("PROGRESS"), "Progress: 0\n");
}

TEST_P(Nmrwalk, LeftoverAbortEndsEveryProcessAtTheFirstPoll) {
    writeTemplateFile((dir_ / "nmr.yaml").string());
    dir_.write("ABORT", "");
    EXPECT_EQ(run({}).output, kMemoryLine + "Job aborted!\n");
    EXPECT_TRUE(dir_.exists("STARTED") && dir_.exists("ABORT"));
    EXPECT_EQ(dir_.read("STOPPED"), "");
}

TEST_P(Nmrwalk, BrokenParameterFileEndsTheRun) {
    dir_.write("nmr.yaml", "NuclearMagneticResonanceParameters:\n  grid: rock.binc\n");
    EXPECT_EQ(run({}).output, kMemoryLine +
                                  "An error occurred while reading the input file ./nmr.yaml: "
                                  "bulkOilT2 parameter is missing. Tag: 'bulkOilT2'.\n");
    EXPECT_FALSE(dir_.exists("STARTED"));
    EXPECT_TRUE(dir_.exists("STOPPED"));
}

INSTANTIATE_TEST_SUITE_P(Processes, Nmrwalk, ::testing::Values(1, 2), [](const auto& testCase) {
    return "np" + std::to_string(testCase.param);
});

}  // namespace
}  // namespace nmr::test
