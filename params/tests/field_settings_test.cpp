#include <gtest/gtest.h>

#include <regex>

#include "common/exception.h"
#include "params/field_settings.h"
#include "params/parameter_file.h"
#include "testutil/checks.h"

namespace nmr {
namespace {

// A run's parameter file (the template) with the field keys after its own.
std::string withFieldKeys(const std::string& keys) {
    return encodeParameters(templateParameters()) + "\n" + keys;
}

// The field keys alone, from line 2 on.
std::string fieldOnly(const std::string& keys) { return parameterRootKey() + ":\n" + keys; }

const std::string kKeys =
    "  volumeSusceptibility: {Pore: -9.05e-06, Quartz: -1.65e-05, Pyrite: 3.0e-04}\n"
    "  staticField: 0.047\n";

TEST(FieldSettings, ReadsTheKeysAndDefaultsTheDirectionToZ) {
    const FieldSettings s = parseFieldSettings(withFieldKeys(kKeys), "nmr.yaml");
    const auto& chi = s.volumeSusceptibility;
    EXPECT_EQ(chi.size(), 3u);
    EXPECT_EQ(std::tuple(chi.valueOr(Mineral::Pore), chi.valueOr(Mineral::Quartz),
                         chi.valueOr(Mineral::Pyrite), s.staticField, s.staticFieldDirection),
              std::tuple(-9.05e-06, -1.65e-05, 3.0e-04, 0.047, 'z'));
    const FieldSettings y =
        parseFieldSettings(withFieldKeys(kKeys + "  staticFieldDirection: y\n"), "nmr.yaml");
    EXPECT_EQ(y.staticFieldDirection, 'y');
}

// The run's own reader takes such a file and writes none of the keys back: a run directory
// prepared for the field is still a run directory, and the template stays as it was.
TEST(FieldSettings, AreInvisibleToTheRunsOwnReaderAndWriter) {
    const auto record = parseParameters(withFieldKeys(kKeys), "nmr.yaml");
    ASSERT_NE(record, nullptr);
    const std::string written = encodeParameters(*record);
    for (const std::string& key : fieldSettingKeys()) {
        EXPECT_EQ(written.find(key), std::string::npos) << key;
        EXPECT_EQ(parameterKeys().count(key), 1u) << key;
    }
    // A mistake in them does not stop a walk.
    EXPECT_NE(parseParameters(withFieldKeys("  volumeSusceptibility: {Quartzz: 1}\n"), "n"),
              nullptr);
}

TEST(FieldSettings, RefusalsNameTheKeyAndTheValue) {
    const std::string pore = "  volumeSusceptibility: {Pore: -9.05e-06}\n";
    const std::string field = "  staticField: 0.5\n";
    const std::pair<std::string, std::string> cases[] = {
        {field, "volumeSusceptibility parameter is missing. Tag: 'volumeSusceptibility'."},
        {pore, "staticField parameter is missing. Tag: 'staticField'."},
        {"  volumeSusceptibility: {Pore: -9e-6, Quartzz: 1e-5}\n" + field,
         "Unknown mineral in volumeSusceptibility (nmr.yaml line 2): Quartzz"},
        {"  volumeSusceptibility: {Quartz: -1.65e-05}\n" + field,
         "volumeSusceptibility needs Pore, the susceptibility of the pore fluid (water: "
         "-9.05e-06)"},
        {"  volumeSusceptibility: {Pore: -9e-6, Clay: lots}\n" + field,
         "The volumeSusceptibility of Clay (nmr.yaml line 2) is not a number: lots"},
        {"  volumeSusceptibility: {Pore: .nan}\n" + field,
         "The volumeSusceptibility of Pore (nmr.yaml line 2) is not a finite number: .nan"},
        {"  volumeSusceptibility: -9e-6\n" + field,
         "volumeSusceptibility (nmr.yaml line 2) must map mineral names to susceptibilities"},
        {pore + "  staticField: -1\n", "staticField must be a positive number of tesla: -1"},
        {pore + field + "  staticFieldDirection: w\n", "staticFieldDirection must be x, y or z: w"},
    };
    for (const auto& refusal : cases) {
        EXPECT_THROW_MSG(parseFieldSettings(fieldOnly(refusal.first), "nmr.yaml"), Exception,
                         refusal.second);
    }
}

}  // namespace
}  // namespace nmr
