#include "simulation/local_run.h"

#include <mpi.h>

#include <sstream>

#include "common/exception.h"
#include "parallel/grid_distribution.h"
#include "simulation/absorption_walk.h"
#include "simulation/run_core.h"
#include "walk/absorption_histogram.h"
#include "walk/random_stream.h"

namespace nmr {

LocalWalk prepareLocalWalk(NuclearMagneticResonanceParameters& parameters,
                           std::shared_ptr<ByteMineralGrid> grid) {
    LocalWalk walk;
    // The stream of process 0 of a run, and the walkers a run at one process draws.
    walk.stream = std::make_unique<RandomStream>(streamSeed(parameters.randomSeed(), 0));
    std::ostringstream reason;
    walk.grid = adoptLocalGrid(std::move(grid), parameters.numberOfWalkers(), *walk.stream,
                               walk.walkers, reason);
    if (!walk.grid) {
        std::string text = reason.str();
        while (!text.empty() && text.back() == '\n') text.pop_back();
        throw Exception(text);
    }
    walk.summary = computeRockSummary(parameters, walk.grid.grid());
    walk.plan = buildWalkPlan(walk.summary, parameters);
    return walk;
}

std::optional<LocalRun> runLocally(NuclearMagneticResonanceParameters& parameters,
                                   std::shared_ptr<ByteMineralGrid> grid,
                                   const LocalRunPoll& poll) {
    return runLocally(parameters, prepareLocalWalk(parameters, std::move(grid)), poll);
}

std::optional<LocalRun> runLocally(NuclearMagneticResonanceParameters& parameters, LocalWalk walk,
                                   const LocalRunPoll& poll) {
    LocalRun run;
    run.summary = walk.summary;
    run.summaryEntries = rockSummaryEntries(run.summary, parameters, walk.grid.grid());
    const WalkPlan& plan = walk.plan;
    AbsorptionHistogram histogram(kIntervalCount);
    const auto total = static_cast<std::uint32_t>(walk.walkers.size());
    RunControl control;
    control.comm = MPI_COMM_SELF;
    if (poll) control.poll = [&](std::uint32_t done) { return poll(done, total); };
    RunCore core(std::move(control));
    const WalkOutcome outcome = walk.grid.visit([&](const auto& g) {
        AbsorptionWalk experiment(g, walk.walkers, *walk.stream, plan);
        return core.walk(experiment, histogram, total);
    });
    if (!outcome.completed) return std::nullopt;
    run.walkSeconds = MPI_Wtime() - outcome.startTime;
    const ReducedAbsorptions reduced = reduceAbsorptions(histogram, MPI_COMM_SELF);
    run.results.decay = runDecay(reduced.counts, plan, run.summary, parameters);
    run.results.distribution = runInversion(run.results.decay, parameters);
    return run;
}

}  // namespace nmr
