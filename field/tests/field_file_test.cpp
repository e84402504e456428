#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <filesystem>

#include "common/exception.h"
#include "field/field_file.h"
#include "testutil/checks.h"
#include "testutil/temp_dir.h"

namespace nmr::field {
namespace {

const Extent kSize{5, 4, 3};

std::size_t indexOfCell(std::size_t x, std::size_t y, std::size_t z) { return (z * 4 + y) * 5 + x; }

std::vector<float> sampleValues() {
    std::vector<float> values(60);
    for (std::size_t i = 0; i < values.size(); ++i)
        values[i] = static_cast<float>(std::sin(0.7 * static_cast<double>(i)) * 1e-6);
    return values;
}

std::string rawBytes(const std::vector<float>& values) {
    std::string bytes(values.size() * sizeof(float), '\0');
    std::memcpy(bytes.data(), values.data(), bytes.size());
    return bytes;
}

class FieldFile : public test::TempDirTest {};

TEST_F(FieldFile, RoundTripsEveryBitAndWritesAHeaderThatImageToolsRead) {
    const std::vector<float> values = sampleValues();
    writeFieldFile(path("f.mhd"), kSize, 2.5, values);
    EXPECT_EQ(readFieldFile(path("f.mhd"), kSize), values);
    EXPECT_EQ(dir_.read("f.mhd"),
              "ObjectType = Image\nNDims = 3\nBinaryData = True\nElementByteOrderMSB = False\n"
              "CompressedData = False\nDimSize = 5 4 3\nElementSpacing = 2.5 2.5 2.5\n"
              "ElementType = MET_FLOAT\nElementDataFile = f.raw\n");
    EXPECT_EQ(dir_.read("f.raw"), rawBytes(values));
    const FieldImage image = readFieldFile(path("f.mhd"));
    EXPECT_EQ(image.size, kSize);
    EXPECT_EQ(image.spacing, (std::array<double, 3>{2.5, 2.5, 2.5}));
    // The same values written big-endian (another writer's choice) read the same.
    std::vector<float> swapped(values);
    for (float& v : swapped)
        v = std::bit_cast<float>(__builtin_bswap32(std::bit_cast<std::uint32_t>(v)));
    dir_.write("be.raw", rawBytes(swapped));
    dir_.write("be.mhd",
               "NDims = 3\nDimSize = 5 4 3\nElementByteOrderMSB = True\nElementType = MET_FLOAT\n"
               "ElementDataFile = be.raw\n");
    EXPECT_EQ(readFieldFile(path("be.mhd"), kSize), values);
}

TEST_F(FieldFile, RefusesWhatIsNotTheExpectedFieldNamingTheFile) {
    const std::vector<float> values = sampleValues();
    std::vector<float> nan = values, infinite = values;
    nan[indexOfCell(2, 1, 0)] = NAN;
    infinite[indexOfCell(4, 3, 2)] = -INFINITY;
    struct Case {
        std::string header;  // for h.mhd; data in d.raw
        std::string data;
        Extent expected;
        std::vector<std::string> parts;
    };
    const std::string good =
        "NDims = 3\nDimSize = 5 4 3\nElementType = MET_FLOAT\nElementDataFile = d.raw\n";
    const Case cases[] = {
        {good, rawBytes(values), {5, 4, 4}, {"h.mhd", "5 x 4 x 3", "5 x 4 x 4"}},
        {"NDims = 3\nDimSize = 5 4 3\nElementType = MET_UCHAR\nElementDataFile = d.raw\n",
         rawBytes(values),
         kSize,
         {"h.mhd", "MET_FLOAT", "MET_UCHAR"}},
        {"\x89PNG binary\n", rawBytes(values), kSize, {"h.mhd", "Not a MetaImage"}},
        {good, rawBytes(values).substr(4), kSize, {"d.raw", "236 bytes", "240"}},
        {good, rawBytes(values) + "tail", kSize, {"d.raw", "244 bytes"}},
        {good, rawBytes(nan), kSize, {"d.raw", "nan", "cell (2, 1, 0)"}},
        {good, rawBytes(infinite), kSize, {"d.raw", "-inf", "cell (4, 3, 2)"}},
        {"NDims = 3\nDimSize = 5 4 3\nElementType = MET_FLOAT\nElementDataFile = gone.raw\n",
         rawBytes(values),
         kSize,
         {"gone.raw"}},
        {"NDims = 3\nDimSize = 5 4 3\nElementNumberOfChannels = 3\nElementType = MET_FLOAT\n"
         "ElementDataFile = d.raw\n",
         rawBytes(values),
         kSize,
         {"h.mhd", "Field values need one channel"}},
    };
    for (const Case& c : cases) {
        dir_.write("h.mhd", c.header);
        dir_.write("d.raw", c.data);
        const std::string message = test::thrownMessage<FileAccessException>(
            [&] { readFieldFile(path("h.mhd"), c.expected); });
        for (const std::string& part : c.parts)
            EXPECT_NE(message.find(part), std::string::npos) << message;
    }
}

// A file is whole or absent: an unfinished writer leaves nothing, and neither does a
// writer that cannot write where it was told.
TEST_F(FieldFile, LeavesNoPartialFile) {
    {
        FieldFileWriter writer(path("f.mhd"), kSize, 1.0);
        writer.writeSlice(sampleValues().data());
        EXPECT_NE(test::thrownMessage([&] { writer.commit(); }).find("1 of 3 slices"),
                  std::string::npos);
    }
    EXPECT_TRUE(std::filesystem::is_empty(dir_.path()));
    EXPECT_NE(test::thrownMessage<FileAccessException>([&] {
                  writeFieldFile(path("no/such/f.mhd"), kSize, 1.0, sampleValues());
              }).find("no/such/f.raw"),
              std::string::npos);
    EXPECT_EQ(test::thrownMessage([&] { fieldDataPath(path("field.raw")); }),
              "The field file must be named <name>.mhd: " + path("field.raw"));
    EXPECT_TRUE(std::filesystem::is_empty(dir_.path()));
}

}  // namespace
}  // namespace nmr::field
