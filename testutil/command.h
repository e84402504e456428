#pragma once

#include <chrono>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace nmr::test {

struct CommandResult {
    int exitStatus = -1;  // 0..255 as a shell shows it; 128 + signal when killed
    bool timedOut = false;
    std::string output;       // standard output
    std::string errorOutput;  // standard error
};

// A program the build puts at the top of its directory, e.g. "nmrwalk" or "nmrwalk-grid".
std::string programPath(const std::string& name);

// mpiexec <numproc flag> N <preflags> program <arguments> <postflags>: the way the MPI
// tests themselves are started.
std::vector<std::string> launcherCommand(int processes, const std::string& program,
                                         const std::vector<std::string>& arguments = {});
inline std::vector<std::string> nmrwalkCommand(int processes,
                                               const std::vector<std::string>& arguments = {}) {
    return launcherCommand(processes, programPath("nmrwalk"), arguments);
}

// When one process returns non-zero, Open MPI's launcher waits a second before each signal
// it sends to the others although they have all left; this setting removes the wait.
inline std::vector<std::string> launcherEnvironment() {
    return {"OMPI_MCA_odls_base_sigkill_timeout=0"};
}

std::string shellQuoted(const std::string& word);

// Runs command in directory with NAME=VALUE settings added to the environment, stdin empty.
// On timeout the command and every process it started get SIGTERM, then SIGKILL 2 s later.
CommandResult runCommand(const std::vector<std::string>& command,
                         const std::filesystem::path& directory = ".",
                         std::chrono::seconds timeout = std::chrono::seconds(120),
                         const std::vector<std::string>& environment = {});

// Lines of text without their line ends.
std::vector<std::string> lines(const std::string& text);
// The (time, amplitude) pairs of a two-column output file such as T2decay.out.
std::vector<std::pair<double, double>> columns(const std::string& text);

// Writes rock.binc in `directory` with nmrwalk-grid: a grain pack of `size` cells ("NXxNYxNZ")
// of 2 um, grains of radius 4 cells, porosity 0.35, and clay one cell thick on half the
// grains.
CommandResult makeClayPack(const std::filesystem::path& directory, const std::string& size);

// The parameter file of a small run on rock.binc. Each (key, value) of changes replaces the
// value of that key, or adds the key when the file has none (checkpointInterval, say).
std::string parameterFile(const std::vector<std::pair<std::string, std::string>>& changes = {});

}  // namespace nmr::test
