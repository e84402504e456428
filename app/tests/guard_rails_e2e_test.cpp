// Settings that nmrwalk's rules accept but that give a wrong answer without a word, or a
// walk that does not end, and input files it cannot use: each is named on standard error,
// while standard output stays exactly what the rules make it.
#include <gtest/gtest.h>

#include "app/tests/layered_rock.h"
#include "common/exception.h"
#include "testutil/command.h"
#include "testutil/temp_dir.h"

namespace nmr::test {
namespace {

using Changes = std::vector<std::pair<std::string, std::string>>;

// A run on one process in a fresh directory holding a rock of 16^3 cells of 1 um with a
// quartz layer every 8 cells, and the parameters of parameterFile() with `changes`.
CommandResult runWith(const TempDir& dir, const Changes& changes) {
    writeLayeredRock(dir / "rock.binc", 16, [](std::uint32_t z) { return z % 8 == 0; });
    dir.write("nmr.yaml", parameterFile(changes));
    return runCommand(nmrwalkCommand(1), dir.path(), std::chrono::seconds(120),
                      launcherEnvironment());
}

bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST(StepSwitch, AWalkThatNeverSwitchesToTheCoarseStepIsNamedWithItsCauseAndRemedy) {
    struct Case {
        std::string name;
        Changes changes;
        std::vector<std::string> expected;  // empty: no warning
    };
    const std::vector<Case> cases = {
        {"clay relaxivity given", {}, {}},
        {"clay left out",
         {{"surfaceRelaxationStrengthWater", "{Quartz: 2.0e-4}"}},
         {"never switches from the fine step (0.25 voxels) to the coarse step (0.5 voxels)",
          "T2_micro = inf ms", "gives Clay no relaxivity (it is missing)", "4 times too short",
          "the template's 2.3e-09 m/s"}},
        {"clay at 0",
         {{"surfaceRelaxationStrengthWater", "{Quartz: 2.0e-4, Clay: 0}"}},
         {"gives Clay no relaxivity (it is 0)"}},
        {"step too small to arm the switch",
         {{"stepLength", "0.1"}},
         {"stepLength 0.1 is 0.1 voxels or less", "4 times too short", "above 0.1"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const TempDir dir;
        const CommandResult r = runWith(dir, Changes(c.changes.begin(), c.changes.end()));
        ASSERT_EQ(r.exitStatus, 0) << r.output << r.errorOutput;
        // The rules still decide the run: the report and the files are those of the walk.
        EXPECT_TRUE(has(r.output, "Job stopped\n")) << r.output;
        EXPECT_FALSE(has(r.output, "Warning"));
        EXPECT_EQ(has(r.errorOutput, "Warning: "), !c.expected.empty()) << r.errorOutput;
        for (const std::string& part : c.expected) EXPECT_TRUE(has(r.errorOutput, part)) << part;
    }
}

TEST(Relaxivity, NegativeOrAbsentAbsorptionIsNamedBeforeTheWalk) {
    // No walker, so the run ends at once; the warnings come before any walk.
    const TempDir dir;
    const CommandResult r =
        runWith(dir, {{"numberOfWalkers", "0"},
                      {"surfaceRelaxationStrengthWater", "{Clay: 3.0e-05, Quartz: -2.0e-4}"},
                      {"surfaceRelaxationStrengthOil", "{Mica: -1.0e-15}"}});
    EXPECT_EQ(r.exitStatus, 0) << r.output << r.errorOutput;
    EXPECT_TRUE(has(r.errorOutput,
                    "Warning: surfaceRelaxationStrengthWater of Quartz is -0.0002 m/s, below 0: "
                    "walkers are never absorbed by Quartz"))
        << r.errorOutput;
    EXPECT_TRUE(has(r.errorOutput, "Warning: surfaceRelaxationStrengthOil of Mica is -1e-15"));
    // The schedule's steps per walker with these settings (the switch fires early).
    EXPECT_TRUE(has(r.errorOutput,
                    "Warning: no mineral of the rock absorbs walkers (Quartz has -0.0002 m/s "
                    "in surfaceRelaxationStrengthWater): every walker walks the whole "
                    "schedule, 142445121 steps"))
        << r.errorOutput;
    EXPECT_FALSE(has(r.output, "Warning"));
}

TEST(InputErrors, FixedMessagesKeepTheirTextAndGainADetailLine) {
    struct Case {
        std::string name;
        Changes changes;
        std::string output;  // the line standard output must hold
        std::string detail;  // and what standard error adds
    };
    const std::vector<Case> cases = {
        {"region beyond the grid",
         {{"subsampleCalculation", "true"},
          {"regionOfInterest", "{x: [0, 4], y: [2, 30], z: [0, 4]}"}},
         "Sub-region size does not match grid size.\n",
         "regionOfInterest y [2, 30] does not fit the 16 cells of rock.binc along y"},
        {"missing grid file",
         {{"grid", "absent.binc"}},
         "Unable to read grid file: absent.binc\n",
         "absent.binc: No such file or directory"},
        {"a value of the wrong type",
         {{"stepLength", "half"}},
         "bad conversion: stepLength must be a number, not \"half\"",
         ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const TempDir dir;
        const CommandResult r = runWith(dir, c.changes);
        EXPECT_EQ(r.exitStatus, 255) << r.output << r.errorOutput;
        EXPECT_TRUE(has(r.output, c.output)) << r.output;
        EXPECT_TRUE(has(r.errorOutput, c.detail)) << r.errorOutput;
    }

    // A grid file whose cells stop half-way: the fixed message, then which file and how
    // much is missing. The writer closes the file properly although it refuses to call it
    // complete, so only the records are short.
    const TempDir dir;
    {
        GrainBedGridWriter writer(dir.file("cut.binc"), 16, 16, 16, 0, 0, 0, 1.0);
        const std::vector<GrainBedGridCell> slice(256, GrainBedGridCell::make(0, Mineral::Pore));
        for (int z = 0; z < 8; ++z) writer.writeSlice(slice.data());
        EXPECT_THROW(writer.close(), FileAccessException);
    }
    dir.write("nmr.yaml", parameterFile({{"grid", "cut.binc"}}));
    const CommandResult r =
        runCommand(nmrwalkCommand(1), dir.path(), std::chrono::seconds(120), launcherEnvironment());
    EXPECT_EQ(r.exitStatus, 255);
    EXPECT_TRUE(has(r.output, "\nDid not find enough data for a grid\n")) << r.output;
    EXPECT_TRUE(has(r.errorOutput,
                    "cut.binc: its header gives 16 x 16 x 16 cells of 4 bytes, but slice z = 8 "
                    "holds only 0 of its 1024 bytes and 8192 bytes are missing"))
        << r.errorOutput;
}

}  // namespace
}  // namespace nmr::test
