// nmrwalk-sequence run for real under mpiexec on a grain pack made by nmrwalk-grid.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <limits>
#include <regex>
#include <sstream>
#include <thread>

#include "testutil/command.h"
#include "testutil/temp_dir.h"

namespace nmr::test {
namespace {

// Paramagnetic clay in water: a contrast of 2e-4 SI at 0.2 T makes gradients of tens of
// T/m in the pores, strong enough to shorten T2 several times between echo spacings of 0.2
// and 4 ms, while Quartz (2e-5 m/s) alone gives a T2 near 85 ms at any spacing.
const std::vector<std::pair<std::string, std::string>> kRock = {
    {"magneticFieldGradient", "0.0"},
    {"clayMicroPorosity", "0.0"},
    {"surfaceRelaxationStrengthWater", "{Clay: 3.0e-05, Quartz: 2.0e-5}"},
    {"volumeSusceptibility", "{Pore: -9.05e-06, Quartz: -1.65e-05, Clay: 2.0e-04}"},
    {"staticField", "0.2"}};

class SequenceTool : public ::testing::Test {
protected:
    void SetUp() override {
        const auto made = makeClayPack(dir_.path(), "24x24x24");
        ASSERT_EQ(made.exitStatus, 0) << made.errorOutput;
    }
    void writeParameters(std::vector<std::pair<std::string, std::string>> changes = {}) {
        changes.insert(changes.begin(), kRock.begin(), kRock.end());
        dir_.write("nmr.yaml", parameterFile(changes));
    }
    CommandResult sequence(int processes, std::vector<std::string> arguments,
                           const std::string& experiment = "cpmg",
                           const std::vector<std::string>& environment = launcherEnvironment()) {
        arguments.insert(arguments.begin(), experiment);
        return runCommand(launcherCommand(processes, programPath("nmrwalk-sequence"), arguments),
                          dir_.path(), std::chrono::seconds(300), environment);
    }
    bool anyOutput() const {
        for (const char* name : {"cpmg.out", "cpmg_inversion.out", "cpmg.png", "pfg.out",
                                 "diffusion.out", "pfg.png", "dt2.out", "DT2map.out", "DT2map.png"})
            if (dir_.exists(name)) return true;
        return false;
    }
    TempDir dir_{"nmr_sequence_e2e"};
};

// "Echo spacing <te> ms: T2LM <x> ms" per spacing, in order.
std::vector<double> logMeans(const std::string& output) {
    static const std::regex line("Echo spacing \\S+ ms: T2LM (\\S+) ms\n");
    std::vector<double> values;
    for (std::sregex_iterator it(output.begin(), output.end(), line), end; it != end; ++it)
        values.push_back(std::stod((*it)[1]));
    return values;
}

// The counted echo trains too must not depend on how the walkers are divided. Without the
// field the spacing changes T2 only through the step (a few per cent); with it, the walkers
// that cross the clay's gradients dephase between pulses and T2 falls several times.
TEST_F(SequenceTool, SameBitsAtAnyProcessCountAndT2FallsWithTheEchoSpacingInAField) {
    writeParameters();
    const std::vector<std::string> spacings = {"--echo-spacing", "0.2,4"};
    const auto one = sequence(1, spacings);
    ASSERT_EQ(one.exitStatus, 0) << one.output << one.errorOutput;
    const std::string bits = dir_.read("cpmg.out");
    for (int processes : {2, 3}) {
        const auto run = sequence(processes, spacings);
        ASSERT_EQ(run.exitStatus, 0) << run.output << run.errorOutput;
        EXPECT_TRUE(dir_.read("cpmg.out") == bits) << processes << " processes";
    }
    const std::vector<double> inField = logMeans(one.output);
    ASSERT_EQ(inField.size(), 2u) << one.output;
    EXPECT_LT(inField[1], 0.4 * inField[0]) << one.output;

    dir_.write("nmr.yaml", parameterFile({kRock.begin(), kRock.begin() + 3}));
    const auto free = sequence(2, spacings);
    ASSERT_EQ(free.exitStatus, 0) << free.output << free.errorOutput;
    const std::vector<double> noField = logMeans(free.output);
    ASSERT_EQ(noField.size(), 2u) << free.output;
    EXPECT_NEAR(noField[1] / noField[0], 1.0, 0.15) << free.output;
    EXPECT_NEAR(noField[0] / inField[0], 1.0, 0.15) << "a short spacing refocuses the field";
}

void writeField(const TempDir& dir, const std::string& dims, const std::string& type, float value) {
    dir.write("f.mhd",
              "ObjectType = Image\nNDims = 3\nBinaryData = True\n"
              "BinaryDataByteOrderMSB = False\nDimSize = " +
                  dims + "\nElementSpacing = 2 2 2\nElementType = " + type +
                  "\nElementDataFile = f.raw\n");
    std::string raw(std::size_t{24} * 24 * 24 * sizeof(float), '\0');
    for (std::size_t at = 0; at < raw.size(); at += sizeof(float))
        std::memcpy(raw.data() + at, &value, sizeof(float));
    dir.write("f.raw", raw);
}

// Every refusal comes from process 0 alone or from every process, before any walk: the
// same message, status -1 everywhere, and no output.
TEST_F(SequenceTool, RefusesBadInputOnEveryProcessAndWritesNothing) {
    struct Case {
        std::vector<std::pair<std::string, std::string>> changes;
        std::vector<std::string> arguments;
        std::string field;  // "dims type value" of a field file, or none
        std::string message;
        std::string memoryMb = {};  // a node that has this much free, or as much as it has
    };
    const Case cases[] = {
        {{{"volumeSusceptibility", "{Pore: -9.05e-06, Quartzz: 1.0e-05}"}},
         {"--echo-spacing", "1"},
         "",
         "Unknown mineral in volumeSusceptibility"},
        {{}, {"--echo-spacing", "1,0"}, "", "--echo-spacing needs echo spacings in ms above 0"},
        {{}, {"--echo-spacing", "-1"}, "", "--echo-spacing needs echo spacings in ms above 0"},
        {{}, {"--echo-spacing", "1", "--echoes", "0"}, "", "--echoes needs a whole number from 1"},
        {{},
         {"--echo-spacing", "1", "--field", "f.mhd"},
         "24 24 23",
         "24 x 24 x 23 cells; the grid has 24 x 24 x 24"},
        {{}, {"--echo-spacing", "1", "--field", "f.mhd"}, "24 24 24 MET_DOUBLE", "MET_DOUBLE"},
        {{},
         {"--echo-spacing", "1", "--field", "f.mhd"},
         "24 24 24 NaN",
         "holds nan at cell (0, 0, 0)"},
        {{{"staticField", "0.0"}}, {"--echo-spacing", "1"}, "", "staticField"},
        {{}, {"--echo-spacing", "1", "--bogus"}, "", "Unknown option: --bogus"},
        {{{"numberOfWalkers", "0"}},
         {"--echo-spacing", "1"},
         "",
         "numberOfWalkers must be above 0"},
        // 0.03 MiB holds the 14 kB grid but not its 55 kB field, read or computed.
        {{},
         {"--echo-spacing", "1", "--field", "f.mhd"},
         "24 24 24",
         "Not enough memory to hold the field once per node: 1 MB needed, 0 MB available",
         "0.03"},
        {{}, {"--echo-spacing", "1"}, "", "Not enough memory to compute the field", "0.03"},
    };
    for (const Case& c : cases) {
        writeParameters(c.changes);
        if (!c.field.empty()) {
            std::istringstream words(c.field);
            std::string x, y, z, last;
            words >> x >> y >> z >> last;
            const bool nan = last == "NaN";
            writeField(dir_, x + " " + y + " " + z, nan || last.empty() ? "MET_FLOAT" : last,
                       nan ? std::numeric_limits<float>::quiet_NaN() : 1e-6f);
        }
        auto environment = launcherEnvironment();
        if (!c.memoryMb.empty()) environment.push_back("NMRWALK_NODE_MEMORY_MB=" + c.memoryMb);
        const auto result = sequence(2, c.arguments, "cpmg", environment);
        EXPECT_EQ(result.exitStatus, 255) << c.message << "\n" << result.errorOutput;
        EXPECT_NE(result.errorOutput.find("nmrwalk-sequence: error: "), std::string::npos)
            << result.errorOutput;
        EXPECT_NE(result.errorOutput.find(c.message), std::string::npos) << result.errorOutput;
        EXPECT_FALSE(anyOutput()) << c.message;
    }
}

// Narrow-pulse PFG: the same bits at any process count, both results with the fits they
// come from, and every refusal with status -1 on every process and nothing written.
TEST_F(SequenceTool, PfgGivesTheSameBitsAtAnyProcessCountAndRefusesBadInput) {
    writeParameters();
    const std::vector<std::string> times = {"--diffusion-time", "0.4,0.2,1.6", "--q-points", "6"};
    const auto one = sequence(1, times, "pfg");
    ASSERT_EQ(one.exitStatus, 0) << one.output << one.errorOutput;
    EXPECT_TRUE(std::regex_search(
        one.output, std::regex("Surface-to-volume from short-time diffusion: (\\S+ 1/m \\(\\+- "
                               "\\S+\\)|not determined) \\(voxel faces: \\S+ 1/m\\)\n  "
                               "(fit of D\\(t\\)|the fit of Mitra's law)")))
        << one.output;
    EXPECT_TRUE(std::regex_search(
        one.output,
        std::regex("Tortuosity from the longest diffusion time: \\S+ \\(\\+- \\S+\\)\n  "
                   "D0 / D\\(Delta\\) at Delta = 1.6 ms")))
        << one.output;
    const std::string signal = dir_.read("pfg.out"), diffusion = dir_.read("diffusion.out");
    EXPECT_EQ(lines(signal).size(), 18u) << "three times of six q each";
    EXPECT_EQ(lines(diffusion).size(), 3u);
    const auto three = sequence(3, times, "pfg");
    ASSERT_EQ(three.exitStatus, 0) << three.output << three.errorOutput;
    EXPECT_TRUE(dir_.read("pfg.out") == signal);
    EXPECT_TRUE(dir_.read("diffusion.out") == diffusion);
    // The errors too: the walkers' batches do not depend on the division.
    const auto results = [](const std::string& output) {
        std::string kept;
        for (const std::string& line : lines(output))
            if (line.rfind("Diffusion time", 0) == 0 || line.rfind("Surface", 0) == 0 ||
                line.rfind("Tortuosity", 0) == 0)
                kept += line + "\n";
        return kept;
    };
    EXPECT_EQ(results(three.output), results(one.output));
    // Finite pulses walk through the rock's field, computed from nmr.yaml: the same bits too.
    const std::vector<std::string> finite = {"--diffusion-time", "0.4", "--pulse-duration", "0.1",
                                             "--q-points",       "4"};
    ASSERT_EQ(sequence(1, finite, "pfg").exitStatus, 0);
    const std::string finiteSignal = dir_.read("pfg.out");
    EXPECT_NE(finiteSignal, signal);
    ASSERT_EQ(sequence(3, finite, "pfg").exitStatus, 0);
    EXPECT_TRUE(dir_.read("pfg.out") == finiteSignal);

    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"--diffusion-time", "1,0"}, "--diffusion-time needs diffusion times in ms above 0"},
        {{"--diffusion-time", "0.01"}, "shorter than one step of the walk"},
        {{"--diffusion-time", "1", "--q-max", "0"}, "--q-max must be above 0"},
        {{"--diffusion-time", "1", "--q-points", "1"}, "--q-points needs a whole number from 2"},
        {{"--diffusion-time", "1", "--direction", "w"}, "--direction needs x, y, z or all"},
        {{"--diffusion-time", "1", "--echo-spacing", "1"},
         "--echo-spacing is not an option of pfg"},
        {{"--diffusion-time", "1", "--pulse-duration", "0"}, "--pulse-duration needs a pulse"},
        {{"--diffusion-time", "1,0.5", "--pulse-duration", "0.6"},
         "A pulse of 0.6 ms is longer than the diffusion time of 0.5 ms"},
    };
    for (const auto& [arguments, message] : cases) {
        for (const char* name : {"pfg.out", "diffusion.out", "pfg.png"})
            std::filesystem::remove(dir_ / name);
        const auto result = sequence(2, arguments, "pfg");
        EXPECT_EQ(result.exitStatus, 255) << message << "\n" << result.errorOutput;
        EXPECT_NE(result.errorOutput.find("nmrwalk-sequence: error: "), std::string::npos);
        EXPECT_NE(result.errorOutput.find(message), std::string::npos) << result.errorOutput;
        EXPECT_FALSE(anyOutput()) << message;
    }
}

