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
    // walker walks through the mirrored extension of the grid, whose cells repeat as
    // MirrorAxis says (mirrored about the centres of the edge cells, a period of 2 (n - 1)
    // cells); the field there is the mirror image of the grid's, so a position outside is
    // first reflected the same way.
    double interpolate(double x, double y, double z) const {
        const double u = fold(x, nx_), v = fold(y, ny_), w = fold(z, nz_);
        // u >= 0: truncation is the floor, without a call to floor.
        const auto fu = static_cast<std::uint32_t>(u);
        const auto fv = static_cast<std::uint32_t>(v);
        const auto fw = static_cast<std::uint32_t>(w);
        const double a = u - fu, b = v - fv, c = w - fw;
        const std::uint64_t x0 = layout_.offsetX(fu), x1 = layout_.offsetX(next(fu, nx_));
        const std::uint64_t y0 = layout_.offsetY(fv), y1 = layout_.offsetY(next(fv, ny_));
        const std::uint64_t z0 = layout_.offsetZ(fw), z1 = layout_.offsetZ(next(fw, nz_));
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
    // The coordinate, in voxels, reflected into the cell centres' span [0.5, n - 0.5] about
    // its ends, less 0.5: from 0 to n - 1, in units of cells from the first centre.
    static double fold(double x, std::uint32_t n) {
        const double last = static_cast<double>(n) - 1.0;
        const double u = x - 0.5;
        if (u >= 0.0 && u <= last) [[likely]]
            return u;
        if (n == 1) return 0.0;
        double m = std::fmod(u, 2.0 * last);
        if (m < 0.0) m += 2.0 * last;
        return m > last ? 2.0 * last - m : m;
    }
    // The cell after a floor, kept inside the grid (the floor is n - 1 at the last centre).
    static std::uint32_t next(std::uint32_t floor, std::uint32_t n) {
        return floor + 1 < n ? floor + 1 : floor;
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
