#include "walk/saturation.h"

namespace nmr {

SaturationSummary computeSaturation(double intergranularPorosity, double clayAmount,
                                    double clayMicroPorosity) {
    SaturationSummary s;
    s.intergranularPorosity = intergranularPorosity;
    s.clayAmount = clayAmount;
    s.clayMicroPorosity = clayMicroPorosity;
    s.microPorosity = clayMicroPorosity * clayAmount;
    s.totalPorosity = s.microPorosity + intergranularPorosity;
    s.clayFraction = s.microPorosity / s.totalPorosity;
    if (s.clayFraction < 1.0) {
        s.bulkWaterSaturation = (1.0 - s.clayFraction) / (intergranularPorosity / s.totalPorosity);
    }
    s.totalWaterSaturation = (1.0 - s.clayFraction) * s.bulkWaterSaturation + s.clayFraction;
    // Rounding leaves a fully water-filled rock a hair below 1; call it full.
    if (s.totalWaterSaturation > 0.99999) s.totalWaterSaturation = 1.0;
    s.oilSaturation = 1.0 - s.totalWaterSaturation;
    return s;
}

}  // namespace nmr
