#pragma once

#include <array>
#include <memory>
#include <optional>
#include <string>

#include "rock/volume_reader.h"

namespace nmr::rock {

// The parts of a MetaImage header (".mhd", or ".mha" with ElementDataFile = LOCAL)
// that a segmented volume needs.
struct MetaImageHeader {
    std::string headerPath;
    VolumeShape shape;
    bool bigEndian = false;
    std::optional<std::array<double, 3>> spacing;  // ElementSpacing, in the file's own unit
    std::string dataPath;                          // resolved against the header's folder
    std::uint64_t dataOffset = 0;                  // bytes to skip in the data file
};

// Throws nmr::FileAccessException naming the header file and the key or value at fault
// (missing DimSize, ElementType or ElementDataFile, unsupported element types,
// compressed or multi-channel data, list-of-files data).
MetaImageHeader readMetaImageHeader(const std::string& path);

std::unique_ptr<VolumeReader> openMetaImage(const MetaImageHeader& header);

}  // namespace nmr::rock
