#include "params/parameter_file.h"

#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "common/exception.h"
#include "grid/mineral.h"
#include "params/field_settings.h"

namespace nmr {

namespace {

using Record = NuclearMagneticResonanceParameters;

constexpr const char* kRootKey = "NuclearMagneticResonanceParameters";

// Required keys with the message for each. An ordered map on purpose: the keys are checked
// in ascending byte order and only the first missing one is reported, so a file missing
// several keys always names the same one. waterSaturation and the T2 axis keys are not
// here: the former fails in conversion instead, the latter are optional.
const std::map<std::string, std::string>& requiredKeys() {
    static const std::map<std::string, std::string> keys = {
        {"bulkOilT2", "bulkOilT2 parameter is missing."},
        {"bulkWaterT2", "bulkWaterT2 parameter is missing."},
        {"clayMicroPorosity", "clayMicroPorosity parameter is missing."},
        {"diffusionConstantOil", "diffusionConstantOil parameter is missing."},
        {"diffusionConstantWater", "diffusionConstantWater parameter is missing."},
        {"echoSpacing", "echoSpacing parameter is missing."},
        {"grid", "grid parameter is missing."},
        {"gyroMagneticRatio", "gyroMagneticRatio parameter is missing."},
        {"intensityT2", "intensityT2 parameter is missing."},
        {"magneticFieldGradient", "magneticFieldGradient parameter is missing."},
        {"numberOfWalkers", "numberOfWalkers parameter is missing."},
        {"randomSeed", "randomSeed parameter is missing."},
        {"regionOfInterest", "regionOfInterest parameter is missing."},
        {"saturationFile", "saturationFile parameter is missing."},
        {"stepLength", "stepLength parameter is missing."},
        {"subsampleCalculation", "subsampleCalculation parameter is missing."},
        {"surfaceRelaxationStrengthOil", "surfaceRelaxationStrengthOil parameter is missing."},
        {"surfaceRelaxationStrengthWater", "surfaceRelaxationStrengthWater parameter is missing."},
    };
    return keys;
}

void checkRequiredKeys(const YAML::Node& node) {
    for (const auto& [key, message] : requiredKeys()) {
        if (!node[key]) throw Exception(message + " Tag: '" + key + "'.");
    }
}

// What a value that failed to convert looks like, for the message that names its key.
std::string shown(const YAML::Node& node) {
    if (node.IsNull()) return "nothing";
    if (node.IsMap()) return "a map";
    if (node.IsSequence()) return "a list";
    return "\"" + node.Scalar() + "\"";
}

// The YAML library's own conversion error says "bad conversion" and where, but not which
// setting or what it wanted; this one says both and keeps the library's position.
[[noreturn]] void badValue(const YAML::Node& node, const YAML::Mark& where, const std::string& what,
                           const std::string& expected) {
    if (!node.IsDefined()) {
        throw YAML::RepresentationException(
            where, "bad conversion: " + what + " is missing; it must be " + expected);
    }
    throw YAML::RepresentationException(
        where, "bad conversion: " + what + " must be " + expected + ", not " + shown(node));
}

template <typename T>
T valueOf(const YAML::Node& node, const std::string& what, const std::string& expected,
          const YAML::Mark& fallback) {
    if (!node.IsDefined()) badValue(node, fallback, what, expected);
    try {
        return node.as<T>();
    } catch (const YAML::BadConversion& e) {
        badValue(node, e.mark, what, expected);
    }
}

// settings[key] converted to T; `expected` says what the key takes, for the message.
template <typename T>
T take(const YAML::Node& settings, const char* key, const std::string& expected) {
    return valueOf<T>(settings[key], key, expected, settings.Mark());
}

constexpr const char* kNumber = "a number";

// A map from display name to value. An unknown name is an error rather than an entry
// under the unknown code: a misspelt "Quartz " would otherwise silently give quartz no
// relaxivity at all, and the mineral would look inert in the results.
MineralValueMap<double> readMineralMap(const YAML::Node& settings, const char* key) {
    const YAML::Node node = settings[key];
    if (!node.IsMap()) badValue(node, node.Mark(), key, "a map of mineral names to numbers");
    MineralValueMap<double> values;
    for (const auto& entry : node) {
        const auto name = entry.first.as<std::string>();
        const Mineral::Type code = Mineral::fromName(name);
        if (code == Mineral::Unknown) {
            throw YAML::RepresentationException(entry.first.Mark(), "Unknown mineral: " + name);
        }
        values.set(code, valueOf<double>(entry.second, std::string(key) + " of " + name, kNumber,
                                         entry.second.Mark()));
    }
    return values;
}

YAML::Node encodeMineralMap(const MineralValueMap<double>& values) {
    YAML::Node node(YAML::NodeType::Map);
    for (const auto& [code, value] : values.entries()) node[Mineral::name(code)] = value;
    return node;
}

struct Axis {
    const char* key;
    const char* invalidMessage;
    void (RegionOfInterestCapableThing::*setRange)(std::uint32_t, std::uint32_t);
};

constexpr Axis kAxes[] = {
    {"x", "Invalid region of interest in x direction.", &RegionOfInterestCapableThing::setXRange},
    {"y", "Invalid region of interest in y direction.", &RegionOfInterestCapableThing::setYRange},
    {"z", "Invalid region of interest in z direction.", &RegionOfInterestCapableThing::setZRange},
};

// False when the node is not three two-element ranges. The bounds are compared unsigned,
// as the loader uses them, so a negative begin such as -1 counts as the largest number
// and is rejected as "not below the end" instead of slipping through as a huge box.
bool readRegion(const YAML::Node& node, RegionOfInterestCapableThing& region) {
    if (!node.IsMap()) return false;
    for (const Axis& axis : kAxes) {
        const YAML::Node range = node[axis.key];
        if (!range || !range.IsSequence() || range.size() != 2) return false;
        // Read wide so that bounds up to 2^32 - 1 are taken as written; the wrap of a
        // negative value to a huge unsigned one is then the rule above.
        const std::string what = std::string("regionOfInterest ") + axis.key;
        const auto first = static_cast<std::uint32_t>(
            valueOf<std::int64_t>(range[0], what, "two whole numbers", range.Mark()));
        const auto second = static_cast<std::uint32_t>(
            valueOf<std::int64_t>(range[1], what, "two whole numbers", range.Mark()));
        if (!(first < second)) throw Exception(axis.invalidMessage);
        (region.*axis.setRange)(first, second);
    }
    region.setEnabled(true);
    return true;
}

YAML::Node encodeRange(std::uint32_t first, std::uint32_t second) {
    YAML::Node range(YAML::NodeType::Sequence);
    range.push_back(first);
    range.push_back(second);
    return range;
}

YAML::Node encodeSeries(const std::vector<double>& values) {
    YAML::Node node(YAML::NodeType::Sequence);
    for (double v : values) node.push_back(v);
    return node;
}

constexpr std::int32_t kMinT2Components = 10;
constexpr std::int32_t kMaxT2Components = 500;

// The order of conversion decides which error a file with several bad values reports.
void fill(const YAML::Node& node, Record& record) {
    checkRequiredKeys(node);

    record.setGrid(take<std::string>(node, "grid", "a file name"));
    record.setGyroMagneticRatio(take<double>(node, "gyroMagneticRatio", kNumber));
    record.setEchoSpacing(take<double>(node, "echoSpacing", kNumber));
    record.setMagneticFieldGradient(take<double>(node, "magneticFieldGradient", kNumber));
    record.setSaturationFile(take<bool>(node, "saturationFile", "true or false"));
    record.setWaterSaturation(take<double>(node, "waterSaturation", kNumber));
    record.setClayMicroPorosity(take<double>(node, "clayMicroPorosity", kNumber));
    record.setBulkWaterT2(take<double>(node, "bulkWaterT2", kNumber));
    record.setDiffusionConstantWater(take<double>(node, "diffusionConstantWater", kNumber));
    record.setDiffusionConstantOil(take<double>(node, "diffusionConstantOil", kNumber));
    record.setSurfaceRelaxationStrengthWater(
        readMineralMap(node, "surfaceRelaxationStrengthWater"));
    record.setBulkOilT2(take<std::vector<double>>(node, "bulkOilT2", "a list of numbers"));
    record.setIntensityT2(take<std::vector<double>>(node, "intensityT2", "a list of numbers"));
    record.setSurfaceRelaxationStrengthOil(readMineralMap(node, "surfaceRelaxationStrengthOil"));
    record.setNumberOfWalkers(take<std::int32_t>(node, "numberOfWalkers", "a whole number"));
    record.setStepLength(take<double>(node, "stepLength", kNumber));
    record.setRandomSeed(take<std::int32_t>(node, "randomSeed", "a whole number"));

    const YAML::Node regionNode = node["regionOfInterest"];
    auto region = std::make_unique<RegionOfInterestCapableThing>();
    if (!readRegion(regionNode, *region)) {
        badValue(regionNode, regionNode.Mark(), "regionOfInterest",
                 "a map of x, y and z, each [begin, end]");
    }
    // The file's subsampleCalculation decides whether the box is used at all.
    region->setEnabled(take<bool>(node, "subsampleCalculation", "true or false"));
    record.setRegionOfInterest(std::move(region));

    if (node["t2Components"]) {
        record.setT2Components(
            std::clamp(take<std::int32_t>(node, "t2Components", "a whole number"), kMinT2Components,
                       kMaxT2Components));
    }

    if (node["checkpointInterval"]) {
        record.setCheckpointInterval(take<double>(node, "checkpointInterval", "seconds"));
    }

    // An axis is only taken whole: one end alone, or an empty or inverted range, leaves the
    // default axis rather than a half-edited one.
    if (node["t2Minimum"] && node["t2Maximum"]) {
        const auto lower = take<double>(node, "t2Minimum", kNumber);
        const auto upper = take<double>(node, "t2Maximum", kNumber);
        if (upper > lower) {
            record.setT2Minimum(lower);
            record.setT2Maximum(upper);
        }
    }
}

YAML::Node encode(const Record& record) {
    YAML::Node node(YAML::NodeType::Map);
    node["grid"] = record.grid();
    node["gyroMagneticRatio"] = record.gyroMagneticRatio();
    node["echoSpacing"] = record.echoSpacing() / 1000000.0;
    node["magneticFieldGradient"] = record.magneticFieldGradient();
    node["saturationFile"] = record.saturationFile();
    node["waterSaturation"] = record.waterSaturation();
    node["clayMicroPorosity"] = record.clayMicroPorosity();
    node["bulkWaterT2"] = record.bulkWaterT2();
    node["diffusionConstantWater"] = record.diffusionConstantWater();
    node["diffusionConstantOil"] = record.diffusionConstantOil();
    node["surfaceRelaxationStrengthWater"] =
        encodeMineralMap(record.surfaceRelaxationStrengthWater());
    node["bulkOilT2"] = encodeSeries(record.bulkOilT2());
    node["intensityT2"] = encodeSeries(record.intensityT2());
    node["surfaceRelaxationStrengthOil"] = encodeMineralMap(record.surfaceRelaxationStrengthOil());
    node["numberOfWalkers"] = record.numberOfWalkers();
    node["stepLength"] = record.stepLength();
    node["randomSeed"] = record.randomSeed();
    const RegionOfInterestCapableThing* region = record.regionOfInterest();
    node["subsampleCalculation"] = region != nullptr && region->isEnabled();
    // A record without a region has nothing to write; the reader will then ask for one,
    // which is better than inventing a box.
    if (region != nullptr) {
        YAML::Node box(YAML::NodeType::Map);
        box["x"] = encodeRange(region->xMin(), region->xMax());
        box["y"] = encodeRange(region->yMin(), region->yMax());
        box["z"] = encodeRange(region->zMin(), region->zMax());
        node["regionOfInterest"] = box;
    }
    node["t2Components"] = record.t2Components();
    node["t2Minimum"] = record.t2Minimum();
    node["t2Maximum"] = record.t2Maximum();
    return node;
}

}  // namespace

std::unique_ptr<Record> readParameters(const std::string& path) {
    if (path.empty()) throw Exception("Path to input file is empty");
    std::ifstream in(path, std::ios::binary);
    if (!in) throw Exception("Could not open file: " + path);
    std::ostringstream text;
    text << in.rdbuf();
    return parseParameters(text.str(), path);
}

std::unique_ptr<Record> parseParameters(const std::string& text, const std::string& origin) {
    try {
        const YAML::Node document = YAML::Load(text);
        const YAML::Node node = document[kRootKey];
        if (!node || !node.IsMap()) throw Exception(origin + " does not contain a yaml map.");
        auto record = std::make_unique<Record>();
        fill(node, *record);
        return record;
    } catch (const YAML::BadSubscript&) {
        // Indexing a scalar where a map was expected, e.g. a document that is one plain word.
        throw Exception(origin + " does not have the correct yaml format.");
    }
}

std::string parameterRootKey() { return kRootKey; }

const std::set<std::string>& parameterKeys() {
    static const std::set<std::string> keys = [] {
        std::set<std::string> all{"waterSaturation", "t2Components", "checkpointInterval",
                                  "t2Minimum", "t2Maximum"};
        for (const auto& entry : requiredKeys()) all.insert(entry.first);
        // Read by the field computation only; a file that holds them is still a run's file.
        all.insert(fieldSettingKeys().begin(), fieldSettingKeys().end());
        return all;
    }();
    return keys;
}

std::string encodeParameters(const Record& parameters) {
    YAML::Node root(YAML::NodeType::Map);
    root[kRootKey] = encode(parameters);
    YAML::Emitter emitter;
    emitter << root;
    return emitter.c_str();
}

void writeParameterFile(const std::string& path, const Record& parameters) {
    const std::string text = encodeParameters(parameters);
    std::ofstream out(path, std::ios::out | std::ios::trunc);
    if (!out) throw Exception("Could not open file for writing: " + path);
    out << text << '\n';
    out.flush();
    if (!out) throw Exception("Could not write file: " + path);
}

std::vector<std::string> meaninglessParameterWarnings(const Record& parameters) {
    std::vector<std::string> lines;
    auto number = [](double value) {
        std::ostringstream text;
        text << value;
        return text.str();
    };
    if (!(parameters.diffusionConstantWater() > 0.0)) {
        lines.push_back("Warning: diffusionConstantWater is " +
                        number(parameters.diffusionConstantWater()) +
                        ": walkers then take no time to move, so the decay's times mean nothing");
    }
    if (!(parameters.stepLength() > 0.0)) {
        lines.push_back("Warning: stepLength is " + number(parameters.stepLength()) +
                        ": walkers do not move, so the decay is not that of the rock");
    }
    if (parameters.numberOfWalkers() <= 0) {
        lines.push_back("Warning: numberOfWalkers is " +
                        std::to_string(parameters.numberOfWalkers()) +
                        ": no walker is simulated, so the decay has no points");
    }
    return lines;
}

Record templateParameters() {
    Record record;
    record.setGrid("grid.binc");
    record.setGyroMagneticRatio(42580000.0);
    // Stored as the file's value times 1000000: the writer divides, giving 0.001 in the file.
    record.setEchoSpacing(1000.0);
    record.setMagneticFieldGradient(0.2);
    record.setSaturationFile(false);
    record.setWaterSaturation(1.0);
    record.setClayMicroPorosity(0.5);
    record.setBulkWaterT2(3.0);

    MineralValueMap<double> water;
    water.set(Mineral::Clay, 2.3e-09);
    MineralValueMap<double> oil;
    oil.set(Mineral::Clay, 1.6e-15);
    for (Mineral::Type code :
         {Mineral::QuartzCement, Mineral::Quartz, Mineral::Mica, Mineral::FeldsparsDissolvable,
          Mineral::CarbonateCement, Mineral::Pyrite, Mineral::FeldsparsNonDissolvable}) {
        water.set(code, 1.6e-05);
        oil.set(code, 1.6e-15);
    }
    record.setSurfaceRelaxationStrengthWater(water);
    record.setBulkOilT2({1.4556, 1.1174, 1.0189});
    record.setIntensityT2({0.0, 0.42, 0.16});
    record.setSurfaceRelaxationStrengthOil(oil);
    record.setNumberOfWalkers(300000);
    record.setStepLength(0.5);
    record.setRandomSeed(8008);

    auto region = std::make_unique<RegionOfInterestCapableThing>();
    region->setXRange(10, 20);
    region->setYRange(20, 30);
    region->setZRange(3, 9);
    region->setEnabled(true);
    record.setRegionOfInterest(std::move(region));

    record.setT2Components(100);
    record.setT2Minimum(0.0001);
    record.setT2Maximum(10000.0);
    return record;
}

void writeTemplateFile(const std::string& path) { writeParameterFile(path, templateParameters()); }

}  // namespace nmr
