#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "common/text.h"

namespace nmr::tools {

// The small command-line grammar shared by the companion tools: "--name value",
// "--name=value", flags without a value, short aliases ("-o" for "--output") and
// positional arguments. Every failure is an nmr::Exception whose text ends with the
// offending argument, so a tool can print it as it stands.
class OptionParser {
public:
    struct Definition {
        std::set<std::string> valueOptions;          // take a value, e.g. "--size"
        std::set<std::string> flags;                 // take none, e.g. "--help"
        std::map<std::string, std::string> aliases;  // "-o" -> "--output"
    };

    OptionParser(int argc, const char* const* argv, const Definition& definition);

    bool has(const std::string& name) const { return values_.count(name) != 0; }
    std::optional<std::string> value(const std::string& name) const;
    // The value of an option the tool cannot do without; throws "Missing option: <name>",
    // or "Missing option (<example>): <name>" when an example of its value is given.
    const std::string& required(const std::string& name, const std::string& example = {}) const;
    const std::vector<std::string>& positional() const { return positional_; }

    double number(const std::string& name, double fallback) const;
    std::optional<double> number(const std::string& name) const;
    std::int64_t integer(const std::string& name, std::int64_t fallback) const;

    // The one positional argument; throws "Give exactly one <what>, got: N" otherwise.
    const std::string& onlyPositional(const std::string& what) const;

private:
    std::map<std::string, std::string> values_;
    std::vector<std::string> positional_;
};

// The word in single quotes for a shell command line, whatever characters it holds.
std::string shellQuoted(const std::string& word);

// A tool's main: runs body and turns any error that escapes it into
// "<tool>: error: <text>" on standard error (and "<tool>: <detail>" on the next line when
// the error carries one) and exit status 1.
int runTool(const char* tool, int (*body)(int, char**), int argc, char** argv);

}  // namespace nmr::tools
