// Compressed mode: the grid does not fit plainly in the memory limit, so every process
// holds it as zlib-compressed blocks and expands a few at a time.

#include <algorithm>
#include <cmath>

#include "common/logger.h"
#include "common/progress_reporter.h"
#include "mpi/message_passing.h"
#include "parallel/distribution_steps.h"
#include "walk/block_key_tables.h"
#include "walk/walker_creation.h"

namespace nmr::distribution {

namespace {

using CompressedGrid = CompressedBlockedGrid<Mineral::Type>;

constexpr double kMib = 1024.0 * 1024.0;
// Bytes of one walker record (three doubles), for taking walkers off the memory budget.
constexpr double kWalkerBytes = 24.0;

double walkerMb(std::int64_t walkers) { return static_cast<double>(walkers) * kWalkerBytes / kMib; }

// The layout first, then the block index, then each block's description and its
// compressed bytes as they are: blocks are never expanded for transport.
std::shared_ptr<CompressedGrid> replicateBlocks(const std::shared_ptr<CompressedGrid>& source,
                                                int rank, double budgetMb) {
    CompressedGridLayout layout;
    if (rank == kRoot) layout = source->layout();
    mpi::broadcast(layout.sizes, kRoot);
    mpi::broadcast(layout.cellSize, kRoot);
    mpi::broadcast(layout.blockEdge, kRoot);
    mpi::broadcast(layout.maxExpandedBlocks, kRoot);

    std::shared_ptr<CompressedGrid> grid = source;
    if (rank != kRoot && !attempt([&] { grid = std::make_shared<CompressedGrid>(layout); })) {
        grid.reset();
    }

    std::vector<long long> index;
    if (rank == kRoot) {
        const auto sizes = source->blockIndex();
        index.assign(sizes.begin(), sizes.end());
    }
    mpi::broadcast(index, kRoot);

    for (std::uint32_t b = 0; b < index.size(); ++b) {
        std::vector<std::uint32_t> description;
        if (rank == kRoot) description = source->blockDescription(b);
        mpi::broadcast(description, kRoot);
        const int count = static_cast<int>(index[b]);
        if (rank == kRoot) {
            // The broadcast does not write on the root; the cast only meets MPI's signature.
            mpi::broadcast(const_cast<char*>(source->blockBytes(b).data()), count, kRoot);
        } else {
            std::vector<char> bytes(static_cast<std::size_t>(count));
            mpi::broadcast(bytes.data(), count, kRoot);
            if (grid && !attempt([&] { grid->installBlock(b, description, std::move(bytes)); })) {
                grid.reset();
            }
        }
    }

    // The budget counts the compressed bytes the copy holds, so it is set once they are in.
    if (rank != kRoot && grid && !attempt([&] { grid->applyMemoryBudget(budgetMb); })) {
        grid.reset();
    }
    broadcastCounters(rank == kRoot ? source.get() : grid.get(), rank);
    mpi::barrier();
    return grid;
}

}  // namespace

DistributedGrid distributeCompressed(const DistributionRequest& request, RandomStream& stream,
                                     std::vector<Walker>& walkers, std::ostream& console) {
    const int rank = request.rank;
    const int size = request.size;
    // Process 0 holds every walker for a while and the others their share, so that memory
    // comes off each one's grid budget. The walkers need the grid for their pore test, so
    // process 0 reads the grid before it places them.
    const std::int32_t total = std::max(request.numberOfWalkers, 0);
    const std::int32_t share = total / size;
    const std::int64_t held = rank == kRoot ? total : share;
    const double budgetMb = std::floor(static_cast<double>(request.memoryLimitMb) - walkerMb(held));

    std::shared_ptr<CompressedGrid> read;
    if (rank == kRoot) {
        read = timedRead(request, console, [&] {
            NullLogger quiet;
            NullProgressReporter progress;
            return loadCompressedBlockedGrid(request.gridPath, loadOptions(request), budgetMb,
                                             quiet, progress);
        });
    }
    if (read && total > 0 && !hasStartablePore(*read, console)) read.reset();
    bool present = static_cast<bool>(read);
    mpi::broadcast(present, kRoot);
    if (!present) return {};

    std::vector<Walker> all;
    bool created = true;
    if (rank == kRoot) {
        const double start = mpi::wallTime();
        const BlockKeyTables tables =
            makeBlockKeyTables(read->nx(), read->ny(), read->nz(), read->blockEdge());
        try {
            // The placement of createWalkersSorted, with its pore tests grouped by block so
            // that each block is expanded once per batch rather than once per candidate.
            createWalkersGrouped(stream, makeWalkGridView(*read), total, all, tables);
            sortWalkersByBlock(all, tables);
        } catch (const std::bad_alloc&) {
            console << "Unable to allocate memory for " << total << " walkers" << std::endl;
            created = false;
        }
        console << "* Create walkers time: " << mpi::wallTime() - start << std::endl;
    }
    mpi::broadcast(created, kRoot);
    if (!created) return {};
    walkers.resize(static_cast<std::size_t>(share));
    mpi::scatterPoints(all, walkers, kRoot);
    if (rank == kRoot) {
        const auto tail = static_cast<std::size_t>(share) * static_cast<std::size_t>(size);
        walkers.insert(walkers.end(), all.begin() + static_cast<std::ptrdiff_t>(tail), all.end());
    }
    all = {};

    // Replication of what process 0 read: present on process 0, so agreed above.
    if (size == 1) return DistributedGrid(read);
    const double start = mpi::wallTime();
    std::shared_ptr<CompressedGrid> copy = replicateBlocks(read, rank, budgetMb);
    if (rank == kRoot) console << "* Distribute time: " << mpi::wallTime() - start << std::endl;
    if (mpi::allReduce(copy ? 1 : 0, MPI_BAND) == 0) return {};
    return DistributedGrid(std::move(copy));
}

}  // namespace nmr::distribution
