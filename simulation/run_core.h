#pragma once

#include <mpi.h>

#include <concepts>
#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "common/exception.h"
#include "mpi/message_passing.h"
#include "simulation/checkpoint.h"

namespace nmr {

// How often the processes poll together, in walkers.
inline constexpr std::uint32_t kPollInterval = 1000;

// An experiment is what a run does with each of its walkers: nmrwalk's absorption walk, the
// recording walk of a fit, a phase-coherent echo train. It holds what its walk needs (the
// grid's view, its walkers, its random streams, its plan) and accumulates into a Tally,
// one per process:
//   e.walk(i, tally)          walks walker i of this process and adds it to the tally
//   e.save(tally)             the state a checkpoint keeps: the tally and every stream that
//                             runs on from walker to walker, as bytes
//   e.accepts(state, tally)   whether such bytes can be taken up here (same tally shape);
//                             changes nothing
//   e.restore(state, tally)   takes them up, after accepts() said yes
// How tallies are combined over processes is the experiment's own, after the walk.
template <typename E>
concept Experiment = requires(E& e, const E& ce, typename E::Tally& tally,
                              const typename E::Tally& constTally, std::uint32_t i,
                              const std::string& state) {
    e.walk(i, tally);
    { ce.save(constTally) } -> std::convertible_to<std::string>;
    { ce.accepts(state, constTally) } -> std::same_as<bool>;
    e.restore(state, tally);
};

// What the run around the walk does: progress, polls and checkpoints.
struct RunControl {
    MPI_Comm comm = MPI_COMM_WORLD;
    // On this process before the first walker it walks (the walkers before it were taken
    // up from a checkpoint), and after every walker: a progress bar on process 0.
    std::function<void(std::uint32_t first)> started;
    std::function<void(std::uint32_t walker)> afterWalker;
    // Collective, at the shared poll indices (multiples of kPollInterval below the smallest
    // local walker count, so that every process reaches the same ones), with the walkers
    // done: false on every process stops the walk there.
    std::function<bool(std::uint32_t walkersDone)> poll;
    // Checkpoints: taken after a poll once `interval` seconds have passed, in
    // "<program>.checkpoint.<rank>". None when program is empty, interval is not positive
    // or the fingerprint is empty; process 0's values decide for every process. The
    // fingerprint names the run a checkpoint belongs to; process 0 asks for it only when
    // checkpoints are taken or found.
    std::string program;
    double interval = 0.0;
    std::function<std::string()> fingerprint;
    std::int64_t totalWalkers = 0;     // for the resume message
    std::ostream* console = nullptr;   // process 0: "Resuming from checkpoint: ..."
    std::ostream* warnings = nullptr;  // process 0: checkpoints ignored or not written
};

struct WalkOutcome {
    bool completed = false;  // false: a poll stopped it; the tally is partial
    double startTime = 0.0;  // MPI_Wtime() just before the first walker
};

// The walker loop of every experiment: one process's walkers in order, the polls every
// process takes together, checkpoints and their take-up. Collective over control.comm.
class RunCore {
public:
    explicit RunCore(RunControl control);

    // Where this process takes its walk up: 0 afresh, or the walker after the latest
    // checkpoint that every process holds of this very run, whose state is then restored
    // into the experiment and the tally. Anything else is ignored with a warning.
    template <Experiment E>
    std::uint32_t resume(E& experiment, typename E::Tally& tally, std::uint32_t localWalkers);

    // Walks walkers first .. localWalkers - 1.
    template <Experiment E>
    WalkOutcome walk(E& experiment, typename E::Tally& tally, std::uint32_t localWalkers,
                     std::uint32_t first = 0);

    // Collective: a checkpoint of the walk so far (done walkers), whatever the time, when
    // checkpoints are on: a program of several walks keeps the ones it has finished this
    // way, so a job taken up again does not walk them afresh.
    template <Experiment E>
    void checkpointNow(const E& experiment, const typename E::Tally& tally,
                       std::uint32_t localWalkers, std::uint32_t done);

    // After a complete run: its checkpoints are no longer needed.
    void removeCheckpoints() const;

private:
    // Collective. Whether any process has checkpoint files, and switches checkpoints on or
    // off; false when there is nothing to take up.
    bool prepareCheckpoints();
    // This process's checkpoints of this run, latest first.
    std::vector<Checkpoint> mine(std::uint32_t localWalkers, std::string& problem) const;
    // Collective: the walker this process takes up from (the same on every process, but for
    // a finished walk, where each takes up its own count), or 0 with a warning when they
    // cannot all take up the same checkpoint (chosen is then null).
    std::uint32_t agree(const std::vector<Checkpoint>& candidates, const std::string& problem,
                        const Checkpoint*& chosen) const;
    bool checkpointDue();
    void reportWritten(bool written);

    RunControl control_;
    int rank_ = 0;
    int size_ = 1;
    bool checkpointsOn_ = false;
    std::string fingerprint_;
    double lastCheckpoint_ = 0.0;
};

template <Experiment E>
std::uint32_t RunCore::resume(E& experiment, typename E::Tally& tally, std::uint32_t localWalkers) {
    if (!prepareCheckpoints()) return 0;
    std::string problem;
    std::vector<Checkpoint> candidates;
    for (Checkpoint& c : mine(localWalkers, problem)) {
        if (experiment.accepts(c.state, tally)) {
            candidates.push_back(std::move(c));
        } else {
            problem = "they do not all belong to this run";
        }
    }
    const Checkpoint* chosen = nullptr;
    const std::uint32_t from = agree(candidates, problem, chosen);
    if (chosen != nullptr) experiment.restore(chosen->state, tally);
    return from;
}

template <Experiment E>
WalkOutcome RunCore::walk(E& experiment, typename E::Tally& tally, std::uint32_t localWalkers,
                          std::uint32_t first) {
    const std::uint32_t fewest = mpi::allReduce(localWalkers, MPI_MIN, control_.comm);
    WalkOutcome outcome;
    if (control_.started) control_.started(first);
    outcome.startTime = MPI_Wtime();
    for (std::uint32_t i = first; i < localWalkers; ++i) {
        experiment.walk(i, tally);
        if (control_.afterWalker) control_.afterWalker(i);
        if (i < fewest && i % kPollInterval == 0 && control_.poll) {
            if (!control_.poll(i + 1)) return outcome;
            if (checkpointsOn_ && checkpointDue()) {
                checkpointNow(experiment, tally, localWalkers, i + 1);
            }
        }
    }
    outcome.completed = true;
    return outcome;
}

template <Experiment E>
void RunCore::checkpointNow(const E& experiment, const typename E::Tally& tally,
                            std::uint32_t localWalkers, std::uint32_t done) {
    if (!checkpointsOn_) return;
    bool written = true;
    try {
        writeCheckpoint(control_.program,
                        {fingerprint_, rank_, size_, localWalkers, done, experiment.save(tally)});
    } catch (const Exception&) {
        written = false;
    }
    reportWritten(written);
}

}  // namespace nmr
