#pragma once

#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "sequence/pfg.h"
#include "tools/option_parser.h"

namespace nmr::tools {

extern const char kPfgUsage[];

// Throws nmr::Exception naming the offending option.
PfgRequest parsePfgOptions(const OptionParser& parser);

// What a checkpoint of one diffusion time's walk belongs to, beyond nmr.yaml and the grid.
std::string pfgFingerprint(const DiffusionTimePlan& plan);

// The lines of standard output after the walks: surface-to-volume from the short-time fit
// (with the voxel faces' value beside it) and tortuosity from the longest diffusion time,
// each followed by the fit it comes from.
std::string pfgReport(const std::vector<DiffusionTimeResult>& results, double d0,
                      double voxelFacesSurfaceToVolume);

// pfg.out and diffusion.out (each whole or absent) and pfg.png, whose failure is a warning
// on err.
void writePfgOutputs(const std::vector<DiffusionTimeResult>& results, double d0, std::ostream& err);

}  // namespace nmr::tools
