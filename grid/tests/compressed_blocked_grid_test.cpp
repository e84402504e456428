#include "grid/compressed_blocked_grid.h"

#include <gtest/gtest.h>

#include <numeric>
#include <random>

#include "grid/sliced_grid.h"
#include "testutil/checks.h"

namespace nmr {
namespace {

using Code = Mineral::Type;

// The block rule is shared with the walker sort, so every axis case matters.
TEST(CompressedBlockedGrid, BlockCountsAndLastBlockReachTheEndOfTheAxis) {
    const std::uint32_t cases[][4] = {// n, edge, blocks, first cell of the last block
                                      {10, 64, 1, 0},   {64, 64, 1, 0},   {127, 64, 1, 0},
                                      {128, 64, 2, 64}, {130, 64, 2, 64}, {9, 4, 2, 4},
                                      {12, 4, 3, 8},    {1, 4, 1, 0}};
    for (const auto& [n, edge, blocks, lastBegin] : cases) {
        CompressedBlockedGrid<Code> grid(n, 3, 2, 0, 0, 0, 1.0, edge);
        ASSERT_EQ(grid.blocksX(), blocks) << n << "/" << edge;
        EXPECT_EQ(grid.blockBounds(blocks - 1).x0, lastBegin);
        EXPECT_EQ(grid.blockBounds(blocks - 1).x1, n);
        for (std::uint32_t x = 0; x < n; ++x) {
            EXPECT_EQ(grid.tableX()[x], std::min(x / edge, blocks - 1)) << n << "/" << x;
        }
    }
}

// The walker sort numbers blocks the same way: z slowest, x fastest.
TEST(CompressedBlockedGrid, BlockNumbersRunXThenYThenZ) {
    CompressedBlockedGrid<Code> grid(13, 9, 11, 0, 0, 0, 1.0, 4);  // 3 x 2 x 2 blocks
    const std::uint32_t cells[][4] = {{0, 0, 0, 0},  {12, 0, 0, 2}, {0, 8, 0, 3},
                                      {5, 4, 8, 10}, {5, 0, 9, 7},  {12, 8, 10, 11}};
    for (const auto& c : cells) {
        EXPECT_EQ(grid.blockNumber(c[0], c[1], c[2]), c[3]);
        EXPECT_TRUE(BoundedDataBlock<Code>(grid.blockBounds(c[3])).contains(c[0], c[1], c[2]));
    }
}

// Random writes in random order against a plain grid, with room for only two expanded
// blocks: every eviction must write back changed blocks and only those.
TEST(CompressedBlockedGrid, MatchesPlainGridUnderTightBlockLimit) {
    const std::uint32_t nx = 13, ny = 9, nz = 11;
    CompressedBlockedGrid<Code> packed(nx, ny, nz, 1, 2, 1, 0.5, 4, 2);
    SlicedGrid<Code> plain(nx, ny, nz, 1, 2, 1, 0.5);
    std::mt19937 rng(7);
    for (int i = 0; i < 4000; ++i) {
        const auto x = static_cast<std::uint32_t>(rng() % nx);
        const auto y = static_cast<std::uint32_t>(rng() % ny);
        const auto z = static_cast<std::uint32_t>(rng() % nz);
        const auto value = static_cast<Code>(rng() % 14);
        packed.setCell(x, y, z, value);
        plain.setCell(x, y, z, value);
        ASSERT_LE(packed.expandedBlockCount(), 2u);
        if (i % 7 == 0) {
            const auto rx = static_cast<std::uint32_t>(rng() % nx);
            const auto ry = static_cast<std::uint32_t>(rng() % ny);
            const auto rz = static_cast<std::uint32_t>(rng() % nz);
            ASSERT_EQ(packed.at(rx, ry, rz), plain.at(rx, ry, rz));
        }
    }
    for (std::uint32_t z = 0; z < nz; ++z)
        for (std::uint32_t y = 0; y < ny; ++y)
            for (std::uint32_t x = 0; x < nx; ++x) {
                ASSERT_EQ(packed.at(x, y, z), plain.at(x, y, z)) << x << "," << y << "," << z;
                ASSERT_LE(packed.expandedBlockCount(), 2u);
            }
    EXPECT_EQ(packed.counters(), plain.counters());

    packed.clear();
    EXPECT_EQ(packed.at(5, 4, 3), Mineral::Pore);
    EXPECT_DOUBLE_EQ(packed.porosity(), 1.0);
}

TEST(CompressedBlockedGrid, BlocksReallyShrinkAndStayCompressedAfterFilling) {
    const std::uint32_t n = 32;
    CompressedBlockedGrid<Code> grid(n, n, n, 0, 0, 0, 1.0, 16, 1);
    grid.beginFill(grid.blocksX() * grid.blocksY());
    for (std::uint32_t z = 0; z < n; ++z) {
        for (std::uint32_t y = 0; y < n; ++y)
            for (std::uint32_t x = 0; x < n; ++x)
                grid.fillCell(x, y, z, x < 10 ? Mineral::Quartz : Mineral::Pore);
        // The band of blocks is squeezed as soon as its last cell is set.
        EXPECT_EQ(grid.expandedBlockCount(), (z + 1) % 16 == 0 ? 0u : 4u) << "z=" << z;
    }
    grid.endFill();
    const std::vector<std::int64_t> index = grid.blockIndex();
    // Two minerals in slabs compress by far more than 10:1 at any zlib level.
    EXPECT_LT(std::accumulate(index.begin(), index.end(), std::int64_t{0}) * 10, n * n * n * 4);
    EXPECT_EQ(grid.counter(Mineral::Quartz), 10u * n * n);
    EXPECT_EQ(grid.at(9, 31, 31), Mineral::Quartz);
}

// A copy built from the layout, the index and the raw block bytes must equal the
// original, without any block being expanded on the way.
TEST(CompressedBlockedGrid, TransferThroughLayoutIndexAndBlockBytes) {
    CompressedBlockedGrid<Code> source(20, 9, 17, 2, 1, 3, 0.25, 8, 3);
    std::mt19937 rng(11);
    for (int i = 0; i < 600; ++i) {
        const auto x = static_cast<std::uint32_t>(rng() % 20);
        const auto y = static_cast<std::uint32_t>(rng() % 9);
        const auto z = static_cast<std::uint32_t>(rng() % 17);
        source.setCell(x, y, z, static_cast<Code>(rng() % 14));
    }
    // Leave one changed block expanded: its bytes must still be current when sent.
    source.setCell(19, 8, 16, Mineral::Pyrite);

    CompressedBlockedGrid<Code> target(source.layout());
    const std::vector<std::int64_t> index = source.blockIndex();
    ASSERT_EQ(index.size(), target.blockCount());
    for (std::uint32_t b = 0; b < target.blockCount(); ++b) {
        const std::vector<char>& bytes = source.blockBytes(b);
        ASSERT_EQ(static_cast<std::int64_t>(bytes.size()), index[b]);
        target.installBlock(b, source.blockDescription(b), bytes);
    }
    EXPECT_EQ(target.expandedBlockCount(), 0u);
    target.recountCounters();
    EXPECT_EQ(target.counters(), source.counters());
    EXPECT_EQ(target.cellSize(), 0.25);
    EXPECT_EQ(target.marginZ(), 3u);
    for (std::uint32_t z = 0; z < 17; ++z)
        for (std::uint32_t y = 0; y < 9; ++y)
            for (std::uint32_t x = 0; x < 20; ++x)
                ASSERT_EQ(target.at(x, y, z), source.at(x, y, z));

    // A write after the bytes were taken must not be lost on the next squeeze.
    source.setCell(19, 8, 16, Mineral::Mica);
    source.setMaxExpandedBlocks(1);
    (void)source.at(0, 0, 0);
    EXPECT_EQ(source.at(19, 8, 16), Mineral::Mica);

    std::vector<std::uint32_t> wrong = source.blockDescription(0);
    wrong[3] += 1;
    EXPECT_THROW(target.installBlock(0, wrong, source.blockBytes(0)), Exception);
    EXPECT_THROW(CompressedBlockedGrid<Code>(CompressedGridLayout{{1, 2, 3}, 1.0, 8, 1}),
                 Exception);
}

TEST(CompressedBlockedGrid, DamagedBlockBytesRaiseTheZlibErrors) {
    CompressedBlockedGrid<Code> source(8, 8, 8, 0, 0, 0, 1.0, 4);
    source.setCell(1, 1, 1, Mineral::Clay);
    CompressedBlockedGrid<Code> big(8, 8, 6, 0, 0, 0, 1.0, 4);
    big.setCell(1, 1, 5, Mineral::Clay);  // one block along z: 4 x 4 x 6 cells

    test::RecordingLogger logger;
    CompressedBlockedGrid<Code> target(8, 8, 8, 0, 0, 0, 1.0, 4, 16, &logger);
    // Bytes of a larger block do not fit in this block's cells.
    target.installBlock(0, source.blockDescription(0), big.blockBytes(big.blockNumber(1, 1, 5)));
    const std::string tooSmall = "zlib (un)compress failed (dest buf too small)";
    EXPECT_THROW_MSG(target.at(0, 0, 0), Exception, tooSmall);
    EXPECT_EQ(logger.errors, std::vector<std::string>{tooSmall});

    std::vector<std::uint32_t> garbled = source.blockDescription(1);
    garbled[6] = 1;
    target.installBlock(1, garbled, std::vector<char>(40, 'x'));
    EXPECT_THROW((void)target.at(5, 0, 0), Exception);
}

TEST(CompressedBlockedGrid, MemoryBudgetSetsTheBlockLimitOrRefuses) {
    CompressedBlockedGrid<Code> grid(200, 130, 64, 0, 0, 0, 1.0, 64, 1);
    // Blocks: 3 x 2 x 1, the largest 72 x 66 x 64 cells.
    ASSERT_EQ(grid.blockCount(), 6u);
    ASSERT_EQ(grid.largestBlockCells(), 72u * 66u * 64u);
    const double mib = 1024.0 * 1024.0, blockMb = 72.0 * 66 * 64 * 4 / mib;
    const double overheadMb = static_cast<double>(grid.overheadBytes()) / mib;

    grid.applyMemoryBudget(overheadMb + blockMb * 2.5 / 0.9);
    EXPECT_EQ(grid.maxExpandedBlocks(), 3u);  // ceil(2.5)
    grid.applyMemoryBudget(1000.0);
    EXPECT_EQ(grid.maxExpandedBlocks(), 6u);  // never more than there are blocks
    // ceil((1.16 + overhead) * 1.1) = 2, printed as a float would print it.
    EXPECT_THROW_MSG(grid.applyMemoryBudget(1.0), Exception,
                     "Not enough memory available, need at least 2 MB for the grid.");
}

}  // namespace
}  // namespace nmr