// ABORT stops the second echo train; the first stays as a checkpoint, and the run taken up
// again writes what an uninterrupted one writes and leaves no checkpoint behind. The
// walkers do not divide evenly: the finished train's checkpoints stand at different walkers.
// Diffusion editing: the same data at one and three processes, a map beside them, and
// every refusal with status -1 on every process and nothing written.
TEST_F(SequenceTool, Dt2GivesTheSameBitsAtAnyProcessCountAndRefusesBadInput) {
    writeParameters();
    const std::vector<std::string> arguments = {"--diffusion-time", "1",   "--b-points", "5",
                                                "--echo-spacing",   "0.4", "--echoes",   "100"};
    const auto one = sequence(1, arguments, "dt2");
    ASSERT_EQ(one.exitStatus, 0) << one.output << one.errorOutput;
    const std::string data = dir_.read("dt2.out");
    EXPECT_EQ(lines(data).size(), 500u) << "five b values of 100 echoes";
    EXPECT_EQ(lines(data).front().rfind("0 1.4 ", 0), 0u) << "b 0 at Delta + TE";
    EXPECT_EQ(lines(dir_.read("DT2map.out")).size(), 2500u);
    EXPECT_NE(one.output.find("Log-mean D (m^2/s): "), std::string::npos) << one.output;
    const auto three = sequence(3, arguments, "dt2");
    ASSERT_EQ(three.exitStatus, 0) << three.output << three.errorOutput;
    EXPECT_TRUE(dir_.read("dt2.out") == data);

    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"--diffusion-time", "0"}, "--diffusion-time needs one diffusion time in ms above 0"},
        {{"--diffusion-time", "0.01"}, "shorter than one step of the walk"},
        {{"--diffusion-time", "1", "--b-values", "0"}, "A b of 0 alone encodes no diffusion"},
        {{"--diffusion-time", "1", "--b-values", "1e9", "--b-points", "4"},
         "Give --b-values or --b-points, not both"},
        {{"--diffusion-time", "1", "--echo-spacing", "-1"}, "--echo-spacing needs one echo"},
        {{"--diffusion-time", "1", "--q-max", "1e5"}, "--q-max is not an option of dt2"},
    };
    for (const auto& [given, message] : cases) {
        for (const char* name : {"dt2.out", "DT2map.out", "DT2map.png"})
            std::filesystem::remove(dir_ / name);
        const auto result = sequence(2, given, "dt2");
        EXPECT_EQ(result.exitStatus, 255) << message << "\n" << result.errorOutput;
        EXPECT_NE(result.errorOutput.find(message), std::string::npos) << result.errorOutput;
        EXPECT_FALSE(anyOutput()) << message;
    }
}

