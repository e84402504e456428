#pragma once

#include <cstdint>
#include <vector>

#include "grid/grid.h"
#include "grid/mineral.h"

namespace nmr {

// The faces between a pore voxel and a solid one, counted per mineral code of the solid
// side (index 0 stays 0): the surface each mineral offers the walkers, in voxel faces.
// The grid is taken as the walk sees it, mirrored at its faces, so a voxel on the edge
// faces its inner neighbour again beyond the edge.
template <typename G>
std::vector<std::uint64_t> poreFaces(const G& grid) {
    std::vector<std::uint64_t> faces(16, 0);
    const std::uint32_t nx = grid.nx();
    const std::uint32_t ny = grid.ny();
    const std::uint32_t nz = grid.nz();
    auto at = [&](std::int64_t x, std::int64_t y, std::int64_t z) {
        return grid.at(mirrorIndex(static_cast<std::int32_t>(x), nx),
                       mirrorIndex(static_cast<std::int32_t>(y), ny),
                       mirrorIndex(static_cast<std::int32_t>(z), nz));
    };
    for (std::uint32_t z = 0; z < nz; ++z) {
        for (std::uint32_t y = 0; y < ny; ++y) {
            for (std::uint32_t x = 0; x < nx; ++x) {
                if (grid.at(x, y, z) != Mineral::Pore) continue;
                for (const Mineral::Type m : {at(x - 1, y, z), at(x + 1, y, z), at(x, y - 1, z),
                                              at(x, y + 1, z), at(x, y, z - 1), at(x, y, z + 1)}) {
                    if (m != Mineral::Pore) ++faces[m & 15u];
                }
            }
        }
    }
    return faces;
}

}  // namespace nmr
