#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>
#include <vector>

#include "grid/sliced_grid.h"
#include "walk/walker_creation.h"

namespace nmr {
namespace {

SlicedGrid<Mineral::Type> checkerboard(std::uint32_t n) {
    SlicedGrid<Mineral::Type> grid(n, n, n, 0, 0, 0, 1.0);
    for (std::uint32_t i = 0; i < n * n * n; ++i)
        if ((i % n + i / n % n + i / n / n) % 2)
            grid.sliceData(i / n / n)[i % (n * n)] = Mineral::Quartz;
    return grid;
}

auto position(const Walker& w) { return std::tie(w.x, w.y, w.z); }

TEST(CreateWalkers, PoreCandidatesBelowTheTopLayerAndRejectedOnesConsumeTheirDraws) {
    const auto grid = checkerboard(12);
    const auto view = makeWalkGridView(grid);
    RandomStream stream(99u), reference(99u);
    std::vector<Walker> walkers = {{-1.0, -1.0, -1.0}};  // kept, and appended to
    createWalkers(stream, view, 400, walkers);
    createWalkers(stream, view, 0, walkers);
    ASSERT_EQ(walkers.size(), 401u);
    // Draws x, y, z map u in [1, 2) onto [0, 11): the top layer never gets a walker.
    for (std::size_t i = 1; i < walkers.size();) {
        const double x = 11 * (reference.next() - 1.0), y = 11 * (reference.next() - 1.0);
        const double z = 11 * (reference.next() - 1.0);
        if (view.mineralAt(x, y, z) != Mineral::Pore) continue;
        ASSERT_EQ(position(walkers[i++]), std::tie(x, y, z));
    }
    EXPECT_EQ(walkers[0].x, -1.0);
    EXPECT_EQ(stream.next(), reference.next()) << "no draws for n = 0";
}

TEST(CreateWalkersSorted, SameWalkersInAscendingBlockOrder) {
    const auto grid = checkerboard(40);
    const auto view = makeWalkGridView(grid);
    const auto tables = makeBlockKeyTables(40, 40, 40, 12);  // blocks of 12, 12 and 16 voxels
    EXPECT_EQ(tables.key(Walker{39.5, 0.5, 12.0}), (1u * 3 + 0) * 3 + 2);  // (bz ny + by) nx + bx
    RandomStream a(17u), b(17u);
    std::vector<Walker> plain, sorted;
    createWalkers(a, view, 3000, plain);
    createWalkers(b, view, 1000, sorted);
    createWalkersSorted(b, view, 2000, sorted, tables);  // sorts the whole array
    for (std::size_t i = 1; i < sorted.size(); ++i)
        ASSERT_LE(tables.key(sorted[i - 1]), tables.key(sorted[i])) << i;
    EXPECT_TRUE(std::is_permutation(plain.begin(), plain.end(), sorted.begin(), sorted.end(),
                                    [](auto& p, auto& q) { return position(p) == position(q); }));
}

}  // namespace
}  // namespace nmr
