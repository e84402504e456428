#include <gtest/gtest.h>

#include <sstream>

#include "app/command_line.h"

namespace nmr::app {
namespace {

TEST(OptionParsing, AcceptsOnlyTheDocumentedForms) {
    using Words = std::vector<std::string>;
    const auto parse = [](const Words& words) { return parseOptions(programOptions(), words); };
    EXPECT_EQ(parse({}), ParsedOptions{});
    EXPECT_EQ(parse({"-h", "--version", "--parameters", "-V"}),
              (ParsedOptions{{"help", {""}}, {"version", {"", ""}}, {"parameters", {""}}}));
    EXPECT_EQ(parse({"-m", "2048", "--memoryLimitInMB=64"}),
              (ParsedOptions{{"memoryLimitInMB", {"2048", "64"}}}));
    // The word after -m is its value even when it looks like an option.
    EXPECT_EQ(parse({"-m", "-h"}), (ParsedOptions{{"memoryLimitInMB", {"-h"}}}));
    for (const Words& bad : {Words{"-m"}, Words{"-x"}, Words{"--bogus"}, Words{"-hV"},
                             Words{"-m10"}, Words{"--help=1"}, Words{"nmr.yaml"}, Words{"-"}}) {
        EXPECT_EQ(parse(bad), std::nullopt) << bad.front();
    }
}

TEST(MemoryLimit, WholeTextMustBeAnUnsigned32BitNumber) {
    EXPECT_EQ(parseMemoryLimit("2048"), 2048u);
    EXPECT_EQ(parseMemoryLimit("4294967295"), 4294967295u);
    for (const char* bad : {"4294967296", "64x", "-", "-1", "", "12 ", "1.5"}) {
        EXPECT_EQ(parseMemoryLimit(bad), std::nullopt) << '"' << bad << '"';
    }
}

const std::string kUsage =
    "Usage: nmrwalk [-m memoryLimitInMB]\n"
    " -h --help            Show this help screen\n"
    " -V --version         Show version information\n"
    " -m memoryLimitInMB   The amount of memory available per CPU\n"
    " -p --parameters      Write default parameters\n";
const std::string kInvalid = "Invalid input for memory limit in MB\n";

struct HandleCase {
    const char* name;
    int rank;
    std::vector<std::string> arguments;
    bool carryOn;
    std::uint32_t limit;
    std::string output;
};

class CommandLine : public ::testing::TestWithParam<HandleCase> {};

TEST_P(CommandLine, ResultLimitAndConsole) {
    const auto& c = GetParam();
    std::vector<std::string> commandLine = {"nmrwalk"};
    commandLine.insert(commandLine.end(), c.arguments.begin(), c.arguments.end());
    std::uint32_t limit = kDefaultMemoryLimitMB;
    std::ostringstream out;
    EXPECT_EQ(handleCommandLine(c.rank, commandLine, limit, out), c.carryOn);
    EXPECT_EQ(limit, c.limit);
    EXPECT_EQ(out.str(), c.output);
}

INSTANTIATE_TEST_SUITE_P(
    Requests, CommandLine,
    ::testing::Values(
        HandleCase{"None", 0, {}, true, 1500, "Memory limit per CPU: 1500 MB\n"},
        HandleCase{"NoneRank1", 1, {}, true, 1500, ""},
        HandleCase{"Limit", 0, {"-m", "2048"}, true, 2048, "Memory limit per CPU: 2048 MB\n"},
        HandleCase{
            "Invalid", 0, {"-m", "64x"}, false, 1500, kInvalid + "Memory limit per CPU: 1500 MB\n"},
        HandleCase{"InvalidRank2", 2, {"-m", "-"}, false, 1500, kInvalid},
        // Help ends the run, but the limit is still checked and reported.
        HandleCase{"HelpAndLimit",
                   0,
                   {"-h", "-m", "10"},
                   false,
                   10,
                   kUsage + "Memory limit per CPU: 10 MB\n"},
        HandleCase{"Unparsable",
                   0,
                   {"--bogus", "-m", "10"},
                   false,
                   1500,
                   kUsage + "Memory limit per CPU: 1500 MB\n"},
        HandleCase{"HelpRank1", 1, {"--help"}, false, 1500, ""}),
    [](const ::testing::TestParamInfo<HandleCase>& testCase) { return testCase.param.name; });

}  // namespace
}  // namespace nmr::app
