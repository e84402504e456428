#include <random>

#include "grid/sliced_grid.h"
#include "io/grain_bed_grid_reader.h"
#include "io/grain_bed_grid_writer.h"
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

using GridFileTest = TempDirTest;

TEST_F(GridFileTest, WholeGridAndSliceWriterGiveTheSameExactFile) {
    SlicedGrid<GrainBedGridCell> grid(5, 4, 3, 1, 0, 1, 0.125);
    std::mt19937 rng(3);
    for (std::uint32_t i = 0; i < 60; ++i) {
        grid.setCell(i % 5, i / 5 % 4, i / 20,
                     GrainBedGridCell::make(static_cast<std::uint32_t>(rng() & 0xFFFFFF),
                                            static_cast<std::uint32_t>(rng() % 14),
                                            static_cast<std::uint32_t>(rng() % 16)));
    }
    RecordingLogger log;
    NullProgressReporter progress;
    saveGrainBedGrid(grid, path("whole.binc"), log, progress);
    GrainBedGridWriter writer(path("slices.binc"), 5, 4, 3, 1, 0, 1, 0.125);
    for (std::uint32_t z = 0; z < 3; ++z) writer.writeSlice(grid.sliceData(z));
    writer.close();
    EXPECT_EQ(readFile(path("whole.binc")), readFile(path("slices.binc")));

    const std::string content = readAllThrough(*openCompressedInStream(path("whole.binc")));
    std::string expectedHeader =
        std::string(kDescription) +
        "version = Granix GrainBedGrid binary v1.2\nnx = 5\nny = 4\n"
        "nz = 3\nmarginX = 1\nmarginY = 0\nmarginZ = 1\ncellSize = 0.125\n";
    for (Mineral::Type m : Mineral::allTypes()) {
        expectedHeader += "mineral = " + std::to_string(m) + ":" + Mineral::name(m) + "\n";
    }
    expectedHeader += "cells\n";
    ASSERT_EQ(content.size(), expectedHeader.size() + std::size_t{60} * 4);
    EXPECT_EQ(content.substr(0, expectedHeader.size()), expectedHeader);
    EXPECT_NE(expectedHeader.find("mineral = 2:Quartz cement\n"), std::string::npos);

    // Records: little-endian words, x fastest.
    const char* records = content.data() + expectedHeader.size();
    for (std::uint32_t i = 0; i < 60; ++i) {
        const auto* b = reinterpret_cast<const unsigned char*>(records + std::size_t{4} * i);
        const std::uint32_t word = b[0] | b[1] << 8 | b[2] << 16 | std::uint32_t{b[3]} << 24;
        ASSERT_EQ(word, grid.at(i % 5, (i / 5) % 4, i / 20).word) << i;
    }
}

const std::string kSizes = "nx = 10\nny = 10\nnz = 10\n";
const std::string kRest = "marginX = 2\nmarginY = 2\nmarginZ = 2\ncellSize = 1.5\n";

struct HeaderCase {
    std::string lines;    // keyword lines before "cells"
    int result;           // 1 usable, 0 not usable, -1 throws
    std::string message;  // thrown text, or a logged warning or error to look for
};

TEST_F(GridFileTest, HeaderKeywordRulesAndQuirks) {
    const std::string v11 = "version = v1.1\nmineral = 0:Pore\nmineral = 12:Matrix\n";
    // clang-format off
    const std::vector<HeaderCase> cases = {
        {kSizes + kRest, 1, ""},
        {kSizes + kRest + "mineral = 0:Pore\n", -1,
         "No version tag found before minerals. Result is unpredictable.\n"},
        {"version = X v1.3\n" + kSizes + kRest, -1,
         "File version mismatch. Result is unpredictable.\nBinary handles at most: "
         "Granix GrainBedGrid binary v1.2\nFound: X v1.3\n"},
        {"version = Granix GrainBedGrid binary v0.9\n" + kSizes + kRest + "mineral = 14:Unnamed\n",
         1, "Unknown mineral: Unnamed"},
        {"marginX = 2\n" + kSizes + kRest, 0, "Invalid grid margin specifier: 2"},
        {kSizes + kRest + "marginX = 5\n", 1, ""},
        {kSizes + kRest + "marginX = 6\n", 0, "Invalid grid margin specifier: 6"},
        {kSizes + "ny = 0\nmarginX = 1\nmarginY = 0\nmarginZ = 1\ncellSize = 2\n", 1, ""},
        {kSizes + "marginX = 0\nmarginY = 0\nmarginZ = 0\n", 0, ""},
        {kSizes + "colour = red\n" + kRest, 1, "Unexpected token: colour Ignored."},
        {v11 + kSizes + kRest, 1, "Unexpected mineral code: 12. Using counter instead."}};
    // clang-format on
    for (const HeaderCase& c : cases) {
        SCOPED_TRACE(c.lines);
        writeGzip(path("h.binc"), c.lines + "cells\n");
        auto in = openCompressedInStream(path("h.binc"));
        RecordingLogger log;
        GrainBedGridHeader header;
        const auto read = [&] { return readGrainBedGridHeader(*in, header, log); };
        if (c.result < 0) {
            EXPECT_EQ(thrownMessage<FileAccessException>(read), c.message);
            continue;
        }
        EXPECT_EQ(read(), c.result == 1);
        EXPECT_TRUE(c.message.empty() || RecordingLogger::has(log.errors, c.message) ||
                    RecordingLogger::has(log.warnings, c.message));
        if (c.lines.starts_with(v11)) {
            EXPECT_EQ(header.minerals.at(1), "Matrix");  // second mineral line: counter 1
        }
    }
}

}  // namespace
}  // namespace nmr::test
