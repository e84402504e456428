#include "walk/absorption_table.h"

namespace nmr {

void buildAbsorptionTable(const MineralValueMap<double>& relaxivityMap, double stepLength,
                          double voxelSize, double diffusionWater, AbsorptionTable& table) {
    // 25/36 written out as the double the results were always computed with.
    constexpr double kContactFactor = 0.6944444444444444;
    table.assign(static_cast<std::size_t>(Mineral::count()), 0.0);
    for (Mineral::Type code : Mineral::allTypes()) {
        table.at(code) = relaxivityMap.valueOr(code, 0.0) * kContactFactor * stepLength *
                         voxelSize / diffusionWater;
    }
    table.at(Mineral::Matrix) = 0.0;
}

}  // namespace nmr
