#include <gtest/gtest.h>

#include "grid/sliced_grid.h"
#include "testutil/checks.h"

namespace nmr {
namespace {

TEST(MirrorIndex, ReflectsWithoutRepeatingTheEdge) {
    // n = 4: ... 2 1 | 0 1 2 3 | 2 1 0 1 2 3 2 ...
    const std::vector<std::pair<std::int32_t, std::uint32_t>> cases = {
        {-7, 1}, {-6, 0}, {-3, 3}, {-2, 2}, {-1, 1}, {0, 0}, {3, 3},
        {4, 2},  {5, 1},  {6, 0},  {7, 1},  {9, 3},  {10, 2}};
    for (auto [i, expected] : cases) EXPECT_EQ(mirrorIndex(i, 4), expected) << "i=" << i;
    for (std::int32_t i : {-5, -1, 0, 1, 100}) EXPECT_EQ(mirrorIndex(i, 1), 0u);
    EXPECT_EQ(mirrorIndex(INT32_MIN, 7), mirrorIndex(INT32_MIN + 12 * 1000, 7));
    EXPECT_LT(mirrorIndex(INT32_MAX, 5), 5u);
}

// Each axis loses its own margin twice: a mix-up of axes changes every count.
TEST(SlicedGrid, SizesAndInteriorCounts) {
    SlicedGrid<Mineral::Type> grid(10, 10, 10, 1, 2, 3, 2.5);
    EXPECT_EQ(std::tuple(grid.interiorNx(), grid.interiorNy(), grid.interiorNz(),
                         grid.interiorCellCount(), grid.totalCellCount()),
              std::tuple(8u, 6u, 4u, 192u, 1000u));
    EXPECT_DOUBLE_EQ(grid.cellSize(), 2.5);
    EXPECT_DOUBLE_EQ(grid.porosity(), 1.0);
}

TEST(SlicedGrid, CountersFollowInteriorChangesOnly) {
    SlicedGrid<Mineral::Type> grid(6, 5, 4, 1, 1, 1, 1.0);
    const auto pore0 = grid.counter(Mineral::Pore);
    grid.setCell(2, 2, 2, Mineral::Quartz);
    EXPECT_EQ(grid.counter(Mineral::Pore), pore0 - 1);
    EXPECT_EQ(grid.counter(Mineral::Quartz), 1u);
    grid.setCell(2, 2, 2, Mineral::Quartz);  // same mineral: no change
    EXPECT_EQ(grid.counter(Mineral::Quartz), 1u);
    grid.setCell(2, 2, 2, Mineral::Clay);
    EXPECT_EQ(grid.counter(Mineral::Quartz), 0u);
    EXPECT_EQ(grid.counter(Mineral::Clay), 1u);
    grid.setCell(0, 0, 0, Mineral::Pyrite);  // margin cell: stored, not counted
    EXPECT_EQ(grid.at(0, 0, 0), Mineral::Pyrite);
    EXPECT_EQ(grid.counter(Mineral::Pyrite), 0u);
    EXPECT_DOUBLE_EQ(grid.volumeFraction(Mineral::Clay), 1.0 / 24.0);

    // A code beyond the counter table is a range error, not silent corruption.
    EXPECT_THROW(grid.setCell(2, 2, 2, Mineral::Unknown), std::out_of_range);

    grid.clear();
    EXPECT_DOUBLE_EQ(grid.porosity(), 1.0);
    EXPECT_EQ(grid.counter(Mineral::Clay), 0u);
    EXPECT_EQ(grid.at(0, 0, 0), Mineral::Pore);
}

TEST(SlicedGrid, SecondAllocationIsRefused) {
    SlicedGrid<Mineral::Type> grid(3, 3, 3, 0, 0, 0, 1.0);
    NullProgressReporter progress;
    EXPECT_THROW_MSG(grid.allocate(progress), Exception, "Grid already allocated.");
}

TEST(SlicedGrid, CopyAndMakeEmptyKeepGeometry) {
    SlicedGrid<GrainBedGridCell> source(4, 3, 2, 0, 0, 0, 0.5);
    for (std::uint32_t z = 0; z < 2; ++z)
        for (std::uint32_t y = 0; y < 3; ++y)
            for (std::uint32_t x = 0; x < 4; ++x)
                source.setCell(x, y, z, GrainBedGridCell::make(x + 4 * y, (x + y + z) % 4, 3));
    auto target = source.makeEmpty();
    EXPECT_EQ(target->nx(), 4u);
    EXPECT_DOUBLE_EQ(target->cellSize(), 0.5);
    EXPECT_DOUBLE_EQ(target->porosity(), 1.0);
    source.copyTo(*target);
    for (std::uint32_t z = 0; z < 2; ++z)
        for (std::uint32_t y = 0; y < 3; ++y)
            for (std::uint32_t x = 0; x < 4; ++x)
                EXPECT_EQ(target->get(x, y, z), source.get(x, y, z));
    EXPECT_EQ(target->counters(), source.counters());

    SlicedGrid<bool> mask(2, 2, 1, 0, 0, 0, 1.0);
    mask.setCell(1, 1, 0, true);
    EXPECT_TRUE(mask.at(1, 1, 0));
    EXPECT_DOUBLE_EQ(mask.porosity(), 0.75);
}

}  // namespace
}  // namespace nmr
