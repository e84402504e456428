#include <gtest/gtest.h>
#include <tiffio.h>

#include <functional>

#include "common/exception.h"
#include "tools/grid_export.h"
#include "tools/label_map.h"
#include "tools/meta_image.h"
#include "tools/tests/test_support.h"
#include "tools/tiff_stack_reader.h"

namespace nmr::tools {
namespace {

using testing::TempDir;

constexpr std::uint32_t kNx = 11, kNy = 7, kNz = 5;

// Labels 0, 1 and 2 (and 300 for 16-bit) in a pattern where no two slices, rows or
// columns agree, so that a transposed or shifted read cannot pass.
std::int32_t label(std::uint32_t x, std::uint32_t y, std::uint32_t z, bool wide) {
    const std::int32_t v = static_cast<std::int32_t>((x * 3 + y * 5 + z * 7 + x * y) % 7);
    return v < 3 ? 0 : v < 5 ? 1 : (wide ? 300 : 2);
}

std::string rawBytes(bool wide, bool bigEndian = false) {
    std::string bytes;
    for (std::uint32_t z = 0; z < kNz; ++z)
        for (std::uint32_t y = 0; y < kNy; ++y)
            for (std::uint32_t x = 0; x < kNx; ++x) {
                const auto v = static_cast<std::uint16_t>(label(x, y, z, wide));
                if (!wide) {
                    bytes += static_cast<char>(v);
                } else if (bigEndian) {
                    bytes += {static_cast<char>(v >> 8), static_cast<char>(v & 0xFF)};
                } else {
                    bytes += {static_cast<char>(v & 0xFF), static_cast<char>(v >> 8)};
                }
            }
    return bytes;
}

void writeTiff(const std::string& path, bool wide, std::uint32_t oddPage = kNz) {
    TIFF* tif = TIFFOpen(path.c_str(), "w");
    ASSERT_NE(tif, nullptr);
    for (std::uint32_t z = 0; z < kNz; ++z) {
        const std::uint32_t width = z == oddPage ? kNx + 1 : kNx;
        TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, width);
        TIFFSetField(tif, TIFFTAG_IMAGELENGTH, kNy);
        TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, wide ? 16 : 8);
        TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, 1);
        TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
        TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
        TIFFSetField(tif, TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE);  // libtiff must undo it
        TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, 3);
        TIFFSetField(tif, TIFFTAG_SUBFILETYPE, FILETYPE_PAGE);
        std::vector<std::uint16_t> row16(width);
        std::vector<std::uint8_t> row8(width);
        for (std::uint32_t y = 0; y < kNy; ++y) {
            for (std::uint32_t x = 0; x < width; ++x) {
                const auto v = label(std::min(x, kNx - 1), y, z, wide);
                row16[x] = static_cast<std::uint16_t>(v);
                row8[x] = static_cast<std::uint8_t>(v);
            }
            ASSERT_GE(
                TIFFWriteScanline(tif, wide ? static_cast<void*>(row16.data()) : row8.data(), y, 0),
                0);
        }
        TIFFWriteDirectory(tif);
    }
    TIFFClose(tif);
}

class VolumeImportTest : public ::testing::Test {
protected:
    std::string import(VolumeReader& reader, const std::string& name, const std::string& map) {
        const std::string out = dir_.file(name);
        importVolume(reader, LabelMap::parse(map), out, 2.5);
        return out;
    }
    // The expected content: labels 0 -> Pore, 1 -> Quartz, 2 or 300 -> Clay.
    void expectCells(const std::string& path) {
        const testing::GridFile file = testing::readGridFile(path);
        EXPECT_EQ(file.header.at("nx"), std::to_string(kNx));
        EXPECT_EQ(file.header.at("nz"), std::to_string(kNz));
        EXPECT_EQ(file.header.at("marginY"), "0");
        ASSERT_EQ(file.cells.size(), std::size_t{kNx} * kNy * kNz);
        std::size_t i = 0;
        for (std::uint32_t z = 0; z < kNz; ++z)
            for (std::uint32_t y = 0; y < kNy; ++y)
                for (std::uint32_t x = 0; x < kNx; ++x, ++i) {
                    const std::int32_t v = label(x, y, z, false);
                    const Mineral::Type m = v == 0   ? Mineral::Pore
                                            : v == 1 ? Mineral::Quartz
                                                     : Mineral::Clay;
                    ASSERT_EQ(file.cells[i], GrainBedGridCell::make(0, m))
                        << x << "," << y << "," << z;
                }
    }
    TempDir dir_;
};

