#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <utility>

#include "grid/brick_layout.h"

namespace nmr {

// The field offset dB/B0 of every cell, at cell centres, stored in bricks (see
// BrickLayout; RowLayout is there to measure the bricks against), read by the phase walk.
// It holds its storage (node-shared memory or its own) through `owner`, so it can be
// copied freely.
template <typename Layout>
class BasicFieldMap {
public:
    BasicFieldMap() = default;
    BasicFieldMap(std::shared_ptr<const void> owner, const float* values, std::uint32_t nx,
                  std::uint32_t ny, std::uint32_t nz)
        : owner_(std::move(owner)),
          values_(values),
          layout_(nx, ny, nz),
          nx_(nx),
          ny_(ny),
          nz_(nz) {}

    explicit operator bool() const { return values_ != nullptr; }
    std::uint32_t nx() const { return nx_; }
    std::uint32_t ny() const { return ny_; }
    std::uint32_t nz() const { return nz_; }
    const Layout& layout() const { return layout_; }

    double at(std::uint32_t x, std::uint32_t y, std::uint32_t z) const {
        return values_[layout_.index(x, y, z)];
    }

    // Trilinear between the eight cell centres around a position in voxel units. The
    // walker walks through the mirrored extension of the grid; the field there is the mirror
    // image of the grid's, so a position outside is first reflected into the grid, and
    // within half a cell of a face the field is that of the edge cell (the mirror image has
    // no slope across the face).
    double interpolate(double x, double y, double z) const {
        const double u = fold(x, nx_) - 0.5, v = fold(y, ny_) - 0.5, w = fold(z, nz_) - 0.5;
        // u >= -0.5, so truncating u + 1 gives floor(u) + 1 without a call to floor.
        const auto fu = static_cast<std::int64_t>(u + 1.0) - 1;
        const auto fv = static_cast<std::int64_t>(v + 1.0) - 1;
        const auto fw = static_cast<std::int64_t>(w + 1.0) - 1;
        const double a = u - static_cast<double>(fu), b = v - static_cast<double>(fv),
                     c = w - static_cast<double>(fw);
        const std::uint64_t x0 = layout_.offsetX(low(fu)), x1 = layout_.offsetX(high(fu, nx_));
        const std::uint64_t y0 = layout_.offsetY(low(fv)), y1 = layout_.offsetY(high(fv, ny_));
        const std::uint64_t z0 = layout_.offsetZ(low(fw)), z1 = layout_.offsetZ(high(fw, nz_));
        auto cell = [this](std::uint64_t i, std::uint64_t j, std::uint64_t k) -> double {
            return values_[i + j + k];
        };
        const double c00 = cell(x0, y0, z0) + a * (cell(x1, y0, z0) - cell(x0, y0, z0));
        const double c10 = cell(x0, y1, z0) + a * (cell(x1, y1, z0) - cell(x0, y1, z0));
        const double c01 = cell(x0, y0, z1) + a * (cell(x1, y0, z1) - cell(x0, y0, z1));
        const double c11 = cell(x0, y1, z1) + a * (cell(x1, y1, z1) - cell(x0, y1, z1));
        const double c0 = c00 + b * (c10 - c00);
        const double c1 = c01 + b * (c11 - c01);
        return c0 + c * (c1 - c0);
    }

private:
    // The coordinate reflected into [0, n] at the faces of the grid.
    static double fold(double x, std::uint32_t n) {
        const double size = n;
        if (x >= 0.0 && x <= size) [[likely]]
            return x;
        double m = std::fmod(x, 2.0 * size);
        if (m < 0.0) m += 2.0 * size;
        return m > size ? 2.0 * size - m : m;
    }
    // The cells either side of a cell-centre coordinate's floor (from -1 to n - 1), kept
    // inside the grid.
    static std::uint32_t low(std::int64_t floor) {
        return static_cast<std::uint32_t>(std::max<std::int64_t>(floor, 0));
    }
    static std::uint32_t high(std::int64_t floor, std::uint32_t n) {
        return static_cast<std::uint32_t>(std::min<std::int64_t>(floor + 1, n - 1));
    }

    std::shared_ptr<const void> owner_;
    const float* values_ = nullptr;
    Layout layout_;
    std::uint32_t nx_ = 0, ny_ = 0, nz_ = 0;
};

using FieldMap = BasicFieldMap<BrickLayout>;

// A field of its own (tests, one process): `cells` x fastest, laid out in bricks.
FieldMap bricked(const float* cells, std::uint32_t nx, std::uint32_t ny, std::uint32_t nz);

}  // namespace nmr
