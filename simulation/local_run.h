#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "grid/byte_mineral_grid.h"
#include "parallel/grid_distribution.h"
#include "params/nmr_parameters.h"
#include "simulation/rock_summary.h"
#include "simulation/run_results.h"
#include "walk/random_stream.h"
#include "walk/walk_plan.h"
#include "walk/walker.h"

namespace nmr {

// What a caller learns while a local run walks: polled every kPollInterval walkers and
// once at the start; returning false stops the run.
using LocalRunPoll = std::function<bool(std::uint32_t walkersDone, std::uint32_t walkers)>;

struct LocalRun {
    RockSummary summary;
    std::vector<RockSummaryEntry> summaryEntries;  // as the summary block prints them
    RunResults results;
    double walkSeconds = 0.0;
};

// A grid that this process holds alone, with the walkers of a run at one process, the
// stream that placed them (its next draws are the walk's) and the rock model: all a walk,
// or a recording walk, needs. Throws Exception with the reason the grid cannot be walked
// (no pore cell where a walker can start, a cell that is no mineral).
struct LocalWalk {
    DistributedGrid grid;
    std::vector<Walker> walkers;
    std::unique_ptr<RandomStream> stream;
    RockSummary summary;
    WalkPlan plan;
};
LocalWalk prepareLocalWalk(NuclearMagneticResonanceParameters& parameters,
                           std::shared_ptr<ByteMineralGrid> grid);

// A whole run inside this process on a grid it built itself (see buildByteMineralGrid):
// for the same cells, parameters and seed, the decay and the distribution of nmrwalk at
// one process, bit for bit, without its files, console or job control. Only
// MPI_COMM_SELF takes part (MPI must be initialised), so every process of a job may run
// one of its own. Throws Exception with the reason the grid or the parameters cannot be
// walked; nullopt when poll stopped the walk.
std::optional<LocalRun> runLocally(NuclearMagneticResonanceParameters& parameters,
                                   std::shared_ptr<ByteMineralGrid> grid,
                                   const LocalRunPoll& poll = {});

// The same from a walk prepared with these parameters (prepareLocalWalk), for a caller
// that looks at the rock and the plan before walking (to warn, say).
std::optional<LocalRun> runLocally(NuclearMagneticResonanceParameters& parameters, LocalWalk walk,
                                   const LocalRunPoll& poll = {});

}  // namespace nmr
