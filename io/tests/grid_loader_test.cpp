#include "io/grid_loader.h"

#include <cmath>
#include <random>

#include "io_test_support.h"

namespace nmr::test {
namespace {

using Cell = std::array<std::uint32_t, 3>;

// Codes 1..13 only, so a 0 in the loaded grid always means "no file cell went here".
std::uint32_t fileCode(const Cell& p) { return 1 + (p[0] + 3 * p[1] + 5 * p[2]) % 13; }

class LoaderTest : public TempDirTest {
protected:
    std::string writeGrid(const std::string& name, Cell n, std::uint32_t margin) {
        std::vector<std::uint32_t> codes;
        for (std::uint32_t z = 0; z < n[2]; ++z)
            for (std::uint32_t y = 0; y < n[1]; ++y)
                for (std::uint32_t x = 0; x < n[0]; ++x) codes.push_back(fileCode({x, y, z}));
        writeGzip(path(name), gridFileContent(n[0], n[1], n[2], margin, codes));
        return path(name);
    }

    RecordingLogger log_;
    NullProgressReporter progress_;
};

RegionOfInterest cube(std::uint32_t lo, std::uint32_t hi) { return {lo, hi, lo, hi, lo, hi, true}; }
GridLoadOptions load(RegionOfInterest region = {}, int permutation = 0, Cell extra = {}) {
    return {region, permutation, extra, false};
}

struct PlacementCase {
    std::string name;
    Cell fileSize;
    std::uint32_t fileMargin;
    GridLoadOptions options;
    Cell gridSize, gridMargin;
    std::vector<std::pair<Cell, Cell>> fileToGrid;  // spot checks
};

class PlacementTest : public LoaderTest, public ::testing::WithParamInterface<PlacementCase> {};

TEST_P(PlacementTest, SlicedAndCompressedGridsHoldTheRightCells) {
    const PlacementCase& c = GetParam();
    const std::string file = writeGrid("g.binc", c.fileSize, c.fileMargin);
    auto sliced = loadSlicedGrid(file, c.options, log_, progress_);
    // Blocks of 4 cells, two expanded at most: loading and reading work through evictions.
    auto packed = loadCompressedBlockedGrid(file, c.options, 1000.0, log_, progress_, 4);
    packed->setMaxExpandedBlocks(2);
    for (const Grid<Mineral::Type>* g : {static_cast<Grid<Mineral::Type>*>(sliced.get()),
                                         static_cast<Grid<Mineral::Type>*>(packed.get())}) {
        EXPECT_EQ((Cell{g->nx(), g->ny(), g->nz()}), c.gridSize);
        EXPECT_EQ((Cell{g->marginX(), g->marginY(), g->marginZ()}), c.gridMargin);
        EXPECT_DOUBLE_EQ(g->cellSize(), 2.5);
        for (const auto& [f, at] : c.fileToGrid) {
            EXPECT_EQ(g->get(at[0], at[1], at[2]), fileCode(f));
        }
    }
    // Counters must be the interior histogram of what is stored; only the extra margin is empty.
    std::vector<std::uint64_t> counts(Mineral::count(), 0);
    std::uint64_t zeros = 0;
    for (std::uint32_t z = 0; z < sliced->nz(); ++z)
        for (std::uint32_t y = 0; y < sliced->ny(); ++y)
            for (std::uint32_t x = 0; x < sliced->nx(); ++x) {
                const Mineral::Type code = sliced->at(x, y, z);
                ASSERT_EQ(packed->at(x, y, z), code);
                ASSERT_LE(packed->expandedBlockCount(), 2u);
                zeros += code == Mineral::Pore;
                if (sliced->isInterior(x, y, z)) ++counts.at(code);
            }
    const auto& e = c.options.extraMargin;
    EXPECT_EQ(zeros, sliced->totalCellCount() -
                         static_cast<std::uint64_t>(c.gridSize[0] - 2 * e[0]) *
                             (c.gridSize[1] - 2 * e[1]) * (c.gridSize[2] - 2 * e[2]));
    EXPECT_EQ(sliced->counters(), counts);
    EXPECT_EQ(packed->counters(), counts);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Cases, PlacementTest, ::testing::Values(
    PlacementCase{"MarginsCut", {10, 10, 10}, 2, {}, {6, 6, 6}, {0, 0, 0},
                  {{{2, 2, 2}, {0, 0, 0}}, {{7, 7, 7}, {5, 5, 5}}, {{7, 2, 4}, {5, 0, 2}}}},
    PlacementCase{"Region", {10, 10, 10}, 2, load(cube(1, 4)), {3, 3, 3}, {0, 0, 0},
                  {{{3, 3, 3}, {0, 0, 0}}, {{5, 5, 5}, {2, 2, 2}}, {{5, 3, 4}, {2, 0, 1}}}},
    PlacementCase{"SwapXY", {4, 6, 8}, 0, load({}, 1), {6, 4, 8}, {0, 0, 0},
                  {{{1, 2, 3}, {2, 1, 3}}, {{3, 5, 7}, {5, 3, 7}}}},
    PlacementCase{"SwapXZ", {4, 6, 8}, 0, load({}, 2), {8, 6, 4}, {0, 0, 0},
                  {{{1, 2, 3}, {3, 2, 1}}, {{3, 5, 7}, {7, 5, 3}}}},
    PlacementCase{"ExtraMarginAfterSwap", {5, 6, 7}, 1, load({}, 1, {1, 2, 3}), {6, 7, 11},
                  {1, 2, 3}, {{{1, 1, 1}, {1, 2, 3}}, {{3, 2, 5}, {2, 4, 7}}}}),
    [](const auto& p) { return p.param.name; });
// clang-format on

// A rock handed over in memory is the rock of a file with the same cells: same sizes,
// cells and counters, whole or cut to a region.
TEST_F(LoaderTest, RockBuiltInMemoryEqualsTheSameRockLoadedFromAFile) {
    const Cell n{7, 5, 6};
    const std::string file = writeGrid("g.binc", n, 0);
    const MineralVolume volume{
        n[0], n[1], n[2], 2.5, [&](std::uint32_t z, std::uint8_t* codes) {
            for (std::uint32_t y = 0; y < n[1]; ++y)
                for (std::uint32_t x = 0; x < n[0]; ++x)
                    *codes++ = static_cast<std::uint8_t>(fileCode({x, y, z}));
        }};
    for (const GridLoadOptions& options : {load(), load({1, 6, 0, 4, 2, 5, true})}) {
        const auto loaded = loadByteMineralGrid(file, options, log_, progress_);
        const auto built = buildByteMineralGrid(volume, options);
        ASSERT_EQ((Cell{built->nx(), built->ny(), built->nz()}),
                  (Cell{loaded->nx(), loaded->ny(), loaded->nz()}));
        EXPECT_EQ((Cell{built->marginX(), built->marginY(), built->marginZ()}), (Cell{0, 0, 0}));
        EXPECT_EQ(built->counters(), loaded->counters());
        for (std::uint32_t z = 0; z < built->nz(); ++z)
            for (std::uint32_t y = 0; y < built->ny(); ++y)
                for (std::uint32_t x = 0; x < built->nx(); ++x)
                    ASSERT_EQ(built->at(x, y, z), loaded->at(x, y, z)) << x << " " << y << " " << z;
    }
    EXPECT_THROW_MSG(buildByteMineralGrid({0, 5, 6, 2.5, volume.slice}, load()), Exception,
                     "Grid sides must lie between 1 and 32767 cells: 0 x 5 x 6");
}

TEST_F(LoaderTest, TextGridIsConvertedNextToItAndLoaded) {
    writeFile(path("grid.txt"), "x\ny\n2 2 1\n0 3 0 1 0 1\n0 1\n2 3\n");
    auto grid = loadSlicedGrid(path("grid.txt"), {}, log_, progress_);
    EXPECT_TRUE(std::filesystem::exists(path("grid.txt.binc")));
    EXPECT_DOUBLE_EQ(grid->cellSize(), 1.5);
    EXPECT_EQ(grid->at(1, 0, 0), Mineral::Clay);
    EXPECT_EQ(grid->at(1, 1, 0), Mineral::Quartz);
    EXPECT_DOUBLE_EQ(grid->porosity(), 0.25);
}

TEST_F(LoaderTest, NotEnoughMemoryNamesTheNeededFigure) {
    const std::string file = writeGrid("m.binc", {40, 40, 40}, 0);
    auto fits = loadCompressedBlockedGrid(file, {}, 100.0, log_, progress_, 16);
    // ceil of (block + overhead) * 1.1, both in MiB: the same figure the refusal must print.
    const double mib = 1024.0 * 1024.0,
                 blockBytes = static_cast<double>(fits->largestBlockCells()) * 4.0;
    const double figure =
        std::ceil((blockBytes / mib + static_cast<double>(fits->overheadBytes()) / mib) * 1.1);
    std::ostringstream expected;
    expected << "Not enough memory available, need at least " << figure << " MB for the grid.";
    EXPECT_EQ(
        thrownMessage([&] { loadCompressedBlockedGrid(file, {}, 0.05, log_, progress_, 16); }),
        expected.str());
}

enum Form { kGzip, kRaw, kGzipCut, kGzipFlipped, kMissing };

struct BadInput {
    std::string name;
    Form form;
    std::string content;
    std::string message;  // expected exception text; empty: must load
    GridLoadOptions options = {};
};

class BadInputTest : public LoaderTest, public ::testing::WithParamInterface<BadInput> {};

TEST_P(BadInputTest, EndsInTheRightExceptionOrLoads) {
    const BadInput& c = GetParam();
    const std::string file = path(c.name + ".binc");
    std::string bytes = c.content;
    if (c.form != kRaw) writeGzip(file, c.content);
    if (c.form != kRaw) bytes = readFile(file);
    if (c.form == kGzipCut) bytes.resize(bytes.size() / 2);
    if (c.form == kGzipFlipped) bytes[bytes.size() / 2] ^= 0x55;
    if (c.form != kMissing) writeFile(file, bytes);
    if (c.form == kMissing) std::filesystem::remove(file);
    std::string message = c.message;
    if (!message.empty() && message.back() == ' ') message += file;
    if (!message.empty() && message.back() == '(') message += file + ")";
    EXPECT_EQ(thrownMessage([&] { loadSlicedGrid(file, c.options, log_, progress_); }),
              message.empty() ? "no exception" : message);
}

// Built on first use: the mineral table it lists is not ready during static initialisation.
std::string good() { return gridFileContent(4, 4, 4, 1, std::vector<std::uint32_t>(64, 2)); }
std::string replaced(const std::string& from, const std::string& to) {
    std::string s = good();
    return s.replace(s.find(from), from.size(), to);
}

const char* const kHeaderError = "An error occurred when reading file header.";
const char* const kNotMineral = "Invalid mineral type: not a mineral grid file.(";

// clang-format off
INSTANTIATE_TEST_SUITE_P(Cases, BadInputTest, ::testing::Values(
    BadInput{"Good", kGzip, good(), ""},
    BadInput{"Empty", kRaw, "", "Unexpected end of file"},
    BadInput{"RandomBytes", kRaw, "\x1f\x01\x02garbage\x7f\x80", "Unable to open file "},
    BadInput{"GzipCut", kGzipCut, good(), "Unable to open file "},
    BadInput{"GzipFlipped", kGzipFlipped, good(), kHeaderError},
    BadInput{"ShortRecords", kGzip, good().substr(0, good().size() - 3),
             "Did not find enough data for a grid"},
    BadInput{"NxZero", kGzip, replaced("nx = 4", "nx = 0"), kHeaderError},
    BadInput{"NxNegative", kGzip, replaced("nx = 4", "nx = -4"), kHeaderError},
    BadInput{"NxBeyond16Bits", kGzip, replaced("nx = 4", "nx = 65540"), kHeaderError},
    BadInput{"NyZero", kGzip, replaced("ny = 4\nnz = 4\nmarginX = 1\nmarginY = 1",
                                       "ny = 0\nnz = 4\nmarginX = 1\nmarginY = 0"),
             "Could not load grid from file "},
    BadInput{"LongLine", kGzip, std::string(300, 'k') + "\n" + good(), kHeaderError},
    BadInput{"UnknownKeyword", kGzip, replaced("nx = 4", "colour = 5\nnx = 4"), ""},
    BadInput{"HeaderMineralOutOfRange", kGzip, replaced("mineral = 3:", "mineral = 99:"), ""},
    BadInput{"TextWithNonMineral", kRaw, "a\nb\n1 1 1\n0 1 0 1 0 1\n42\n", kNotMineral},
    BadInput{"TextNegativeCode", kRaw, "a\nb\n1 1 2\n0 1 0 1 0 1\n-1 3\n", kNotMineral},
    BadInput{"Missing", kMissing, "", "Could not open file: "},
    BadInput{"RegionTooLarge", kGzip, good(), "Region of interest is larger than grid size",
             load(cube(0, 5))},
    // A region as large as the whole file is accepted; its cells past the file stay pore.
    BadInput{"RegionAsLargeAsFile", kGzip, good(), "", load(cube(0, 4))}),
    [](const auto& p) { return p.param.name; });
// clang-format on

// A damaged header can claim far more cells than a file of its size can decode to. The load
// must end as a short file does, before any storage for the claimed grid is asked for.
TEST_F(LoaderTest, RecordsBeyondWhatTheFileCanHoldFailBeforeTheGridIsMade) {
    const std::string file = path("huge.binc");
    const std::string content = gridFileContent(4, 4, 4, 1, std::vector<std::uint32_t>(64, 2));
    std::string huge = content;
    huge.replace(huge.find("nx = 4\nny = 4\nnz = 4"), 20, "nx = 30000\nny = 30000\nnz = 30000");
    writeGzip(file, huge);
    std::uint64_t asked = 0;
    const ByteStorageAllocator refuse = [&](std::uint64_t bytes) -> ByteCellStorage {
        asked = bytes;
        throw MemoryAllocationException("refused");
    };
    const std::string shortFile = "Did not find enough data for a grid";
    EXPECT_EQ(thrownMessage([&] { loadByteMineralGrid(file, {}, log_, progress_, refuse); }),
              shortFile);
    EXPECT_EQ(asked, 0u);
    EXPECT_EQ(thrownMessage([&] { loadSlicedGrid(file, {}, log_, progress_); }), shortFile);
    EXPECT_EQ(thrownMessage([&] { loadCompressedBlockedGrid(file, {}, 100.0, log_, progress_); }),
              shortFile);
    EXPECT_TRUE(RecordingLogger::has(
        log_.errors, "Binary grain bed grid file corrupted. Did not find enough data for a grid"));
    // The bound is the file's worst-case expansion, not its actual content: a file that
    // compresses extremely well still loads.
    const std::uint32_t n = 100;
    writeGzip(file,
              gridFileContent(n, n, n, 0, std::vector<std::uint32_t>(std::size_t{n} * n * n, 3)));
    EXPECT_EQ(loadByteMineralGrid(file, {}, log_, progress_)->counters()[3],
              std::uint64_t{n} * n * n);
}

// Many damaged copies of a valid file: every one must end in a clean exception or load.
TEST_F(LoaderTest, MutatedFilesNeverCrash) {
    const std::string good = gridFileContent(6, 5, 4, 1, std::vector<std::uint32_t>(120, 5));
    writeGzip(path("good"), good);
    const std::string packed = readFile(path("good"));
    std::mt19937 rng(2024);
    int refused = 0;
    for (int i = 0; i < 300; ++i) {
        // Even runs damage the gzip bytes, odd ones the decoded text and records.
        std::string bytes = i % 2 ? good : packed;
        const std::size_t at = rng() % bytes.size();
        const auto kind = static_cast<unsigned>(rng() % 3);
        if (kind == 0) bytes[at] = static_cast<char>(rng());
        if (kind == 1) bytes.erase(at, 1 + rng() % 8);
        if (kind == 2) bytes.resize(std::max<std::size_t>(at, 1));
        const std::string file = path(std::to_string(i));
        i % 2 ? writeGzip(file, bytes) : writeFile(file, bytes);
        refused +=
            thrownMessage([&] { loadSlicedGrid(file, {}, log_, progress_); }) != "no exception";
    }
    EXPECT_GT(refused, 100);  // most damage must be noticed
}

}  // namespace
}  // namespace nmr::test
