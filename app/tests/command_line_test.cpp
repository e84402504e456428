#include <gtest/gtest.h>

#include <sstream>

#include "app/command_line.h"
#include "parallel/grid_distribution.h"

namespace nmr::app {
namespace {

TEST(OptionParsing, AcceptsOnlyTheDocumentedForms) {
    using Words = std::vector<std::string>;
    const auto parse = [](const Words& words) { return parseOptions(programOptions(), words); };
    EXPECT_EQ(
        parse({"-h", "--version", "--parameters", "-V", "-m", "2048", "--memoryLimitInMB=64"}),
        (ParsedOptions{{"help", {""}},
                       {"version", {"", ""}},
                       {"parameters", {""}},
                       {"memoryLimitInMB", {"2048", "64"}}}));
    // The word after -m is its value even when it looks like an option.
    EXPECT_EQ(parse({"-m", "-h"}), (ParsedOptions{{"memoryLimitInMB", {"-h"}}}));
    for (const Words& bad : {Words{"-m"}, Words{"-x"}, Words{"--bogus"}, Words{"-hV"},
                             Words{"-m10"}, Words{"--help=1"}, Words{"nmr.yaml"}}) {
        EXPECT_EQ(parse(bad), std::nullopt) << bad.front();
    }
}

TEST(MemoryLimit, WholeTextMustBeAnUnsigned32BitNumber) {
    EXPECT_EQ(parseMemoryLimit("4294967295"), 4294967295u);
    for (const char* bad : {"4294967296", "64x", "-", "-1", "", "12 ", "1.5"}) {
        EXPECT_EQ(parseMemoryLimit(bad), std::nullopt) << '"' << bad << '"';
    }
}

TEST(CommandLine, ResultLimitAndConsole) {
    const std::string usage = usageText("nmrwalk"),
                      invalid = "Invalid input for memory limit in MB\n";
    const auto limitLine = [](int mb) {
        return "Memory limit per CPU: " + std::to_string(mb) + " MB\n";
    };
    struct Case {
        int rank;
        std::vector<std::string> arguments;
        bool carryOn;
        std::uint32_t limit;
        std::string output;
    };
    for (const Case& c : {
             Case{0, {}, true, 1500, limitLine(1500)},
             Case{1, {}, true, 1500, ""},
             Case{0, {"-m", "2048"}, true, 2048, limitLine(2048)},
             Case{0, {"-m", "64x"}, false, 1500, invalid + limitLine(1500)},
             Case{2, {"-m", "-"}, false, 1500, invalid},
             // Help ends the run, but the limit is still checked and reported after it.
             Case{0, {"-h", "-m", "10"}, false, 10, usage + limitLine(10)},
             Case{0, {"--bogus", "-m", "10"}, false, 1500, usage + limitLine(1500)},
             Case{1, {"--help"}, false, 1500, ""},
         }) {
        std::vector<std::string> commandLine = {"nmrwalk"};
        commandLine.insert(commandLine.end(), c.arguments.begin(), c.arguments.end());
        std::uint32_t limit = kDefaultMemoryLimitMb;
        std::ostringstream out;
        EXPECT_EQ(handleCommandLine(c.rank, commandLine, limit, out), c.carryOn) << c.output;
        EXPECT_EQ(limit, c.limit) << c.output;
        EXPECT_EQ(out.str(), c.output);
    }
}

}  // namespace
}  // namespace nmr::app
