#include "parallel/grid_distribution.h"

#include <algorithm>
#include <cmath>
#include <new>

#include "common/exception.h"
#include "common/logger.h"
#include "common/progress_reporter.h"
#include "io/grid_loader.h"
#include "parallel/message_passing.h"
#include "walk/block_key_tables.h"
#include "walk/walker_creation.h"

namespace nmr {

namespace {

constexpr int kRoot = 0;
constexpr double kMib = 1024.0 * 1024.0;
// Bytes of one walker record (three doubles), for taking walkers off the memory budget.
constexpr double kWalkerBytes = 24.0;

using MineralGrid = Grid<Mineral::Type>;

// The region's extents must fit the file, and so must its far corner: a box that ran
// past the file's last cell would silently walk on cells nobody read.
bool regionFits(const RegionOfInterest& region, const GridFileSummary& file) {
    const std::uint64_t extents[3] = {std::uint64_t{region.xMax} - region.xMin,
                                      std::uint64_t{region.yMax} - region.yMin,
                                      std::uint64_t{region.zMax} - region.zMin};
    const std::uint64_t sizes[3] = {file.nx, file.ny, file.nz};
    const std::uint64_t ends[3] = {std::uint64_t{file.marginX} + region.xMax,
                                   std::uint64_t{file.marginY} + region.yMax,
                                   std::uint64_t{file.marginZ} + region.zMax};
    for (int a = 0; a < 3; ++a) {
        if (extents[a] > sizes[a] || ends[a] > sizes[a]) return false;
    }
    return true;
}

template <typename G>
bool allVoxelsValid(const G& grid);

template <>
bool allVoxelsValid(const SlicedGrid<Mineral::Type>& grid) {
    const std::size_t n = static_cast<std::size_t>(grid.nx()) * grid.ny();
    for (std::uint32_t z = 0; z < grid.nz(); ++z) {
        const Mineral::Type* slice = grid.sliceData(z);
        if (!std::all_of(slice, slice + n, [](Mineral::Type m) { return Mineral::isValid(m); }))
            return false;
    }
    return true;
}

template <>
bool allVoxelsValid(const CompressedBlockedGrid<Mineral::Type>& grid) {
    // Block by block, so each block is expanded once.
    for (std::uint32_t b = 0; b < grid.blockCount(); ++b) {
        const BlockBounds& r = grid.blockBounds(b);
        for (std::uint32_t z = r.z0; z < r.z1; ++z)
            for (std::uint32_t y = r.y0; y < r.y1; ++y)
                for (std::uint32_t x = r.x0; x < r.x1; ++x)
                    if (!Mineral::isValid(grid.at(x, y, z))) return false;
    }
    return true;
}

// Process 0: loads the grid within the budget and checks its voxels. Prints what went
// wrong and returns an empty grid on failure.
DistributedGrid readGrid(const DistributionRequest& request, bool compressed, double budgetMb,
                         std::ostream& console) {
    DistributedGrid result;
    NullLogger quiet;
    NullProgressReporter progress;
    GridLoadOptions options;
    options.region = request.region;
    options.disableCancel = true;
    const double start = mpi::wallTime();
    try {
        if (compressed) {
            result.compressed =
                loadCompressedBlockedGrid(request.gridPath, options, budgetMb, quiet, progress);
        } else {
            result.plain = loadSlicedGrid(request.gridPath, options, quiet, progress);
        }
    } catch (const Exception& e) {
        console << e.message() << std::endl;
    } catch (const std::bad_alloc&) {
        console << "Unable to allocate memory for the grid of " << request.gridPath << std::endl;
    }
    console << "* Read grid time: " << mpi::wallTime() - start << std::endl;

    const bool valid = result.plain        ? allVoxelsValid(*result.plain)
                       : result.compressed ? allVoxelsValid(*result.compressed)
                                           : true;
    if (!valid) {
        console << "The grid contains voxels which have" << std::endl
                << "not been assigned a valid mineral value." << std::endl
                << "Only mineral and pore voxels are currently supported." << std::endl;
        return {};
    }
    return result;
}

std::vector<long long> countersAsWire(const MineralGrid& grid) {
    return {grid.counters().begin(), grid.counters().end()};
}

void setCountersFromWire(MineralGrid& grid, const std::vector<long long>& wire) {
    auto& counters = grid.counters();
    for (std::size_t m = 0; m < counters.size() && m < wire.size(); ++m)
        counters[m] = static_cast<std::uint64_t>(wire[m]);
}

// One broadcast per z slice through a buffer of one slice; the counters come from
// process 0 afterwards instead of being recounted cell by cell.
std::shared_ptr<SlicedGrid<Mineral::Type>> replicatePlain(
    const std::shared_ptr<SlicedGrid<Mineral::Type>>& source, int rank) {
    std::vector<std::uint32_t> geometry(6);
    double cellSize = 0.0;
    if (rank == kRoot) {
        geometry = {source->nx(),      source->ny(),      source->nz(),
                    source->marginX(), source->marginY(), source->marginZ()};
        cellSize = source->cellSize();
    }
    mpi::broadcast(geometry, kRoot);
    mpi::broadcast(cellSize, kRoot);

    std::shared_ptr<SlicedGrid<Mineral::Type>> grid = source;
    if (rank != kRoot) {
        try {
            grid = std::make_shared<SlicedGrid<Mineral::Type>>(geometry[0], geometry[1],
                                                               geometry[2], geometry[3],
                                                               geometry[4], geometry[5], cellSize);
        } catch (const Exception&) {
            grid.reset();  // keeps taking part in the broadcasts; the agreement fails later
        } catch (const std::bad_alloc&) {
            grid.reset();
        }
    }

    const std::size_t sliceCells = static_cast<std::size_t>(geometry[0]) * geometry[1];
    std::vector<std::int32_t> buffer(sliceCells);
    for (std::uint32_t k = 0; k < geometry[2]; ++k) {
        if (rank == kRoot) {
            const Mineral::Type* slice = grid->sliceData(k);
            std::transform(slice, slice + sliceCells, buffer.begin(),
                           [](Mineral::Type m) { return static_cast<std::int32_t>(m); });
        }
        mpi::broadcast(buffer.data(), static_cast<int>(sliceCells), kRoot);
        if (rank != kRoot && grid) {
            std::transform(buffer.begin(), buffer.end(), grid->sliceData(k),
                           [](std::int32_t v) { return static_cast<Mineral::Type>(v); });
        }
    }

    std::vector<long long> counters;
    if (rank == kRoot) counters = countersAsWire(*grid);
    mpi::broadcast(counters, kRoot);
    if (rank != kRoot && grid) setCountersFromWire(*grid, counters);
    return grid;
}

// The layout first, then the block index, then each block's description and its
// compressed bytes as they are: blocks are never expanded for transport.
std::shared_ptr<CompressedBlockedGrid<Mineral::Type>> replicateCompressed(
    const std::shared_ptr<CompressedBlockedGrid<Mineral::Type>>& source, int rank,
    double budgetMb) {
    CompressedGridLayout layout;
    if (rank == kRoot) layout = source->layout();
    mpi::broadcast(layout.sizes, kRoot);
    mpi::broadcast(layout.cellSize, kRoot);
    mpi::broadcast(layout.blockEdge, kRoot);
    mpi::broadcast(layout.maxExpandedBlocks, kRoot);

    std::shared_ptr<CompressedBlockedGrid<Mineral::Type>> grid = source;
    if (rank != kRoot) {
        try {
            grid = std::make_shared<CompressedBlockedGrid<Mineral::Type>>(layout);
        } catch (const Exception&) {
            grid.reset();
        } catch (const std::bad_alloc&) {
            grid.reset();
        }
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
            if (grid) {
                try {
                    grid->installBlock(b, description, std::move(bytes));
                } catch (const Exception&) {
                    grid.reset();
                } catch (const std::bad_alloc&) {
                    grid.reset();
                }
            }
        }
    }

