#include <gtest/gtest.h>

#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "common/exception.h"
#include "params/parameter_file.h"

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

// kValid with key's line replaced by "key: value", or removed when value is empty.
std::string with(const std::string& key, const std::string& value, std::string text = kValid) {
    const std::regex line("  " + key + ": .*\n");
    return std::regex_replace(text, line, value.empty() ? "" : "  " + key + ": " + value + "\n");
}

std::string contents(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

class ParameterFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string dir = (std::filesystem::temp_directory_path() / "nmr_params_XXXXXX").string();
        ASSERT_NE(mkdtemp(dir.data()), nullptr);
        dir_ = dir;
        path_ = (dir_ / "nmr.yaml").string();
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    std::unique_ptr<NuclearMagneticResonanceParameters> read(const std::string& text) {
        std::ofstream(path_) << text;
        return readParameters(path_);
    }
    std::filesystem::path dir_;
    std::string path_;
};

TEST_F(ParameterFileTest, StoresEveryValueAsRead) {
    auto p = read(kValid);
    EXPECT_EQ(p->grid(), "rock.binc");
    // echoSpacing is stored unscaled on reading.
    EXPECT_EQ((std::vector<double>{
                  p->gyroMagneticRatio(), p->echoSpacing(), p->magneticFieldGradient(),
                  p->waterSaturation(), p->clayMicroPorosity(), p->bulkWaterT2(),
                  p->diffusionConstantWater(), p->diffusionConstantOil(), p->stepLength()}),
              (std::vector<double>{42580000.0, 0.002, 0.3, 0.9, 0.4, 2.5, 2.3e-09, 1.1e-09, 0.75}));
    EXPECT_TRUE(p->saturationFile());
    const std::map<Mineral::Type, double> water = {{Mineral::Clay, 2.3e-09},
                                                   {Mineral::QuartzCement, 1.6e-05}};
    EXPECT_EQ(p->surfaceRelaxationStrengthWater().entries(), water);
    EXPECT_EQ(p->surfaceRelaxationStrengthOil().entries().at(Mineral::Pyrite), 3.0e-15);
    EXPECT_EQ(p->bulkOilT2(), (std::vector<double>{1.5, 1.25}));
    EXPECT_EQ(p->intensityT2(), (std::vector<double>{0.5, 0.75}));
    EXPECT_EQ(p->numberOfWalkers(), 12345);
    EXPECT_EQ(p->randomSeed(), -17);
    EXPECT_EQ(p->regionOfInterest()->regionOfInterest(),
              (RegionOfInterest{1, 5, 2, 6, 0, 4, true}));
    EXPECT_EQ(p->t2Components(), 100);
    // The region's flag is overwritten by subsampleCalculation.
    EXPECT_FALSE(read(with("subsampleCalculation", "false"))->regionOfInterest()->isEnabled());
}

struct FailureCase {
    const char* name;
    std::string text;
    std::string expected;  // the whole message; "@" stands for the path
    bool yamlError;        // the library's error: expected is a fragment of what()
};

class ParameterFileFailure : public ParameterFileTest,
                             public ::testing::WithParamInterface<FailureCase> {};

TEST_P(ParameterFileFailure, ReportsTheMessage) {
    const auto& c = GetParam();
    std::string expected = c.expected;
    if (auto at = expected.find('@'); at != std::string::npos) expected.replace(at, 1, path_);
    try {
        read(c.text);
        FAIL() << "accepted";
    } catch (const Exception& e) {
        EXPECT_FALSE(c.yamlError);
        EXPECT_EQ(e.message(), expected);
    } catch (const std::exception& e) {
        EXPECT_TRUE(c.yamlError) << e.what();
        EXPECT_NE(std::string(e.what()).find(expected), std::string::npos) << e.what();
    }
}

