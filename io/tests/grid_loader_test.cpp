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
    // Counters must be the interior histogram of what is actually stored.
    template <typename G>
    void expectCountersMatchCells(const G& grid) {
        std::vector<std::uint64_t> counts(Mineral::count(), 0);
        for (std::uint32_t z = grid.marginZ(); z < grid.nz() - grid.marginZ(); ++z)
            for (std::uint32_t y = grid.marginY(); y < grid.ny() - grid.marginY(); ++y)
                for (std::uint32_t x = grid.marginX(); x < grid.nx() - grid.marginX(); ++x)
                    ++counts.at(grid.at(x, y, z));
        EXPECT_EQ(grid.counters(), counts);
    }

    RecordingLogger log_;
    NullProgressReporter progress_;
};

struct PlacementCase {
    std::string name;
    Cell fileSize;
    std::uint32_t fileMargin;
    GridLoadOptions options;
    Cell gridSize, gridMargin;
    std::vector<std::pair<Cell, Cell>> fileToGrid;  // spot checks
};

GridLoadOptions withRegion(GridLoadOptions o, std::uint32_t lo, std::uint32_t hi) {
    o.region = {lo, hi, lo, hi, lo, hi, true};
    return o;
}
GridLoadOptions keep() {
    GridLoadOptions o;
    o.keepMargins = true;
    return o;
}
GridLoadOptions permutation(int p, Cell extra = {0, 0, 0}) {
    GridLoadOptions o;
    o.permutation = p;
    o.extraMargin = extra;
    return o;
}

class PlacementTest : public LoaderTest, public ::testing::WithParamInterface<PlacementCase> {};

TEST_P(PlacementTest, SlicedAndCompressedGridsHoldTheRightCells) {
    const PlacementCase& c = GetParam();
    const std::string file = writeGrid("g.binc", c.fileSize, c.fileMargin);
    auto sliced = loadSlicedGrid(file, c.options, log_, progress_);
    // Blocks of 4 cells and room for two expanded blocks: loading and reading must both
    // work through evictions.
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
    std::uint32_t zeros = 0;
    for (std::uint32_t z = 0; z < sliced->nz(); ++z)
        for (std::uint32_t y = 0; y < sliced->ny(); ++y)
            for (std::uint32_t x = 0; x < sliced->nx(); ++x) {
                ASSERT_EQ(packed->at(x, y, z), sliced->at(x, y, z));
                ASSERT_LE(packed->expandedBlockCount(), 2u);
                zeros += sliced->at(x, y, z) == Mineral::Pore;
            }
    // Only the extra margin is left empty.
    const auto& e = c.options.extraMargin;
    EXPECT_EQ(zeros, sliced->totalCellCount() -
                         static_cast<std::uint64_t>(c.gridSize[0] - 2 * e[0]) *
                             (c.gridSize[1] - 2 * e[1]) * (c.gridSize[2] - 2 * e[2]));
    expectCountersMatchCells(*sliced);
    expectCountersMatchCells(*packed);
    EXPECT_TRUE(RecordingLogger::has(log_.infos, "Load complete: " + file));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, PlacementTest,
    ::testing::Values(
        PlacementCase{"MarginsCut",
                      {10, 10, 10},
                      2,
                      {},
                      {6, 6, 6},
                      {0, 0, 0},
                      {{{2, 2, 2}, {0, 0, 0}}, {{7, 7, 7}, {5, 5, 5}}, {{7, 2, 4}, {5, 0, 2}}}},
        PlacementCase{"MarginsKept",
                      {10, 10, 10},
                      2,
                      keep(),
                      {10, 10, 10},
                      {2, 2, 2},
                      {{{0, 0, 0}, {0, 0, 0}}, {{9, 8, 1}, {9, 8, 1}}}},
        PlacementCase{"Region",
                      {10, 10, 10},
                      2,
                      withRegion({}, 1, 4),
                      {3, 3, 3},
                      {0, 0, 0},
                      {{{3, 3, 3}, {0, 0, 0}}, {{5, 5, 5}, {2, 2, 2}}, {{5, 3, 4}, {2, 0, 1}}}},
        PlacementCase{"RegionKeepingMargins",
                      {10, 10, 10},
                      2,
                      withRegion(keep(), 1, 4),
                      {3, 3, 3},
                      {0, 0, 0},
                      {{{3, 3, 3}, {0, 0, 0}}, {{5, 5, 5}, {2, 2, 2}}}},
        PlacementCase{"SwapXY",
                      {4, 6, 8},
                      0,
                      permutation(1),
                      {6, 4, 8},
                      {0, 0, 0},
                      {{{1, 2, 3}, {2, 1, 3}}, {{3, 5, 7}, {5, 3, 7}}}},
        PlacementCase{"SwapXZ",
                      {4, 6, 8},
                      0,
                      permutation(2),
                      {8, 6, 4},
                      {0, 0, 0},
                      {{{1, 2, 3}, {3, 2, 1}}, {{3, 5, 7}, {7, 5, 3}}}},
        PlacementCase{"ExtraMarginAfterSwap",
                      {5, 6, 7},
                      1,
                      permutation(1, {1, 2, 3}),
                      {6, 7, 11},
                      {1, 2, 3},
                      {{{1, 1, 1}, {1, 2, 3}}, {{3, 2, 5}, {2, 4, 7}}}}),
    [](const auto& p) { return p.param.name; });