TEST_F(VolumeImportTest, RawMetaImageAndTiffGiveTheSameGrid) {
    const std::string map8 = "0=Pore,1=Quartz,2=Clay", map16 = "0=Pore, 1 = Quartz ,300=Clay";
    testing::writeBytes(dir_.file("v8.raw"), rawBytes(false));
    testing::writeBytes(dir_.file("v16be.raw"), rawBytes(true, true));
    testing::writeBytes(dir_.file("v16.raw"), "HEADER" + rawBytes(true));
    testing::writeBytes(dir_.file("v8.mhd"),
                        "ObjectType = Image\nNDims = 3\nDimSize = 11 7 5\n"
                        "ElementSpacing = 0.0025 0.0025 0.0025\n"
                        "ElementType = MET_UCHAR\nElementDataFile = v8.raw\n");
    testing::writeBytes(dir_.file("v16.mhd"),
                        "NDims = 3\nDimSize = 11 7 5\nHeaderSize = 6\n"
                        "ElementType = MET_USHORT\nElementDataFile = v16.raw\n");
    testing::writeBytes(dir_.file("v16be.mhd"),
                        "NDims = 3\nDimSize = 11 7 5\nBinaryDataByteOrderMSB = True\n"
                        "ElementType = MET_SHORT\nElementDataFile = v16be.raw\n");
    testing::writeBytes(dir_.file("local.mha"),
                        "NDims = 3\nDimSize = 11 7 5\nElementType = MET_CHAR\n"
                        "ElementDataFile = LOCAL\n" +
                            rawBytes(false));
    writeTiff(dir_.file("v8.tif"), false);
    writeTiff(dir_.file("v16.tif"), true);

    RawVolumeReader raw(dir_.file("v8.raw"), {kNx, kNy, kNz, VoxelType::UInt8});
    const std::string reference = import(raw, "raw.binc", map8);
    expectCells(reference);
    const std::string expected = testing::readGridFile(reference).bytes;

    const MetaImageHeader header = readMetaImageHeader(dir_.file("v8.mhd"));
    ASSERT_TRUE(header.spacing.has_value());
    EXPECT_DOUBLE_EQ((*header.spacing)[2], 0.0025);
    std::vector<std::pair<std::string, std::function<std::unique_ptr<VolumeReader>()>>> sources = {
        {map8, [&] { return openMetaImage(header); }},
        {map16, [&] { return openMetaImage(readMetaImageHeader(dir_.file("v16.mhd"))); }},
        {map16, [&] { return openMetaImage(readMetaImageHeader(dir_.file("v16be.mhd"))); }},
        {map8, [&] { return openMetaImage(readMetaImageHeader(dir_.file("local.mha"))); }},
        {map8, [&] { return std::make_unique<TiffStackReader>(dir_.file("v8.tif")); }},
        {map16, [&] { return std::make_unique<TiffStackReader>(dir_.file("v16.tif")); }},
    };
    for (std::size_t k = 0; k < sources.size(); ++k) {
        const auto reader = sources[k].second();
        const std::string out =
            import(*reader, "out" + std::to_string(k) + ".binc", sources[k].first);
        EXPECT_EQ(testing::readGridFile(out).bytes, expected)
            << "source " << k << " " << reader->source();
    }
}

struct ImportError {
    std::string name;
    std::function<void(TempDir&)> action;
    std::vector<std::string> messageParts;  // all must appear in the message
};

class ImportErrorTest : public ::testing::TestWithParam<ImportError> {};

TEST_P(ImportErrorTest, FailsWithAMessageNamingTheCause) {
    TempDir dir;
    testing::writeBytes(dir.file("v.raw"), rawBytes(false));
    std::string message;
    try {
        GetParam().action(dir);
    } catch (const Exception& e) {
        message = e.message();
    }
    ASSERT_FALSE(message.empty()) << "no exception";
    for (const auto& part : GetParam().messageParts)
        EXPECT_NE(message.find(part), std::string::npos) << message;
    EXPECT_FALSE(std::filesystem::exists(dir.file("out.binc"))) << "incomplete output left behind";
}

void importRaw(TempDir& dir, const std::string& map,
               VolumeShape shape = {kNx, kNy, kNz, VoxelType::UInt8}) {
    RawVolumeReader reader(dir.file("v.raw"), shape);
    importVolume(reader, LabelMap::parse(map), dir.file("out.binc"), 1.0);
}