const std::string kRegion = "regionOfInterest";
INSTANTIATE_TEST_SUITE_P(
    Texts, ParameterFileFailure,
    ::testing::Values(
        FailureCase{"MissingKey", with("stepLength", ""),
                    "stepLength parameter is missing. Tag: 'stepLength'.", false},
        // Byte order decides, not reading order: bulkOilT2 is named although read later.
        FailureCase{"FirstMissing", with("gyroMagneticRatio", "", with("bulkOilT2", "")),
                    "bulkOilT2 parameter is missing. Tag: 'bulkOilT2'.", false},
        FailureCase{"EmptyX", with(kRegion, "{x: [20, 20], y: [0, 1], z: [0, 1]}"),
                    "Invalid region of interest in x direction.", false},
        // -1 compared unsigned is the largest number.
        FailureCase{"NegativeX", with(kRegion, "{x: [-1, 5], y: [0, 1], z: [0, 1]}"),
                    "Invalid region of interest in x direction.", false},
        FailureCase{"InvertedY", with(kRegion, "{x: [0, 1], y: [6, 2], z: [0, 1]}"),
                    "Invalid region of interest in y direction.", false},
        FailureCase{"EmptyZ", with(kRegion, "{x: [0, 1], y: [0, 1], z: [4, 4]}"),
                    "Invalid region of interest in z direction.", false},
        FailureCase{"RootScalar", "NuclearMagneticResonanceParameters: 5\n",
                    "@ does not contain a yaml map.", false},
        FailureCase{"RootAbsent", "Other: {a: 1}\n", "@ does not contain a yaml map.", false},
        FailureCase{"Empty", "", "@ does not contain a yaml map.", false},
        FailureCase{"PlainWords", "just words\n", "@ does not have the correct yaml format.",
                    false},
        // Malformed values carry the line of the offending node.
        FailureCase{"NotANumber", with("stepLength", "long"), "line 17", true},
        FailureCase{"MineralMapIsList", with("surfaceRelaxationStrengthOil", "[1]"), "line 15",
                    true},
        FailureCase{"UnknownMineral", with("surfaceRelaxationStrengthWater", "{'Quartz ': 1}"),
                    "line 12, column 36: Unknown mineral: Quartz ", true},
        FailureCase{"AxisMissing", with(kRegion, "{x: [0, 1], y: [0, 1]}"), "line 19", true},
        FailureCase{"AxisTooLong", with(kRegion, "{x: [0, 1, 2], y: [0, 1], z: [0, 1]}"), "line 19",
                    true},
        FailureCase{"NoWaterSaturation", with("waterSaturation", ""), "waterSaturation", true}),
    [](const ::testing::TestParamInfo<FailureCase>& testCase) { return testCase.param.name; });

TEST_F(ParameterFileTest, PathFailures) {
    for (const std::string& path : {std::string(), (dir_ / "absent.yaml").string()}) {
        try {
            readParameters(path);
            FAIL() << "accepted '" << path << "'";
        } catch (const Exception& e) {
            EXPECT_EQ(e.message(), path.empty() ? "Path to input file is empty"
                                                : "Could not open file: " + path);
        }
    }
}

TEST_F(ParameterFileTest, T2ComponentsAreClampedTo10Through500) {
    for (auto [text, stored] :
         {std::pair{"3", 10}, {"10", 10}, {"250", 250}, {"500", 500}, {"100000", 500}}) {
        EXPECT_EQ(read(kValid + "  t2Components: " + text + "\n")->t2Components(), stored) << text;
    }
}

TEST_F(ParameterFileTest, T2AxisIsTakenOnlyAsAnIncreasingPair) {
    struct Case {
        std::string keys;
        double minimum, maximum;
    };
    for (const Case& c : {Case{"  t2Minimum: 0.01\n  t2Maximum: 100\n", 0.01, 100.0},
                          Case{"  t2Minimum: 5\n  t2Maximum: 5\n", 0.0001, 10000.0},
                          Case{"  t2Minimum: 50\n  t2Maximum: 5\n", 0.0001, 10000.0},
                          Case{"  t2Minimum: 0.01\n", 0.0001, 10000.0},
                          Case{"  t2Maximum: 100\n", 0.0001, 10000.0}}) {
        auto p = read(kValid + c.keys);
        EXPECT_EQ(p->t2Minimum(), c.minimum) << c.keys;
        EXPECT_EQ(p->t2Maximum(), c.maximum) << c.keys;
    }
}

TEST_F(ParameterFileTest, TemplateRoundTrip) {
    writeTemplateFile(path_);
    const std::string written = contents(path_);
    // Keys in the template's order, minerals by display name in code order.
    const std::regex keys("\\n *([A-Za-z0-9 ()-]+):");
    std::string order;
    for (std::sregex_iterator it(written.begin(), written.end(), keys), end; it != end; ++it) {
        order += (*it)[1].str() + ",";
    }
    EXPECT_EQ(order,
              "grid,gyroMagneticRatio,echoSpacing,magneticFieldGradient,saturationFile,"
              "waterSaturation,clayMicroPorosity,bulkWaterT2,diffusionConstantWater,"
              "diffusionConstantOil,surfaceRelaxationStrengthWater,Clay,Quartz cement,Quartz,"
              "Mica,Feldspars (dissolvable),Carbonate cement,Pyrite,Feldspars (non-dissolvable),"
              "bulkOilT2,intensityT2,surfaceRelaxationStrengthOil,Clay,Quartz cement,Quartz,Mica,"
              "Feldspars (dissolvable),Carbonate cement,Pyrite,Feldspars (non-dissolvable),"
              "numberOfWalkers,stepLength,randomSeed,subsampleCalculation,regionOfInterest,x,y,z,"
              "t2Components,t2Minimum,t2Maximum,");
    EXPECT_EQ(written.back(), '\n');

    auto p = readParameters(path_);
    EXPECT_EQ(p->echoSpacing(), 0.001);  // the template's 1000.0 scaled once by the writer
    EXPECT_EQ(p->grid(), "grid.binc");
    EXPECT_EQ(p->bulkOilT2(), (std::vector<double>{1.4556, 1.1174, 1.0189}));
    EXPECT_EQ(p->intensityT2(), (std::vector<double>{0.0, 0.42, 0.16}));
    EXPECT_EQ(p->surfaceRelaxationStrengthWater().valueOr(Mineral::Clay), 2.3e-09);
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
