#include <gtest/gtest.h>
#include <tiffio.h>

#include "common/exception.h"
#include "rock/grid_export.h"
#include "rock/label_map.h"
#include "rock/meta_image.h"
#include "rock/tests/test_support.h"
#include "rock/tiff_stack_reader.h"
#include "testutil/checks.h"
#include "testutil/command.h"
#include "testutil/temp_dir.h"

namespace nmr::rock {
namespace {

using test::TempDir;

constexpr std::uint32_t kNx = 11, kNy = 7, kNz = 5;

// Labels 0, 1 and 2 (300 when wide) in a pattern where no two slices, rows or columns
// agree, so that a transposed or shifted read cannot pass.
std::uint16_t label(std::uint32_t x, std::uint32_t y, std::uint32_t z, bool wide) {
    const std::uint32_t v = (x * 3 + y * 5 + z * 7 + x * y) % 7;
    return v < 3 ? 0 : v < 5 ? 1 : (wide ? 300 : 2);
}

std::string rawBytes(bool wide, bool bigEndian = false) {
    std::string bytes;
    for (std::uint32_t i = 0; i < kNx * kNy * kNz; ++i) {
        const std::uint16_t v = label(i % kNx, i / kNx % kNy, i / (kNx * kNy), wide);
        const char lo = static_cast<char>(v & 0xFF), hi = static_cast<char>(v >> 8);
        bytes += !wide ? std::string{lo} : bigEndian ? std::string{hi, lo} : std::string{lo, hi};
    }
    return bytes;
}

// Deflate-compressed strips of 3 rows; page oddPage, if any, is one column wider.
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
        TIFFSetField(tif, TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE);
        TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, 3);
        TIFFSetField(tif, TIFFTAG_SUBFILETYPE, FILETYPE_PAGE);
        std::vector<std::uint16_t> row16(width);
        std::vector<std::uint8_t> row8(width);
        for (std::uint32_t y = 0; y < kNy; ++y) {
            for (std::uint32_t x = 0; x < width; ++x)
                row8[x] =
                    static_cast<std::uint8_t>(row16[x] = label(std::min(x, kNx - 1), y, z, wide));
            ASSERT_GE(
                TIFFWriteScanline(tif, wide ? static_cast<void*>(row16.data()) : row8.data(), y),
                0);
        }
        TIFFWriteDirectory(tif);
    }
    TIFFClose(tif);
}

std::unique_ptr<VolumeReader> openVolume(const std::string& path) {
    if (path.ends_with(".tif")) return std::make_unique<TiffStackReader>(path);
    if (path.ends_with(".raw"))
        return std::make_unique<RawVolumeReader>(path, VolumeShape{kNx, kNy, kNz});
    return openMetaImage(readMetaImageHeader(path));
}

TEST(VolumeImport, RawMetaImageAndTiffGiveTheSameCells) {
    TempDir dir;
    const std::string map8 = "0=Pore,1=Quartz,2=Clay", map16 = "0=Pore, 1 = Quartz ,300=Clay";
    test::writeFile(dir.file("v8.raw"), rawBytes(false));
    test::writeFile(dir.file("v16be.raw"), rawBytes(true, true));
    test::writeFile(dir.file("v16.raw"), "HEADER" + rawBytes(true));
    test::writeFile(dir.file("v8.mhd"),
                    "ObjectType = Image\nNDims = 3\nDimSize = 11 7 5\n"
                    "ElementSpacing = 0.0025 0.0025 0.0025\n"
                    "ElementType = MET_UCHAR\nElementDataFile = v8.raw\n");
    test::writeFile(dir.file("v16.mhd"),
                    "NDims = 3\nDimSize = 11 7 5\nHeaderSize = 6\n"
                    "ElementType = MET_USHORT\nElementDataFile = v16.raw\n");
    test::writeFile(dir.file("v16be.mhd"),
                    "NDims = 3\nDimSize = 11 7 5\nBinaryDataByteOrderMSB = True\n"
                    "ElementType = MET_SHORT\nElementDataFile = v16be.raw\n");
    test::writeFile(dir.file("local.mha"),
                    "NDims = 3\nDimSize = 11 7 5\nElementType = MET_CHAR\n"
                    "ElementDataFile = LOCAL\n" +
                        rawBytes(false));
    writeTiff(dir.file("v8.tif"), false);
    writeTiff(dir.file("v16.tif"), true);

    importVolume(*openVolume(dir.file("v8.raw")), LabelMap::parse(map8), dir.file("raw.binc"), 2.5);
    const test::GridFile reference = test::readGridFile(dir.file("raw.binc"));
    EXPECT_TRUE(reference.hasLine("nx = 11") && reference.hasLine("nz = 5"));
    ASSERT_EQ(reference.cells.size(), std::size_t{kNx} * kNy * kNz);
    const Mineral::Type minerals[] = {Mineral::Pore, Mineral::Quartz, Mineral::Clay};
    for (std::uint32_t i = 0; i < reference.cells.size(); ++i)
        ASSERT_EQ(reference.cells[i],
                  GrainBedGridCell::make(
                      0, minerals[label(i % kNx, i / kNx % kNy, i / (kNx * kNy), false)]))
            << "cell " << i;

    for (const auto& [name, map] : {std::pair{"v8.mhd", map8},
                                    {"v16.mhd", map16},
                                    {"v16be.mhd", map16},
                                    {"local.mha", map8},
                                    {"v8.tif", map8},
                                    {"v16.tif", map16}}) {
        importVolume(*openVolume(dir.file(name)), LabelMap::parse(map), dir.file("out.binc"), 2.5);
        EXPECT_EQ(test::readGridFile(dir.file("out.binc")).bytes, reference.bytes) << name;
    }
    // The command takes the voxel size from ElementSpacing (mm) and refuses to guess one.
    test::CommandResult r =
        test::runCommand({test::programPath("nmrwalk-import"), dir.file("v8.mhd"), "--labels", map8,
                          "-o", dir.file("cmd.binc")});
    ASSERT_EQ(r.exitStatus, 0) << r.errorOutput;
    const test::GridFile command = test::readGridFile(dir.file("cmd.binc"));
    EXPECT_TRUE(command.hasLine("cellSize = 2.5"));
    EXPECT_EQ(command.cells, reference.cells);
    r = test::runCommand({test::programPath("nmrwalk-import"), dir.file("v8.raw"), "--size",
                          "11x7x5", "--labels", map8, "-o", dir.file("guess.binc")});
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_NE(r.errorOutput.find("--voxel-size"), std::string::npos) << r.errorOutput;
    EXPECT_NE(r.errorOutput.find("v8.raw"), std::string::npos) << r.errorOutput;
    EXPECT_FALSE(std::filesystem::exists(dir.file("guess.binc")));
}

