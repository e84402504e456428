#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "grid/mineral.h"

namespace nmr::rock {

// Porosity, mineral fractions and the voxel-face surface of a grid, gathered while the
// grid streams past one z slice at a time (slices in ascending z, x fastest). Only
// faces between two cells of the grid count: the walk mirrors the grid at its faces,
// so a boundary face always separates a cell from its own mirror image.
class PoreStatistics {
public:
    PoreStatistics(std::uint32_t nx, std::uint32_t ny);

    void addSlice(const GrainBedGridCell* cells);

    std::uint64_t cellCount() const { return cells_; }
    std::uint64_t poreCount() const { return counts_[Mineral::Pore]; }
    std::uint64_t count(Mineral::Type mineral) const { return counts_.at(mineral & 15u); }
    // Faces shared by a pore cell and a solid (any non-pore) cell.
    std::uint64_t poreSolidFaces() const { return faces_; }
    double porosity() const;
    double volumeFraction(Mineral::Type mineral) const;
    // S/V of the pore space in 1/length, for cells of edge cellSize:
    // faces * cellSize^2 / (pores * cellSize^3). Zero when there is no pore.
    double surfaceToVolume(double cellSize) const;

private:
    std::uint32_t nx_, ny_;
    std::uint64_t cells_ = 0;
    std::uint64_t faces_ = 0;
    std::array<std::uint64_t, 16> counts_{};
    std::vector<std::uint8_t> previousPore_;  // pore mask of the last slice, empty before the first
};

}  // namespace nmr::rock
