#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "fit/contact_histories.h"
#include "fit/reweighted_decay.h"
#include "grid/grid.h"
#include "parallel/grid_distribution.h"
#include "params/nmr_parameters.h"
#include "simulation/rock_summary.h"
#include "simulation/walker_loop.h"
#include "walk/random_stream.h"
#include "walk/recording_walk.h"
#include "walk/walker.h"

namespace nmr::fit {

// The recorded run of these parameters on this grid: the decay's fixed terms, the
// schedule, and the plan of the minerals recorded with their floors. `floor` gives the
// lowest relaxivity the recording must serve for every mineral that is to be varied;
// every other relaxing mineral keeps its value from the parameter file, which is then
// also its floor.
RecordedRun describeRecordedRun(NuclearMagneticResonanceParameters& parameters,
                                const RockSummary& summary, const WalkPlan& walk,
                                const DistributedGrid& grid, const MineralValueMap<double>& floor);

// The seed of the roulette stream of process `rank`: apart from every walk stream of the
// job, so that deciding which walkers go on never shifts a walker's own draws.
inline std::uint32_t rouletteSeed(std::int32_t randomSeed, int rank) {
    return streamSeed(randomSeed, rank) ^ 0x5bd1e995u;
}

// Walkers per chunk of a recording of `total` walkers: about 128 chunks in all, so that a
// bootstrap has enough of them to resample.
std::uint32_t chunkWalkersFor(std::int64_t total);

// What a caller learns while a recording walks. `poll` (walkers done, walkers) is called
// before the first walker and every kPollInterval walkers, as a local run polls; returning
// false stops the recording. `afterWalker` runs after every walker (for a progress bar).
struct RecordingHooks {
    std::function<bool(std::uint32_t done, std::uint32_t total)> poll;
    std::function<void()> afterWalker;
};

// Records this process's walkers in order, with `stream` drawing exactly what a run would
// and `roulette` deciding which walkers go on; nothing when a poll stopped it.
template <typename G>
std::optional<ContactHistories> recordWalkers(const G& grid, const std::vector<Walker>& walkers,
                                              RandomStream& stream, RandomStream& roulette,
                                              const RecordedRun& run, const WalkPlan& walk,
                                              std::uint32_t chunkWalkers,
                                              const RecordingHooks& hooks = {}) {
    ContactHistories histories;
    HistoryRecorder recorder(histories, static_cast<std::uint32_t>(run.plan.slots()),
                             walk.schedule.fineIntervals, chunkWalkers);
    const WalkGridView<G> view = makeWalkGridView(grid);
    const auto total = static_cast<std::uint32_t>(walkers.size());
    for (std::uint32_t i = 0; i < total; ++i) {
        if (hooks.poll && i % kPollInterval == 0 && !hooks.poll(i, total)) return std::nullopt;
        recordWalker(stream, roulette, walkers[i], view, walk, run.plan, recorder);
        if (hooks.afterWalker) hooks.afterWalker();
    }
    return histories;
}

// Collective over the world communicator: every process's histories end up on process 0,
// in rank order; the others are left empty.
ContactHistories gatherHistories(ContactHistories&& local);

}  // namespace nmr::fit