TEST_F(LoaderTest, ReservedCodesLoadWithoutBeingCounted) {
    std::vector<std::uint32_t> codes(27, 3);
    codes[13] = 14;  // cell (1,1,1)
    codes[26] = 15;
    writeGzip(path("r.binc"), gridFileContent(3, 3, 3, 0, codes));
    for (int variant = 0; variant < 2; ++variant) {
        std::shared_ptr<Grid<Mineral::Type>> g;
        if (variant == 0) g = loadSlicedGrid(path("r.binc"), {}, log_, progress_);
        if (variant == 1) g = loadCompressedBlockedGrid(path("r.binc"), {}, 10.0, log_, progress_);
        EXPECT_EQ(g->get(1, 1, 1), Mineral::Reserved);
        EXPECT_EQ(g->get(2, 2, 2), Mineral::Unknown);
        EXPECT_EQ(g->counter(Mineral::Quartz), 25u);
    }
}

TEST_F(LoaderTest, TextGridIsConvertedNextToItAndLoaded) {
    writeRaw(path("grid.txt"), "x\ny\n2 2 1\n0 3 0 1 0 1\n0 1\n2 3\n");
    auto grid = loadSlicedGrid(path("grid.txt"), {}, log_, progress_);
    EXPECT_TRUE(std::filesystem::exists(path("grid.txt.binc")));
    EXPECT_DOUBLE_EQ(grid->cellSize(), 1.5);
    EXPECT_EQ(grid->at(1, 0, 0), Mineral::Clay);
    EXPECT_EQ(grid->at(1, 1, 0), Mineral::Quartz);
    EXPECT_DOUBLE_EQ(grid->porosity(), 0.25);

    const GridFileSummary text = readGridFileSummary(path("grid.txt"), log_);
    EXPECT_EQ((Cell{text.nx, text.ny, text.nz}), (Cell{2, 2, 1}));
    const GridFileSummary binary = readGridFileSummary(writeGrid("b.binc", {7, 8, 9}, 3), log_);
    EXPECT_EQ((Cell{binary.nx, binary.ny, binary.nz}), (Cell{7, 8, 9}));
    EXPECT_EQ(binary.marginZ, 3u);
    EXPECT_DOUBLE_EQ(binary.cellSize, 2.5);
}

TEST_F(LoaderTest, CancelEndsTheLoadUnlessDisabled) {
    const std::string file = writeGrid("c.binc", {4, 4, 4}, 0);
    CancellingProgress cancel;
    EXPECT_THROW(loadSlicedGrid(file, {}, log_, cancel), UserCancelException);
    EXPECT_TRUE(RecordingLogger::has(log_.infos, "Loading grid aborted: Cancelled by test"));
    GridLoadOptions uncancellable;
    uncancellable.disableCancel = true;
    EXPECT_NE(loadSlicedGrid(file, uncancellable, log_, cancel), nullptr);
}

TEST_F(LoaderTest, NotEnoughMemoryNamesTheNeededFigure) {
    const std::string file = writeGrid("m.binc", {40, 40, 40}, 0);
    auto fits = loadCompressedBlockedGrid(file, {}, 100.0, log_, progress_, 16);
    // ceil of (block + overhead) * 1.1, both in MiB: the same figure the refusal must print.
    const double mib = 1024.0 * 1024.0;
    const double figure = std::ceil((static_cast<double>(fits->largestBlockCells() * 4) / mib +
                                     static_cast<double>(fits->overheadBytes()) / mib) *
                                    1.1);
    try {
        loadCompressedBlockedGrid(file, {}, 0.05, log_, progress_, 16);
        FAIL();
    } catch (const Exception& e) {
        std::ostringstream expected;
        expected << "Not enough memory available, need at least " << figure << " MB for the grid.";
        EXPECT_EQ(e.message(), expected.str());
    }
}

struct BadInput {
    std::string name;
    std::string bytes;  // raw file bytes; empty means "use content" gzipped
    std::string content;
    std::string message;  // expected exception text; empty: must load
    bool fileAccess = true;
};

class BadInputTest : public LoaderTest, public ::testing::WithParamInterface<BadInput> {};

