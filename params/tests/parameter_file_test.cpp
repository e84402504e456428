#include <gtest/gtest.h>

#include <regex>

#include "common/exception.h"
#include "params/parameter_file.h"
#include "testutil/checks.h"
#include "testutil/temp_dir.h"

namespace nmr {
namespace {

// Keys are listed out of byte order on purpose; line numbers matter to the position checks.
const std::string kValid = R"(NuclearMagneticResonanceParameters:
  grid: rock.binc
  gyroMagneticRatio: 42580000.0
  echoSpacing: 0.002
  magneticFieldGradient: 0.3
  saturationFile: true
  waterSaturation: 0.9
  clayMicroPorosity: 0.4
  bulkWaterT2: 2.5
  diffusionConstantWater: 2.3e-09
  diffusionConstantOil: 1.1e-09
  surfaceRelaxationStrengthWater: {Clay: 2.3e-09, Quartz cement: 1.6e-05}
  bulkOilT2: [1.5, 1.25]
  intensityT2: [0.5, 0.75]
  surfaceRelaxationStrengthOil: {Pyrite: 3.0e-15}
  numberOfWalkers: 12345
  stepLength: 0.75
  randomSeed: -17
  regionOfInterest: {x: [1, 5], y: [2, 6], z: [0, 4]}
  subsampleCalculation: true
)";

// text with key's line replaced by "key: value", or removed when value is empty.
std::string with(const std::string& key, const std::string& value,
                 const std::string& text = kValid) {
    return std::regex_replace(text, std::regex("  " + key + ": .*\n"),
                              value.empty() ? "" : "  " + key + ": " + value + "\n");
}

class ParameterFile : public test::TempDirTest {
protected:
    std::unique_ptr<NuclearMagneticResonanceParameters> read(const std::string& text) {
        test::writeFile(path_, text);
        return readParameters(path_);
    }
    const std::string path_ = path("nmr.yaml");
};

TEST_F(ParameterFile, StoresEveryValueAsRead) {
    auto p = read(kValid);
    EXPECT_EQ(std::tuple(p->grid(), p->saturationFile(), p->numberOfWalkers(), p->randomSeed(),
                         p->surfaceRelaxationStrengthWater().size()),
              std::tuple("rock.binc", true, 12345, -17, 2u));
    EXPECT_EQ((std::vector<double>{
                  p->gyroMagneticRatio(), p->echoSpacing(), p->magneticFieldGradient(),
                  p->waterSaturation(), p->clayMicroPorosity(), p->bulkWaterT2(),
                  p->diffusionConstantWater(), p->diffusionConstantOil(), p->stepLength(),
                  p->surfaceRelaxationStrengthWater().valueOr(Mineral::Clay),
                  p->surfaceRelaxationStrengthWater().valueOr(Mineral::QuartzCement),
                  p->surfaceRelaxationStrengthOil().valueOr(Mineral::Pyrite)}),
              (std::vector<double>{42580000.0, 0.002, 0.3, 0.9, 0.4, 2.5, 2.3e-09, 1.1e-09, 0.75,
                                   2.3e-09, 1.6e-05, 3.0e-15}));
    EXPECT_EQ((std::vector{p->bulkOilT2(), p->intensityT2()}),
              (std::vector<std::vector<double>>{{1.5, 1.25}, {0.5, 0.75}}));
    EXPECT_EQ(p->regionOfInterest()->regionOfInterest(),
              (RegionOfInterest{1, 5, 2, 6, 0, 4, true}));
    // The region's flag is overwritten by subsampleCalculation.
    EXPECT_FALSE(read(with("subsampleCalculation", "false"))->regionOfInterest()->isEnabled());
}

TEST_F(ParameterFile, ReportsFailures) {
    EXPECT_THROW_MSG(readParameters(""), Exception, "Path to input file is empty");
    EXPECT_THROW_MSG(readParameters(path_), Exception, "Could not open file: " + path_);
    const std::string region = "regionOfInterest", bad = "Invalid region of interest in ";
    for (const auto& [file, expected] : std::initializer_list<std::pair<std::string, std::string>>{
             // Byte order decides, not reading order: bulkOilT2 is named although read later.
             {with("gyroMagneticRatio", "", with("bulkOilT2", "")),
              "bulkOilT2 parameter is missing. Tag: 'bulkOilT2'."},
             // -1 compared unsigned is the largest number.
             {with(region, "{x: [-1, 5], y: [0, 1], z: [0, 1]}"), bad + "x direction."},
             {with(region, "{x: [0, 1], y: [6, 2], z: [0, 1]}"), bad + "y direction."},
             {with(region, "{x: [0, 1], y: [0, 1], z: [4, 4]}"), bad + "z direction."},
             {"NuclearMagneticResonanceParameters: 5\n", path_ + " does not contain a yaml map."},
             {"just words\n", path_ + " does not have the correct yaml format."}}) {
        const std::string& text = file;  // a lambda inside the check cannot capture a binding
        EXPECT_THROW_MSG(read(text), Exception, expected);
    }
    // Malformed values are the YAML library's own errors, with the line of the offending node.
    for (const auto& [file, expected] : std::initializer_list<std::pair<std::string, std::string>>{
             {with("stepLength", "long"), "yaml-cpp: error at line 17"},
             {with("surfaceRelaxationStrengthWater", "{'Quartz ': 1}"),
              "yaml-cpp: error at line 12, column 36: Unknown mineral: Quartz "},
             {with(region, "{x: [0, 1], y: [0, 1]}"), "yaml-cpp: error at line 19"}}) {
        try {
            read(file);
            ADD_FAILURE() << "accepted; expected " << expected;
        } catch (const std::exception& e) {
            EXPECT_TRUE(std::string(e.what()).starts_with(expected)) << e.what();
        }
    }
}

// Components are clamped to 10..500; the axis is taken only as an increasing pair.
TEST_F(ParameterFile, T2AxisSettings) {
    for (auto [keys, components, minimum, maximum] :
         {std::tuple{"  t2Components: 3\n  t2Minimum: 0.01\n  t2Maximum: 100\n", 10, 0.01, 100.0},
          {"  t2Components: 10\n  t2Minimum: 5\n  t2Maximum: 5\n", 10, 0.0001, 10000.0},
          {"  t2Components: 250\n  t2Minimum: 50\n  t2Maximum: 5\n", 250, 0.0001, 10000.0},
          {"  t2Components: 500\n  t2Minimum: 0.01\n", 500, 0.0001, 10000.0},
          {"  t2Components: 100000\n  t2Maximum: 100\n", 500, 0.0001, 10000.0}}) {
        auto p = read(kValid + keys);
        EXPECT_EQ(std::tuple(p->t2Components(), p->t2Minimum(), p->t2Maximum()),
                  std::tuple(components, minimum, maximum))
            << keys;
    }
}

TEST_F(ParameterFile, TemplateRoundTrip) {
    writeTemplateFile(path_);
    auto p = readParameters(path_);
    EXPECT_EQ(p->echoSpacing(), 0.001);  // the template's 1000.0 scaled once by the writer
    EXPECT_EQ(p->surfaceRelaxationStrengthWater().valueOr(Mineral::Pyrite), 1.6e-05);
    EXPECT_EQ(p->surfaceRelaxationStrengthOil().valueOr(Mineral::Mica), 1.6e-15);
    EXPECT_EQ(p->regionOfInterest()->regionOfInterest(),
              (RegionOfInterest{10, 20, 20, 30, 3, 9, true}));
    // Written again, the echo spacing is divided once more.
    writeParameterFile(path_, *p);
    EXPECT_EQ(readParameters(path_)->echoSpacing(), 0.001 / 1000000.0);
}

}  // namespace
}  // namespace nmr
