#pragma once

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "common/logger.h"
#include "grid/compressed_vector.h"
#include "grid/grid.h"

namespace nmr {

// A half-open box [x0, x1) x [y0, y1) x [z0, z1) of grid cells.
struct BlockBounds {
    std::uint32_t x0 = 0, y0 = 0, z0 = 0;
    std::uint32_t x1 = 0, y1 = 0, z1 = 0;

    std::uint32_t nx() const { return x1 - x0; }
    std::uint32_t ny() const { return y1 - y0; }
    std::uint32_t nz() const { return z1 - z0; }
    std::size_t cellCount() const { return static_cast<std::size_t>(nx()) * ny() * nz(); }
    friend bool operator==(const BlockBounds&, const BlockBounds&) = default;
};

// A holder of the cells of one box, addressed in grid coordinates.
template <typename T>
class BoundedData {
public:
    BoundedData() = default;
    explicit BoundedData(const BlockBounds& bounds) : bounds_(bounds) {}
    virtual ~BoundedData() = default;

    virtual bool contains(std::uint32_t x, std::uint32_t y, std::uint32_t z) const {
        return bounds_.x0 <= x && x < bounds_.x1 && bounds_.y0 <= y && y < bounds_.y1 &&
               bounds_.z0 <= z && z < bounds_.z1;
    }
    virtual T get(std::uint32_t x, std::uint32_t y, std::uint32_t z) const = 0;
    virtual void set(std::uint32_t x, std::uint32_t y, std::uint32_t z, const T& value) = 0;
    virtual void setCounting(std::uint32_t x, std::uint32_t y, std::uint32_t z, const T& value,
                             std::vector<std::uint64_t>& counters) = 0;
    virtual const BlockBounds& bounds() const { return bounds_; }
    virtual void setBounds(const BlockBounds& bounds) { bounds_ = bounds; }

protected:
    BlockBounds bounds_;
};

// The expanded cells of one block in one array, x fastest, then y, then z.
template <typename T>
class ContiguousDataBlock {
public:
    ContiguousDataBlock(std::uint32_t nx, std::uint32_t ny, std::uint32_t nz)
        : nx_(nx), ny_(ny), size_(static_cast<std::size_t>(nx) * ny * nz), cells_(new T[size_]()) {}

    std::size_t index(std::uint32_t dx, std::uint32_t dy, std::uint32_t dz) const {
        return (static_cast<std::size_t>(dz) * ny_ + dy) * nx_ + dx;
    }
    T* data() { return cells_.get(); }
    const T* data() const { return cells_.get(); }
    std::size_t size() const { return size_; }
    std::size_t byteSize() const { return size_ * sizeof(T); }
    void fillZero() { std::fill(cells_.get(), cells_.get() + size_, T{}); }

private:
    std::uint32_t nx_, ny_;
    std::size_t size_;
    std::unique_ptr<T[]> cells_;
};

// One block of a CompressedBlockedGrid. At any time it is in one of three states:
//   zero       - never written: all cells 0, no bytes kept at all;
//   squeezed   - only the compressed bytes are kept;
//   expanded   - the cells are in memory, plus the bytes when they are still current.
// The compressed bytes are rewritten only when the expanded cells were changed (dirty).
template <typename T>
class BoundedDataBlock final : public BoundedData<T> {
public:
    explicit BoundedDataBlock(const BlockBounds& bounds) : BoundedData<T>(bounds) {}

    bool isExpanded() const { return cells_ != nullptr; }
    bool isZero() const { return zero_; }
    bool isDirty() const { return dirty_; }
    void markDirty() { dirty_ = true; }
    ContiguousDataBlock<T>* cells() { return cells_.get(); }
    const CompressedVector<char>& packed() const { return packed_; }

    // Brings the cells into memory, reusing spare when it has the right size.
    void expand(LoggerBase& logger, std::unique_ptr<ContiguousDataBlock<T>> spare) {
        if (isExpanded()) return;
        const BlockBounds& b = this->bounds_;
        const bool reuse = spare != nullptr && spare->size() == b.cellCount();
        if (reuse) {
            cells_ = std::move(spare);
        } else {
            cells_ = std::make_unique<ContiguousDataBlock<T>>(b.nx(), b.ny(), b.nz());
        }
        if (!zero_) {
            try {
                packed_.uncompress(reinterpret_cast<char*>(cells_->data()), logger);
            } catch (...) {
                cells_.reset();
                throw;
            }
        } else if (reuse) {
            cells_->fillZero();  // a fresh buffer is zeroed already, a reused one is not
        }
        dirty_ = false;
    }
    // Writes the bytes again if the cells changed; the cells stay in memory.
    void commit(LoggerBase& logger) {
        if (!isExpanded() || !dirty_) return;
        packed_.compress(reinterpret_cast<const char*>(cells_->data()), cells_->byteSize(), logger);
        zero_ = false;
        dirty_ = false;
    }
    // Commits and gives the cell buffer back for reuse.
    std::unique_ptr<ContiguousDataBlock<T>> squeeze(LoggerBase& logger) {
        commit(logger);
        return std::move(cells_);
    }
    // Back to all zeros, nothing kept.
    void reset() {
        cells_.reset();
        packed_.clear();
        zero_ = true;
        dirty_ = false;
    }
    // Takes compressed bytes made by another copy of the same block. By value: the bytes
    // are moved on into the packed store.
    void install(std::vector<char> bytes) {  // NOLINT(performance-unnecessary-value-param)
        cells_.reset();
        dirty_ = false;
        zero_ = bytes.empty();
        if (zero_) {
            packed_.clear();
        } else {
            packed_.assign(std::move(bytes), this->bounds_.cellCount() * sizeof(T));
        }
    }

    // Cell access; the block must be expanded.
    T get(std::uint32_t x, std::uint32_t y, std::uint32_t z) const override {
        return cells_->data()[offset(x, y, z)];
    }
    void set(std::uint32_t x, std::uint32_t y, std::uint32_t z, const T& value) override {
        cells_->data()[offset(x, y, z)] = value;
        dirty_ = true;
    }
    void setCounting(std::uint32_t x, std::uint32_t y, std::uint32_t z, const T& value,
                     std::vector<std::uint64_t>& counters) override {
        T& cell = cells_->data()[offset(x, y, z)];
        countCellChange(cell, value, counters);
        cell = value;
        dirty_ = true;
    }

private:
    std::size_t offset(std::uint32_t x, std::uint32_t y, std::uint32_t z) const {
        const BlockBounds& b = this->bounds_;
        return cells_->index(x - b.x0, y - b.y0, z - b.z0);
    }

    std::unique_ptr<ContiguousDataBlock<T>> cells_;
    CompressedVector<char> packed_;
    bool zero_ = true;
    bool dirty_ = false;
};

}  // namespace nmr
