#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "rock/volume_reader.h"

namespace nmr::rock {

// The element types a reader of MetaImage data decodes, each with its size in bytes, and
// how its messages name the voxels ("labels", "field values").
struct MetaImageElements {
    std::vector<std::pair<std::string, std::size_t>> types;
    std::string purpose;
};

// Where the voxels of a MetaImage are and how to read them, for any element type.
struct MetaImageLayout {
    std::string headerPath;
    std::array<std::uint32_t, 3> size{1, 1, 1};  // DimSize; 1 for an absent third axis
    std::string elementType;                     // as written, one of the accepted types
    std::size_t elementBytes = 1;
    bool bigEndian = false;
    std::optional<std::array<double, 3>> spacing;  // ElementSpacing, in the file's own unit
    std::string dataPath;                          // resolved against the header's folder
    std::uint64_t dataOffset = 0;                  // bytes to skip in the data file
};

// Throws nmr::FileAccessException naming the header file and the key or value at fault:
// a missing DimSize, ElementType or ElementDataFile, an element type `accepted` does not
// hold, compressed or multi-channel data, list-of-files data.
MetaImageLayout readMetaImageLayout(const std::string& path, const MetaImageElements& accepted);

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
