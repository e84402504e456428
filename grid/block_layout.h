#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

namespace nmr {

// How a blocked grid cuts one axis of n cells into blocks of `edge` cells: max(1, n / edge)
// blocks, the last running to the end of the axis (so up to 2 * edge - 1 cells long), and
// for every cell the block that holds it. The compressed grid and the sort of walkers by
// block both use this one rule, so that walkers next to each other in the sort touch the
// same block.
struct BlockAxis {
    std::uint32_t count = 1;
    std::vector<std::uint32_t> blockOf;  // cell index -> block index

    BlockAxis() = default;
    BlockAxis(std::uint32_t n, std::uint32_t edge)
        : count(std::max<std::uint32_t>(1, n / edge)), blockOf(n) {
        for (std::uint32_t i = 0; i < n; ++i) blockOf[i] = std::min(i / edge, count - 1);
    }
    // Exclusive end of block b along an axis of n cells.
    static std::uint32_t blockEnd(std::uint32_t b, std::uint32_t count, std::uint32_t n,
                                  std::uint32_t edge) {
        return b + 1 == count ? n : (b + 1) * edge;
    }
};

}  // namespace nmr
