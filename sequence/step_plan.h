#pragma once

#include <cstdint>

#include "params/nmr_parameters.h"
#include "walk/absorption_table.h"

namespace nmr {

// Steps that fill a span of time exactly: a whole number of at least kLeastSteps steps of
// tau, the step of nmr.yaml's stepLength (0.5 voxels when it has none) shortened, never
// lengthened, where it would fill the span in fewer or not evenly. Each step has the length
// whose duration is tau, (a s)^2 = 6 D tau, and the kill table of nmrwalk's rule for it.
struct StepPlan {
    std::uint32_t steps = 0;
    double tauMs = 0.0;
    double step = 0.0;  // voxels
    AbsorptionTable table;
};
inline constexpr std::uint32_t kLeastSteps = 8;

// gamma in rad/(s T), 2 pi gyroMagneticRatio (Hz/T): the physics of these experiments, not
// nmrwalk's own rule, which uses the ratio as it is.
inline double gammaOf(const NuclearMagneticResonanceParameters& parameters) {
    return 6.283185307179586 * parameters.gyroMagneticRatio();
}

// The static field in which the walkers gather phase: B0 (T) along axis 0 (x), 1 or 2.
struct StaticField {
    double b0 = 0.0;
    int axis = 2;
};

// The duration of one step of nmr.yaml's stepLength, in ms. Throws nmr::Exception for a
// diffusion constant or a cell size that is not positive.
double nominalStepMs(const NuclearMagneticResonanceParameters& parameters, double cellSizeM);

// Throws nmr::Exception as nominalStepMs does; durationMs must be positive.
StepPlan planSteps(const NuclearMagneticResonanceParameters& parameters, double cellSizeM,
                   double durationMs);

// `steps` steps that fill durationMs, whatever nmr.yaml's step (steps >= 1).
StepPlan stepsOf(const NuclearMagneticResonanceParameters& parameters, double cellSizeM,
                 double durationMs, std::uint32_t steps);

}  // namespace nmr
