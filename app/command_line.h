#pragma once

#include <cstdint>
#include <iostream>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace nmr::app {

struct OptionDefinition {
    char shortName;
    std::string longName;  // also the key of the parsed values
    bool takesValue;
};

// Long name -> every value seen, in order; a flag records one empty value per use.
using ParsedOptions = std::map<std::string, std::vector<std::string>>;

// The program's options in the order they are registered.
const std::vector<OptionDefinition>& programOptions();

// Parses arguments (without the program path). Accepted: "-x" and "--long" for every
// option; for an option with a value, the next argument is its value whatever it looks
// like ("-m -" gives the value "-"), and "--long=value" also works. Not accepted, so the
// whole command line is rejected: grouped short options ("-hV"), a value glued to a short
// option ("-m10"), "=" after a flag, operands and unknown options. The strict form is
// deliberate: every process of a job parses the same words, and a typo should end the job
// with the usage text rather than be read as something else.
std::optional<ParsedOptions> parseOptions(const std::vector<OptionDefinition>& definitions,
                                          const std::vector<std::string>& arguments);

// An unsigned 32-bit number in MB. The whole text must be the number: "12a", "-", "" and
// anything beyond 4294967295 are rejected. A minus sign is rejected outright because a
// text stream would quietly wrap "-1" to the largest value.
std::optional<std::uint32_t> parseMemoryLimit(const std::string& text);

// The five usage lines for -h and for a command line that does not parse.
std::string usageText(const std::string& programPath);

// What one process does with the command line: prints the requested texts on rank 0
// (the invalid memory limit on every rank), writes "nmr.yaml" for -p and updates
// memoryLimitMB. commandLine holds the program path first. True means "go on with the
// run"; every request (-h, -V, -p) and every error gives false. An "nmr.yaml" that -p
// finds and that is not the template is kept as "nmr.yaml~", which `notes` is told.
bool handleCommandLine(int rank, const std::vector<std::string>& commandLine,
                       std::uint32_t& memoryLimitMB, std::ostream& out,
                       std::ostream& notes = std::cerr);

// Collective: handleCommandLine on standard output, then the logical and of every
// process's result, so a request or an error on any process ends the run everywhere.
bool readCommandLine(int rank, int argc, char** argv, std::uint32_t& memoryLimitMB);

}  // namespace nmr::app
