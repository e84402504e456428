#pragma once

// Helpers for end-to-end tests that run the real nmrwalk under mpiexec: a scratch working
// directory, the launch command built from CMake's MPIEXEC_* settings, and a runner that
// captures standard output and the exit status with a timeout.
//
// The including target defines NMR_MPIEXEC, NMR_MPIEXEC_NUMPROC_FLAG, NMR_MPIEXEC_PREFLAGS,
// NMR_MPIEXEC_POSTFLAGS (flags separated by blanks) and NMR_NMRWALK (the program's path).

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
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
    std::string output;       // standard output
    std::string errorOutput;  // standard error (launcher warnings land here)
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
        std::ifstream in(path_ / name, std::ios::binary);
        std::ostringstream text;
        text << in.rdbuf();
        return text.str();
    }
    void write(const std::string& name, const std::string& content) const {
        std::ofstream(path_ / name, std::ios::binary) << content;
    }

private:
    std::filesystem::path path_;
};

inline std::vector<std::string> splitWords(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> words;
    for (std::string word; stream >> word;) words.push_back(word);
    return words;
}

#ifdef NMR_NMRWALK
inline const char* nmrwalkPath() { return NMR_NMRWALK; }

// mpiexec <numproc flag> N <preflags> nmrwalk <arguments> <postflags>
inline std::vector<std::string> nmrwalkCommand(int processes,
                                               const std::vector<std::string>& arguments = {}) {
    std::vector<std::string> command = {NMR_MPIEXEC, NMR_MPIEXEC_NUMPROC_FLAG,
                                        std::to_string(processes)};
    for (auto& flag : splitWords(NMR_MPIEXEC_PREFLAGS)) command.push_back(flag);
    command.push_back(NMR_NMRWALK);
    command.insert(command.end(), arguments.begin(), arguments.end());
    for (auto& flag : splitWords(NMR_MPIEXEC_POSTFLAGS)) command.push_back(flag);
    return command;
}
#endif

// Environment for launching nmrwalk. When one process returns non-zero (every early end
// does), Open MPI's launcher waits a second before each signal it sends to the others,
// although they have all left by then; without the wait a test run takes 0.4 s, not 2.4 s.
// Other MPI implementations ignore the setting.
inline std::vector<std::string> launcherEnvironment() {
    return {"OMPI_MCA_odls_base_sigkill_timeout=0"};
}

namespace detail {

// Drains whatever is readable on fd into text; false at end of file.
inline bool drain(int fd, std::string& text) {
    char buffer[4096];
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n > 0) {
        text.append(buffer, static_cast<std::size_t>(n));
        return true;
    }
    return n < 0 && errno == EINTR;
}

}  // namespace detail

// Runs command (no shell) with directory as working directory and extra NAME=VALUE
// settings added to the inherited environment. The child leads its own process group so
// that a timeout can end the launcher and every process it started.
inline CommandResult runCommand(const std::vector<std::string>& command,
                                const std::filesystem::path& directory,
                                std::chrono::seconds timeout = std::chrono::seconds(120),
                                const std::vector<std::string>& environment = {}) {
    int outPipe[2];
    int errPipe[2];
    if (pipe(outPipe) != 0 || pipe(errPipe) != 0) throw std::runtime_error("pipe failed");

    const pid_t child = fork();
    if (child < 0) throw std::runtime_error("fork failed");
    if (child == 0) {
        setpgid(0, 0);
        dup2(outPipe[1], STDOUT_FILENO);
        dup2(errPipe[1], STDERR_FILENO);
        close(outPipe[0]);
        close(outPipe[1]);
        close(errPipe[0]);
        close(errPipe[1]);
        const int devNull = open("/dev/null", O_RDONLY);
        if (devNull >= 0) dup2(devNull, STDIN_FILENO);
        if (chdir(directory.c_str()) != 0) _exit(126);
        for (const auto& setting : environment) putenv(const_cast<char*>(setting.c_str()));
        std::vector<char*> argv;
        for (const auto& word : command) argv.push_back(const_cast<char*>(word.c_str()));
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    setpgid(child, child);  // also from here, so the group exists before any kill
    close(outPipe[1]);
    close(errPipe[1]);

    CommandResult result;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
    int openPipes = 2;
    while (openPipes > 0) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            result.timedOut = true;
            kill(-child, SIGTERM);
            sleep(2);
            kill(-child, SIGKILL);
            break;
        }
        if (poll(fds, 2, static_cast<int>(left.count())) < 0 && errno != EINTR) break;
        for (auto& fd : fds) {
            if (fd.fd >= 0 && (fd.revents & (POLLIN | POLLHUP | POLLERR))) {
                std::string& sink = &fd == &fds[0] ? result.output : result.errorOutput;
                if (!detail::drain(fd.fd, sink)) {
                    close(fd.fd);
                    fd.fd = -1;
                    --openPipes;
                }
            }
        }
    }
    for (auto& fd : fds) {
        if (fd.fd >= 0) close(fd.fd);
    }

    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) {
        result.exitStatus = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.exitStatus = 128 + WTERMSIG(status);
    }
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
