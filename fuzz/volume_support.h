#pragma once

#include <cstdint>
#include <vector>

#include "rock/volume_reader.h"

namespace nmr::fuzz {

// Reads every slice as nmrwalk-import does, into one slice of labels. Only called once the
// reader has accepted the volume's shape against the data it has.
inline void readAllSlices(rock::VolumeReader& reader) {
    const rock::VolumeShape& shape = reader.shape();
    std::vector<std::int32_t> labels(std::size_t{shape.nx} * shape.ny);
    for (std::uint32_t z = 0; z < shape.nz; ++z) reader.readSlice(labels.data());
}

}  // namespace nmr::fuzz
