// nmr-fuzz-seeds OUTDIR: writes a small seed corpus for every fuzz target, one folder per
// target, from the project's own writers and formats. Seeds are small on purpose: libFuzzer
// mutates small inputs faster, and every reader path is reachable from a grid of a few
// cells.

#include <tiffio.h>
#include <zlib.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "common/exception.h"
#include "field/field_file.h"
#include "inversion/data_file.h"
#include "io/compressed_out_stream.h"
#include "io/grain_bed_grid_format.h"
#include "io/grain_bed_grid_writer.h"
#include "io/tests/legacy_file.h"
#include "params/parameter_file.h"

namespace {

using namespace nmr;
using nmr::test::legacyFile;
namespace fs = std::filesystem;

fs::path gOut;

std::string file(const std::string& target, const std::string& name) {
    fs::create_directories(gOut / target);
    return (gOut / target / name).string();
}

void writeBytes(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
    if (!out) throw Exception("Cannot write seed: " + path);
}

// Codes 0..15 in turn, so the seeds hold every mineral and the two unlisted codes.
std::vector<GrainBedGridCell> cells(std::uint32_t count) {
    std::vector<GrainBedGridCell> result;
    for (std::uint32_t i = 0; i < count; ++i) result.push_back(GrainBedGridCell::make(i, i % 16));
    return result;
}

// Decompressed content of a grain bed grid file.
std::string gridContent(std::uint32_t nx, std::uint32_t ny, std::uint32_t nz,
                        std::uint32_t margin) {
    std::string content = grain_bed_grid::descriptionBlock() +
                          grain_bed_grid::headerBlock(nx, ny, nz, margin, margin, margin, 2.5);
    const auto records = cells(nx * ny * nz);
    std::string bytes(records.size() * grain_bed_grid::kRecordBytes, '\0');
    grain_bed_grid::encodeRecords(records.data(), records.size(), bytes.data());
    return content + bytes;
}

void writeGridFile(const std::string& path, std::uint32_t nx, std::uint32_t ny, std::uint32_t nz,
                   std::uint32_t margin) {
    GrainBedGridWriter writer(path, nx, ny, nz, margin, margin, margin, 2.5);
    const auto records = cells(nx * ny * nz);
    for (std::uint32_t z = 0; z < nz; ++z)
        writer.writeSlice(records.data() + std::size_t{z} * nx * ny);
    writer.close();
}

std::string textGrid(std::uint32_t nx, std::uint32_t ny, std::uint32_t nz) {
    std::ostringstream out;
    out << "mineral grid\nwritten for the fuzz corpus\n"
        << nx << " " << ny << " " << nz << "\n0 " << nx * 2.5 << " 0 " << ny * 2.5 << " 0 "
        << nz * 2.5 << "\n";
    for (std::uint32_t i = 0; i < nx * ny * nz; ++i)
        out << i % 14 << (i % nx == nx - 1 ? "\n" : " ");
    return out.str();
}

// The raw target's stand-in for the command line: flags, then nx, ny, nz little-endian.
std::string rawShape(std::uint8_t flags, std::uint32_t nx, std::uint32_t ny, std::uint32_t nz) {
    std::string bytes(1, static_cast<char>(flags));
    for (std::uint32_t v : {nx, ny, nz})
        for (int shift = 0; shift < 32; shift += 8) bytes += static_cast<char>(v >> shift);
    return bytes;
}

std::string voxels(std::uint32_t count, bool wide) {
    std::string bytes;
    for (std::uint32_t i = 0; i < count; ++i) {
        bytes += static_cast<char>(i % 3);
        if (wide) bytes += static_cast<char>(i % 2);
    }
    return bytes;
}

void writeTiff(const std::string& path, std::uint32_t pages, std::uint16_t bits, bool isSigned,
               std::uint16_t compression) {
    TIFF* tif = TIFFOpen(path.c_str(), "w");
    if (tif == nullptr) throw Exception("Cannot write seed: " + path);
    constexpr std::uint32_t kWidth = 5, kHeight = 3;
    for (std::uint32_t page = 0; page < pages; ++page) {
        TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, kWidth);
        TIFFSetField(tif, TIFFTAG_IMAGELENGTH, kHeight);
        TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, bits);
        TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, 1);
        TIFFSetField(tif, TIFFTAG_SAMPLEFORMAT, isSigned ? SAMPLEFORMAT_INT : SAMPLEFORMAT_UINT);
        TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
        TIFFSetField(tif, TIFFTAG_COMPRESSION, compression);
        TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, 2);
        TIFFSetField(tif, TIFFTAG_SUBFILETYPE, FILETYPE_PAGE);
        std::vector<std::uint8_t> row(kWidth * bits / 8);
        for (std::uint32_t y = 0; y < kHeight; ++y) {
            for (std::size_t i = 0; i < row.size(); ++i)
                row[i] = static_cast<std::uint8_t>((i + y + page) % 3);
            if (TIFFWriteScanline(tif, row.data(), y, 0) < 0)
                throw Exception("Cannot write seed: " + path);
        }
        TIFFWriteDirectory(tif);
    }
    TIFFClose(tif);
}

