#include <gtest/gtest.h>

#include <cmath>
#include <tuple>
#include <vector>

#include "grid/sliced_grid.h"
#include "walk/step_schedule.h"
#include "walk/walk.h"
#include "walk/walker_creation.h"

namespace nmr {
namespace {

using MineralGrid = SlicedGrid<Mineral::Type>;

std::vector<Walker> walkersIn(const MineralGrid& grid, int n, std::uint32_t seed) {
    RandomStream stream(seed);
    std::vector<Walker> walkers;
    createWalkers(stream, makeWalkGridView(grid), n, walkers);
    return walkers;
}

auto position(const Walker& w) { return std::tie(w.x, w.y, w.z); }

// The walk draw by draw, written plainly: the reference for the batched loop.
bool referenceSteps(RandomStream& stream, Walker& w, std::uint32_t count, double s,
                    const WalkGridView<MineralGrid>& view, const AbsorptionTable& p) {
    for (std::uint32_t n = 0; n < count; ++n) {
        auto u = [&stream] { return 2.0 * (stream.next() - 1.0) - 1.0; };
        const double dz = u(), dy = u(), dx = u();  // in this order
        const double f = s / std::sqrt(dz * dz + (dx * dx + dy * dy));
        const Walker next{w.x + f * dx, w.y + f * dy, w.z + f * dz};
        const Mineral::Type code = view.mineralAt(next.x, next.y, next.z);
        const bool absorbed = code != Mineral::Pore && p[code] > stream.next() - 1.0;
        if (code == Mineral::Pore || absorbed) w = next;
        if (absorbed) return true;
    }
    return false;
}

TEST(WalkInterval, SameSeedGivesTheDrawByDrawWalkBitForBitThroughTheMirroredGrid) {
    // Walkers wander through many mirror periods (and a size-1 axis), touch the scattered
    // solids often, and regenerations fall on every draw position of a step.
    MineralGrid grid(6, 1, 5, 0, 0, 0, 1.0);
    for (auto [x, z] : {std::pair{3, 0}, {1, 1}, {4, 3}, {2, 4}})
        grid.sliceData(z)[x] = Mineral::Quartz;
    const auto view = makeWalkGridView(grid);
    EXPECT_EQ(view.mineralAt(-1.5, 0.0, 1.5), Mineral::Quartz);   // -1 mirrors to 1
    EXPECT_EQ(view.mineralAt(-0.99, 0.0, 1.5), Mineral::Pore);    // truncates to 0
    EXPECT_EQ(view.mineralAt(-4.5, -9.0, 5.5), Mineral::Quartz);  // (-4, 5) to (4, 3), y to 0
    const AbsorptionTable table(Mineral::count(), 0.01);
    RandomStream fast(21u), slow(21u);
    int absorbed = 0;
    for (const Walker& start : walkersIn(grid, 60, 5u)) {
        Walker a = start, b = start;
        for (std::uint32_t count : {1u, 2u, 5u, 97u, 383u, 1000u, 3000u}) {
            const bool hit = walkInterval(fast, a, count, 0.7, view, table);
            ASSERT_EQ(hit, referenceSteps(slow, b, count, 0.7, view, table));
            ASSERT_EQ(position(a), position(b));
            absorbed += hit;
            if (hit) break;
            ASSERT_EQ(view.mineralAt(a.x, a.y, a.z), Mineral::Pore) << "held back at walls";
        }
    }
    EXPECT_GT(absorbed, 10) << "absorbing steps must be covered too";
    EXPECT_EQ(fast.next(), slow.next());
}

TEST(WalkWalker, AbsorbedAtTheFirstContactOnlyWhereTheTableSays) {
    // One step per interval in a 4^3 pore walled by quartz and matrix: with absorption 1 the
    // result is the first contact, found on a copy of the stream with absorption 0. Walkers at
    // x < 3 walk in the fine phase, the rest in the coarse one (the other's step and table
    // would show). With absorption 0 a walker survives, reports 0, stays in the pore.
    MineralGrid grid(6, 6, 6, 0, 0, 0, 1.0);
    for (std::uint32_t i = 0; i < 216; ++i) {
        const std::uint32_t x = i % 6, y = i / 6 % 6, z = i / 36;
        if (std::min({x, y, z}) == 0 || std::max({x, y, z}) == 5)
            grid.sliceData(z)[i % 36] = x % 5 == 0 ? Mineral::Matrix : Mineral::Quartz;
    }
    const auto view = makeWalkGridView(grid);
    const AbsorptionTable never(Mineral::count(), 0.0), always(Mineral::count(), 1.0);
    const std::vector<std::uint32_t> single(kIntervalCount, 1u);
    RandomStream stream(33u);
    for (Walker start : walkersIn(grid, 40, 4u)) {
        RandomStream probe = stream;
        Walker w = start, before = start;
        std::uint32_t contact = 0;
        for (; contact < kIntervalCount; ++contact, before = w) {
            walkInterval(probe, w, 1, 0.5, view, never);
            if (position(w) == position(before)) break;
        }
        ASSERT_LT(contact, kIntervalCount);
        EXPECT_EQ(start.x < 3.0
                      ? walkWalker(stream, start, view, single, 300, 0.5, 2, always, never)
                      : walkWalker(stream, start, view, single, 0, 2, 0.5, never, always),
                  contact);
        EXPECT_EQ(probe.next(), RandomStream(stream).next()) << "same draws taken";
        EXPECT_EQ(walkWalker(stream, start, view, single, 100, 0.5, 0.5, never, never), 0u);
        ASSERT_FALSE(walkInterval(stream, start, 2000, 0.5, view, never));
        EXPECT_EQ(view.mineralAt(start.x, start.y, start.z), Mineral::Pore);
    }
}

}  // namespace
}  // namespace nmr
