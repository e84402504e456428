#pragma once

// Helpers for tests that run the real nmrwalk under mpiexec. The including target defines
// NMR_MPIEXEC, NMR_MPIEXEC_NUMPROC_FLAG, NMR_MPIEXEC_PREFLAGS, NMR_MPIEXEC_POSTFLAGS (flags
// separated by blanks) and NMR_NMRWALK (the program's path).

#include <sys/wait.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace nmr::test {

struct CommandResult {
    int exitStatus = -1;  // 0..255 as a shell shows it; 128 + signal when killed
    bool timedOut = false;
    std::string output;
    std::string errorOutput;
};

// A fresh directory under the system temporary directory, removed with everything in it.
class ScratchDirectory {
public:
    explicit ScratchDirectory(const std::string& prefix = "nmrwalk_e2e") {
        std::string pattern =
            (std::filesystem::temp_directory_path() / (prefix + "_XXXXXX")).string();
        if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    ~ScratchDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }
    bool exists(const std::string& name) const { return std::filesystem::exists(path_ / name); }
    std::string read(const std::string& name) const {
        std::ostringstream text;
        text << std::ifstream(path_ / name, std::ios::binary).rdbuf();
        return text.str();
    }
    void write(const std::string& name, const std::string& content) const {
        std::ofstream(path_ / name, std::ios::binary) << content;
    }

private:
    std::filesystem::path path_;
};

#ifdef NMR_NMRWALK
// mpiexec <numproc flag> N <preflags> nmrwalk <arguments> <postflags>
inline std::vector<std::string> nmrwalkCommand(int processes,
                                               const std::vector<std::string>& arguments = {}) {
    std::vector<std::string> command = {NMR_MPIEXEC, NMR_MPIEXEC_NUMPROC_FLAG,
                                        std::to_string(processes)};
    const auto addWords = [&command](const std::string& text) {
        std::istringstream stream(text);
        for (std::string word; stream >> word;) command.push_back(word);
    };
    addWords(NMR_MPIEXEC_PREFLAGS);
    command.push_back(NMR_NMRWALK);
    command.insert(command.end(), arguments.begin(), arguments.end());
    addWords(NMR_MPIEXEC_POSTFLAGS);
    return command;
}
#endif

// When one process returns non-zero, Open MPI's launcher waits a second before each signal
// it sends to the others although they have all left; this setting removes the wait.
inline std::vector<std::string> launcherEnvironment() {
    return {"OMPI_MCA_odls_base_sigkill_timeout=0"};
}

inline std::string shellQuoted(const std::string& word) {
    std::string result = "'";
    for (char c : word) result += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return result + "'";
}

// Runs command in directory with NAME=VALUE settings added to the environment. On timeout
// the launcher and every process it started get SIGTERM, then SIGKILL 2 s later.
inline CommandResult runCommand(const std::vector<std::string>& command,
                                const std::filesystem::path& directory,
                                std::chrono::seconds timeout = std::chrono::seconds(120),
                                const std::vector<std::string>& environment = {}) {
    const ScratchDirectory capture("nmr_capture");
    std::ostringstream shell;
    shell << "cd " << shellQuoted(directory.string()) << " && env";
    for (const auto& setting : environment) shell << ' ' << shellQuoted(setting);
    shell << " timeout -k 2 " << timeout.count();
    for (const auto& word : command) shell << ' ' << shellQuoted(word);
    shell << " </dev/null >" << shellQuoted((capture / "out").string()) << " 2>"
          << shellQuoted((capture / "err").string());
    const int status = std::system(shell.str().c_str());
    CommandResult result;
    result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.timedOut = result.exitStatus == 124 || result.exitStatus == 137;
    result.output = capture.read("out");
    result.errorOutput = capture.read("err");
    return result;
}

// Lines of text without their line ends.
inline std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) result.push_back(line);
    return result;
}

}  // namespace nmr::test