    // The budget counts the compressed bytes the copy holds, so it is set once they are in.
    if (rank != kRoot && grid) {
        try {
            grid->applyMemoryBudget(budgetMb);
        } catch (const Exception&) {
            grid.reset();
        } catch (const std::bad_alloc&) {
            grid.reset();
        }
    }
    std::vector<long long> counters;
    if (rank == kRoot) counters = countersAsWire(*source);
    mpi::broadcast(counters, kRoot);
    if (rank != kRoot && grid) setCountersFromWire(*grid, counters);
    mpi::barrier();
    return grid;
}

// Replication of whatever process 0 read. Returns this process's copy, empty on failure.
DistributedGrid replicate(const DistributedGrid& read, const DistributionRequest& request,
                          bool compressed, double budgetMb, std::ostream& console) {
    bool present = static_cast<bool>(read);
    mpi::broadcast(present, kRoot);
    if (!present) return {};
    if (request.size == 1) return read;

    const double start = mpi::wallTime();
    DistributedGrid copy;
    if (compressed) {
        copy.compressed = replicateCompressed(read.compressed, request.rank, budgetMb);
    } else {
        copy.plain = replicatePlain(read.plain, request.rank);
    }
    if (request.rank == kRoot) {
        console << "* Distribute time: " << mpi::wallTime() - start << std::endl;
    }
    const int held = copy ? 1 : 0;
    if (mpi::allReduce(held, MPI_BAND) == 0) return {};
    return copy;
}

double walkerMb(std::int64_t walkers) { return static_cast<double>(walkers) * kWalkerBytes / kMib; }

}  // namespace

