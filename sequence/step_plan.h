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

// The duration of one step of nmr.yaml's stepLength, in ms. Throws nmr::Exception for a
// diffusion constant or a cell size that is not positive.
double nominalStepMs(const NuclearMagneticResonanceParameters& parameters, double cellSizeM);

// Throws nmr::Exception as nominalStepMs does; durationMs must be positive.
StepPlan planSteps(const NuclearMagneticResonanceParameters& parameters, double cellSizeM,
                   double durationMs);

}  // namespace nmr
