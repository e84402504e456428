#pragma once

#include <cstdint>

#include "parallel/grid_distribution.h"
#include "params/nmr_parameters.h"

namespace nmr {

// What the grid distribution of a run needs from its parameters: the grid file, the
// region of interest when one is on, and the walker count.
DistributionRequest distributionRequest(const NuclearMagneticResonanceParameters& parameters,
                                        int rank, int size,
                                        std::uint32_t memoryLimitMb = kDefaultMemoryLimitMb);

}  // namespace nmr
