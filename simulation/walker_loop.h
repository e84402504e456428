#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "mpi/message_passing.h"
#include "walk/absorption_histogram.h"
#include "walk/walk.h"
#include "walk/walker.h"

namespace nmr {

// How often the processes poll together, in walkers.
inline constexpr std::uint32_t kPollInterval = 1000;

// What a caller does between walkers. afterWalker runs on every process after each
// walker is walked and counted (index i); poll runs on every process at the shared poll
// indices (i a multiple of kPollInterval below the smallest local walker count, so every
// process reaches the same ones) with the number of walkers done, and must return the
// same verdict on every process: false stops the walk.
struct WalkerLoopHooks {
    std::function<void(std::uint32_t i)> afterWalker;
    std::function<bool(std::uint32_t walkersDone)> poll;
};

struct WalkerLoopOutcome {
    bool completed = false;  // false: a poll stopped it; the histogram is partial
    double startTime = 0.0;  // MPI_Wtime() just before the first walker
};

// Walks the local walkers from firstWalker on, in array order, and counts the interval of
// each (firstWalker > 0 takes up a walk saved at a poll: the stream and the histogram must
// be those of that moment). Collective over comm.
template <typename G>
WalkerLoopOutcome walkWalkers(const G& grid, const std::vector<Walker>& walkers,
                              RandomStream& stream, const WalkPlan& plan,
                              AbsorptionHistogram& histogram, std::uint32_t firstWalker,
                              const WalkerLoopHooks& hooks, MPI_Comm comm = MPI_COMM_WORLD) {
    const auto local = static_cast<std::uint32_t>(walkers.size());
    const WalkGridView<G> view = makeWalkGridView(grid);
    const std::uint32_t fewest = mpi::allReduce(local, MPI_MIN, comm);
    WalkerLoopOutcome outcome;
    outcome.startTime = mpi::wallTime();
    for (std::uint32_t i = firstWalker; i < local; ++i) {
        countAbsorption(histogram, walkWalker(stream, walkers[i], view, plan));
        if (hooks.afterWalker) hooks.afterWalker(i);
        if (i < fewest && i % kPollInterval == 0 && hooks.poll && !hooks.poll(i + 1)) {
            return outcome;
        }
    }
    outcome.completed = true;
    return outcome;
}

}  // namespace nmr