void importMeta(TempDir& dir, const std::string& header) {
    testing::writeBytes(dir.file("h.mhd"), header);
    auto reader = openMetaImage(readMetaImageHeader(dir.file("h.mhd")));
    importVolume(*reader, LabelMap::parse("0=Pore,1=Quartz,2=Clay"), dir.file("out.binc"), 1.0);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ImportErrorTest,
    ::testing::Values(
        // The first voxel labelled 2 is (2, 0, 0): (3 * 2) % 7 = 6.
        ImportError{"UnmappedLabel",
                    [](TempDir& d) { importRaw(d, "0=Pore,1=Quartz"); },
                    {"v.raw", "voxel 2,0,0", ": 2"}},
        ImportError{
            "SizeMismatch",
            [](TempDir& d) {
                importRaw(d, "0=Pore,1=Quartz,2=Clay", {kNx, kNy, kNz + 1, VoxelType::UInt8});
            },
            {"v.raw", "11x7x6", "385 bytes"}},
        ImportError{"WrongVoxelType",
                    [](TempDir& d) {
                        importRaw(d, "0=Pore,1=Quartz,2=Clay", {kNx, kNy, kNz, VoxelType::UInt16});
                    },
                    {"v.raw", "uint16", "770 bytes expected"}},
        ImportError{"MissingFile",
                    [](TempDir& d) {
                        RawVolumeReader r(d.file("none.raw"), {1, 1, 1, VoxelType::UInt8});
                    },
                    {"none.raw"}},
        ImportError{
            "MetaWithoutDimSize",
            [](TempDir& d) { importMeta(d, "ElementType = MET_UCHAR\nElementDataFile = v.raw\n"); },
            {"h.mhd", "DimSize"}},
        ImportError{"MetaFloatVoxels",
                    [](TempDir& d) {
                        importMeta(
                            d,
                            "DimSize = 11 7 5\nElementType = MET_FLOAT\nElementDataFile = v.raw\n");
                    },
                    {"h.mhd", "MET_FLOAT"}},
        ImportError{
            "MetaMissingData",
            [](TempDir& d) {
                importMeta(
                    d, "DimSize = 11 7 5\nElementType = MET_UCHAR\nElementDataFile = gone.raw\n");
            },
            {"gone.raw"}},
        ImportError{"MetaWrongDims",
                    [](TempDir& d) {
                        importMeta(
                            d,
                            "DimSize = 11 7 6\nElementType = MET_UCHAR\nElementDataFile = v.raw\n");
                    },
                    {"v.raw", "11x7x6"}},
        ImportError{"MetaCompressed",
                    [](TempDir& d) {
                        importMeta(d,
                                   "DimSize = 11 7 5\nCompressedData = True\nElementType = "
                                   "MET_UCHAR\nElementDataFile = v.raw\n");
                    },
                    {"h.mhd", "CompressedData"}},
        ImportError{"TiffUnreadable",
                    [](TempDir&) { TiffStackReader r(TempDir().file("absent.tif")); },
                    {"absent.tif"}},
        ImportError{
            "TiffNotATiff", [](TempDir& d) { TiffStackReader r(d.file("v.raw")); }, {"v.raw"}},
        ImportError{"TiffPagesDiffer",
                    [](TempDir& d) {
                        writeTiff(d.file("odd.tif"), false, 3);
                        TiffStackReader r(d.file("odd.tif"));
                    },
                    {"page 3", "odd.tif", "12x7"}},
        ImportError{"LabelMapUnknownMineral",
                    [](TempDir&) { LabelMap::parse("0=Pore,1=quartz"); },
                    {"Unknown mineral name", "Quartz cement", ": quartz"}},
        ImportError{"LabelMapNoEquals",
                    [](TempDir&) { LabelMap::parse("0=Pore,1"); },
                    {"label=mineral", ": 1"}},
        ImportError{
            "LabelMapTwice", [](TempDir&) { LabelMap::parse("0=Pore,0=Clay"); }, {"twice", ": 0"}},
        ImportError{"LabelMapRange", [](TempDir&) { LabelMap::parse("70000=Pore"); }, {": 70000"}}),
    [](const ::testing::TestParamInfo<ImportError>& c) { return c.param.name; });

TEST(RealVolume, SandstoneSubvolumeImportsWithItsKnownPorosity) {
    const auto data = testing::sharedDataDir();
    if (data.empty()) GTEST_SKIP() << "shared data folder not present beside the checkout";
    TempDir dir;
    RawVolumeReader reader((data / "sandstone_100cube_uint8.raw").string(),
                           {100, 100, 100, VoxelType::UInt8});
    const PoreStatistics stats =
        importVolume(reader, LabelMap::parse("1=Pore,0=Quartz"), dir.file("s.binc"), 2.0);
    // The source states about 7.4 % pore (label 1).
    EXPECT_NEAR(stats.porosity(), 0.074, 0.002);
    EXPECT_GT(stats.surfaceToVolume(2.0), 0.0);
    EXPECT_EQ(testing::readGridFile(dir.file("s.binc")).cells.size(), 1000000u);
}

}  // namespace
}  // namespace nmr::tools
