#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "grid/sliced_grid.h"
#include "walk/step_schedule.h"
#include "walk/walk.h"
#include "walk/walker_creation.h"

namespace nmr {
namespace {

using MineralGrid = SlicedGrid<Mineral::Type>;

// A closed box: a one-voxel shell of `wall` around n - 2 pore voxels per axis.
MineralGrid makeBox(std::uint32_t n, Mineral::Type wall = Mineral::Quartz) {
    MineralGrid grid(n, n, n, 0, 0, 0, 1.0);
    for (std::uint32_t z = 0; z < n; ++z)
        for (std::uint32_t y = 0; y < n; ++y)
            for (std::uint32_t x = 0; x < n; ++x)
                if (std::min({x, y, z}) == 0 || std::max({x, y, z}) == n - 1)
                    grid.sliceData(z)[y * n + x] = wall;
    return grid;
}

AbsorptionTable uniformTable(double p) {
    AbsorptionTable table(static_cast<std::size_t>(Mineral::count()), p);
    table[Mineral::Pore] = 0.0;
    return table;
}

std::vector<Walker> walkersIn(const MineralGrid& grid, int n, std::uint32_t seed) {
    RandomStream stream(seed);
    std::vector<Walker> walkers;
    createWalkers(stream, makeWalkGridView(grid), n, walkers);
    return walkers;
}

TEST(Mirroring, ViewTruncatesTowardZeroAndAxisCacheAgreesWithMirrorIndex) {
    MineralGrid grid(4, 1, 1, 0, 0, 0, 1.0);
    grid.sliceData(0)[1] = Mineral::Quartz;
    grid.sliceData(0)[3] = Mineral::Clay;
    const auto view = makeWalkGridView(grid);
    EXPECT_EQ(view.mineralAt(-1.5, 0.0, 0.0), Mineral::Quartz);  // -1 mirrors to 1
    EXPECT_EQ(view.mineralAt(-0.99, 0.0, 0.0), Mineral::Pore);   // truncates to 0
    EXPECT_EQ(view.mineralAt(-3.5, -7.0, 3.9), Mineral::Clay);   // size-1 axes map to 0
    EXPECT_EQ(view.mineralAt(5.0, 0.0, 0.0), Mineral::Quartz);   // 5 mirrors to 1

    for (std::uint32_t n : {1u, 2u, 3u, 7u, 256u}) {
        MirrorAxis axis(n);
        // Slowly through many periods both ways, then wide jumps.
        for (std::int32_t i = -2000; i <= 2000; ++i) ASSERT_EQ(axis(i), mirrorIndex(i, n)) << n;
        for (std::int32_t i = 2000; i >= -2000; i -= 3) ASSERT_EQ(axis(i), mirrorIndex(i, n)) << n;
        for (std::int32_t i : {INT32_MIN, INT32_MAX, 0, 1000000007, -999999999, INT32_MIN + 1})
            ASSERT_EQ(axis(i), mirrorIndex(i, n)) << n << " at " << i;
    }
}

// The walk draw by draw, written plainly: the reference for the batched loop.
bool referenceSteps(RandomStream& stream, Walker& w, std::uint32_t count, double s,
                    const WalkGridView<MineralGrid>& view, const AbsorptionTable& p) {
    for (std::uint32_t n = 0; n < count; ++n) {
        const double dz = 2.0 * (stream.next() - 1.0) - 1.0;
        const double dy = 2.0 * (stream.next() - 1.0) - 1.0;
        const double dx = 2.0 * (stream.next() - 1.0) - 1.0;
        const double f = s / std::sqrt(dz * dz + (dx * dx + dy * dy));
        const Walker old = w;
        w = Walker{w.x + f * dx, w.y + f * dy, w.z + f * dz};
        const Mineral::Type code = view.mineralAt(w.x, w.y, w.z);
        if (code == Mineral::Pore) continue;
        if (p[code] > stream.next() - 1.0) return true;
        w = old;
    }
    return false;
}

TEST(WalkInterval, MatchesTheDrawByDrawWalkBitForBit) {
    // Frequent contacts and runs of every length across block ends, so regenerations
    // fall on every draw position of a step.
    const auto grid = makeBox(5);
    const auto view = makeWalkGridView(grid);
    const auto table = uniformTable(0.02);
    RandomStream fast(21u), slow(21u);
    int absorbed = 0;
    for (const Walker& start : walkersIn(grid, 60, 5u)) {
        Walker a = start, b = start;
        for (std::uint32_t count : {1u, 2u, 5u, 97u, 383u, 1000u}) {
            const bool hit = walkInterval(fast, a, count, 0.7, view, table);
            ASSERT_EQ(hit, referenceSteps(slow, b, count, 0.7, view, table));
            ASSERT_TRUE(a.x == b.x && a.y == b.y && a.z == b.z);
            if (hit) {
                ++absorbed;
                break;
            }
        }
    }
    EXPECT_GT(absorbed, 10) << "absorbing steps must be covered too";
    EXPECT_EQ(fast.next(), slow.next());
}

TEST(WalkInterval, StepsHaveExactLengthAndNeverEndInSolid) {
    const auto grid = makeBox(6);
    const auto view = makeWalkGridView(grid);
    const auto never = uniformTable(0.0);
    RandomStream stream(8u);
    for (Walker w : walkersIn(grid, 50, 9u)) {
        for (int n = 0; n < 200; ++n) {
            const Walker before = w;
            ASSERT_FALSE(walkInterval(stream, w, 1, 0.4, view, never));
            const double moved = std::hypot(w.x - before.x, w.y - before.y, w.z - before.z);
            // Held back at a wall, or moved 0.4 up to rounding of the coordinates.
            ASSERT_TRUE(moved == 0.0 || std::abs(moved - 0.4) < 1e-12) << moved;
            ASSERT_EQ(view.mineralAt(w.x, w.y, w.z), Mineral::Pore);
        }
    }
}

class WalkWalkerTest : public ::testing::Test {
protected:
    MineralGrid grid_ = makeBox(6);
    WalkGridView<MineralGrid> view_ = makeWalkGridView(grid_);
    std::vector<std::uint32_t> steps_ = std::vector<std::uint32_t>(kIntervalCount, 10u);
    AbsorptionTable always_ = uniformTable(1.0);
    AbsorptionTable never_ = uniformTable(0.0);
};

TEST_F(WalkWalkerTest, ZeroRelaxivityAndMatrixNeverAbsorb) {
    MineralValueMap<double> rho;
    rho.set(Mineral::Matrix, 1.0);  // would absorb on every contact, were it not matrix
    AbsorptionTable table;
    buildAbsorptionTable(rho, 0.5, 1e-6, 2.3e-9, table);
    const auto matrixBox = makeBox(6, Mineral::Matrix);
    RandomStream stream(1u);
    for (const Walker& w : walkersIn(grid_, 20, 2u)) {
        EXPECT_EQ(walkWalker(stream, w, view_, steps_, 100, 0.25, 0.5, table, table), 0u);
        EXPECT_EQ(walkWalker(stream, w, makeWalkGridView(matrixBox), steps_, 100, 0.25, 0.5, table,
                             table),
                  0u);
    }
}

TEST_F(WalkWalkerTest, CertainAbsorptionEndsAtTheFirstContact) {
    // One step per interval: the result is the step of the first contact, found by
    // walking a copy of the stream step by step with a table that never absorbs.
    const std::vector<std::uint32_t> single(kIntervalCount, 1u);
    RandomStream stream(33u);
    int checked = 0;
    for (const Walker& start : walkersIn(grid_, 40, 4u)) {
        RandomStream probe = stream;
        Walker w = start;
        std::uint32_t contact = 0;
        for (; contact < kIntervalCount; ++contact) {
            const Walker before = w;
            walkInterval(probe, w, 1, 0.5, view_, never_);
            if (w.x == before.x && w.y == before.y && w.z == before.z) break;
        }
        const auto result = walkWalker(stream, start, view_, single, 0, 0.25, 0.5, never_, always_);
        // Without a contact the walker survives and reports 0.
        EXPECT_EQ(result, contact == kIntervalCount ? 0u : contact);
        if (contact < kIntervalCount) {
            ++checked;
            EXPECT_EQ(probe.next(), RandomStream(stream).next()) << "same draws taken";
        }
    }
    EXPECT_GT(checked, 30);
}

TEST_F(WalkWalkerTest, FinePhaseUsesTheFineStepAndTable) {
    // From the centre of a 10-voxel pore ten half-voxel steps cannot reach a wall: no
    // absorption in interval 0, so a result of 0 means survival.
    const auto big = makeBox(12);
    const auto view = makeWalkGridView(big);
    const Walker centre{6.0, 6.0, 6.0};
    RandomStream stream(6u);
    for (int i = 0; i < 20; ++i) {
        EXPECT_GT(walkWalker(stream, centre, view, steps_, 300, 0.5, 0.5, always_, never_), 0u);
        EXPECT_EQ(walkWalker(stream, centre, view, steps_, 0, 0.5, 0.5, always_, never_), 0u);
        // A zero fine step does not move: no contact before the coarse phase starts.
        EXPECT_GT(walkWalker(stream, centre, view, steps_, 150, 0.0, 0.5, always_, always_), 150u);
    }
}

TEST_F(WalkWalkerTest, SameSeedSameResults) {
    const auto table = uniformTable(0.05);
    auto run = [&](std::uint32_t seed) {
        RandomStream stream(seed);
        std::vector<std::uint32_t> results;
        for (const Walker& w : walkersIn(grid_, 100, seed))
            results.push_back(walkWalker(stream, w, view_, steps_, 20, 0.25, 0.5, table, table));
        return results;
    };
    const auto first = run(77u);
    EXPECT_EQ(first, run(77u));
    EXPECT_NE(first, run(78u));
    for (std::uint32_t r : first) EXPECT_LT(r, kIntervalCount);
}

}  // namespace
}  // namespace nmr
