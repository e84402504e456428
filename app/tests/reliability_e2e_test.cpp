// Runs that are killed, that meet a full or read-only disk, or that have nowhere to put a
// walker: nmrwalk must take a killed walk up again exactly, never leave a half-written
// output, and end every process with a message instead of hanging.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <csignal>

#include <atomic>
#include <fstream>
#include <thread>

#include "app/tests/layered_rock.h"
#include "testutil/command.h"
#include "testutil/temp_dir.h"

namespace nmr::test {
namespace {

using Changes = std::vector<std::pair<std::string, std::string>>;

// Quartz slabs every 12 cells along z, or the lowest `solid` layers all quartz, with walls
// weak enough that a run of a couple of seconds passes several checkpoints.
void writeRock(const std::filesystem::path& path, std::uint32_t n, std::uint32_t solid) {
    writeLayeredRock(path, n,
                     [solid](std::uint32_t z) { return solid == 0 ? z % 12 == 0 : z < solid; });
}

std::string parameters(int walkers, Changes changes = {}) {
    changes.insert(changes.begin(), {{"numberOfWalkers", std::to_string(walkers)},
                                     {"surfaceRelaxationStrengthWater", "{Quartz: 2.0e-5}"}});
    return parameterFile(changes);
}

CommandResult runIn(const std::filesystem::path& dir, int processes = 2) {
    return runCommand(nmrwalkCommand(processes), dir, std::chrono::seconds(600),
                      launcherEnvironment());
}

std::filesystem::file_time_type modified(const std::filesystem::path& path) {
    std::error_code error;
    return std::filesystem::last_write_time(path, error);
}

// SIGKILL to every nmrwalk process working in dir, and to no other: tests run side by side.
void killProcessesIn(const std::filesystem::path& dir) {
    const auto target = std::filesystem::canonical(dir);
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const std::string name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        std::error_code error;
        const auto cwd = std::filesystem::read_symlink(entry.path() / "cwd", error);
        if (error || cwd != target) continue;
        std::string command;
        std::getline(std::ifstream(entry.path() / "cmdline"), command, '\0');
        if (command == programPath("nmrwalk")) ::kill(std::stoi(name), SIGKILL);
    }
}

// Starts the run on two processes, waits until `checkpoints` checkpoints of process 0 have
// been written (each replaces the file), then either kills every process of the job with
// SIGKILL or, with `abortFile`, asks the job to stop through "ABORT".
void interrupt(const TempDir& dir, int checkpoints, bool abortFile = false) {
    std::atomic<bool> finished{false};
    std::thread job([&] {
        runIn(dir.path());
        finished = true;
    });
    const auto checkpoint = dir / "nmrwalk.checkpoint.0";
    std::filesystem::file_time_type last{};
    int seen = 0;
    while (!finished && seen < checkpoints) {
        const auto now = modified(checkpoint);
        if (std::filesystem::exists(checkpoint) && now != last) {
            last = now;
            ++seen;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    // Process 1 saves at the same poll but may still be writing. Killed before its first
    // checkpoint is in place, the job holds no checkpoint common to both processes, and the
    // next run rightly walks afresh instead of resuming.
    while (!finished && !dir.exists("nmrwalk.checkpoint.1"))
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    if (abortFile) {
        dir.write("ABORT", "");
    } else {
        killProcessesIn(dir.path());
    }
    job.join();
    ASSERT_FALSE(finished && seen < checkpoints) << "the run ended before it was interrupted";
}

class Checkpoint : public ::testing::Test {
protected:
    void SetUp() override {
        writeRock(reference_ / "rock.binc", 48, 0);
        reference_.write("nmr.yaml", parameters(20000));
        const auto whole = runIn(reference_.path());
        ASSERT_EQ(whole.exitStatus, 0) << whole.output << whole.errorOutput;
    }
    void prepare(const TempDir& dir, int seed = 8008) {
        writeRock(dir / "rock.binc", 48, 0);
        dir.write("nmr.yaml", parameters(20000, {{"randomSeed", std::to_string(seed)},
                                                 {"checkpointInterval", "0.05"}}));
    }
    // A run in dir that finishes the walk must write exactly the reference's files and
    // leave no checkpoint behind.
    void expectFinishedLikeTheReference(const TempDir& dir, bool resumed) {
        const auto result = runIn(dir.path());
        ASSERT_EQ(result.exitStatus, 0) << result.output << result.errorOutput;
        EXPECT_EQ(result.output.find("Resuming from checkpoint: ") != std::string::npos, resumed)
            << result.output << result.errorOutput;
        if (resumed) {
            EXPECT_NE(result.output.find(" of 20000 walkers\n"), std::string::npos);
        }
        EXPECT_EQ(dir.read("T2decay.out"), reference_.read("T2decay.out"));
        EXPECT_EQ(dir.read("T2inversion.out"), reference_.read("T2inversion.out"));
        for (const char* file : {"nmrwalk.checkpoint.0", "nmrwalk.checkpoint.1",
                                 "nmrwalk.checkpoint.0.previous", "nmrwalk.checkpoint.1.previous"})
            EXPECT_FALSE(dir.exists(file)) << file;
    }
    TempDir reference_;
};

TEST_F(Checkpoint, AKilledRunTakenUpAgainWritesWhatAnUninterruptedRunWrites) {
    for (int checkpoints : {1, 4}) {
        SCOPED_TRACE(std::to_string(checkpoints) + " checkpoints before the kill");
        TempDir dir;
        prepare(dir);
        interrupt(dir, checkpoints);
        EXPECT_FALSE(dir.exists("T2decay.out"));
        ASSERT_TRUE(dir.exists("nmrwalk.checkpoint.0"));
        expectFinishedLikeTheReference(dir, true);
    }
}

TEST_F(Checkpoint, AbortKeepsTheCheckpointToTakeUpLater) {
    TempDir dir;
    prepare(dir);
    interrupt(dir, 2, true);
    EXPECT_FALSE(dir.exists("T2decay.out"));
    ASSERT_TRUE(dir.exists("nmrwalk.checkpoint.0"));
    std::filesystem::remove(dir / "ABORT");
    expectFinishedLikeTheReference(dir, true);
}

TEST_F(Checkpoint, OneOfAnotherRunIsIgnoredWithAWarning) {
    TempDir dir;
    prepare(dir, 8009);  // another seed is another walk
    interrupt(dir, 2);
    ASSERT_TRUE(dir.exists("nmrwalk.checkpoint.0"));
    prepare(dir);
    const auto result = runIn(dir.path());
    ASSERT_EQ(result.exitStatus, 0) << result.output << result.errorOutput;
    EXPECT_NE(result.errorOutput.find("Warning: ignoring the checkpoint files, the walk starts "
                                      "afresh: it belongs to another run"),
              std::string::npos)
        << result.errorOutput;
    EXPECT_EQ(dir.read("T2decay.out"), reference_.read("T2decay.out"));
}

// A run directory on a small file system of its own, which the test can fill or make
// read-only. Mounting needs root; without it the test is skipped.
class SmallDisk : public ::testing::Test {
protected:
    void SetUp() override {
        mount_ = dir_ / "disk";
        std::filesystem::create_directories(mount_);
        if (::geteuid() != 0 || ::mount("tmpfs", mount_.c_str(), "tmpfs", 0, "size=256k") != 0) {
            GTEST_SKIP() << "needs root to mount a small tmpfs";
        }
        mounted_ = true;
        writeRock(dir_ / "rock.binc", 16, 0);
        writeFile(mount_ / "nmr.yaml", parameters(400, {{"grid", dir_.file("rock.binc")}}));
    }
    void TearDown() override {
        if (mounted_) ::umount(mount_.c_str());
    }
    TempDir dir_;
    std::filesystem::path mount_;
    bool mounted_ = false;
};

// Fills the disk but for `pages` pages of 4 KiB.
void fill(const std::filesystem::path& disk, std::uint64_t pages) {
    struct statvfs fs {};
    ASSERT_EQ(::statvfs(disk.c_str(), &fs), 0);
    const std::uint64_t free = static_cast<std::uint64_t>(fs.f_bavail) * fs.f_frsize;
    ASSERT_GE(free, pages * 4096);
    std::ofstream filler(disk / "filler", std::ios::binary);
    const std::string bytes(free - pages * 4096, 'x');
    filler.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

TEST_F(SmallDisk, FullDiskEndsEveryProcessWithAMessageAndNoOutput) {
    // Room for the two job files that hold text, not for the decay: the output is refused.
    fill(mount_, 2);
    auto result = runIn(mount_);
    EXPECT_EQ(result.exitStatus, 255) << result.output << result.errorOutput;
    EXPECT_NE(result.output.find("ERROR: Unable to write output file: ./T2decay.out"),
              std::string::npos)
        << result.output;
    for (const char* file : {"T2decay.out", "T2decay.out.writing", "T2inversion.out"})
        EXPECT_FALSE(std::filesystem::exists(mount_ / file)) << file;
    // No room at all: the job files already fail, and the job ends there.
    for (const char* file : {"filler", "PROGRESS", "message.txt"})
        std::filesystem::remove(mount_ / file);
    fill(mount_, 0);
    result = runIn(mount_);
    EXPECT_EQ(result.exitStatus, 255) << result.output << result.errorOutput;
    EXPECT_NE(result.output.find("ERROR: Unable to write PROGRESS file\nJob aborted!\n"),
              std::string::npos)
        << result.output;
    EXPECT_FALSE(std::filesystem::exists(mount_ / "T2decay.out"));
}

TEST_F(SmallDisk, ReadOnlyRunDirectoryEndsEveryProcessWithAMessage) {
    ASSERT_EQ(::mount("tmpfs", mount_.c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY, "size=256k"), 0);
    const auto result = runIn(mount_);
    EXPECT_EQ(result.exitStatus, 255) << result.output << result.errorOutput;
    EXPECT_NE(result.output.find("ERROR: Unable to write STARTED file\nJob aborted!\n"),
              std::string::npos)
        << result.output;
}

TEST(PorelessRock, EndsEveryProcessInsteadOfDrawingForEver) {
    struct Case {
        std::string name;
        std::uint32_t solidLayers;  // z layers of quartz from the bottom; 16 is all
        int processes;
        Changes changes;
    };
    const std::vector<Case> cases = {
        {"all quartz", 16, 2, {}},
        {"region in the solid",
         8,
         3,
         {{"regionOfInterest", "{x: [0, 16], y: [0, 16], z: [0, 8]}"},
          {"subsampleCalculation", "true"}}},
        // Pore only in the top layer, which no walker can start in.
        {"pore in the top layer only", 15, 1, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        writeRock(dir / "rock.binc", 16, c.solidLayers);
        dir.write("nmr.yaml", parameters(100, c.changes));
        const auto result = runIn(dir.path(), c.processes);
        EXPECT_FALSE(result.timedOut);
        EXPECT_EQ(result.exitStatus, 255) << result.output << result.errorOutput;
        EXPECT_NE(result.output.find("No pore voxel where walkers can start: check the grid and "
                                     "the region of interest.\n"),
                  std::string::npos)
            << result.output;
        EXPECT_FALSE(dir.exists("T2decay.out"));
    }
}

TEST(MeaninglessParameters, WarnOnStandardErrorAndLeaveTheRunAsItWas) {
    TempDir dir;
    writeRock(dir / "rock.binc", 16, 0);
    dir.write("nmr.yaml", parameters(0, {{"diffusionConstantWater", "0"}}));
    const auto result = runIn(dir.path(), 1);
    EXPECT_EQ(result.exitStatus, 0) << result.output << result.errorOutput;
    EXPECT_NE(result.errorOutput.find("Warning: diffusionConstantWater is 0"), std::string::npos)
        << result.errorOutput;
    EXPECT_NE(result.errorOutput.find("Warning: numberOfWalkers is 0"), std::string::npos);
    EXPECT_EQ(result.errorOutput.find("stepLength"), std::string::npos);
    EXPECT_EQ(result.output.find("Warning"), std::string::npos);
}

}  // namespace
}  // namespace nmr::test