// MetaImage header text for v.raw or another data file.
std::string mhd(const std::string& dims, const std::string& type = "MET_UCHAR",
                const std::string& data = "v.raw") {
    return "DimSize = " + dims + "\nElementType = " + type + "\nElementDataFile = " + data + "\n";
}

TEST(VolumeImport, ErrorsNameTheFileAndTheValue) {
    struct Case {
        std::string source;  // a file name, or header text (with a newline) for h.mhd
        std::vector<std::string> messageParts;
        std::string map = "0=Pore,1=Quartz,2=Clay";
    };
    const Case cases[] = {
        // The first voxel labelled 2 is (2, 0, 0): (3 * 2) % 7 = 6.
        {"v.raw", {"v.raw", "voxel 2,0,0", ": 2"}, "0=Pore,1=Quartz"},
        {mhd("11 7 6"), {"v.raw", "11x7x6", "385 bytes"}},
        {mhd("11 7 5", "MET_USHORT"), {"v.raw", "uint16", "770 bytes expected"}},
        {mhd("11 7 5", "MET_FLOAT"), {"h.mhd", "MET_FLOAT"}},
        // 65536 * 65536 * 2^31 voxels of 2 bytes wrap a 64-bit count round to 0, which an
        // empty data block matches.
        {mhd("65536 65536 2147483648", "MET_USHORT", "LOCAL"),
         {"exceed", "h.mhd", ": 65536x65536x2147483648 uint16"}},
        {mhd("11 7 5", "MET_UCHAR", "gone.raw"), {"gone.raw"}},
        {"ElementType = MET_UCHAR\nElementDataFile = v.raw\n", {"h.mhd", "DimSize"}},
        {"CompressedData = True\n" + mhd("11 7 5"), {"h.mhd", "CompressedData"}},
        {"none.raw", {"none.raw"}},
        {"absent.tif", {"absent.tif"}},
        {"odd.tif", {"page 3", "odd.tif", "12x7"}},
        {"v.raw", {"Unknown mineral name", "Quartz cement", ": quartz"}, "0=Pore,1=quartz"},
        {"v.raw", {"label=mineral", ": 1"}, "0=Pore,1"},
        {"v.raw", {"twice", ": 0"}, "0=Pore,0=Clay"},
        {"v.raw", {": 70000"}, "70000=Pore"}};
    TempDir dir;
    test::writeFile(dir.file("v.raw"), rawBytes(false));
    writeTiff(dir.file("odd.tif"), false, 3);
    for (const Case& c : cases) {
        const std::string message = test::thrownMessage([&] {
            std::string path = dir.file(c.source);
            if (c.source.find('\n') != std::string::npos)
                test::writeFile(path = dir.file("h.mhd"), c.source);
            importVolume(*openVolume(path), LabelMap::parse(c.map), dir.file("out.binc"), 1.0);
        });
        for (const auto& part : c.messageParts)
            EXPECT_NE(message.find(part), std::string::npos) << message;
        EXPECT_FALSE(std::filesystem::exists(dir.file("out.binc"))) << "output left behind";
    }
}

}  // namespace
}  // namespace nmr::rock
