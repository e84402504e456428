#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "common/bytes.h"
#include "fit/contact_histories.h"
#include "fit/recorded_walk_file.h"
#include "fit/reweighted_decay.h"
#include "grid/grid.h"
#include "parallel/grid_distribution.h"
#include "params/nmr_parameters.h"
#include "simulation/rock_summary.h"
#include "simulation/run_core.h"
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
// every kPollInterval walkers, as a local run polls; returning false stops the recording.
// `afterWalker` runs after every walker (for a progress bar).
struct RecordingHooks {
    std::function<bool(std::uint32_t done, std::uint32_t total)> poll;
    std::function<void()> afterWalker;
};

// The recording walk as an experiment of the run core: each walker walked as a run walks it,
// never removed, its contacts appended to the histories; the walk's stream and the roulette's
// run on from walker to walker.
template <typename G>
class RecordingWalk {
public:
    using Tally = ContactHistories;

    RecordingWalk(const G& grid, const std::vector<Walker>& walkers, RandomStream& stream,
                  RandomStream& roulette, const RecordedRun& run, const WalkPlan& walk,
                  std::uint32_t chunkWalkers)
        : view_(makeWalkGridView(grid)),
          walkers_(walkers),
          stream_(stream),
          roulette_(roulette),
          run_(run),
          walk_(walk),
          chunkWalkers_(chunkWalkers) {}

    // Histories ready for this recording's slots and schedule, even before any walker.
    Tally emptyTally() const {
        Tally histories;
        recorder(histories);
        return histories;
    }
    void walk(std::uint32_t i, Tally& histories) {
        HistoryRecorder to = recorder(histories);
        recordWalker(stream_, roulette_, walkers_[i], view_, walk_, run_.plan, to);
    }
    std::string save(const Tally& histories) const {
        ByteWriter out;
        out.put(stream_.state());
        out.put(roulette_.state());
        out.put(serialise(histories));
        return out.take();
    }
    bool accepts(const std::string& state, const Tally& histories) const {
        try {
            return read(state).histories.slots == histories.slots;
        } catch (const Exception&) {
            return false;
        }
    }
    void restore(const std::string& state, Tally& histories) {
        Saved saved = read(state);
        stream_.state() = saved.stream;
        roulette_.state() = saved.roulette;
        histories = std::move(saved.histories);
    }

private:
    struct Saved {
        dsfmt_t stream;
        dsfmt_t roulette;
        ContactHistories histories;
    };
    static Saved read(const std::string& state) {
        ByteReader in(state, "checkpoint");
        Saved saved{in.get<dsfmt_t>(), in.get<dsfmt_t>(), {}};
        saved.histories = deserialise(in.getVector<std::uint8_t>());
        return saved;
    }
    HistoryRecorder recorder(Tally& histories) const {
        return HistoryRecorder(histories, static_cast<std::uint32_t>(run_.plan.slots()),
                               walk_.schedule.fineIntervals, chunkWalkers_);
    }

    WalkGridView<G> view_;
    const std::vector<Walker>& walkers_;
    RandomStream& stream_;
    RandomStream& roulette_;
    const RecordedRun& run_;
    const WalkPlan& walk_;
    std::uint32_t chunkWalkers_;
};

// Records this process's walkers in order, with `stream` drawing exactly what a run would
// and `roulette` deciding which walkers go on; nothing when a poll stopped it. Collective
// over comm.
template <typename G>
std::optional<ContactHistories> recordWalkers(const G& grid, const std::vector<Walker>& walkers,
                                              RandomStream& stream, RandomStream& roulette,
                                              const RecordedRun& run, const WalkPlan& walk,
                                              std::uint32_t chunkWalkers,
                                              const RecordingHooks& hooks = {},
                                              MPI_Comm comm = MPI_COMM_WORLD) {
    const auto total = static_cast<std::uint32_t>(walkers.size());
    RunControl control;
    control.comm = comm;
    if (hooks.poll) control.poll = [&](std::uint32_t done) { return hooks.poll(done, total); };
    if (hooks.afterWalker) control.afterWalker = [&](std::uint32_t) { hooks.afterWalker(); };
    RecordingWalk<G> experiment(grid, walkers, stream, roulette, run, walk, chunkWalkers);
    ContactHistories histories = experiment.emptyTally();
    RunCore core(std::move(control));
    if (!core.walk(experiment, histories, total).completed) return std::nullopt;
    return histories;
}

// Collective over the world communicator: every process's histories end up on process 0,
// in rank order; the others are left empty.
ContactHistories gatherHistories(ContactHistories&& local);

}  // namespace nmr::fit
