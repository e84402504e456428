#include "simulation/local_run.h"

#include <mpi.h>

#include <sstream>

#include "common/exception.h"
#include "parallel/grid_distribution.h"
#include "simulation/walker_loop.h"
#include "walk/absorption_histogram.h"
#include "walk/random_stream.h"

namespace nmr {

std::optional<LocalRun> runLocally(NuclearMagneticResonanceParameters& parameters,
                                   std::shared_ptr<ByteMineralGrid> grid,
                                   const LocalRunPoll& poll) {
    // The stream of process 0 of a run, and the walkers a run at one process draws.
    RandomStream stream(streamSeed(parameters.randomSeed(), 0));
    std::vector<Walker> walkers;
    std::ostringstream reason;
    const DistributedGrid held =
        adoptLocalGrid(std::move(grid), parameters.numberOfWalkers(), stream, walkers, reason);
    if (!held) {
        std::string text = reason.str();
        while (!text.empty() && text.back() == '\n') text.pop_back();
        throw Exception(text);
    }

    LocalRun run;
    run.summary = computeRockSummary(parameters, held.grid());
    run.summaryEntries = rockSummaryEntries(run.summary, parameters, held.grid());
    const WalkPlan plan = buildWalkPlan(run.summary, parameters);
    AbsorptionHistogram histogram(kIntervalCount);
    const auto total = static_cast<std::uint32_t>(walkers.size());
    WalkerLoopHooks hooks;
    if (poll) hooks.poll = [&](std::uint32_t done) { return poll(done, total); };
    const WalkerLoopOutcome outcome = held.visit([&](const auto& g) {
        return walkWalkers(g, walkers, stream, plan, histogram, 0, hooks, MPI_COMM_SELF);
    });
    if (!outcome.completed) return std::nullopt;
    run.walkSeconds = MPI_Wtime() - outcome.startTime;
    const ReducedAbsorptions reduced = reduceAbsorptions(histogram, MPI_COMM_SELF);
    run.results.decay = runDecay(reduced.counts, plan, run.summary, parameters);
    run.results.distribution = runInversion(run.results.decay, parameters);
    return run;
}

}  // namespace nmr
