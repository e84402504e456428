#pragma once

// Steps shared by the plain and the compressed distribution.

#include <new>
#include <ostream>
#include <vector>

#include "common/exception.h"
#include "io/grid_loader.h"
#include "mpi/message_passing.h"
#include "parallel/grid_distribution.h"

namespace nmr::distribution {

using mpi::kRoot;

// Runs step() and reports whether it succeeded. A process whose copy cannot be built
// (no memory, a block that will not install) must still take part in every collective
// step that follows, so the failure is noted here and agreed on later.
template <typename Step>
bool attempt(Step&& step) {
    try {
        step();
        return true;
    } catch (const Exception&) {
    } catch (const std::bad_alloc&) {
    }
    return false;
}

// What process 0 learnt from the file's header before choosing how to hold the grid.
struct GridPlan {
    bool readable = false;
    bool compressed = false;
    GridFileSummary file;  // process 0 only
};

// Options of every load in a run: the region when one is set, no cancelling.
GridLoadOptions loadOptions(const DistributionRequest& request);

// The cells of a loaded grid are all pore or a valid mineral; otherwise process 0 prints
// the three lines that say so.
bool checkVoxels(const ByteMineralGrid& grid, std::ostream& console);
bool checkVoxels(const CompressedBlockedGrid<Mineral::Type>& grid, std::ostream& console);

// Walkers start at positions in [0, size - 1) on every axis (a size of 1 gives 0), so only
// the cells of that box can take one. Without a pore cell there, placement would draw
// for ever; process 0 then prints why.
bool hasStartablePore(const ByteMineralGrid& grid, std::ostream& console);
bool hasStartablePore(const CompressedBlockedGrid<Mineral::Type>& grid, std::ostream& console);

// Under a message of the console, its detail (Exception::detail) where the request sends
// details.
void printDetail(const DistributionRequest& request, const std::string& detail);

// Process 0 reads and prints "* Read grid time: "; load() returns the grid or throws.
template <typename Load>
auto timedRead(const DistributionRequest& request, std::ostream& console, Load&& load)
    -> decltype(load()) {
    decltype(load()) grid;
    const double start = mpi::wallTime();
    try {
        grid = load();
    } catch (const Exception& e) {
        console << e.message() << std::endl;
        printDetail(request, e.detail());
    } catch (const std::bad_alloc&) {
        console << "Unable to allocate memory for the grid of " << request.gridPath << std::endl;
    }
    console << "* Read grid time: " << mpi::wallTime() - start << std::endl;
    if (grid && !checkVoxels(*grid, console)) grid.reset();
    return grid;
}

// Per-mineral counters travel as 64-bit integers from process 0.
void broadcastCounters(Grid<Mineral::Type>* grid, int rank);

// Plain mode: the grid once per node, then this process's share of the walkers.
DistributedGrid distributePlain(const DistributionRequest& request, const GridPlan& plan,
                                RandomStream& stream, std::vector<Walker>& walkers,
                                std::ostream& console);
// Compressed mode: all walkers first on process 0, then the grid in compressed blocks.
DistributedGrid distributeCompressed(const DistributionRequest& request, RandomStream& stream,
                                     std::vector<Walker>& walkers, std::ostream& console);

}  // namespace nmr::distribution
