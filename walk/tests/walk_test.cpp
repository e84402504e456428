#include <gtest/gtest.h>

#include <cmath>
#include <tuple>
#include <vector>

#include "grid/sliced_grid.h"
#include "walk/recording_walk.h"
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
    // One step an interval; fine steps of 0.5 and coarse of 2, or the other way round.
    auto plan = [&](std::uint32_t fine, double fineStep, double coarseStep,
                    const AbsorptionTable& fineTable, const AbsorptionTable& coarseTable) {
        WalkPlan p{StepSchedule{std::vector<std::uint32_t>(kIntervalCount, 1u), {}, fine}, fineStep,
                   coarseStep, fineTable, coarseTable};
        return p;
    };
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
        EXPECT_EQ(start.x < 3.0 ? walkWalker(stream, start, view, plan(300, 0.5, 2, always, never))
                                : walkWalker(stream, start, view, plan(0, 2, 0.5, never, always)),
                  contact);
        EXPECT_EQ(probe.next(), RandomStream(stream).next()) << "same draws taken";
        EXPECT_EQ(walkWalker(stream, start, view, plan(100, 0.5, 0.5, never, never)), 0u);
        ASSERT_FALSE(walkInterval(stream, start, 2000, 0.5, view, never));
        EXPECT_EQ(view.mineralAt(start.x, start.y, start.z), Mineral::Pore);
    }
}

// Counts contacts and weights as recordWalker reports them.
struct RecordedContacts {
    std::vector<std::uint32_t> total = std::vector<std::uint32_t>(16, 0);
    int level = 0;
    StopInterval stopped = 0;
    std::uint32_t slots;
    void interval(std::uint32_t, const std::uint32_t* counts, int passed) {
        for (std::uint32_t s = 0; s < slots; ++s) total[s] += counts[s];
        level = passed;
    }
    void stop(StopInterval at) { stopped = at; }
};

TEST(RecordingWalk, DrawsWhatARunDrawsAndPlaysTheRouletteAtEveryHalving) {
    MineralGrid grid(6, 5, 5, 0, 0, 0, 1.0);
    for (auto [x, y, z] : {std::tuple{3, 0, 0}, {1, 2, 1}, {4, 4, 3}, {2, 1, 4}})
        grid.sliceData(z)[y * 6 + x] = z % 2 ? Mineral::Clay : Mineral::Quartz;
    const auto view = makeWalkGridView(grid);
    const AbsorptionTable never(Mineral::count(), 0.0);
    const WalkPlan walk{StepSchedule{{1, 1, 3, 40, 500, 4000}, {}, 2}, 0.25, 0.5, never, never};

    // A floor that never halves the survival: the walker is never stopped, and its path
    // and the stream afterwards are those of a run in which nothing absorbs.
    std::vector<double> tiny(Mineral::count(), 1e-12);
    const RecordingPlan quiet = makeRecordingPlan({Mineral::Clay, Mineral::Quartz}, tiny, tiny);
    ASSERT_EQ(quiet.slots(), 2u);
    for (const Walker& start : walkersIn(grid, 20, 3u)) {
        RandomStream run(9u), recording(9u), roulette(4u);
        EXPECT_EQ(walkWalker(run, start, view, walk), 0u);
        RecordedContacts sink{.slots = 2};
        recordWalker(recording, roulette, start, view, walk, quiet, sink);
        EXPECT_EQ(sink.stopped, 6u);  // walked the whole schedule
        EXPECT_EQ(sink.level, 0);
        EXPECT_EQ(run.next(), recording.next());
    }

    // With a floor of p = 0.3 per contact, a walker passes one roulette each time its
    // survival 0.7^n halves again: after 2 contacts (0.49), 4 (0.24), 6 (0.118), ...
    std::vector<double> p(Mineral::count(), 0.3);
    const RecordingPlan strong = makeRecordingPlan({Mineral::Quartz}, p, p);
    int stopped = 0, walkers = 0;
    for (const Walker& start : walkersIn(grid, 200, 8u)) {
        RandomStream stream(11u + static_cast<std::uint32_t>(walkers++)), roulette(5u);
        RecordedContacts sink{.slots = 1};
        recordWalker(stream, roulette, start, view, walk, strong, sink);
        const std::uint32_t n = sink.total[0];
        EXPECT_EQ(sink.level, rouletteLevel(n * std::log1p(-0.3))) << n;
        stopped += sink.stopped < walk.schedule.stepsPerInterval.size();
    }
    // Each level is survived with probability 1/2, so nearly every walker stops early.
    EXPECT_GT(stopped, 150);
}

}  // namespace
}  // namespace nmr
