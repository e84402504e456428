#pragma once

#include <cstdint>
#include <vector>

#include "walk/walker.h"

namespace nmr {

// Voxel index -> block index along each axis, for ordering walkers by the block of a
// blocked grid that holds them, in the blocked grid's own layout (grid/block_layout.h).
struct BlockKeyTables {
    std::vector<std::uint32_t> tx;
    std::vector<std::uint32_t> ty;
    std::vector<std::uint32_t> tz;
    std::uint32_t countX = 0;
    std::uint32_t countY = 0;
    std::uint32_t countZ = 0;

    // Row-major block number of the voxel holding a walker that lies inside the box:
    // (bz * countY + by) * countX + bx.
    std::uint64_t key(const Walker& w) const {
        const auto bx = tx[static_cast<std::size_t>(static_cast<std::int32_t>(w.x))];
        const auto by = ty[static_cast<std::size_t>(static_cast<std::int32_t>(w.y))];
        const auto bz = tz[static_cast<std::size_t>(static_cast<std::int32_t>(w.z))];
        return (static_cast<std::uint64_t>(bz) * countY + by) * countX + bx;
    }
};

constexpr std::uint32_t kDefaultBlockEdge = 64;

// Throws Exception for a zero edge.
BlockKeyTables makeBlockKeyTables(std::uint32_t nx, std::uint32_t ny, std::uint32_t nz,
                                  std::uint32_t edge = kDefaultBlockEdge);

}  // namespace nmr
