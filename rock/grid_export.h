#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "common/logger.h"
#include "rock/label_map.h"
#include "rock/pore_geometry.h"
#include "rock/pore_statistics.h"
#include "rock/volume_reader.h"

namespace nmr::rock {

// Margin cells per face, along x, y and z.
using Margins = std::array<std::uint32_t, 3>;

// Streams a geometry into a grain bed grid file of edge `cellSize` (micrometres), one
// slice in memory at a time. With margins the geometry is the interior and the margin
// cells are its mirror image, which is exactly what a walk sees beyond the faces.
// Statistics cover the interior only. On any failure the incomplete file is removed and
// the exception passes on.
PoreStatistics writeGeometry(const PoreGeometry& geometry, const std::string& path, double cellSize,
                             const Margins& margins = {0, 0, 0}, LoggerBase* logger = nullptr);

// Streams a labelled volume into a grain bed grid file without margins. A voxel whose
// label the map does not name stops the import with an nmr::Exception naming the file,
// the voxel and the label; the incomplete output is removed.
PoreStatistics importVolume(VolumeReader& reader, const LabelMap& labels, const std::string& path,
                            double cellSize, LoggerBase* logger = nullptr);

}  // namespace nmr::rock
