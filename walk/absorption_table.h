#pragma once

#include <vector>

#include "grid/mineral_value_map.h"

namespace nmr {

// Per mineral code, the probability that a step into a voxel of that mineral absorbs
// the walker. Indexed by code; the pore entry is never read.
using AbsorptionTable = std::vector<double>;

// table[m] = rho(m) * 25/36 * stepLength * voxelSize / diffusionWater for every listed
// mineral code, with rho in m/s, the step in voxels, voxelSize in m and D in m^2/s.
// The water diffusion constant is used whatever the saturation. Code 9 (Matrix) is
// forced to 0: it bounds the pore space without relaxing it. A mineral missing from
// the map does not relax.
void buildAbsorptionTable(const MineralValueMap<double>& relaxivityMap, double stepLength,
                          double voxelSize, double diffusionWater, AbsorptionTable& table);

}  // namespace nmr
