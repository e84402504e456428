#pragma once

#include <cstdint>

namespace nmr {

// Cells stored in cubic bricks of 8 x 8 x 8, bricks x fastest, then y, then z, and cells
// x fastest within a brick. A step of a walker moves at most a cell or so, so the cells it
// reads next to each other (eight of them for a trilinear read) lie within one brick, or a
// neighbouring one, rather than a slice apart as in a grid laid out x fastest throughout.
// Sizes that are not multiples of 8 leave the far bricks partly unused.
class BrickLayout {
public:
    static constexpr unsigned kShift = 3;
    static constexpr std::uint32_t kEdge = 1u << kShift;
    static constexpr std::uint32_t kMask = kEdge - 1;

    BrickLayout() = default;
    BrickLayout(std::uint32_t nx, std::uint32_t ny, std::uint32_t nz)
        : bricksX_((nx + kMask) >> kShift),
          bricksY_((ny + kMask) >> kShift),
          bricksZ_((nz + kMask) >> kShift) {}

    // Where cell (x, y, z) is stored: the sum of one part per axis (the brick's bits and
    // the cell's bits within it never overlap), so that a read of neighbouring cells can
    // compute each axis's part once.
    std::uint64_t index(std::uint32_t x, std::uint32_t y, std::uint32_t z) const {
        return offsetX(x) + offsetY(y) + offsetZ(z);
    }
    std::uint64_t offsetX(std::uint32_t x) const {
        return (static_cast<std::uint64_t>(x >> kShift) << (3 * kShift)) | (x & kMask);
    }
    std::uint64_t offsetY(std::uint32_t y) const {
        return ((y >> kShift) * bricksX_ << (3 * kShift)) | ((y & kMask) << kShift);
    }
    std::uint64_t offsetZ(std::uint32_t z) const {
        return ((z >> kShift) * bricksY_ * bricksX_ << (3 * kShift)) |
               ((z & kMask) << (2 * kShift));
    }
    // Storage for every brick.
    std::uint64_t cells() const {
        return static_cast<std::uint64_t>(bricksX_) * bricksY_ * bricksZ_ << (3 * kShift);
    }

private:
    std::uint64_t bricksX_ = 0;
    std::uint64_t bricksY_ = 0;
    std::uint64_t bricksZ_ = 0;
};

// Cells x fastest, then y, then z: the layout of a plain grid, kept to measure the bricks
// against.
class RowLayout {
public:
    RowLayout() = default;
    RowLayout(std::uint32_t nx, std::uint32_t ny, std::uint32_t nz) : nx_(nx), ny_(ny), nz_(nz) {}
    std::uint64_t index(std::uint32_t x, std::uint32_t y, std::uint32_t z) const {
        return offsetX(x) + offsetY(y) + offsetZ(z);
    }
    std::uint64_t offsetX(std::uint32_t x) const { return x; }
    std::uint64_t offsetY(std::uint32_t y) const { return y * nx_; }
    std::uint64_t offsetZ(std::uint32_t z) const { return z * ny_ * nx_; }
    std::uint64_t cells() const { return nx_ * ny_ * nz_; }

private:
    std::uint64_t nx_ = 0;
    std::uint64_t ny_ = 0;
    std::uint64_t nz_ = 0;
};

}  // namespace nmr