double estimatedPlainGridMb(std::int32_t x, std::int32_t y, std::int32_t z) {
    const std::int64_t cells = static_cast<std::int64_t>(x) * y * z;
    const std::int64_t eighths = cells / 8 + (cells % 8 != 0 ? 1 : 0);
    const auto wrapped = static_cast<std::uint32_t>(eighths);
    return static_cast<double>(wrapped) * 4.0 / 1024.0 / 1024.0;
}

bool needsCompressedGrid(double estimatedMb, std::uint32_t memoryLimitMb) {
    return 0.8 * estimatedMb > static_cast<double>(memoryLimitMb);
}

std::int32_t localWalkerCount(std::int32_t total, int rank, int size) {
    return total / size + (rank < total % size ? 1 : 0);
}

DistributedGrid distributeGridAndWalkers(const DistributionRequest& request, RandomStream& stream,
                                         std::vector<Walker>& walkers, std::ostream& console) {
    const int rank = request.rank;
    const int size = request.size;
    bool gridReadOk = true;
    bool useCompressed = false;

    if (rank == kRoot) {
        NullLogger quiet;
        GridFileSummary file;
        try {
            file = readGridFileSummary(request.gridPath, quiet);
        } catch (const Exception&) {
            console << "Unable to read grid file: " << request.gridPath << std::endl;
            gridReadOk = false;
        }
        std::int32_t x = static_cast<std::int32_t>(file.nx);
        std::int32_t y = static_cast<std::int32_t>(file.ny);
        std::int32_t z = static_cast<std::int32_t>(file.nz);
        if (gridReadOk && request.region.enabled) {
            x = static_cast<std::int32_t>(request.region.xMax - request.region.xMin);
            y = static_cast<std::int32_t>(request.region.yMax - request.region.yMin);
            z = static_cast<std::int32_t>(request.region.zMax - request.region.zMin);
            if (!regionFits(request.region, file)) {
                console << "Sub-region size does not match grid size." << std::endl;
                gridReadOk = false;
            }
        }
        if (gridReadOk) {
            useCompressed =
                needsCompressedGrid(estimatedPlainGridMb(x, y, z), request.memoryLimitMb);
        }
    }
    mpi::broadcast(gridReadOk, kRoot);
    if (!gridReadOk) return {};
    mpi::broadcast(useCompressed, kRoot);

    if (!useCompressed) {
        DistributedGrid read;
        if (rank == kRoot) read = readGrid(request, false, request.memoryLimitMb, console);
        DistributedGrid copy = replicate(read, request, false, request.memoryLimitMb, console);
        if (!copy) return copy;
        bool created = true;
        try {
            createWalkers(stream, makeWalkGridView(*copy.plain),
                          localWalkerCount(request.numberOfWalkers, rank, size), walkers);
        } catch (const std::bad_alloc&) {
            created = false;
        }
        if (!mpi::allTrue(created)) {
            if (rank == kRoot) {
                console << "Unable to allocate memory for " << request.numberOfWalkers << " walkers"
                        << std::endl;
            }
            walkers.clear();
            return {};
        }
        return copy;
    }

    // Compressed mode. Process 0 holds every walker for a while and the others their
    // share, so that memory comes off each one's grid budget. The walkers need the grid
    // for their pore test, so process 0 reads the grid before it places them.
    const std::int32_t total = std::max(request.numberOfWalkers, 0);
    const std::int32_t share = total / size;
    const std::int64_t held = rank == kRoot ? total : share;
    const double budgetMb = std::floor(static_cast<double>(request.memoryLimitMb) - walkerMb(held));

    DistributedGrid read;
    if (rank == kRoot) read = readGrid(request, true, budgetMb, console);
    bool present = static_cast<bool>(read);
    mpi::broadcast(present, kRoot);
    if (!present) return {};

    std::vector<Walker> all;
    bool created = true;
    if (rank == kRoot) {
        const double start = mpi::wallTime();
        const auto& grid = *read.compressed;
        const BlockKeyTables tables =
            makeBlockKeyTables(grid.nx(), grid.ny(), grid.nz(), grid.blockEdge());
        try {
            // The placement of createWalkersSorted, with its pore tests grouped by block so
            // that each block is expanded once per batch rather than once per candidate.
            createWalkersGrouped(stream, makeWalkGridView(grid), total, all, tables);
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

    return replicate(read, request, true, budgetMb, console);
}

}  // namespace nmr
