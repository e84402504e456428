#include "app/command_line.h"

#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <system_error>

#include "app/version.h"
#include "common/exception.h"
#include "mpi/message_passing.h"
#include "params/parameter_file.h"

namespace nmr::app {

namespace {

constexpr const char* kHelp = "help";
constexpr const char* kVersion = "version";
constexpr const char* kMemoryLimit = "memoryLimitInMB";
constexpr const char* kParameters = "parameters";
constexpr const char* kTemplatePath = "nmr.yaml";

const OptionDefinition* findShort(const std::vector<OptionDefinition>& definitions, char name) {
    for (const auto& definition : definitions) {
        if (definition.shortName == name) return &definition;
    }
    return nullptr;
}

const OptionDefinition* findLong(const std::vector<OptionDefinition>& definitions,
                                 const std::string& name) {
    for (const auto& definition : definitions) {
        if (definition.longName == name) return &definition;
    }
    return nullptr;
}

// Writes text line by line, flushing each line, so lines of several processes sharing
// one console interleave whole.
void printLines(std::ostream& out, const std::string& text) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) out << line << std::endl;
}

// -p writes the template over "nmr.yaml". A file there that says anything else is the
// user's work, so it is moved aside to "nmr.yaml~" first (replacing an older one) and the
// user is told where it went; a copy of the template itself is simply replaced. When the
// file cannot be moved aside, the template is not written at all.
void writeTemplateKeepingTheUsersFile(std::ostream& out, std::ostream& notes) {
    const std::string backup = std::string(kTemplatePath) + "~";
    std::error_code error;
    if (std::filesystem::exists(kTemplatePath, error)) {
        std::ifstream in(kTemplatePath, std::ios::binary);
        std::ostringstream old;
        old << in.rdbuf();
        if (old.str() != encodeParameters(templateParameters()) + "\n") {
            std::filesystem::rename(kTemplatePath, backup, error);
            if (error) {
                notes << "Could not keep the existing " << kTemplatePath << " as " << backup << " ("
                      << error.message() << "), so the template was not written" << std::endl;
                return;
            }
            notes << "Kept the existing " << kTemplatePath << " as " << backup << std::endl;
        }
    }
    try {
        writeTemplateFile(kTemplatePath);
    } catch (...) {
        out << currentExceptionText() << std::endl;
    }
}

}  // namespace

const std::vector<OptionDefinition>& programOptions() {
    static const std::vector<OptionDefinition> definitions = {
        {'h', kHelp, false},
        {'V', kVersion, false},
        {'m', kMemoryLimit, true},
        {'p', kParameters, false},
    };
    return definitions;
}

std::optional<ParsedOptions> parseOptions(const std::vector<OptionDefinition>& definitions,
                                          const std::vector<std::string>& arguments) {
    ParsedOptions parsed;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& word = arguments[i];
        const OptionDefinition* definition = nullptr;
        std::optional<std::string> value;
        if (word.size() > 2 && word.compare(0, 2, "--") == 0) {
            std::string name = word.substr(2);
            if (const auto equals = name.find('='); equals != std::string::npos) {
                value = name.substr(equals + 1);
                name.erase(equals);
            }
            definition = findLong(definitions, name);
        } else if (word.size() == 2 && word[0] == '-') {
            definition = findShort(definitions, word[1]);
        }
        if (definition == nullptr) return std::nullopt;

        if (definition->takesValue && !value) {
            if (i + 1 >= arguments.size()) return std::nullopt;
            value = arguments[++i];
        } else if (!definition->takesValue && value) {
            return std::nullopt;
        }
        parsed[definition->longName].push_back(value.value_or(std::string()));
    }
    return parsed;
}

std::optional<std::uint32_t> parseMemoryLimit(const std::string& text) {
    if (text.find('-') != std::string::npos) return std::nullopt;
    std::istringstream stream(text);
    std::uint32_t value = 0;
    stream >> value;
    if (stream.fail() || !stream.eof()) return std::nullopt;
    return value;
}

std::string usageText(const std::string& programPath) {
    return "Usage: " + programPath +
           " [-m memoryLimitInMB]\n"
           " -h --help            Show this help screen\n"
           " -V --version         Show version information\n"
           " -m memoryLimitInMB   The amount of memory available per CPU\n"
           " -p --parameters      Write default parameters\n";
}

bool handleCommandLine(int rank, const std::vector<std::string>& commandLine,
                       std::uint32_t& memoryLimitMB, std::ostream& out, std::ostream& notes) {
    const bool printer = rank == 0;
    const std::string programPath = commandLine.empty() ? std::string() : commandLine.front();
    const std::vector<std::string> arguments(
        commandLine.empty() ? commandLine.end() : commandLine.begin() + 1, commandLine.end());

    bool carryOn = true;
    const auto parsed = parseOptions(programOptions(), arguments);
    if (!parsed) {
        if (printer) printLines(out, usageText(programPath));
        carryOn = false;
    }
    const ParsedOptions options = parsed.value_or(ParsedOptions{});

    // Every request is handled, in this order, even after an earlier one said stop.
    if (options.count(kHelp)) {
        if (printer) printLines(out, usageText(programPath));
        carryOn = false;
    }
    if (options.count(kVersion)) {
        if (printer) printLines(out, versionBanner(programPath));
        carryOn = false;
    }
    if (options.count(kParameters)) {
        if (printer) writeTemplateKeepingTheUsersFile(out, notes);
        carryOn = false;
    }
    if (const auto it = options.find(kMemoryLimit); it != options.end()) {
        // The last -m wins when the option is repeated.
        if (const auto limit = parseMemoryLimit(it->second.back())) {
            memoryLimitMB = *limit;
        } else {
            // Each process checks its own copy of the arguments, so each one reports it.
            out << "Invalid input for memory limit in MB" << std::endl;
            carryOn = false;
        }
    }
    if (printer) out << "Memory limit per CPU: " << memoryLimitMB << " MB" << std::endl;
    return carryOn;
}

bool readCommandLine(int rank, int argc, char** argv, std::uint32_t& memoryLimitMB) {
    const std::vector<std::string> commandLine(argv, argv + argc);
    return mpi::allTrue(handleCommandLine(rank, commandLine, memoryLimitMB, std::cout));
}

}  // namespace nmr::app
