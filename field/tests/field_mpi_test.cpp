// The collective field against the one-process field, bit for bit, at 1 to 4 processes
// (and as two pretend nodes): the grid is distributed as a run distributes it, once per
// node in shared memory, and the field goes through the collective writer.
#include <gtest/gtest.h>
#include <mpi.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <sstream>

#include "field/dipole_field.h"
#include "field/field_file.h"
#include "field/gradient_statistics.h"
#include "grid/byte_mineral_grid.h"
#include "io/grain_bed_grid_writer.h"
#include "parallel/grid_distribution.h"
#include "testutil/temp_dir.h"

namespace nmr::field {
namespace {

// Not cubic, no power of two, one axis (94) whose padded length 189 is one of those where
// FFTW's double transforms depend on the CPU. (A run loads a grid without its margins.)
const Extent kSize{23, 94, 11};

Mineral::Type cellOf(std::uint32_t x, std::uint32_t y, std::uint32_t z) {
    const std::uint32_t h = (x * 73856093u) ^ (y * 19349663u) ^ (z * 83492791u);
    if (std::hypot(x - 9.0, y - 40.0, z - 5.0) < 4.5) return Mineral::Pyrite;
    return h % 7 < 3 ? Mineral::Quartz : h % 7 == 3 ? Mineral::Clay : Mineral::Pore;
}

Susceptibilities chi() {
    Susceptibilities s{};
    s.fill(-9.05e-6);
    s[Mineral::Quartz] = -1.65e-5;
    s[Mineral::Clay] = 2.0e-4;
    s[Mineral::Pyrite] = 1.2e-3;
    return s;
}

std::shared_ptr<ByteMineralGrid> localGrid() {
    auto grid = std::make_shared<ByteMineralGrid>(kSize[0], kSize[1], kSize[2], 0, 0, 0, 2.5);
    for (std::uint32_t z = 0; z < kSize[2]; ++z)
        for (std::uint32_t y = 0; y < kSize[1]; ++y)
            for (std::uint32_t x = 0; x < kSize[0]; ++x) grid->setCell(x, y, z, cellOf(x, y, z));
    return grid;
}

class CollectiveField : public ::testing::Test {
protected:
    std::string writeRock() {
        std::string path = dir_.file("rock.binc");
        if (rank_ == 0) {
            GrainBedGridWriter writer(path, kSize[0], kSize[1], kSize[2], 0, 0, 0, 2.5);
            std::vector<GrainBedGridCell> slice(std::size_t{kSize[0]} * kSize[1]);
            for (std::uint32_t z = 0; z < kSize[2]; ++z) {
                for (std::uint32_t y = 0; y < kSize[1]; ++y)
                    for (std::uint32_t x = 0; x < kSize[0]; ++x)
                        slice[y * kSize[0] + x] = GrainBedGridCell::make(0, cellOf(x, y, z));
                writer.writeSlice(slice.data());
            }
            writer.close();
        }
        MPI_Barrier(MPI_COMM_WORLD);
        return path;
    }

