#include "grid/byte_mineral_grid.h"

#include <algorithm>
#include <new>
#include <string>

#include "common/exception.h"

namespace nmr {

namespace {

std::uint64_t cellCount(std::uint32_t nx, std::uint32_t ny, std::uint32_t nz) {
    return static_cast<std::uint64_t>(nx) * ny * nz;
}

}  // namespace

ByteCellStorage ByteCellStorage::allocate(std::uint64_t bytes) {
    std::shared_ptr<std::uint8_t[]> memory(new (std::nothrow) std::uint8_t[bytes]());
    if (!memory && bytes > 0) {
        throw MemoryAllocationException("Unable to allocate space for a grid of " +
                                        std::to_string(bytes) + " bytes");
    }
    return ByteCellStorage{memory.get(), bytes, memory};
}

ByteMineralGrid::ByteMineralGrid(std::uint32_t nx, std::uint32_t ny, std::uint32_t nz,
                                 std::uint32_t marginX, std::uint32_t marginY,
                                 std::uint32_t marginZ, double cellSize)
    : ByteMineralGrid(nx, ny, nz, marginX, marginY, marginZ, cellSize,
                      ByteCellStorage::allocate(cellCount(nx, ny, nz))) {}

ByteMineralGrid::ByteMineralGrid(std::uint32_t nx, std::uint32_t ny, std::uint32_t nz,
                                 std::uint32_t marginX, std::uint32_t marginY,
                                 std::uint32_t marginZ, double cellSize, ByteCellStorage storage)
    : Grid<Mineral::Type>(nx, ny, nz, marginX, marginY, marginZ, cellSize),
      storage_(std::move(storage)),
      cells_(storage_.cells),
      rowCells_(nx),
      sliceCells_(static_cast<std::uint64_t>(nx) * ny) {
    if (storage_.bytes != cellCount(nx, ny, nz) || (cells_ == nullptr && storage_.bytes > 0)) {
        throw Exception("Grid storage does not match the grid size: " +
                        std::to_string(storage_.bytes));
    }
    resetCountersToPore();
}

void ByteMineralGrid::setCellCounting(std::uint32_t x, std::uint32_t y, std::uint32_t z,
                                      const Mineral::Type& value, Counters& counters) {
    std::uint8_t& cell = cells_[z * sliceCells_ + y * rowCells_ + x];
    if (isInterior(x, y, z)) countCellChange(static_cast<Mineral::Type>(cell), value, counters);
    cell = static_cast<std::uint8_t>(value);
}

const Mineral::Type& ByteMineralGrid::getCell(Mineral::Type& buffer, std::uint32_t x,
                                              std::uint32_t y, std::uint32_t z) const {
    buffer = at(x, y, z);
    return buffer;
}

void ByteMineralGrid::clear() {
    std::fill(cells_, cells_ + storage_.bytes, std::uint8_t{0});
    resetCountersToPore();
}

std::shared_ptr<Grid<Mineral::Type>> ByteMineralGrid::makeEmpty() const {
    return std::make_shared<ByteMineralGrid>(nx_, ny_, nz_, marginX_, marginY_, marginZ_,
                                             cellSize_);
}

}  // namespace nmr
