// Plain mode: one byte per cell, one copy per node. Process 0 reads the file straight into
// its node's shared memory, the node leaders pass it on slice by slice, and every process
// of a node reads the one copy its leader holds.

#include <algorithm>

#include "common/logger.h"
#include "common/progress_reporter.h"
#include "mpi/message_passing.h"
#include "mpi/node_shared_memory.h"
#include "parallel/distribution_steps.h"
#include "walk/walker_creation.h"

namespace nmr::distribution {

namespace {

constexpr std::uint64_t kMib = std::uint64_t{1024} * 1024;
// Largest piece of a slice in one broadcast: element counts are ints, and a slice of a
// grid with 16-bit sides may hold up to 2^32 cells.
constexpr std::uint64_t kLargestBroadcast = std::uint64_t{1} << 30;

// Cells of the grid the load will build, known to process 0 from the header; 0 when the
// load is bound to fail anyway (it then fails and reports as it always has).
long long plannedCells(const DistributionRequest& request, const GridPlan& plan) {
    if (request.rank != kRoot) return 0;
    try {
        const GridLoadGeometry g = gridLoadGeometry(plan.file, loadOptions(request));
        for (std::uint16_t s : g.size) {
            if (static_cast<std::int16_t>(s) <= 0) return 0;
        }
        return static_cast<long long>(g.size[0]) * g.size[1] * g.size[2];
    } catch (const Exception&) {
        return 0;
    }
}

// Storage handed to the loader: the node's memory, which must match the grid's size.
ByteCellStorage nodeStorage(const std::shared_ptr<mpi::NodeSharedBuffer>& buffer,
                            std::uint64_t bytes) {
    if (bytes != buffer->size()) {
        throw Exception("Grid size differs from its header: " + std::to_string(bytes));
    }
    return ByteCellStorage{buffer->data(), bytes, buffer};
}

// The sizes and cell size every process needs to build its view of the node's copy.
struct Geometry {
    std::vector<std::uint32_t> sizes;  // nx, ny, nz, marginX, marginY, marginZ
    double cellSize = 0.0;
};

Geometry broadcastGeometry(const ByteMineralGrid* read, int rank) {
    Geometry g;
    if (rank == kRoot) {
        g.sizes = {read->nx(),      read->ny(),      read->nz(),
                   read->marginX(), read->marginY(), read->marginZ()};
        g.cellSize = read->cellSize();
    }
    mpi::broadcast(g.sizes, kRoot);
    mpi::broadcast(g.cellSize, kRoot);
    return g;
}

// Among the node leaders, one broadcast per z slice straight from process 0's copy into
// every other leader's: the slice is its own buffer, so no copy of the grid is ever made
// for transport.
void sendSlicesToLeaders(const mpi::NodeTopology& topology, mpi::NodeSharedBuffer& buffer,
                         const Geometry& g) {
    if (!topology.isLeader()) return;
    int leaders = 1;
    MPI_Comm_size(topology.leaders(), &leaders);
    if (leaders == 1) return;
    const std::uint64_t slice = static_cast<std::uint64_t>(g.sizes[0]) * g.sizes[1];
    for (std::uint32_t z = 0; z < g.sizes[2]; ++z) {
        std::uint8_t* cells = buffer.data() + z * slice;
        for (std::uint64_t done = 0; done < slice; done += kLargestBroadcast) {
            const auto count = static_cast<int>(std::min(kLargestBroadcast, slice - done));
            mpi::broadcast(cells + done, count, kRoot, topology.leaders());
        }
    }
}

// Every process but 0 builds its own grid object over its node's copy; the counters come
// from process 0 instead of being recounted.
std::shared_ptr<ByteMineralGrid> replicateOnNodes(
    const std::shared_ptr<ByteMineralGrid>& read, const mpi::NodeTopology& topology,
    const std::shared_ptr<mpi::NodeSharedBuffer>& buffer, int rank) {
    const Geometry g = broadcastGeometry(read.get(), rank);
    sendSlicesToLeaders(topology, *buffer, g);
    buffer->publish();
    std::shared_ptr<ByteMineralGrid> grid = read;
    if (rank != kRoot && !attempt([&] {
            grid = std::make_shared<ByteMineralGrid>(
                g.sizes[0], g.sizes[1], g.sizes[2], g.sizes[3], g.sizes[4], g.sizes[5], g.cellSize,
                ByteCellStorage{buffer->data(), buffer->size(), buffer});
        })) {
        grid.reset();
    }
    broadcastCounters(grid.get(), rank);
    return grid;
}

}  // namespace

DistributedGrid distributePlain(const DistributionRequest& request, const GridPlan& plan,
                                RandomStream& stream, std::vector<Walker>& walkers,
                                std::ostream& console) {
    const int rank = request.rank;
    const auto topology = mpi::NodeTopology::discover();
    long long cells = plannedCells(request, plan);
    mpi::broadcast(cells, kRoot);
    const mpi::NodeAllocation memory =
        mpi::NodeAllocation::allocate(topology, static_cast<std::uint64_t>(cells));
    if (!memory.buffer) {
        if (rank == kRoot) {
            // Whole MiB, rounded so that "needed" never looks smaller than it is.
            console << "Not enough memory to hold the grid once per node: "
                    << (memory.requestedBytes + kMib - 1) / kMib << " MB needed, "
                    << memory.availableBytes / kMib << " MB available" << std::endl;
        }
        return {};
    }

    std::shared_ptr<ByteMineralGrid> read;
    if (rank == kRoot) {
        read = timedRead(request, console, [&] {
            NullLogger quiet;
            NullProgressReporter progress;
            return loadByteMineralGrid(
                request.gridPath, loadOptions(request), quiet, progress,
                [&memory](std::uint64_t bytes) { return nodeStorage(memory.buffer, bytes); });
        });
    }
    bool present = static_cast<bool>(read);
    mpi::broadcast(present, kRoot);
    if (!present) return {};

    std::shared_ptr<ByteMineralGrid> grid = read;
    if (request.size > 1) {
        const double start = mpi::wallTime();
        grid = replicateOnNodes(read, *topology, memory.buffer, rank);
        if (rank == kRoot) {
            console << "* Distribute time: " << mpi::wallTime() - start << std::endl;
        }
        if (mpi::allReduce(grid ? 1 : 0, MPI_BAND) == 0) return {};
    }

    bool startable = true;
    if (rank == kRoot && request.numberOfWalkers > 0) {
        startable = hasStartablePore(*grid, console);
    }
    mpi::broadcast(startable, kRoot);
    if (!startable) return {};

    bool created = attempt([&] {
        createWalkers(stream, makeWalkGridView(*grid),
                      localWalkerCount(request.numberOfWalkers, rank, request.size), walkers);
    });
    if (!mpi::allTrue(created)) {
        if (rank == kRoot) {
            console << "Unable to allocate memory for " << request.numberOfWalkers << " walkers"
                    << std::endl;
        }
        walkers.clear();
        return {};
    }
    return DistributedGrid(std::move(grid));
}

}  // namespace nmr::distribution