TEST_P(BadInputTest, EndsInTheRightExceptionOrLoads) {
    const BadInput& c = GetParam();
    const std::string file = path(c.name + ".binc");
    if (c.bytes.empty() && !c.content.empty()) writeGzip(file, c.content);
    if (!c.bytes.empty() || c.content.empty()) writeRaw(file, c.bytes);
    std::string message = c.message;
    if (!message.empty() && message.back() == ' ') message += file;
    if (!message.empty() && message.back() == '(') message += file + ")";
    try {
        loadSlicedGrid(file, {}, log_, progress_);
        EXPECT_TRUE(message.empty()) << "loaded, expected: " << message;
    } catch (const FileAccessException& e) {
        EXPECT_TRUE(c.fileAccess);
        EXPECT_EQ(e.message(), message);
    } catch (const Exception& e) {
        EXPECT_FALSE(c.fileAccess);
        EXPECT_EQ(e.message(), message);
    }
}

// Built on first use: the mineral table it lists is not ready during static initialisation.
std::string good() { return gridFileContent(4, 4, 4, 1, std::vector<std::uint32_t>(64, 2)); }
std::string replaced(const std::string& from, const std::string& to) {
    std::string s = good();
    return s.replace(s.find(from), from.size(), to);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, BadInputTest,
    ::testing::Values(
        BadInput{"Good", "", good(), ""},
        BadInput{"Empty", "", "", "Unexpected end of file", false},
        BadInput{"RandomBytes", "\x1f\x01\x02garbage\x7f\x80", "", "Unable to open file "},
        BadInput{"ShortRecords", "", good().substr(0, good().size() - 3),
                 "Did not find enough data for a grid"},
        BadInput{"NoRecordsAtAll", "", good().substr(0, good().rfind("cells\n") + 6),
                 "Did not find enough data for a grid"},
        BadInput{"NxZero", "", replaced("nx = 4", "nx = 0"),
                 "An error occurred when reading file header."},
        BadInput{"NyZero", "",
                 replaced("ny = 4\nnz = 4\nmarginX = 1\nmarginY = 1",
                          "ny = 0\nnz = 4\nmarginX = 1\nmarginY = 0"),
                 "Could not load grid from file "},
        BadInput{"LongLine", "", std::string(300, 'k') + "\n" + good(),
                 "An error occurred when reading file header."},
        BadInput{"UnknownKeyword", "", replaced("nx = 4", "colour = 5\nnx = 4"), ""},
        BadInput{"HeaderMineralOutOfRange", "", replaced("mineral = 3:", "mineral = 99:"), ""},
        BadInput{"TextWithNonMineral", "a\nb\n1 1 1\n0 1 0 1 0 1\n42\n", "",
                 "Invalid mineral type: not a mineral grid file.("}),
    [](const auto& p) { return p.param.name; });

TEST_F(LoaderTest, NamesAndRegionsAreChecked) {
    const auto expectMessage = [&](const std::string& name, const GridLoadOptions& o,
                                   const std::string& message) {
        try {
            loadSlicedGrid(name, o, log_, progress_);
            FAIL() << message;
        } catch (const Exception& e) {
            EXPECT_EQ(e.message(), message);
        }
    };
    expectMessage(" \t", {}, "Found empty string as file name.");
    expectMessage(path("missing"), {}, "Could not open file: " + path("missing"));
    const std::string file = writeGrid("g.binc", {10, 10, 10}, 2);
    expectMessage(file, withRegion({}, 0, 11), "Region of interest is larger than grid size");
    // A region as large as the whole file is accepted; its cells past the file stay pore.
    EXPECT_EQ(loadSlicedGrid(file, withRegion({}, 0, 10), log_, progress_)->nx(), 10u);
}

// Many damaged copies of a valid file: every one must end in a clean exception or load.
TEST_F(LoaderTest, MutatedFilesNeverCrash) {
    const std::string good = gridFileContent(6, 5, 4, 1, std::vector<std::uint32_t>(120, 5));
    writeGzip(path("good"), good);
    const std::string packed = readRaw(path("good"));
    std::mt19937 rng(2024);
    int refused = 0;
    for (int i = 0; i < 300; ++i) {
        // Half damage the gzip bytes, half the decoded text and records (then re-gzipped).
        const bool raw = i % 2 == 0;
        std::string bytes = raw ? packed : good;
        for (int k = 0, edits = 1 + static_cast<int>(rng() % 2); k < edits; ++k) {
            const std::size_t at = rng() % bytes.size();
            const unsigned kind = rng() % 3;
            if (kind == 0) bytes[at] = static_cast<char>(rng());
            if (kind == 1)
                bytes =
                    bytes.substr(0, at) + bytes.substr(std::min(at + 1 + rng() % 8, bytes.size()));
            if (kind == 2) bytes.resize(std::max<std::size_t>(at, 1));
        }
        const std::string file = path(std::to_string(i) + ".mutated");
        (raw ? writeRaw : writeGzip)(file, bytes);
        try {
            loadSlicedGrid(file, {}, log_, progress_);
        } catch (const Exception&) {
            ++refused;
        }
        std::filesystem::remove(file);
    }
    EXPECT_GT(refused, 100);  // most damage must be noticed
}

}  // namespace
}  // namespace nmr::test
