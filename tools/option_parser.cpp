#include "tools/option_parser.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <limits>
#include <new>

#include "common/exception.h"

namespace nmr::tools {

OptionParser::OptionParser(int argc, const char* const* argv, const Definition& definition) {
    bool onlyPositional = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (onlyPositional || arg.size() < 2 || arg[0] != '-' ||
            (arg[1] != '-' && !std::isalpha(static_cast<unsigned char>(arg[1])))) {
            // "-" alone and negative numbers are positional
            positional_.push_back(arg);
            continue;
        }
        if (arg == "--") {
            onlyPositional = true;
            continue;
        }
        std::optional<std::string> inlineValue;
        if (const auto eq = arg.find('='); arg.rfind("--", 0) == 0 && eq != std::string::npos) {
            inlineValue = arg.substr(eq + 1);
            arg.resize(eq);
        }
        if (const auto alias = definition.aliases.find(arg); alias != definition.aliases.end())
            arg = alias->second;
        if (definition.flags.count(arg)) {
            if (inlineValue) throw Exception("Option takes no value: " + arg);
            values_[arg] = "";
        } else if (definition.valueOptions.count(arg)) {
            if (inlineValue) {
                values_[arg] = *inlineValue;
            } else if (i + 1 < argc) {
                values_[arg] = argv[++i];
            } else {
                throw Exception("Option needs a value: " + arg);
            }
        } else {
            throw Exception("Unknown option: " + arg);
        }
    }
}

std::string shellQuoted(const std::string& word) {
    std::string quoted = "'";
    for (char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

std::optional<std::string> OptionParser::value(const std::string& name) const {
    const auto it = values_.find(name);
    if (it == values_.end()) return std::nullopt;
    return it->second;
}

const std::string& OptionParser::required(const std::string& name,
                                          const std::string& example) const {
    const auto it = values_.find(name);
    if (it != values_.end()) return it->second;
    throw Exception("Missing option" + (example.empty() ? "" : " (" + example + ")") + ": " + name);
}

std::optional<double> OptionParser::number(const std::string& name) const {
    const auto text = value(name);
    if (!text) return std::nullopt;
    return parseDouble(*text, "Option " + name + " needs a number");
}

double OptionParser::number(const std::string& name, double fallback) const {
    return number(name).value_or(fallback);
}

std::int64_t OptionParser::integer(const std::string& name, std::int64_t fallback) const {
    const auto text = value(name);
    return text ? parseInteger(*text, "Option " + name + " needs an integer") : fallback;
}

const std::string& OptionParser::onlyPositional(const std::string& what) const {
    if (positional_.size() != 1) {
        throw Exception("Give exactly one " + what +
                        ", got: " + std::to_string(positional_.size()));
    }
    return positional_.front();
}

int runTool(const char* tool, int (*body)(int, char**), int argc, char** argv) {
    try {
        return body(argc, argv);
    } catch (...) {
        std::cerr << tool << ": error: " << currentExceptionText() << "\n";
        if (const std::string detail = currentExceptionDetail(); !detail.empty())
            std::cerr << tool << ": " << detail << "\n";
    }
    return 1;
}

}  // namespace nmr::tools
