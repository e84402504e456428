#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <vector>

#include "grid/mineral.h"

namespace nmr {

// The mineral that a cell value stands for, used by the per-mineral counters.
inline Mineral::Type mineralOf(GrainBedGridCell cell) { return cell.mineral(); }
inline Mineral::Type mineralOf(Mineral::Type code) { return code; }
// A mask counts its set cells under code 1 and its clear cells as pore.
inline Mineral::Type mineralOf(bool set) { return set ? Mineral::Clay : Mineral::Pore; }

// Reflects an index at the faces of [0, n) without repeating the edge voxel:
// ..., 2, 1, 0, 1, 2, ..., n-1, n-2, ...  A size of 1 maps everything to 0.
inline std::uint32_t mirrorIndex(std::int32_t i, std::uint32_t n) {
    if (i >= 0 && static_cast<std::uint32_t>(i) < n) return static_cast<std::uint32_t>(i);
    if (n <= 1) return 0;
    const std::int64_t period = 2 * (static_cast<std::int64_t>(n) - 1);
    std::int64_t m = static_cast<std::int64_t>(i) % period;
    if (m < 0) m += period;
    return static_cast<std::uint32_t>(m < static_cast<std::int64_t>(n) ? m : period - m);
}

// What counting does with a mineral code beyond the counter table (14 and 15).
enum class UncountedCodes {
    Fail,  // a range error (std::out_of_range): the grid's own setters
    Skip,  // left uncounted, so that a loader can store a damaged file's cells and the
           // caller can find and report them afterwards
};

// Moves one counted cell from the old value's mineral to the new one's: the one rule
// every grid kind and loader keeps its per-mineral counters by.
template <typename T>
void countCellChange(const T& oldValue, const T& newValue, std::vector<std::uint64_t>& counters,
                     UncountedCodes uncounted = UncountedCodes::Fail) {
    const Mineral::Type before = mineralOf(oldValue);
    const Mineral::Type after = mineralOf(newValue);
    if (before == after) return;
    if (uncounted == UncountedCodes::Skip &&
        (before >= counters.size() || after >= counters.size()))
        return;
    --counters.at(before);
    ++counters.at(after);
}

// A box of nx * ny * nz cubic cells (margins included) with a margin of cells on each
// face that is stored but is not part of the sample. Counters track how many interior
// cells hold each mineral; margin cells are never counted, so porosity and volume
// fractions describe the sample only.
template <typename T>
class Grid {
public:
    using Counters = std::vector<std::uint64_t>;

    Grid(std::uint32_t nx, std::uint32_t ny, std::uint32_t nz, std::uint32_t marginX,
         std::uint32_t marginY, std::uint32_t marginZ, double cellSize)
        : nx_(nx),
          ny_(ny),
          nz_(nz),
          marginX_(marginX),
          marginY_(marginY),
          marginZ_(marginZ),
          cellSize_(cellSize),
          counters_(static_cast<std::size_t>(Mineral::count()), 0) {}
    virtual ~Grid() = default;

    // Stores the value and keeps the given counters up to date for interior cells.
    // A mineral code beyond the counter table is a range error (std::out_of_range).
    virtual void setCellCounting(std::uint32_t x, std::uint32_t y, std::uint32_t z, const T& value,
                                 Counters& counters) = 0;
    virtual void setCell(std::uint32_t x, std::uint32_t y, std::uint32_t z, const T& value) {
        setCellCounting(x, y, z, value, counters_);
    }
    // Copies the cell into the caller's buffer and returns it.
    virtual const T& getCell(T& buffer, std::uint32_t x, std::uint32_t y,
                             std::uint32_t z) const = 0;

    virtual std::uint32_t marginX() const { return marginX_; }
    virtual std::uint32_t marginY() const { return marginY_; }
    virtual std::uint32_t marginZ() const { return marginZ_; }
    virtual std::uint32_t nx() const { return nx_; }
    virtual std::uint32_t ny() const { return ny_; }
    virtual std::uint32_t nz() const { return nz_; }
    virtual std::uint32_t interiorNx() const { return nx_ - 2 * marginX_; }
    virtual std::uint32_t interiorNy() const { return ny_ - 2 * marginY_; }
    virtual std::uint32_t interiorNz() const { return nz_ - 2 * marginZ_; }
    virtual double cellSize() const { return cellSize_; }
    virtual std::uint64_t totalCellCount() const {
        return static_cast<std::uint64_t>(nx_) * ny_ * nz_;
    }
    virtual std::uint64_t interiorCellCount() const {
        return static_cast<std::uint64_t>(interiorNx()) * interiorNy() * interiorNz();
    }
    virtual double volumeFraction(Mineral::Type mineral) const {
        return static_cast<double>(counter(mineral)) / static_cast<double>(interiorCellCount());
    }
    virtual std::uint64_t counter(Mineral::Type mineral) const { return counters_.at(mineral); }
    virtual double porosity() const { return volumeFraction(Mineral::Pore); }
    // Every cell becomes 0 (pore, grain 0); the pore counter holds the interior count.
    virtual void clear() = 0;
    virtual void copyTo(Grid<T>& target) const {
        T buffer{};
        for (std::uint32_t z = 0; z < nz_; ++z)
            for (std::uint32_t y = 0; y < ny_; ++y)
                for (std::uint32_t x = 0; x < nx_; ++x)
                    target.setCell(x, y, z, getCell(buffer, x, y, z));
    }
    // A new, cleared grid of the same kind, sizes, margins and cell size.
    virtual std::shared_ptr<Grid<T>> makeEmpty() const = 0;

    T get(std::uint32_t x, std::uint32_t y, std::uint32_t z) const {
        T buffer{};
        return getCell(buffer, x, y, z);
    }
    bool isInterior(std::uint32_t x, std::uint32_t y, std::uint32_t z) const {
        return x >= marginX_ && x < nx_ - marginX_ && y >= marginY_ && y < ny_ - marginY_ &&
               z >= marginZ_ && z < nz_ - marginZ_;
    }
    const Counters& counters() const { return counters_; }
    Counters& counters() { return counters_; }

protected:
    void resetCountersToPore() {
        std::fill(counters_.begin(), counters_.end(), 0);
        counters_[Mineral::Pore] = interiorCellCount();
    }

    std::uint32_t nx_, ny_, nz_;
    std::uint32_t marginX_, marginY_, marginZ_;
    double cellSize_;
    Counters counters_;
};

}  // namespace nmr
