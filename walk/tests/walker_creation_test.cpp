#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <tuple>
#include <vector>

#include "grid/sliced_grid.h"
#include "walk/walker_creation.h"

namespace nmr {
namespace {

using MineralGrid = SlicedGrid<Mineral::Type>;
using Solid = std::function<bool(std::uint32_t, std::uint32_t, std::uint32_t)>;

MineralGrid makeGrid(std::uint32_t nx, std::uint32_t ny, std::uint32_t nz, const Solid& solid) {
    MineralGrid grid(nx, ny, nz, 0, 0, 0, 1.0);
    for (std::uint32_t z = 0; z < nz; ++z)
        for (std::uint32_t y = 0; y < ny; ++y)
            for (std::uint32_t x = 0; x < nx; ++x)
                if (solid(x, y, z)) grid.sliceData(z)[y * nx + x] = Mineral::Quartz;
    return grid;
}

const Solid kOpen = [](auto, auto, auto) { return false; };

TEST(CreateWalkers, ThreeDrawsPerPointBelowTheTopLayerAppended) {
    const auto grid = makeGrid(5, 1, 9, kOpen);
    RandomStream stream(3u);
    RandomStream reference = stream;
    std::vector<Walker> walkers = {{-1.0, -1.0, -1.0}};
    createWalkers(stream, makeWalkGridView(grid), 100, walkers);
    ASSERT_EQ(walkers.size(), 101u);
    EXPECT_EQ(walkers[0].x, -1.0) << "existing walkers stay";
    for (std::size_t i = 1; i < walkers.size(); ++i) {
        // Draw order x, y, z; u in [1, 2) onto [0, size - 1); a size-1 axis gives 0.
        EXPECT_EQ(walkers[i].x, 4.0 * (reference.next() - 1.0));
        EXPECT_EQ(walkers[i].y, 0.0 * (reference.next() - 1.0));
        EXPECT_EQ(walkers[i].z, 8.0 * (reference.next() - 1.0));
    }
    for (std::int32_t n : {0, -3}) createWalkers(stream, makeWalkGridView(grid), n, walkers);
    EXPECT_EQ(walkers.size(), 101u);
    EXPECT_EQ(stream.next(), reference.next()) << "three draws per walker, none for n < 1";
}

TEST(CreateWalkers, RejectedPointsConsumeTheirDraws) {
    // The walkers on a half-solid grid are the pore points among the candidates that
    // an all-pore grid yields from the same seed, in the same order.
    const std::uint32_t n = 12;
    const auto checker = makeGrid(n, n, n, [](auto x, auto y, auto z) { return (x + y + z) % 2; });
    std::vector<Walker> candidates, walkers;
    RandomStream a(99u), b(99u);
    createWalkers(a, makeWalkGridView(makeGrid(n, n, n, kOpen)), 2000, candidates);
    createWalkers(b, makeWalkGridView(checker), 400, walkers);
    std::size_t next = 0;
    for (const Walker& c : candidates) {
        if (next == walkers.size()) break;
        const auto at = [](double v) { return static_cast<std::uint32_t>(v); };
        if (checker.at(at(c.x), at(c.y), at(c.z)) != Mineral::Pore) continue;
        ASSERT_EQ(std::tie(walkers[next].x, walkers[next].y, walkers[next].z),
                  std::tie(c.x, c.y, c.z))
            << next;
        ++next;
    }
    EXPECT_EQ(next, walkers.size());
}

TEST(BlockKeyTables, LastBlockRunsToTheEndOfTheAxis) {
    const auto t = makeBlockKeyTables(200, 64, 10);
    EXPECT_EQ(t.countX, 3u);  // blocks of 64, 64 and 72
    EXPECT_EQ(t.countZ, 1u);  // 10 / 64 = 0, raised to 1
    EXPECT_EQ(std::tie(t.tx[63], t.tx[64], t.tx[128], t.tx[199], t.tz[9]),
              std::make_tuple(0u, 1u, 2u, 2u, 0u));
    const auto small = makeBlockKeyTables(9, 6, 7, 3);  // 3 x 2 x 2 blocks
    EXPECT_EQ(small.key(Walker{8.5, 5.9, 6.2}), (1u * 2 + 1) * 3 + 2);
    EXPECT_EQ(small.key(Walker{0.0, 3.5, 2.9}), (0u * 2 + 1) * 3 + 0);
    EXPECT_THROW(makeBlockKeyTables(4, 4, 4, 0), Exception);
}

TEST(CreateWalkersSorted, SameWalkersInAscendingBlockOrder) {
    const std::uint32_t n = 40;
    const auto grid =
        makeGrid(n, n, n, [](auto x, auto y, auto z) { return (x * y + z) % 5 == 0; });
    const auto tables = makeBlockKeyTables(n, n, n, 8);
    RandomStream a(17u), b(17u);
    std::vector<Walker> plain, sorted;
    createWalkers(a, makeWalkGridView(grid), 3000, plain);
    createWalkersSorted(b, makeWalkGridView(grid), 2000, sorted, tables);
    // n < 1 adds nothing but still sorts what is there.
    createWalkers(b, makeWalkGridView(grid), 1000, sorted);
    createWalkersSorted(b, makeWalkGridView(grid), 0, sorted, tables);
    ASSERT_EQ(sorted.size(), plain.size());
    for (std::size_t i = 1; i < sorted.size(); ++i)
        ASSERT_LE(tables.key(sorted[i - 1]), tables.key(sorted[i])) << i;
    auto byPosition = [](const Walker& p, const Walker& q) {
        return std::tie(p.x, p.y, p.z) < std::tie(q.x, q.y, q.z);
    };
    std::sort(plain.begin(), plain.end(), byPosition);
    std::sort(sorted.begin(), sorted.end(), byPosition);
    for (std::size_t i = 0; i < plain.size(); ++i)
        ASSERT_EQ(std::tie(plain[i].x, plain[i].y, plain[i].z),
                  std::tie(sorted[i].x, sorted[i].y, sorted[i].z));
}

}  // namespace
}  // namespace nmr
