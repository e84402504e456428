// nmrwalk-field run for real under mpiexec on grain packs made by nmrwalk-grid.
#include <gtest/gtest.h>

#include <cmath>
#include <regex>

#include "field/field_file.h"
#include "testutil/command.h"
#include "testutil/temp_dir.h"

namespace nmr::test {
namespace {

const std::string kSusceptibility = "{Pore: -9.05e-06, Quartz: -1.65e-05, Clay: 2.0e-04}";

class FieldTool : public ::testing::Test {
protected:
    // 20 x 94 x 10 cells: the padded length of y, 189, is one where FFTW's double transforms
    // differ between CPUs with and without FMA.
    void SetUp() override {
        const auto made = makeClayPack(dir_.path(), "20x94x10");
        ASSERT_EQ(made.exitStatus, 0) << made.errorOutput;
    }
    void writeParameters(std::vector<std::pair<std::string, std::string>> changes = {}) {
        changes.insert(changes.begin(),
                       {{"volumeSusceptibility", kSusceptibility}, {"staticField", "0.05"}});
        dir_.write("nmr.yaml", parameterFile(changes));
    }
    CommandResult field(int processes, const std::vector<std::string>& arguments = {},
                        const std::vector<std::string>& environment = launcherEnvironment()) {
        return runCommand(launcherCommand(processes, programPath("nmrwalk-field"), arguments),
                          dir_.path(), std::chrono::seconds(120), environment);
    }
    bool anyOutput() const {
        for (const char* name : {"field.mhd", "field.raw", "field.json", "field.png",
                                 "field.mhd.writing", "field.raw.writing", "field.json.writing"})
            if (dir_.exists(name)) return true;
        return false;
    }
    TempDir dir_{"nmr_field_e2e"};
};

// The same bits at one and at three processes, and with the C library's FMA and AVX2
// variants masked (GLIBC_TUNABLES, as on an x86-64 without them; a C library that does not
// know the names ignores them and the check is weaker, not wrong).
TEST_F(FieldTool, WritesTheSameFieldAtAnyProcessCountAndOnAnyCpu) {
    writeParameters();
    const auto one = field(1);
    ASSERT_EQ(one.exitStatus, 0) << one.output << one.errorOutput;
    const auto three = field(3, {"-o", "three.mhd"});
    ASSERT_EQ(three.exitStatus, 0) << three.output << three.errorOutput;
    auto masked = launcherEnvironment();
    masked.push_back("GLIBC_TUNABLES=glibc.cpu.hwcaps=-AVX2,-FMA,-AVX512F");
    const auto plain = field(2, {"--output=plain.mhd"}, masked);
    ASSERT_EQ(plain.exitStatus, 0) << plain.output << plain.errorOutput;

    const std::string bits = dir_.read("field.raw");
    EXPECT_EQ(bits.size(), 20u * 94 * 10 * 4);
    EXPECT_TRUE(bits == dir_.read("three.raw") && bits == dir_.read("plain.raw"));
    const std::vector<float> values = field::readFieldFile(dir_.file("field.mhd"), {20, 94, 10});
    EXPECT_TRUE(std::any_of(values.begin(), values.end(), [](float v) { return v != 0.0f; }));
    EXPECT_NE(dir_.read("field.mhd")
                  .find("DimSize = 20 94 10\nElementSpacing = 2 2 2\n"
                        "ElementType = MET_FLOAT\nElementDataFile = field.raw\n"),
              std::string::npos);

    const std::regex line(
        "Internal gradient in pore space at 0.05 T: mean (\\S+) T/m, median (\\S+) T/m, 90th "
        "percentile (\\S+) T/m\n");
    std::smatch found;
    ASSERT_TRUE(std::regex_search(one.output, found, line)) << one.output;
    const double mean = std::stod(found[1]), median = std::stod(found[2]),
                 p90 = std::stod(found[3]);
    EXPECT_TRUE(median > 0.0 && median <= p90 && mean > 0.0 && mean < p90) << found[0];
    EXPECT_NE(three.output.find(found[0].str()), std::string::npos) << three.output;
    EXPECT_NE(one.output.find("Peak resident memory: "), std::string::npos);
    EXPECT_NE(dir_.read("field.json").find("\"staticFieldT\": 0.05"), std::string::npos);
    // The plot needs matplotlib; without it the program says so and goes on.
    EXPECT_TRUE(dir_.exists("field.png") ||
                one.errorOutput.find("field.png not drawn") != std::string::npos);
}

TEST_F(FieldTool, RefusesBadInputOnEveryProcessAndWritesNothing) {
    struct Case {
        std::vector<std::pair<std::string, std::string>> changes;
        std::vector<std::string> arguments;
        std::string message;
    };
    const Case cases[] = {
        {{{"volumeSusceptibility", "{Pore: -9.05e-06, Quartzz: 1.0e-05}"}},
         {},
         "Unknown mineral in volumeSusceptibility (./nmr.yaml line 24): Quartzz"},
        {{{"volumeSusceptibility", "{Pore: -9.05e-06, Quartz: -1.65e-05}"}},
         {},
         "volumeSusceptibility has no value for Clay, which the grid holds"},
        {{{"staticField", "-0.05"}}, {}, "staticField must be a positive number of tesla: -0.05"},
        {{}, {"--padding", "1000000"}, "MiB available: use more nodes or a smaller --padding"},
        {{}, {"--padding", "0.5"}, "The padding must be a number of at least 1: 0.5"},
        {{}, {"--padding", "two"}, "Option --padding needs a number"},
        {{}, {"--bogus"}, "Unknown option: --bogus"},
        {{}, {"-o", "field.txt"}, "The field file must be named <name>.mhd: field.txt"},
        {{}, {"rock.binc"}, "nmrwalk-field takes no arguments: rock.binc"},
    };
    for (const Case& c : cases) {
        writeParameters(c.changes);
        const auto result = field(2, c.arguments);
        EXPECT_EQ(result.exitStatus, 1) << c.message;
        EXPECT_EQ(result.errorOutput.rfind("nmrwalk-field: error: ", 0), 0u) << result.errorOutput;
        EXPECT_NE(result.errorOutput.find(c.message), std::string::npos) << result.errorOutput;
        EXPECT_FALSE(anyOutput()) << c.message;
    }
    const std::pair<std::string, std::string> files[] = {
        {parameterFile(), "volumeSusceptibility parameter is missing"},  // no field keys
        {"NuclearMagneticResonanceParameters: [", "reading the input file ./nmr.yaml"}};
    for (const auto& [text, message] : files) {
        dir_.write("nmr.yaml", text);
        const auto result = field(2);
        EXPECT_EQ(result.exitStatus, 1);
        EXPECT_EQ(result.errorOutput.find("nmrwalk-field: error: "), 0u) << result.errorOutput;
        EXPECT_NE(result.errorOutput.find(message), std::string::npos) << result.errorOutput;
        EXPECT_FALSE(anyOutput());
    }
}

TEST_F(FieldTool, HelpStatesTheConventions) {
    const auto help = field(2, {"--help"});
    EXPECT_EQ(help.exitStatus, 0);
    for (const char* part : {"Lorentz sphere", "embedded in its own pore fluid", "Zero padding",
                             "micrometres", "T/m", "Exit status 1"})
        EXPECT_NE(help.output.find(part), std::string::npos) << part;
    EXPECT_EQ(help.output.find("Usage: nmrwalk-field"), help.output.rfind("Usage: nmrwalk-field"))
        << "printed once, by process 0";
}

}  // namespace
}  // namespace nmr::test
