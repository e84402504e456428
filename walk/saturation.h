#pragma once

namespace nmr {

// The run-wide fluid split of the rock, all fractions of bulk volume or of pore volume.
// Clay voxels hold water in their micro-pores (clayMicroPorosity of each clay voxel);
// the intergranular pore space is the walkers' domain.
struct SaturationSummary {
    double intergranularPorosity = 0.0;  // volume fraction of pore voxels
    double clayAmount = 0.0;             // volume fraction of clay voxels
    double clayMicroPorosity = 0.0;      // porosity inside a clay voxel
    double microPorosity = 0.0;          // clayMicroPorosity * clayAmount
    double totalPorosity = 0.0;          // microPorosity + intergranularPorosity
    double clayFraction = 0.0;           // share of the pore volume held in clay
    double bulkWaterSaturation = 0.0;
    double totalWaterSaturation = 0.0;  // set to exactly 1 above 0.99999
    double oilSaturation = 0.0;
};

// No guards: a rock with neither pore nor clay gives NaNs, as the arithmetic dictates.
SaturationSummary computeSaturation(double intergranularPorosity, double clayAmount,
                                    double clayMicroPorosity);

}  // namespace nmr
