#include "params/field_settings.h"

#include <yaml-cpp/yaml.h>

#include <cmath>
#include <fstream>
#include <sstream>

#include "common/exception.h"
#include "params/parameter_file.h"

namespace nmr {

namespace {

std::string lineOf(const YAML::Node& node, const std::string& origin) {
    return origin + " line " + std::to_string(node.Mark().line + 1);
}

// A finite number, or an exception naming what it is the value of.
double finiteNumber(const YAML::Node& node, const std::string& what, const std::string& origin) {
    double value = NAN;
    try {
        value = node.as<double>();
    } catch (const YAML::Exception&) {
        throw Exception(what + " (" + lineOf(node, origin) +
                        ") is not a number: " + YAML::Dump(node));
    }
    if (!std::isfinite(value))
        throw Exception(what + " (" + lineOf(node, origin) +
                        ") is not a finite number: " + YAML::Dump(node));
    return value;
}

const YAML::Node required(const YAML::Node& settings, const std::string& key) {
    const YAML::Node node = settings[key];
    if (!node) throw Exception(key + " parameter is missing. Tag: '" + key + "'.");
    return node;
}

MineralValueMap<double> readSusceptibilities(const YAML::Node& node, const std::string& origin) {
    if (!node.IsMap())
        throw Exception("volumeSusceptibility (" + lineOf(node, origin) +
                        ") must map mineral names to susceptibilities");
    MineralValueMap<double> values;
    for (const auto& entry : node) {
        const auto name = entry.first.as<std::string>();
        const Mineral::Type code = Mineral::fromName(name);
        // A misspelt name would otherwise leave its mineral without contrast and the field
        // quietly wrong.
        if (code == Mineral::Unknown)
            throw Exception("Unknown mineral in volumeSusceptibility (" +
                            lineOf(entry.first, origin) + "): " + name);
        values.set(code, finiteNumber(entry.second, "The volumeSusceptibility of " + name, origin));
    }
    if (!values.contains(Mineral::Pore))
        throw Exception(
            "volumeSusceptibility needs Pore, the susceptibility of the pore fluid (water: "
            "-9.05e-06)");
    return values;
}

}  // namespace

namespace {

YAML::Node settingsOf(const std::string& text, const std::string& origin) {
    const YAML::Node document = YAML::Load(text);
    const YAML::Node settings = document.IsMap() ? document[parameterRootKey()] : YAML::Node();
    if (!settings || !settings.IsMap()) throw Exception(origin + " does not contain a yaml map.");
    return settings;
}

FieldSettings parse(const YAML::Node& settings, const std::string& origin, bool susceptibilities) {
    FieldSettings result;
    if (susceptibilities) {
        result.volumeSusceptibility =
            readSusceptibilities(required(settings, "volumeSusceptibility"), origin);
    }
    result.staticField = finiteNumber(required(settings, "staticField"), "staticField", origin);
    if (!(result.staticField > 0.0))
        throw Exception("staticField must be a positive number of tesla: " +
                        YAML::Dump(settings["staticField"]));
    if (const YAML::Node direction = settings["staticFieldDirection"]) {
        const std::string axis = direction.IsScalar() ? direction.Scalar() : YAML::Dump(direction);
        if (axis != "x" && axis != "y" && axis != "z")
            throw Exception("staticFieldDirection must be x, y or z: " + axis);
        result.staticFieldDirection = axis[0];
    }
    return result;
}

}  // namespace

FieldSettings parseFieldSettings(const std::string& text, const std::string& origin) {
    return parse(settingsOf(text, origin), origin, true);
}

std::optional<FieldSettings> parseOptionalFieldSettings(const std::string& text,
                                                        const std::string& origin) {
    const YAML::Node settings = settingsOf(text, origin);
    const bool susceptibilities = static_cast<bool>(settings["volumeSusceptibility"]);
    if (!susceptibilities && !settings["staticField"]) return std::nullopt;
    return parse(settings, origin, susceptibilities);
}

std::optional<FieldSettings> readOptionalFieldSettings(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw Exception("Could not open file: " + path);
    std::ostringstream text;
    text << in.rdbuf();
    return parseOptionalFieldSettings(text.str(), path);
}

FieldSettings readFieldSettings(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw Exception("Could not open file: " + path);
    std::ostringstream text;
    text << in.rdbuf();
    return parseFieldSettings(text.str(), path);
}

const std::set<std::string>& fieldSettingKeys() {
    static const std::set<std::string> keys{"volumeSusceptibility", "staticField",
                                            "staticFieldDirection"};
    return keys;
}

}  // namespace nmr
