#pragma once

#include <memory>
#include <new>
#include <string>
#include <vector>

#include "common/exception.h"
#include "common/progress_reporter.h"
#include "grid/grid.h"

namespace nmr {

// Holder of one plane of cells.
template <typename T>
class ContiguousData {
public:
    virtual ~ContiguousData() = default;
    virtual const T& get(std::uint32_t x, std::uint32_t y) const = 0;
    virtual void setCounting(std::uint32_t x, std::uint32_t y, const T& value,
                             std::vector<std::uint64_t>& counters) = 0;
    virtual void set(std::uint32_t x, std::uint32_t y, const T& value) = 0;
};

// One z slice: nx * ny values in one array, index y * nx + x. A plain array rather
// than std::vector so that a bool mask is still one addressable byte per cell.
template <typename T>
class ContiguousDataSlice final : public ContiguousData<T> {
public:
    ContiguousDataSlice(std::uint32_t nx, std::uint32_t ny)
        : nx_(nx), data_(new T[static_cast<std::size_t>(nx) * ny]()) {}

    const T& get(std::uint32_t x, std::uint32_t y) const override {
        return data_[static_cast<std::size_t>(y) * nx_ + x];
    }
    void setCounting(std::uint32_t x, std::uint32_t y, const T& value,
                     std::vector<std::uint64_t>& counters) override {
        T& cell = data_[static_cast<std::size_t>(y) * nx_ + x];
        countCellChange(cell, value, counters);
        cell = value;
    }
    void set(std::uint32_t x, std::uint32_t y, const T& value) override {
        data_[static_cast<std::size_t>(y) * nx_ + x] = value;
    }
    T* data() { return data_.get(); }
    const T* data() const { return data_.get(); }

private:
    std::uint32_t nx_;
    std::unique_ptr<T[]> data_;
};

// The grid a run walks on: one separate allocation of nx * ny cells per z slice, so a
// large grid needs no single huge block and a slice can be moved on its own.
template <typename T>
class SlicedGrid final : public Grid<T> {
public:
    // Allocates and clears the grid at once unless allocate is false.
    SlicedGrid(std::uint32_t nx, std::uint32_t ny, std::uint32_t nz, std::uint32_t marginX,
               std::uint32_t marginY, std::uint32_t marginZ, double cellSize, bool allocate = true)
        : Grid<T>(nx, ny, nz, marginX, marginY, marginZ, cellSize) {
        if (allocate) {
            NullProgressReporter progress;
            this->allocate(progress);
        }
    }

    // Throws "Grid already allocated." on a second call and MemoryAllocationException
    // when a slice cannot be allocated.
    void allocate(ProgressReporter& progress) {
        if (slices_.size() == this->nz_ && this->nz_ != 0)
            throw Exception("Grid already allocated.");
        progress.start("Allocating grid...", this->nz_);
        try {
            slices_.resize(this->nz_);
            for (std::uint32_t z = 0; z < this->nz_; ++z) {
                progress.step();
                slices_[z] = std::make_unique<ContiguousDataSlice<T>>(this->nx_, this->ny_);
            }
        } catch (const std::bad_alloc&) {
            slices_.clear();
            throw MemoryAllocationException(
                "Unable to allocate space for a grid of size (x,y,z): " +
                std::to_string(this->nx_) + "," + std::to_string(this->ny_) + "," +
                std::to_string(this->nz_));
        }
        progress.finish();
        this->resetCountersToPore();
    }

    void setCellCounting(std::uint32_t x, std::uint32_t y, std::uint32_t z, const T& value,
                         typename Grid<T>::Counters& counters) override {
        if (this->isInterior(x, y, z)) {
            slices_[z]->setCounting(x, y, value, counters);
        } else {
            slices_[z]->set(x, y, value);
        }
    }
    const T& getCell(T& buffer, std::uint32_t x, std::uint32_t y, std::uint32_t z) const override {
        buffer = slices_[z]->get(x, y);
        return buffer;
    }
    void clear() override {
        const std::size_t n = static_cast<std::size_t>(this->nx_) * this->ny_;
        for (auto& slice : slices_) std::fill(slice->data(), slice->data() + n, T{});
        this->resetCountersToPore();
    }
    std::shared_ptr<Grid<T>> makeEmpty() const override {
        return std::make_shared<SlicedGrid<T>>(this->nx_, this->ny_, this->nz_, this->marginX_,
                                               this->marginY_, this->marginZ_, this->cellSize_);
    }

    // Non-virtual fast paths for the walk and for slice-wise transfer.
    T at(std::uint32_t x, std::uint32_t y, std::uint32_t z) const {
        return slices_[z]->data()[static_cast<std::size_t>(y) * this->nx_ + x];
    }
    T* sliceData(std::uint32_t z) { return slices_[z]->data(); }
    const T* sliceData(std::uint32_t z) const { return slices_[z]->data(); }
    bool allocated() const { return !slices_.empty() || this->nz_ == 0; }

private:
    std::vector<std::unique_ptr<ContiguousDataSlice<T>>> slices_;
};

}  // namespace nmr
