#include "testutil/command.h"

#include <sys/wait.h>

#include <cstdlib>
#include <sstream>

#include "testutil/temp_dir.h"

namespace nmr::test {

std::string programPath(const std::string& name) { return NMR_PROGRAM_DIR "/" + name; }

std::vector<std::string> launcherCommand(int processes, const std::string& program,
                                         const std::vector<std::string>& arguments) {
    std::vector<std::string> command = {NMR_MPIEXEC, NMR_MPIEXEC_NUMPROC_FLAG,
                                        std::to_string(processes)};
    const auto addWords = [&command](const std::string& text) {
        std::istringstream stream(text);
        for (std::string word; stream >> word;) command.push_back(word);
    };
    addWords(NMR_MPIEXEC_PREFLAGS);
    command.push_back(program);
    command.insert(command.end(), arguments.begin(), arguments.end());
    addWords(NMR_MPIEXEC_POSTFLAGS);
    return command;
}

std::string shellQuoted(const std::string& word) {
    std::string result = "'";
    for (char c : word) result += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return result + "'";
}

CommandResult runCommand(const std::vector<std::string>& command,
                         const std::filesystem::path& directory, std::chrono::seconds timeout,
                         const std::vector<std::string>& environment) {
    // Output goes to files rather than pipes: a launcher whose children keep a pipe open
    // would hold the test up after the command itself has ended.
    const TempDir capture("nmrwalk_capture");
    std::ostringstream shell;
    shell << "cd " << shellQuoted(directory.string()) << " && env";
    for (const auto& setting : environment) shell << ' ' << shellQuoted(setting);
    shell << " timeout -k 2 " << timeout.count();
    for (const auto& word : command) shell << ' ' << shellQuoted(word);
    shell << " </dev/null >" << shellQuoted(capture.file("out")) << " 2>"
          << shellQuoted(capture.file("err"));
    const int status = std::system(shell.str().c_str());
    CommandResult result;
    result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    // timeout(1) reports 124 after its SIGTERM, 128 + 9 when it had to follow with SIGKILL.
    result.timedOut = result.exitStatus == 124 || result.exitStatus == 137;
    result.output = capture.read("out");
    result.errorOutput = capture.read("err");
    return result;
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) result.push_back(line);
    return result;
}

}  // namespace nmr::test
