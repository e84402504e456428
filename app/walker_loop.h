#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <vector>

#include "app/job_control.h"
#include "app/progress_bar.h"
#include "mpi/message_passing.h"
#include "simulation/rock_summary.h"
#include "walk/absorption_histogram.h"
#include "walk/walk.h"
#include "walk/walker.h"

namespace nmr::app {

// How often the processes poll the job files together, in walkers.
inline constexpr std::uint32_t kPollInterval = 1000;
// About this many progress signals per run.
inline constexpr double kProgressSignals = 50.0;

// Called on every process after each poll the job survives, with the number of walkers
// walked so far (the same index on every process): the place for collective work between
// walkers, such as a checkpoint.
using AfterPoll = std::function<void(std::uint32_t walkersDone)>;

// Walks the local walkers from firstWalker on in array order and counts their intervals
// (firstWalker > 0 takes up a walk saved at a poll: the stream and the histogram must be
// those of that moment). Returns false when a poll found the job stopped or aborted; the
// partial histogram is then to be discarded. Collective: every process polls at the same
// walker indices. simulationStart receives MPI_Wtime() just before the first walker.
template <typename G>
bool runWalkerLoop(const G& grid, const std::vector<Walker>& walkers, RandomStream& stream,
                   const WalkSetup& setup, const RockSummary& summary, int rank, JobStatus& status,
                   AbsorptionHistogram& histogram, std::ostream& console, double& simulationStart,
                   std::uint32_t firstWalker = 0, const AfterPoll& afterPoll = {}) {
    const auto local = static_cast<std::uint32_t>(walkers.size());
    const WalkGridView<G> view = makeWalkGridView(grid);
    std::unique_ptr<ProgressBar> bar;
    if (rank == 0) {
        bar = std::make_unique<ProgressBar>(local, console);
        for (std::uint32_t i = 0; i < firstWalker; ++i) bar->advance();
    }
    const std::uint32_t fewest = mpi::allReduce(local, MPI_MIN);
    simulationStart = mpi::wallTime();
    // Computed once; fewer than 50 walkers give 0, and a signal every 0 walkers would be
    // a division by zero, so the signal is then skipped instead.
    const auto signalInterval =
        static_cast<std::uint32_t>(static_cast<double>(local) / kProgressSignals);

    for (std::uint32_t i = firstWalker; i < local; ++i) {
        const std::uint32_t k = walkWalker(
            stream, walkers[i], view, setup.schedule.stepsPerInterval, setup.schedule.fineIntervals,
            summary.halfStep, summary.step, setup.fineTable, setup.coarseTable);
        countAbsorption(histogram, k);
        if (rank == 0) {
            bar->advance();
            if (signalInterval != 0 && i % signalInterval == 0) {
                sendProgressSignal("Random walk NMR", "Simulating..",
                                   static_cast<double>(i) / static_cast<double>(local), 1, 2);
            }
        }
        // Polls stop below the smallest local count: only indices that every process
        // reaches are polled, so no process waits in a broadcast that others never join.
        if (i < fewest && i % kPollInterval == 0) {
            status = pollJobStatus(status, rank);
            if (status != JobStatus::Running) return false;
            if (afterPoll) afterPoll(i + 1);
        }
    }
    return true;
}

}  // namespace nmr::app