TEST_F(SequenceTool, AbortedRunTakenUpAgainWritesWhatAnUninterruptedRunWrites) {
    writeParameters({{"numberOfWalkers", "3001"}, {"checkpointInterval", "0.2"}});
    const std::vector<std::string> arguments = {"--echo-spacing", "0.4,0.2", "--echoes", "400"};
    const auto whole = sequence(2, arguments);
    ASSERT_EQ(whole.exitStatus, 0) << whole.output << whole.errorOutput;
    const std::string reference = dir_.read("cpmg.out");
    std::filesystem::remove(dir_ / "cpmg.out");

    // ABORT goes down once the first spacing's walk is kept. The second spacing polls for it
    // at its start and after 1000 walkers of a process; on a loaded machine this thread can
    // wake too late for both, and the run then ends whole: that try is done again.
    bool aborted = false;
    for (int attempt = 0; attempt < 3 && !aborted; ++attempt) {
        std::thread job([&] { sequence(2, arguments); });
        const auto first = dir_ / "nmrwalk-sequence.cpmg.te0.checkpoint.0";
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(200);
        while (!std::filesystem::exists(first) && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        dir_.write("ABORT", "");
        job.join();
        std::filesystem::remove(dir_ / "ABORT");
        aborted = !dir_.exists("cpmg.out");
        for (const char* name : {"cpmg.out", "cpmg_inversion.out", "cpmg.png"})
            std::filesystem::remove(dir_ / name);
    }
    ASSERT_TRUE(aborted) << "the run ended before it saw ABORT, three times";
    ASSERT_TRUE(dir_.exists("nmrwalk-sequence.cpmg.te0.checkpoint.1"));

    const auto again = sequence(2, arguments);
    ASSERT_EQ(again.exitStatus, 0) << again.output << again.errorOutput;
    EXPECT_NE(again.output.find("Resuming from checkpoint: 3001 of 3001 walkers"),
              std::string::npos)
        << again.output;
    EXPECT_TRUE(dir_.read("cpmg.out") == reference);
    for (const auto& entry : std::filesystem::directory_iterator(dir_.path()))
        EXPECT_EQ(entry.path().filename().string().find("checkpoint"), std::string::npos)
            << entry.path();
}

}  // namespace
}  // namespace nmr::test
