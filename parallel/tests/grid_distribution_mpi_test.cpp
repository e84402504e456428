#include <gtest/gtest.h>

#include <sstream>
#include <tuple>

#include "io/grain_bed_grid_writer.h"
#include "io/grid_loader.h"
#include "mpi/message_passing.h"
#include "mpi/node_topology.h"
#include "parallel/grid_distribution.h"
#include "testutil/temp_dir.h"
#include "walk/block_key_tables.h"
#include "walk/walker_creation.h"

namespace nmr {
namespace {

TEST(GridDistributionRules, PlainSizeEstimateWrapsAt32Bits) {
    // 100^3 cells -> 125000 eighths -> 500000 bytes.
    EXPECT_DOUBLE_EQ(estimatedPlainGridMb(100, 100, 100), 500000.0 / 1048576.0);
    EXPECT_DOUBLE_EQ(estimatedPlainGridMb(3, 1, 1), 4.0 / 1048576.0);  // rounded up
    // 4096^3 / 8 = 2^33: its low 32 bits are 0, so the estimate wraps to nothing.
    EXPECT_DOUBLE_EQ(estimatedPlainGridMb(4096, 4096, 4096), 0.0);
    EXPECT_DOUBLE_EQ(estimatedPlainGridMb(4096, 4096, 4104), 4096.0 * 4096 * 8 / 8 * 4 / 1048576.0);
    // Equality keeps the plain representation.
    EXPECT_FALSE(needsCompressedGrid(1250.0, 1000));
    EXPECT_TRUE(needsCompressedGrid(1250.0001, 1000));
}

TEST(GridDistributionRules, PlainWalkerShares) {
    const std::vector<std::int32_t> expected = {3, 3, 2, 2};
    for (int r = 0; r < 4; ++r) EXPECT_EQ(localWalkerCount(10, r, 4), expected[r]);
    EXPECT_EQ(localWalkerCount(7, 0, 1), 7);
    EXPECT_EQ(localWalkerCount(2, 3, 4), 0);
}

// A rock of nx*ny*nz cells where a cell is Quartz when (x + 2y + 3z) % 5 == 0, else pore;
// one cell may be given a different code.
class DistributionTest : public ::testing::Test {
protected:
    static Mineral::Type expectedCell(std::uint32_t x, std::uint32_t y, std::uint32_t z) {
        return (x + 2 * y + 3 * z) % 5 == 0 ? Mineral::Quartz : Mineral::Pore;
    }
    std::string writeRock(std::uint32_t nx, std::uint32_t ny, std::uint32_t nz,
                          std::uint32_t badCode = 0) {
        std::string path = dir_.file("rock.binc");
        if (mpi::rank() == 0) {
            GrainBedGridWriter writer(path, nx, ny, nz, 0, 0, 0, 2.0);
            std::vector<GrainBedGridCell> slice(static_cast<std::size_t>(nx) * ny);
            for (std::uint32_t z = 0; z < nz; ++z) {
                for (std::uint32_t y = 0; y < ny; ++y)
                    for (std::uint32_t x = 0; x < nx; ++x)
                        slice[y * nx + x] = GrainBedGridCell::make(0, expectedCell(x, y, z));
                if (badCode != 0 && z == nz / 2) slice[0] = GrainBedGridCell::make(0, badCode);
                writer.writeSlice(slice.data());
            }
            writer.close();
        }
        mpi::barrier();
        return path;
    }
    // This process's copy of the grid at path; its walkers and console output land in
    // walkers_ and console_.
    DistributedGrid distribute(RandomStream& stream, const std::string& path,
                               std::uint32_t memoryMb, std::int32_t walkers,
                               RegionOfInterest region = {}) {
        walkers_.clear();
        console_.str("");
        return distributeGridAndWalkers({mpi::rank(), mpi::size(), path, region, memoryMb, walkers},
                                        stream, walkers_, console_);
    }
    static void expectSameCells(const auto& grid, const BlockBounds& box) {
        for (std::uint32_t z = box.z0; z < box.z1; ++z)
            for (std::uint32_t y = box.y0; y < box.y1; ++y)
                for (std::uint32_t x = box.x0; x < box.x1; ++x)
                    ASSERT_EQ(grid.at(x, y, z), expectedCell(x, y, z)) << x << "," << y << "," << z;
    }
    static void expectSameRock(const ByteMineralGrid& grid) {
        expectSameCells(grid, BlockBounds{0, 0, 0, grid.nx(), grid.ny(), grid.nz()});
    }
    // Block by block: a compressed grid keeps only a few blocks expanded.
    static void expectSameRock(const CompressedBlockedGrid<Mineral::Type>& grid) {
        for (std::uint32_t b = 0; b < grid.blockCount(); ++b)
            expectSameCells(grid, grid.blockBounds(b));
    }
    test::SharedTempDir dir_;
    std::vector<Walker> walkers_;
    std::ostringstream console_;
};

TEST_F(DistributionTest, PlainModeReplicatesEveryCellAndSplitsWalkers) {
    const std::string path = writeRock(20, 17, 13);
    RandomStream stream(8008u + static_cast<std::uint32_t>(mpi::rank()));
    const DistributedGrid copy = distribute(stream, path, 1500, 103);
    ASSERT_TRUE(copy.plain() != nullptr);
    EXPECT_EQ(copy.compressed(), nullptr);
    expectSameRock(*copy.plain());
    EXPECT_DOUBLE_EQ(copy.grid().cellSize(), 2.0);
    // Every process agrees on the volume fractions the summary is computed from.
    EXPECT_DOUBLE_EQ(mpi::allReduce(copy.grid().porosity(), MPI_MAX),
                     mpi::allReduce(copy.grid().porosity(), MPI_MIN));
    EXPECT_EQ(static_cast<std::int32_t>(walkers_.size()),
              localWalkerCount(103, mpi::rank(), mpi::size()));
    for (const Walker& w : walkers_)
        EXPECT_EQ(copy.plain()->at(std::uint32_t(w.x), std::uint32_t(w.y), std::uint32_t(w.z)),
                  Mineral::Pore);
    if (mpi::rank() == 0) {
        EXPECT_NE(console_.str().find("* Read grid time: "), std::string::npos);
        EXPECT_EQ(console_.str().find("* Distribute time: ") != std::string::npos, mpi::size() > 1);
    } else {
        EXPECT_TRUE(console_.str().empty());
    }

    // One copy per node: a cell the node leader changes changes for its whole node, and
    // for no other node.
    const auto topology = mpi::NodeTopology::discover();
    const int node =
        mpi::allReduce(topology->isLeader() ? mpi::rank() : 0, MPI_MAX, topology->node());
    mpi::barrier();
    if (topology->isLeader()) copy.plain()->sliceData(0)[1] = static_cast<std::uint8_t>(100 + node);
    MPI_Barrier(MPI_COMM_WORLD);
    EXPECT_EQ(static_cast<int>(copy.plain()->at(1, 0, 0)), 100 + node);
    MPI_Barrier(MPI_COMM_WORLD);
}

TEST_F(DistributionTest, PlainGridBeyondTheNodesMemoryEndsEveryProcess) {
    // A header of 16384^3 cells with no cells behind it: the four-byte estimate wraps to
    // nothing, so the plain copy is chosen, and it needs 4 TiB on every node.
    const std::string path = dir_.file("huge.binc");
    if (mpi::rank() == 0) {
        GrainBedGridWriter writer(path, 16384, 16384, 16384, 0, 0, 0, 1.0);
    }
    mpi::barrier();
    RandomStream stream(1u);
    const DistributedGrid copy = distribute(stream, path, 1500, 10);
    EXPECT_FALSE(copy);
    EXPECT_TRUE(walkers_.empty());
    if (mpi::rank() == 0) {
        EXPECT_EQ(console_.str().rfind("Not enough memory to hold the grid once per node: 4194304 "
                                       "MB needed, ",
                                       0),
                  0u)
            << console_.str();
        EXPECT_EQ(console_.str().find("* Read grid time"), std::string::npos);
    }
}

TEST_F(DistributionTest, CompressedModeSendsBlocksAndScattersSortedWalkers) {
    // 200^3 cells: the plain estimate is 3.8 MiB, so a 3 MB limit (0.8 * 3.8 > 3) forces
    // the compressed copy, and 2 MB remain for expanded 64^3 blocks of 1 MiB.
    const std::string path = writeRock(200, 200, 200);
    RandomStream stream(77u + static_cast<std::uint32_t>(mpi::rank()));
    const std::int32_t total = 203;
    const DistributedGrid copy = distribute(stream, path, 3, total);
    ASSERT_TRUE(copy.compressed() != nullptr);
    EXPECT_EQ(copy.plain(), nullptr);
    expectSameRock(*copy.compressed());
    EXPECT_EQ(copy.grid().counters(), copy.compressed()->counters());
    const int size = mpi::size();
    const std::int32_t share = total / size;
    const std::int32_t expected = mpi::rank() == 0 ? share + total % size : share;
    EXPECT_EQ(static_cast<std::int32_t>(walkers_.size()), expected);
    // The walkers are those of the one-at-a-time sorted placement from process 0's
    // stream, each process holding its run of them and process 0 the remainder too.
    const BlockKeyTables tables = makeBlockKeyTables(200, 200, 200);
    NullLogger quiet;
    NullProgressReporter progress;
    const auto plain = loadSlicedGrid(path, GridLoadOptions{}, quiet, progress);
    RandomStream reference(77u);
    std::vector<Walker> placed;
    createWalkersSorted(reference, makeWalkGridView(*plain), total, placed, tables);
    const std::ptrdiff_t begin = std::ptrdiff_t{mpi::rank()} * share;
    std::vector<Walker> mine(placed.begin() + begin, placed.begin() + begin + share);
    if (mpi::rank() == 0) {
        mine.insert(mine.end(), placed.begin() + std::ptrdiff_t{size} * share, placed.end());
    }
    ASSERT_EQ(walkers_.size(), mine.size());
    for (std::size_t i = 0; i < mine.size(); ++i) {
        EXPECT_EQ(std::tie(walkers_[i].x, walkers_[i].y, walkers_[i].z),
                  std::tie(mine[i].x, mine[i].y, mine[i].z));
    }
    // The grouped placement leaves process 0's stream where the plain one does.
    if (mpi::rank() == 0) {
        EXPECT_EQ(stream.next(), reference.next());
    }
    for (const Walker& w : walkers_)
        EXPECT_EQ(copy.compressed()->at(std::uint32_t(w.x), std::uint32_t(w.y), std::uint32_t(w.z)),
                  Mineral::Pore);
    if (mpi::rank() == 0) {
        EXPECT_NE(console_.str().find("* Create walkers time: "), std::string::npos);
    }
}

TEST_F(DistributionTest, FailuresEndEveryProcessWithAnEmptyGrid) {
    struct Case {
        std::string name;
        std::uint32_t badCode;
        bool missing;
        bool region;
        std::uint32_t memoryMb;
        std::string message;
        std::uint32_t edge = 40;
    };
    const std::vector<Case> cases = {
        {"missing file", 0, true, false, 1500, "Unable to read grid file: "},
        {"region too large", 0, false, true, 1500, "Sub-region size does not match grid size.\n"},
        {"code 14", 14, false, false, 1500,
         "The grid contains voxels which have\nnot been assigned a valid mineral value.\nOnly "
         "mineral and pore voxels are currently supported.\n"},
        {"code 15 compressed", 15, false, false, 3, "The grid contains voxels which have\n", 200},
        {"budget below one block", 0, false, false, 0,
         "Not enough memory available, need at least "},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::string path = writeRock(c.edge, c.edge, c.edge, c.badCode);
        if (c.missing) path += ".absent";
        RandomStream stream(1u);
        const RegionOfInterest region =
            c.region ? RegionOfInterest{0, 10, 0, 41, 0, 5, true} : RegionOfInterest{};
        EXPECT_FALSE(distribute(stream, path, c.memoryMb, 50, region));
        if (mpi::rank() == 0) {
            EXPECT_NE(console_.str().find(c.message), std::string::npos) << console_.str();
        }
    }
}

}  // namespace
}  // namespace nmr
