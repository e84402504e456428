#pragma once

#include <cstdint>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

#include "grid/byte_mineral_grid.h"
#include "grid/compressed_blocked_grid.h"
#include "grid/region_of_interest.h"
#include "walk/random_stream.h"
#include "walk/walker.h"

namespace nmr {

// Memory per process in MiB when the command line does not say otherwise.
inline constexpr std::uint32_t kDefaultMemoryLimitMb = 1500;

// What the distribution step needs to know about the run.
struct DistributionRequest {
    int rank = 0;
    int size = 1;
    std::string gridPath;
    // Applied when enabled: only this sub-box of the file's interior is loaded.
    RegionOfInterest region;
    // Memory per process in MiB: decides between a plain and a compressed copy.
    std::uint32_t memoryLimitMb = kDefaultMemoryLimitMb;
    // Over all processes.
    std::int32_t numberOfWalkers = 0;
    // Where process 0 writes what a fixed console message leaves out (which file, which
    // axis, what sizes), one line under it; nowhere when null. The programs pass standard
    // error, so their standard output stays as it always was.
    std::ostream* details = nullptr;
};

// This process's view of the grid: a plain grid (one byte per cell in memory shared by
// the processes of a node) or a compressed one after a success, nothing after a failure.
// Releasing a plain grid is collective over its node, so every process drops its
// DistributedGrid at the same point of the run, before MPI_Finalize.
class DistributedGrid {
public:
    using Plain = std::shared_ptr<ByteMineralGrid>;
    using Compressed = std::shared_ptr<CompressedBlockedGrid<Mineral::Type>>;

    DistributedGrid() = default;
    explicit DistributedGrid(Plain grid) : held_(std::move(grid)) {}
    explicit DistributedGrid(Compressed grid) : held_(std::move(grid)) {}

    explicit operator bool() const { return held_.index() != 0; }
    // Null when the grid is not of that kind.
    ByteMineralGrid* plain() const;
    CompressedBlockedGrid<Mineral::Type>* compressed() const;
    const Grid<Mineral::Type>& grid() const;

    // f(grid) with the concrete grid, whichever kind is held (there must be one): the walk
    // is one template over the grid kinds.
    template <typename F>
    decltype(auto) visit(F&& f) const {
        if (const auto* held = std::get_if<Plain>(&held_)) return f(**held);
        if (const auto* held = std::get_if<Compressed>(&held_)) return f(**held);
        throw std::logic_error("no grid to visit");
    }

private:
    std::variant<std::monostate, Plain, Compressed> held_;
};

// The size of a plain copy as the decision between plain and compressed reckons it:
// ceil(x*y*z / 8) cells-of-eight kept in its low 32 bits, times 4 bytes, in MiB. The
// 32-bit wrap for huge grids is part of the rule and is kept, and so is the reckoning
// itself (half a byte a cell), although a plain copy takes one byte a cell per node.
double estimatedPlainGridMb(std::int32_t x, std::int32_t y, std::int32_t z);
// Compressed when 0.8 * estimate exceeds the budget (strictly).
bool needsCompressedGrid(double estimatedMb, std::uint32_t memoryLimitMb);

// Walkers per process in plain mode: total / size, one more on ranks below the remainder.
std::int32_t localWalkerCount(std::int32_t total, int rank, int size);

// Collective over the world communicator. Process 0 reads the grid file; the grid is
// replicated, plain (once per node, one broadcast per z slice among the node leaders) or
// as compressed blocks on every process (the compressed bytes travel as they are), and
// the walkers are created and divided. Messages and timings go to `console` on process 0
// only. Every decision is agreed before anyone acts on it, so on failure all processes
// return an empty grid together.
DistributedGrid distributeGridAndWalkers(const DistributionRequest& request, RandomStream& stream,
                                         std::vector<Walker>& walkers, std::ostream& console);

// A grid this process built in memory and keeps to itself: the checks a loaded grid
// passes, then every walker drawn from `stream`, as a run at one process draws them. No
// other process takes part. On failure the reason goes to `console` and the result is
// empty; std::bad_alloc escapes.
DistributedGrid adoptLocalGrid(std::shared_ptr<ByteMineralGrid> grid, std::int32_t numberOfWalkers,
                               RandomStream& stream, std::vector<Walker>& walkers,
                               std::ostream& console);

}  // namespace nmr
