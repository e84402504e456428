#pragma once

#include <cstdint>
#include <type_traits>

#include "grid/grid.h"
#include "grid/mineral.h"

namespace nmr {

// A walker's position in voxel units: voxel (i, j, k) covers [i, i+1) x [j, j+1) x [k, k+1).
// Exactly three packed doubles, because walkers travel between processes as 3 doubles each.
struct Walker {
    double x;
    double y;
    double z;
};
static_assert(sizeof(Walker) == 3 * sizeof(double) && std::is_trivially_copyable_v<Walker>);

// mirrorIndex(i, n) for a walker that moves in small steps: the start of the mirror
// period it was last found in is kept, so a walker far outside the box pays a division
// only when it crosses into another period, not on every step.
class MirrorAxis {
public:
    explicit MirrorAxis(std::uint32_t n)
        : n_(n), period_(n > 1 ? 2 * (static_cast<std::int64_t>(n) - 1) : 0) {}

    std::uint32_t operator()(std::int32_t i) {
        if (static_cast<std::uint32_t>(i) < static_cast<std::uint32_t>(n_)) {
            return static_cast<std::uint32_t>(i);  // inside the box: most steps
        }
        std::int64_t r = static_cast<std::int64_t>(i) - periodStart_;
        if (r < 0 || r >= period_) [[unlikely]] {
            if (period_ == 0) return 0;
            std::int64_t k = static_cast<std::int64_t>(i) / period_;
            if (k * period_ > i) --k;  // floor, also for negative i
            periodStart_ = k * period_;
            r = static_cast<std::int64_t>(i) - periodStart_;
        }
        return static_cast<std::uint32_t>(r < n_ ? r : period_ - r);
    }

private:
    std::int64_t n_;
    std::int64_t period_;
    std::int64_t periodStart_ = 0;
};

// What the walk sees of a grid. G is any grid with a non-virtual
// `Mineral::Type at(uint32_t x, uint32_t y, uint32_t z) const`. The offsets shift the
// mirrored index into the grid object (a view onto a sub-box); this program uses 0.
template <typename G>
struct WalkGridView {
    const G& grid;
    std::int32_t offsetX = 0;
    std::int32_t offsetY = 0;
    std::int32_t offsetZ = 0;
    std::uint32_t sizeX = 0;
    std::uint32_t sizeY = 0;
    std::uint32_t sizeZ = 0;

    // The mineral of voxel (i, j, k) of the view, indices already inside [0, size).
    Mineral::Type cell(std::uint32_t i, std::uint32_t j, std::uint32_t k) const {
        return grid.at(i + static_cast<std::uint32_t>(offsetX),
                       j + static_cast<std::uint32_t>(offsetY),
                       k + static_cast<std::uint32_t>(offsetZ));
    }

    // The mineral under a position. Coordinates are never folded back: the walker
    // moves through the mirrored infinite extension of the box, and only the index is
    // reflected. Truncation is toward zero, so (-1, 1) all land in voxel 0.
    Mineral::Type mineralAt(double x, double y, double z) const {
        return cell(mirrorIndex(static_cast<std::int32_t>(x), sizeX),
                    mirrorIndex(static_cast<std::int32_t>(y), sizeY),
                    mirrorIndex(static_cast<std::int32_t>(z), sizeZ));
    }
};

// A view of the whole grid with no offset.
template <typename G>
WalkGridView<G> makeWalkGridView(const G& grid) {
    return WalkGridView<G>{grid, 0, 0, 0, grid.nx(), grid.ny(), grid.nz()};
}

}  // namespace nmr
