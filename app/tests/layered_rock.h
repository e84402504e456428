#pragma once

#include <filesystem>
#include <vector>

#include "io/grain_bed_grid_writer.h"

namespace nmr::test {

// An n^3 grid of 1 um cells whose z layers are all quartz where isQuartz(z), all pore
// elsewhere: every walker meets a wall within a known distance, so runs stay short and
// their length is under the test's control.
template <typename IsQuartz>
void writeLayeredRock(const std::filesystem::path& path, std::uint32_t n, IsQuartz isQuartz) {
    GrainBedGridWriter writer(path.string(), n, n, n, 0, 0, 0, 1.0);
    std::vector<GrainBedGridCell> slice(static_cast<std::size_t>(n) * n);
    for (std::uint32_t z = 0; z < n; ++z) {
        const std::uint32_t mineral = isQuartz(z) ? Mineral::Quartz : Mineral::Pore;
        std::fill(slice.begin(), slice.end(), GrainBedGridCell::make(0, mineral));
        writer.writeSlice(slice.data());
    }
    writer.close();
}

}  // namespace nmr::test
