#include <random>

#include "grid/sliced_grid.h"
#include "io/grain_bed_grid_reader.h"
#include "io/grain_bed_grid_writer.h"
#include "io/mineral_grid_text_converter.h"
#include "io_test_support.h"

namespace nmr::test {
namespace {

const char* const kDescription =
    "# Format description:\n#\n#   version = <version>\n"
    "#   nx = <number of cells in X direction>\n#   ny = <number of cells in Y direction>\n"
    "#   nz = <number of cells in Z direction>\n#   marginX = <margin in X direction>\n"
    "#   marginY = <margin in Y direction>\n#   marginZ = <margin in Z direction>\n"
    "#   cellSize = <size of cell in each direction>\n#   mineral = <code1:name1>\n"
    "#   mineral = <code2:name2>\n#   :\n#   cells\n#   <cell records>\n# \n"
    "# Blank lines and lines starting with '#' are comments\n"
    "# Other than for the 'grid' keyword which marks the\n"
    "# start of the binary section, the order of the keywords\n# insignificant.\n"
    "# All keywords must be present.\n# \n# Grain record is little-endian binary compound of:\n"
    "#   grainNumber:int(4)\n#   mineralType:char(1)\n# \n"
    "# Cells are ordered with direction x moving fastest, \n# then y and then z.\n# \n";

std::string decompressed(const std::string& path) {
    auto in = openCompressedInStream(path);
    return readAllThrough(*in);
}

using GridFileTest = TempDirTest;

TEST_F(GridFileTest, WholeGridAndSliceWriterGiveTheSameExactFile) {
    SlicedGrid<GrainBedGridCell> grid(5, 4, 3, 1, 0, 1, 0.125);
    std::mt19937 rng(3);
    for (std::uint32_t z = 0; z < 3; ++z)
        for (std::uint32_t y = 0; y < 4; ++y)
            for (std::uint32_t x = 0; x < 5; ++x)
                grid.setCell(x, y, z,
                             GrainBedGridCell::make(rng() & 0xFFFFFF, rng() % 14, rng() % 16));
    RecordingLogger log;
    NullProgressReporter progress;
    saveGrainBedGrid(grid, path("whole.binc"), log, progress);
    EXPECT_TRUE(RecordingLogger::has(log.infos, "Save complete: " + path("whole.binc")));
    {
        GrainBedGridWriter writer(path("slices.binc"), 5, 4, 3, 1, 0, 1, 0.125);
        for (std::uint32_t z = 0; z < 3; ++z) writer.writeSlice(grid.sliceData(z));
        writer.close();
    }
    EXPECT_EQ(readRaw(path("whole.binc")), readRaw(path("slices.binc")));

    const std::string content = decompressed(path("whole.binc"));
    std::string expectedHeader =
        std::string(kDescription) +
        "version = Granix GrainBedGrid binary v1.2\nnx = 5\nny = 4\n"
        "nz = 3\nmarginX = 1\nmarginY = 0\nmarginZ = 1\ncellSize = 0.125\n";
    for (Mineral::Type m : Mineral::allTypes()) {
        expectedHeader += "mineral = " + std::to_string(m) + ":" + Mineral::name(m) + "\n";
    }
    expectedHeader += "cells\n";
    ASSERT_EQ(content.size(), expectedHeader.size() + 60 * 4);
    EXPECT_EQ(content.substr(0, expectedHeader.size()), expectedHeader);
    EXPECT_NE(expectedHeader.find("mineral = 2:Quartz cement\n"), std::string::npos);

    // Records: little-endian words, x fastest.
    const char* records = content.data() + expectedHeader.size();
    for (std::uint32_t i = 0; i < 60; ++i) {
        const auto* b = reinterpret_cast<const unsigned char*>(records + 4 * i);
        const std::uint32_t word = b[0] | b[1] << 8 | b[2] << 16 | std::uint32_t{b[3]} << 24;
        ASSERT_EQ(word, grid.at(i % 5, (i / 5) % 4, i / 20).word) << i;
    }
}

TEST_F(GridFileTest, WriterErrors) {
    RecordingLogger log;
    NullProgressReporter quiet;
    SlicedGrid<GrainBedGridCell> grid(2, 2, 2, 0, 0, 0, 1.0);
    try {
        saveGrainBedGrid(grid, " \t\r\n", log, quiet);
        FAIL();
    } catch (const FileAccessException& e) {
        EXPECT_EQ(e.message(), "Found empty string as file name.");
    }
    const std::string unwritable = path("no-such-dir/g.binc");
    try {
        GrainBedGridWriter writer(unwritable, 2, 2, 2, 0, 0, 0, 1.0, &log);
        FAIL();
    } catch (const FileAccessException& e) {
        EXPECT_EQ(e.message(), "Unable to open file: " + unwritable);
    }
    EXPECT_TRUE(RecordingLogger::has(log.errors, "Unable to open: " + unwritable));

    CancellingProgress cancel;
    try {
        saveGrainBedGrid(grid, path("c.binc"), log, cancel);
        FAIL();
    } catch (const UserCancelException& e) {
        EXPECT_EQ(e.message(), "Saving canceled by user.");
    }

    GrainBedGridWriter shortWriter(path("short.binc"), 2, 2, 2, 0, 0, 0, 1.0);
    shortWriter.writeSlice(grid.sliceData(0));
    EXPECT_THROW(shortWriter.close(), FileAccessException);
    GrainBedGridWriter longWriter(path("long.binc"), 2, 2, 1, 0, 0, 0, 1.0);
    longWriter.writeSlice(grid.sliceData(0));
    EXPECT_THROW(longWriter.writeSlice(grid.sliceData(0)), FileAccessException);

    if (std::filesystem::exists("/dev/full")) {
        // The data sit in the compressor's buffers until the end, so the failure shows at close.
        GrainBedGridWriter full("/dev/full", 2, 2, 2, 0, 0, 0, 1.0, &log);
        full.writeSlice(grid.sliceData(0));
        full.writeSlice(grid.sliceData(1));
        EXPECT_THROW(full.close(), FileAccessException);
        EXPECT_TRUE(RecordingLogger::has(log.errors, "Could not write data to file."));
    }
}

struct HeaderCase {
    std::string name;
    std::string lines;    // replaces the default keyword lines
    int result;           // 1 usable, 0 not usable, -1 throws
    std::string message;  // thrown text, or a logged warning or error to look for
};

class HeaderReaderTest : public GridFileTest, public ::testing::WithParamInterface<HeaderCase> {};

TEST_P(HeaderReaderTest, KeywordRulesAndQuirks) {
    const HeaderCase& c = GetParam();
    writeGzip(path("h.binc"), c.lines + "cells\n");
    auto in = openCompressedInStream(path("h.binc"));
    RecordingLogger log;
    GrainBedGridHeader header;
    if (c.result < 0) {
        try {
            readGrainBedGridHeader(*in, header, log);
            FAIL() << "expected an exception";
        } catch (const FileAccessException& e) {
            EXPECT_EQ(e.message(), c.message);
        }
        return;
    }
    EXPECT_EQ(readGrainBedGridHeader(*in, header, log), c.result == 1);
    if (!c.message.empty()) {
        EXPECT_TRUE(RecordingLogger::has(log.errors, c.message) ||
                    RecordingLogger::has(log.warnings, c.message))
            << c.message;
    }
    if (c.name == "OldFileMineralCodeUsesCounter") {
        EXPECT_EQ(header.minerals.at(1), "Matrix");  // second mineral line: counter 1
        EXPECT_EQ(header.minerals.at(0), "Pore");
    }
}

const std::string kSizes = "nx = 10\nny = 10\nnz = 10\n";
const std::string kRest = "marginX = 2\nmarginY = 2\nmarginZ = 2\ncellSize = 1.5\n";

INSTANTIATE_TEST_SUITE_P(
    Cases, HeaderReaderTest,
    ::testing::Values(
        HeaderCase{"NoVersionNoMinerals", kSizes + kRest, 1, ""},
        HeaderCase{"NoVersionThenMineral", kSizes + kRest + "mineral = 0:Pore\n", -1,
                   "No version tag found before minerals. Result is unpredictable.\n"},
        HeaderCase{"NewerVersion", "version = X v1.3\n" + kSizes + kRest, -1,
                   "File version mismatch. Result is unpredictable.\nBinary handles at most: "
                   "Granix GrainBedGrid binary v1.2\nFound: X v1.3\n"},
        HeaderCase{"OlderVersion",
                   "version = Granix GrainBedGrid binary v0.9\n" + kSizes + kRest +
                       "mineral = 14:Unnamed\n",
                   1, "Unknown mineral: Unnamed"},
        HeaderCase{"MarginBeforeSize", "marginX = 2\n" + kSizes + kRest, 0,
                   "Invalid grid margin specifier: 2"},
        HeaderCase{"LargestMargin", kSizes + kRest + "marginX = 5\n", 1, ""},
        HeaderCase{"MarginAboveHalf", kSizes + kRest + "marginX = 6\n", 0,
                   "Invalid grid margin specifier: 6"},
        HeaderCase{"NyZeroPasses",
                   kSizes + "ny = 0\nmarginX = 1\nmarginY = 0\nmarginZ = 1\ncellSize = 2\n", 1, ""},
        HeaderCase{"NyBeforeNx", "ny = 4\n" + kSizes + kRest, 0, "Invalid grid size specifier: 4"},
        HeaderCase{"NxZero", "nx = 0\n", 0, "Invalid grid size specifier: 0"},
        HeaderCase{"NzNegative", kSizes + "nz = -3\n", 0, "Invalid grid size specifier: -3"},
        HeaderCase{"SizeNotInteger", "nx = 10.5\n", 0, "Type mismatch. Integer expected: 10.5"},
        HeaderCase{"CellSizeText", kSizes + kRest + "cellSize = wide\n", 0,
                   "Type mismatch. Float expected: wide"},
        HeaderCase{"CellSizeZero", kSizes + kRest + "cellSize = 0\n", 0,
                   "Invalid cell size specifier: 0"},
        HeaderCase{"MissingCellSize", kSizes + "marginX = 0\nmarginY = 0\nmarginZ = 0\n", 0, ""},
        HeaderCase{"UnknownKeyword", kSizes + "colour = red\n" + kRest, 1,
                   "Unexpected token: colour Ignored."},
        HeaderCase{"NoKey", kSizes + " = 5\n" + kRest, 1, "Invalid header line:  = 5"},
        HeaderCase{"OldFileMineralCodeUsesCounter",
                   "version = v1.1\nmineral = 0:Pore\nmineral = 12:Matrix\n" + kSizes + kRest, 1,
                   "Unexpected mineral code: 12. Using counter instead."},
        HeaderCase{"MineralWithoutName", "version = v1.2\nmineral = 3\n" + kSizes + kRest, 1,
                   "Missing mineral specifier."},
        HeaderCase{"MineralCase", "version = v1.2\nmineral = 3:quartz\n" + kSizes + kRest, 1,
                   "Unknown mineral: quartz"},
        HeaderCase{"MineralExtraPiece", "version = v1.2\nmineral = 3:Quartz:x\n" + kSizes + kRest,
                   1, "Unexpected token: x"},
        // 255 characters do not fit the line buffer: the header ends there, incomplete.
        HeaderCase{"OverlongLine", "# " + std::string(253, 'x') + "\n" + kSizes + kRest, 0, ""}),
    [](const auto& p) { return p.param.name; });

TEST_F(GridFileTest, ShortRecordSectionIsReported) {
    const std::string content = gridFileContent(3, 2, 2, 0, std::vector<std::uint32_t>(12, 1));
    writeGzip(path("s.binc"), content.substr(0, content.size() - 1));
    auto in = openCompressedInStream(path("s.binc"));
    RecordingLogger log;
    GrainBedGridHeader header;
    ASSERT_TRUE(readGrainBedGridHeader(*in, header, log));
    GrainBedGridSliceReader reader(*in, header.nx, header.ny, log);
    EXPECT_EQ(grain_bed_grid::recordMineral(reader.next()), Mineral::Clay);
    try {
        reader.next();
        FAIL();
    } catch (const FileAccessException& e) {
        EXPECT_EQ(e.message(), "Did not find enough data for a grid");
    }
    EXPECT_TRUE(RecordingLogger::has(
        log.errors, "Binary grain bed grid file corrupted. Did not find enough data for a grid"));
}

struct TextCase {
    std::string name, text, message;
};

class TextGridTest : public GridFileTest, public ::testing::WithParamInterface<TextCase> {};

TEST_P(TextGridTest, BadTextGridsNameTheProblem) {
    if (GetParam().name != "Missing") writeRaw(path("t.txt"), GetParam().text);
    RecordingLogger log;
    try {
        convertMineralGridText(path("t.txt"), path("t.txt.binc"), log);
        FAIL();
    } catch (const FileAccessException& e) {
        std::string expected = GetParam().message;
        if (expected.back() == '(') expected += path("t.txt") + ")";
        EXPECT_EQ(e.message(), expected);
    }
    EXPECT_FALSE(std::filesystem::exists(path("t.txt.binc")));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, TextGridTest,
    ::testing::Values(
        TextCase{"Missing", "", "Could not open ascii containing the MineralGrid."},
        TextCase{"Empty", "", "Unexpected end of file"},
        TextCase{"ZeroSize", "a\nb\n2 0 2\n", "Error when importing numbered grains file"},
        TextCase{"NotANumber", "a\nb\n1 1 2\n0 1 0 1 0 1\n3 x\n", "Unexpected read error"},
        TextCase{"TooFewCells", "a\nb\n1 1 3\n0 1 0 1 0 1\n3 4\n", "Unexpected end of file"},
        TextCase{"CodeFourteen", "a\nb\n1 1 2\n0 1 0 1 0 1\n3 14\n",
                 "Invalid mineral type: not a mineral grid file.("},
        TextCase{"NegativeCode", "a\nb\n1 1 2\n0 1 0 1 0 1\n-1 3\n",
                 "Invalid mineral type: not a mineral grid file.("}),
    [](const auto& p) { return p.param.name; });

}  // namespace
}  // namespace nmr::test