// The field files of nmrwalk-field's writer: the header as written (it names field.raw,
// which the target fills with the same bytes), and the same header with its values after it.
void writeFieldSeeds() {
    const std::string written = file("field_file", "written.mhd");
    std::vector<float> values(24);
    for (std::size_t i = 0; i < values.size(); ++i)
        values[i] = static_cast<float>(i % 5) * 1e-6f - 2e-6f;
    field::writeFieldFile(written, {4, 3, 2}, 2.5, values);
    std::ifstream header(written), data(field::fieldDataPath(written), std::ios::binary);
    std::ostringstream headerText, dataBytes;
    headerText << header.rdbuf();
    dataBytes << data.rdbuf();
    std::filesystem::remove(field::fieldDataPath(written));
    std::string local = headerText.str();
    local.replace(local.find("written.raw"), std::string("written.raw").size(), "LOCAL");
    writeBytes(file("field_file", "local.mhd"), local + dataBytes.str());
    std::string named = headerText.str();
    named.replace(named.find("written.raw"), std::string("written.raw").size(), "field.raw");
    writeBytes(written, named);
}

void writeSeeds() {
    writeBytes(file("grid_file", "small.grid"), gridContent(4, 3, 2, 0));
    writeBytes(file("grid_file", "margins.grid"), gridContent(5, 4, 3, 1));

    writeGridFile(file("grid_file_raw", "small.binc"), 4, 3, 2, 0);
    writeBytes(file("grid_file_raw", "legacy.binc"), legacyFile(gridContent(3, 2, 2, 0), 700));
    writeBytes(file("grid_file_raw", "text.txt"), textGrid(3, 2, 2));

    writeBytes(file("mineral_grid_text", "small.txt"), textGrid(4, 3, 2));
    writeBytes(file("legacy_stream", "two_chunks.binc"), legacyFile(gridContent(3, 2, 2, 0), 900));

    writeTemplateFile(file("parameter_file", "template.yaml"));
    writeBytes(file("parameter_file", "field_keys.yaml"),
               encodeParameters(templateParameters()) +
                   "\n  volumeSusceptibility: {Pore: -9.05e-06, Quartz: -1.65e-05}\n"
                   "  staticField: 0.05\n  staticFieldDirection: x\n");

    writeBytes(file("decay_file", "two_columns.txt"),
               "# time (ms), amplitude\n0.2 1.0\n0.4 0.81\n0.6 0.66\n\n0.8 0.54 # last\n");
    writeBytes(file("decay_file", "four_columns.csv"),
               "0.2,0,0.70,0.71\n0.4,0,0.57,0.58\n0.6,0,0.46,0.47\n0.8,0,0.38,0.38\n");

    // Written by the library's own writer, as nmrwalk-invert writes its maps; make_corpus
    // adds such a map.
    inversion::Data2d blocks;
    blocks.first = {0.0, 1e8, 5e8, 2e9};
    blocks.times = {0.2, 0.4, 0.6, 0.8, 1.0};
    blocks.amplitude.resize(4, 5);
    for (Eigen::Index i = 0; i < 4; ++i)
        for (Eigen::Index j = 0; j < 5; ++j)
            blocks.amplitude(i, j) = std::exp(-blocks.first[static_cast<std::size_t>(i)] * 2e-9 -
                                              blocks.times[static_cast<std::size_t>(j)] / 0.5);
    inversion::writeData2d(file("data_2d", "dt2.txt"), blocks);
    writeBytes(file("data_2d", "t1t2.csv"),
               "# recovery time (ms), time (ms), amplitude\n1, 0.5, -0.9\n1, 1.0, -0.8\n\n"
               "100, 0.5, 0.1 # null\n100, 1.0, 0.08\n1000\t0.5\t0.95\n1000\t1.0\t0.85\n");

    writeBytes(file("raw_volume", "uint8.bin"), rawShape(0, 4, 3, 2) + voxels(24, false));
    writeBytes(file("raw_volume", "int16_big_endian.bin"), rawShape(7, 3, 2, 0) + voxels(12, true));

    writeBytes(file("meta_image", "local.mhd"),
               "ObjectType = Image\nNDims = 3\nDimSize = 4 3 2\nElementSpacing = 0.002 0.002 "
               "0.002\nElementType = MET_UCHAR\nElementDataFile = LOCAL\n" +
                   voxels(24, false));
    writeBytes(file("meta_image", "tail.mhd"),
               "NDims = 2\nDimSize = 3 2\nElementSize = 1 1\nBinaryDataByteOrderMSB = True\n"
               "ElementNumberOfChannels = 1\nCompressedData = False\nHeaderSize = -1\n"
               "ElementType = MET_SHORT\nElementDataFile = volume.raw\n" +
                   voxels(6, true));

    writeTiff(file("tiff_stack", "uint8_deflate.tif"), 2, 8, false, COMPRESSION_ADOBE_DEFLATE);
    writeTiff(file("tiff_stack", "int16_plain.tif"), 1, 16, true, COMPRESSION_NONE);
    writeTiff(file("tiff_stack", "uint8_lzw.tif"), 2, 8, false, COMPRESSION_LZW);
    writeFieldSeeds();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "Usage: nmr-fuzz-seeds OUTDIR\n");
        return 1;
    }
    gOut = argv[1];
    try {
        writeSeeds();
    } catch (const Exception& e) {
        std::fprintf(stderr, "nmr-fuzz-seeds: error: %s\n", e.message().c_str());
        return 1;
    }
    return 0;
}