    int rank_ = [] {
        int r = 0;
        MPI_Comm_rank(MPI_COMM_WORLD, &r);
        return r;
    }();
    int size_ = [] {
        int s = 1;
        MPI_Comm_size(MPI_COMM_WORLD, &s);
        return s;
    }();
    test::SharedTempDir dir_;
};

// The rock as a run holds it, the field in slabs, written by the collective writer and
// read back: the same bits as one process computing the whole field, and so are the
// gradient statistics.
TEST_F(CollectiveField, HasTheBitsOfTheOneProcessField) {
    RandomStream stream(1);
    std::vector<Walker> walkers;
    std::ostringstream console;
    DistributedGrid grid = distributeGridAndWalkers(
        {rank_, size_, writeRock(), {}, kDefaultMemoryLimitMb, 0}, stream, walkers, console);
    ASSERT_TRUE(grid && grid.plain() != nullptr) << console.str();

    const FieldOptions options{Axis::Y, kDefaultPadding};
    const FieldSlab slab = computeFieldSlab(grid.grid(), chi(), options, MPI_COMM_WORLD);
    EXPECT_EQ(slab.slab.zCount * std::size_t{kSize[0]} * kSize[1], slab.values.size());
    writeFieldSlabs(dir_.file("field.mhd"), slab, 2.5, MPI_COMM_WORLD);
    const GradientStatistics all = poreGradientStatistics(grid.grid(), slab, 0.5, MPI_COMM_WORLD);
    grid = {};

    if (rank_ != 0) return;
    const auto reference = localGrid();
    const std::vector<float> alone = computeField(*reference, chi(), options);
    const std::vector<float> written = readFieldFile(dir_.file("field.mhd"), kSize);
    ASSERT_EQ(written.size(), alone.size());
    EXPECT_EQ(std::memcmp(written.data(), alone.data(), alone.size() * sizeof(float)), 0);

    const FieldSlab whole = computeFieldSlab(*reference, chi(), options, MPI_COMM_SELF);
    EXPECT_EQ(std::memcmp(whole.values.data(), alone.data(), alone.size() * sizeof(float)), 0);
    const GradientStatistics one = poreGradientStatistics(*reference, whole, 0.5, MPI_COMM_SELF);
    EXPECT_EQ(std::tuple(all.cells, all.mean, all.median, all.percentile90, all.counts, all.zeros),
              std::tuple(one.cells, one.mean, one.median, one.percentile90, one.counts, one.zeros));
    EXPECT_EQ(one.cells, reference->counter(Mineral::Pore));
}

// dB/B0 = c z^2 in a grid of pore (margins aside) whose slabs split z: the gradient is
// B0 c |d(z^2)/dz| / h, 2z by central differences inside, 1 and 2n - 3 on the faces, all
// exact in floats. Wrong neighbours across a slab boundary, a wrong one-sided rule or a
// percentile off by a rank would show.
TEST(GradientStatistics, OfAKnownFieldAcrossSlabBoundaries) {
    int rank = 0, size = 1;
    MPI_Comm_rank(MPI_COMM_WORLD, &rank);
    MPI_Comm_size(MPI_COMM_WORLD, &size);
    const Extent n{4, 3, 13};
    const double c = 1.0 / 1024, b0 = 3.0, cellUm = 0.5;
    ByteMineralGrid grid(n[0], n[1], n[2], 0, 1, 0, cellUm);
    grid.setCell(2, 1, 6, Mineral::Quartz);  // left out
    FieldSlab slab{n, slabOf(n[2], rank, size), {}};
    for (std::uint32_t k = 0; k < slab.slab.zCount; ++k) {
        const double z = slab.slab.zBegin + k;
        slab.values.insert(slab.values.end(), std::size_t{n[0]} * n[1],
                           static_cast<float>(c * z * z));
    }
    const GradientStatistics stats = poreGradientStatistics(grid, slab, b0, MPI_COMM_WORLD);

    std::vector<double> expected;  // interior y is row 1 only
    for (std::uint32_t z = 0; z < n[2]; ++z) {
        const double d = z == 0 ? 1.0 : z == n[2] - 1 ? 2.0 * n[2] - 3.0 : 2.0 * z;
        for (std::uint32_t x = 0; x < n[0]; ++x)
            if (!(x == 2 && z == 6)) expected.push_back(b0 / (cellUm * 1e-6) * (c * d));
    }
    std::sort(expected.begin(), expected.end());
    const std::size_t count = expected.size();
    EXPECT_EQ(stats.cells, count);
    EXPECT_EQ(stats.median, static_cast<float>(expected[(count + 1) / 2 - 1]));
    EXPECT_EQ(stats.percentile90, static_cast<float>(expected[(9 * count + 9) / 10 - 1]));
    double sum = 0.0;
    for (double g : expected) sum += g;
    EXPECT_NEAR(stats.mean, sum / static_cast<double>(count), 1e-12 * stats.mean);
    std::uint64_t histogram = stats.zeros;
    for (std::uint64_t k : stats.counts) histogram += k;
    EXPECT_EQ(histogram, count);
}

}  // namespace
}  // namespace nmr::field
