#pragma once

#include <cstdint>

#include "io/grid_loader.h"
#include "parallel/grid_distribution.h"
#include "params/nmr_parameters.h"

namespace nmr {

// What the grid distribution of a run needs from its parameters: the grid file, the
// region of interest when one is on, and the walker count.
DistributionRequest distributionRequest(const NuclearMagneticResonanceParameters& parameters,
                                        int rank, int size,
                                        std::uint32_t memoryLimitMb = kDefaultMemoryLimitMb);

// How a run loads its grid with these parameters (the region when one is on), for callers
// that build the grid from cells of their own.
GridLoadOptions runLoadOptions(const NuclearMagneticResonanceParameters& parameters);

}  // namespace nmr
