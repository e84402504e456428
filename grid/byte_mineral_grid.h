#pragma once

#include <cstdint>
#include <memory>

#include "grid/grid.h"
#include "grid/mineral.h"

namespace nmr {

// Where the cells of a ByteMineralGrid live: nx * ny * nz bytes, and whatever keeps them
// alive (a node's shared memory, say). Several grid objects may read the same storage.
struct ByteCellStorage {
    std::uint8_t* cells = nullptr;
    std::uint64_t bytes = 0;
    std::shared_ptr<void> owner;

    // Zeroed memory of this process alone. Throws MemoryAllocationException.
    static ByteCellStorage allocate(std::uint64_t bytes);
};

// The simulation grid at one byte per cell: a mineral code always fits in four bits, so
// this holds the same cells as SlicedGrid<Mineral::Type> in a quarter of the memory. The
// cells are one array in file order (x fastest, then y, then z) in storage that may be
// shared, read-only, by every process of a node.
class ByteMineralGrid final : public Grid<Mineral::Type> {
public:
    // A cleared grid in memory of its own.
    ByteMineralGrid(std::uint32_t nx, std::uint32_t ny, std::uint32_t nz, std::uint32_t marginX,
                    std::uint32_t marginY, std::uint32_t marginZ, double cellSize);
    // A grid over existing cells, taken as they are; the counters start as those of a
    // cleared grid, and the caller makes them match the cells. Throws Exception when the
    // storage does not hold exactly nx * ny * nz bytes.
    ByteMineralGrid(std::uint32_t nx, std::uint32_t ny, std::uint32_t nz, std::uint32_t marginX,
                    std::uint32_t marginY, std::uint32_t marginZ, double cellSize,
                    ByteCellStorage storage);

    void setCellCounting(std::uint32_t x, std::uint32_t y, std::uint32_t z,
                         const Mineral::Type& value, Counters& counters) override;
    const Mineral::Type& getCell(Mineral::Type& buffer, std::uint32_t x, std::uint32_t y,
                                 std::uint32_t z) const override;
    void clear() override;
    std::shared_ptr<Grid<Mineral::Type>> makeEmpty() const override;

    // The walk's read: non-virtual, one load.
    Mineral::Type at(std::uint32_t x, std::uint32_t y, std::uint32_t z) const {
        return static_cast<Mineral::Type>(cells_[z * sliceCells_ + y * rowCells_ + x]);
    }
    // nx * ny cells of slice z, x fastest.
    std::uint8_t* sliceData(std::uint32_t z) { return cells_ + z * sliceCells_; }
    const std::uint8_t* sliceData(std::uint32_t z) const { return cells_ + z * sliceCells_; }
    const ByteCellStorage& storage() const { return storage_; }

private:
    ByteCellStorage storage_;
    std::uint8_t* cells_;
    // Strides as 64-bit numbers, so index arithmetic never wraps for large grids.
    std::uint64_t rowCells_;
    std::uint64_t sliceCells_;
};

}  // namespace nmr
