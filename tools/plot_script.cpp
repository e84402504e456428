#include "tools/plot_script.h"

#include <cstdlib>
#include <filesystem>

namespace nmr::tools {

namespace {

std::string shellQuoted(const std::string& word) {
    std::string quoted = "'";
    for (char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

}  // namespace

std::string programDirectory() {
    std::error_code error;
    const auto self = std::filesystem::read_symlink("/proc/self/exe", error);
    return error ? std::string(".") : self.parent_path().string();
}

bool runPlotScript(const std::string& directory, const std::vector<std::string>& arguments) {
    std::string command = shellQuoted(directory + "/nmrwalk-plot");
    for (const std::string& argument : arguments) {
        command += ' ';
        command += shellQuoted(argument);
    }
    command += " >/dev/null";
    return std::system(command.c_str()) == 0;
}

}  // namespace nmr::tools
