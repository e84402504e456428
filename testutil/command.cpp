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

std::vector<std::pair<double, double>> columns(const std::string& text) {
    std::vector<std::pair<double, double>> points;
    std::istringstream in(text);
    for (double t, a; in >> t >> a;) points.emplace_back(t, a);
    return points;
}

CommandResult makeClayPack(const std::filesystem::path& directory, const std::string& size) {
    return runCommand({programPath("nmrwalk-grid"), "pack", "--size", size, "--cell-size", "2",
                       "--radius", "4", "--porosity", "0.35", "--clay-thickness", "1",
                       "--clay-fraction", "0.5", "--seed", "5", "-o", "rock.binc"},
                      directory);
}

std::string parameterFile(const std::vector<std::pair<std::string, std::string>>& changes) {
    // Few walkers and strongly absorbing quartz keep a run short even in the sanitizer build;
    // each test changes only what it is about.
    std::string text =
        "NuclearMagneticResonanceParameters:\n  grid: rock.binc\n  gyroMagneticRatio: 42580000.0\n"
        "  echoSpacing: 0.001\n  magneticFieldGradient: 0.2\n  saturationFile: false\n"
        "  waterSaturation: 1.0\n  clayMicroPorosity: 0.3\n  bulkWaterT2: 3.0\n"
        "  diffusionConstantWater: 2.5e-09\n  diffusionConstantOil: 1e-10\n"
        "  surfaceRelaxationStrengthWater: {Clay: 3.0e-05, Quartz: 2.0e-4}\n"
        "  bulkOilT2: [1.0]\n  intensityT2: [1.0]\n"
        "  surfaceRelaxationStrengthOil: {Quartz: 1.6e-15}\n"
        "  numberOfWalkers: 400\n  stepLength: 0.5\n  randomSeed: 8008\n"
        "  subsampleCalculation: false\n  regionOfInterest: {x: [0, 4], y: [0, 4], z: [0, 4]}\n"
        "  t2Components: 40\n  t2Minimum: 0.01\n  t2Maximum: 10000.0\n";
    for (const auto& [key, value] : changes) {
        const std::string start = "\n  " + key + ": ";
        const std::size_t at = text.find(start);
        if (at == std::string::npos) {
            text += "  " + key + ": " + value + "\n";
        } else {
            const std::size_t from = at + start.size();
            text.replace(from, text.find('\n', from) - from, value);
        }
    }
    return text;
}

}  // namespace nmr::test
