#include "parallel/grid_distribution.h"

#include <algorithm>

#include "common/logger.h"
#include "mpi/message_passing.h"
#include "parallel/distribution_steps.h"
#include "walk/walker_creation.h"

namespace nmr {

namespace distribution {

namespace {

// The region's extents must fit the file, and so must its far corner: a box that ran
// past the file's last cell would silently walk on cells nobody read. Empty when it fits;
// otherwise what does not fit, for the user.
std::string regionMisfit(const RegionOfInterest& region, const GridFileSummary& file,
                         const std::string& path) {
    const std::uint64_t begins[3] = {region.xMin, region.yMin, region.zMin};
    const std::uint64_t finals[3] = {region.xMax, region.yMax, region.zMax};
    const std::uint64_t sizes[3] = {file.nx, file.ny, file.nz};
    const std::uint64_t margins[3] = {file.marginX, file.marginY, file.marginZ};
    for (int a = 0; a < 3; ++a) {
        const std::uint64_t interior = sizes[a] > 2 * margins[a] ? sizes[a] - 2 * margins[a] : 0;
        if (finals[a] - begins[a] > sizes[a] || margins[a] + finals[a] > sizes[a]) {
            const std::string axis(1, "xyz"[a]);
            return "regionOfInterest " + axis + " [" + std::to_string(begins[a]) + ", " +
                   std::to_string(finals[a]) + "] does not fit the " + std::to_string(interior) +
                   " cells of " + path + " along " + axis +
                   (margins[a] > 0 ? " (" + std::to_string(sizes[a]) + " with margins)" : "") +
                   ": keep " + axis + " within [0, " + std::to_string(interior) +
                   "], or set subsampleCalculation to false to walk the whole grid";
        }
    }
    return {};
}

void printInvalidVoxels(std::ostream& console) {
    console << "The grid contains voxels which have" << std::endl
            << "not been assigned a valid mineral value." << std::endl
            << "Only mineral and pore voxels are currently supported." << std::endl;
}

// Process 0 reads the header and decides between a plain and a compressed copy; both
// flags are then agreed by broadcast.
GridPlan planGrid(const DistributionRequest& request, std::ostream& console) {
    GridPlan plan;
    if (request.rank == kRoot) {
        NullLogger quiet;
        plan.readable = true;
        try {
            plan.file = readGridFileSummary(request.gridPath, quiet);
        } catch (const Exception& e) {
            console << "Unable to read grid file: " << request.gridPath << std::endl;
            printDetail(request, e.detail().empty() ? e.message() : e.detail());
            plan.readable = false;
        }
        auto x = static_cast<std::int32_t>(plan.file.nx);
        auto y = static_cast<std::int32_t>(plan.file.ny);
        auto z = static_cast<std::int32_t>(plan.file.nz);
        if (plan.readable && request.region.enabled) {
            x = static_cast<std::int32_t>(request.region.xMax - request.region.xMin);
            y = static_cast<std::int32_t>(request.region.yMax - request.region.yMin);
            z = static_cast<std::int32_t>(request.region.zMax - request.region.zMin);
            if (const std::string misfit =
                    regionMisfit(request.region, plan.file, request.gridPath);
                !misfit.empty()) {
                console << "Sub-region size does not match grid size." << std::endl;
                printDetail(request, misfit);
                plan.readable = false;
            }
        }
        if (plan.readable) {
            plan.compressed =
                needsCompressedGrid(estimatedPlainGridMb(x, y, z), request.memoryLimitMb);
        }
    }
    mpi::broadcast(plan.readable, kRoot);
    if (plan.readable) mpi::broadcast(plan.compressed, kRoot);
    return plan;
}

}  // namespace

void printDetail(const DistributionRequest& request, const std::string& detail) {
    if (request.details != nullptr && !detail.empty()) *request.details << detail << std::endl;
}

GridLoadOptions loadOptions(const DistributionRequest& request) {
    GridLoadOptions options;
    options.region = request.region;
    options.disableCancel = true;
    return options;
}

bool checkVoxels(const ByteMineralGrid& grid, std::ostream& console) {
    const std::size_t n = static_cast<std::size_t>(grid.nx()) * grid.ny();
    for (std::uint32_t z = 0; z < grid.nz(); ++z) {
        const std::uint8_t* slice = grid.sliceData(z);
        if (!std::all_of(slice, slice + n, [](std::uint8_t m) { return Mineral::isValid(m); })) {
            printInvalidVoxels(console);
            return false;
        }
    }
    return true;
}

bool checkVoxels(const CompressedBlockedGrid<Mineral::Type>& grid, std::ostream& console) {
    // Block by block, so each block is expanded once.
    for (std::uint32_t b = 0; b < grid.blockCount(); ++b) {
        const BlockBounds& r = grid.blockBounds(b);
        for (std::uint32_t z = r.z0; z < r.z1; ++z)
            for (std::uint32_t y = r.y0; y < r.y1; ++y)
                for (std::uint32_t x = r.x0; x < r.x1; ++x)
                    if (!Mineral::isValid(grid.at(x, y, z))) {
                        printInvalidVoxels(console);
                        return false;
                    }
    }
    return true;
}

namespace {

std::uint32_t startableExtent(std::uint32_t n) { return n > 1 ? n - 1 : n; }

bool reportNoStartablePore(std::ostream& console) {
    console << "No pore voxel where walkers can start: check the grid and the region of "
               "interest."
            << std::endl;
    return false;
}

}  // namespace

bool hasStartablePore(const ByteMineralGrid& grid, std::ostream& console) {
    const std::uint32_t nx = startableExtent(grid.nx());
    for (std::uint32_t z = 0; z < startableExtent(grid.nz()); ++z)
        for (std::uint32_t y = 0; y < startableExtent(grid.ny()); ++y) {
            const std::uint8_t* row = grid.sliceData(z) + static_cast<std::size_t>(y) * grid.nx();
            if (std::find(row, row + nx, std::uint8_t{Mineral::Pore}) != row + nx) return true;
        }
    return reportNoStartablePore(console);
}

bool hasStartablePore(const CompressedBlockedGrid<Mineral::Type>& grid, std::ostream& console) {
    // Block by block, so each block is expanded once.
    const std::uint32_t ex = startableExtent(grid.nx()), ey = startableExtent(grid.ny()),
                        ez = startableExtent(grid.nz());
    for (std::uint32_t b = 0; b < grid.blockCount(); ++b) {
        const BlockBounds& r = grid.blockBounds(b);
        for (std::uint32_t z = r.z0; z < std::min(r.z1, ez); ++z)
            for (std::uint32_t y = r.y0; y < std::min(r.y1, ey); ++y)
                for (std::uint32_t x = r.x0; x < std::min(r.x1, ex); ++x)
                    if (grid.at(x, y, z) == Mineral::Pore) return true;
    }
    return reportNoStartablePore(console);
}

void broadcastCounters(Grid<Mineral::Type>* grid, int rank) {
    std::vector<long long> wire;
    if (rank == kRoot) wire.assign(grid->counters().begin(), grid->counters().end());
    mpi::broadcast(wire, kRoot);
    if (rank == kRoot || grid == nullptr) return;
    auto& counters = grid->counters();
    for (std::size_t m = 0; m < counters.size() && m < wire.size(); ++m)
        counters[m] = static_cast<std::uint64_t>(wire[m]);
}

}  // namespace distribution

ByteMineralGrid* DistributedGrid::plain() const {
    const auto* held = std::get_if<Plain>(&held_);
    return held ? held->get() : nullptr;
}

CompressedBlockedGrid<Mineral::Type>* DistributedGrid::compressed() const {
    const auto* held = std::get_if<Compressed>(&held_);
    return held ? held->get() : nullptr;
}

const Grid<Mineral::Type>& DistributedGrid::grid() const {
    return visit([](const auto& g) -> const Grid<Mineral::Type>& { return g; });
}

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
    const distribution::GridPlan plan = distribution::planGrid(request, console);
    if (!plan.readable) return {};
    return plan.compressed ? distribution::distributeCompressed(request, stream, walkers, console)
                           : distribution::distributePlain(request, plan, stream, walkers, console);
}

DistributedGrid adoptLocalGrid(std::shared_ptr<ByteMineralGrid> grid, std::int32_t numberOfWalkers,
                               RandomStream& stream, std::vector<Walker>& walkers,
                               std::ostream& console) {
    if (!distribution::checkVoxels(*grid, console)) return {};
    if (numberOfWalkers > 0 && !distribution::hasStartablePore(*grid, console)) return {};
    createWalkers(stream, makeWalkGridView(*grid), numberOfWalkers, walkers);
    return DistributedGrid(std::move(grid));
}

}  // namespace nmr
