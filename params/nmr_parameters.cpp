#include "params/nmr_parameters.h"

namespace nmr {

// gamma^2 G^2 D_w TE^2 / 1000. The divisor and the absence of the usual 1/12 (or 2/3)
// factor of the textbook dephasing term are this program's own convention and must
// stay exactly so, multiplied in this order, or decay curves stop matching earlier
// runs in the last bits.
//
// The value is computed once: a setter that changes an input afterwards does not
// refresh it. Everything is set before the first use in a run, so this never matters
// there; it is documented because it is observable.
double NuclearMagneticResonanceParameters::magneticFieldContributionWater() {
    if (magneticFieldContributionWater_ < 0.0) {
        magneticFieldContributionWater_ =
            gyroMagneticRatio_ * gyroMagneticRatio_ * magneticFieldGradient_ *
            magneticFieldGradient_ * diffusionConstantWater_ * echoSpacing_ * echoSpacing_ / 1000.0;
    }
    return magneticFieldContributionWater_;
}

}  // namespace nmr
