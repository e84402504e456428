#pragma once

#include <cstdint>
#include <vector>

#include "params/nmr_parameters.h"
#include "simulation/rock_summary.h"
#include "t2/t2_inversion.h"
#include "walk/decay_curve.h"
#include "walk/walk_plan.h"

namespace nmr {

// The numbers a run ends with: what T2decay.out and T2inversion.out hold.
struct RunResults {
    DecayCurve decay;                 // times in ms, normalised amplitudes
    t2::T2Distribution distribution;  // on the parameters' T2 axis
};

// The decay of a run from the absorption counts summed over all its processes (process
// 0's share of reduceAbsorptions).
DecayCurve runDecay(const std::vector<std::uint32_t>& summedCounts, const WalkPlan& plan,
                    const RockSummary& summary,
                    const NuclearMagneticResonanceParameters& parameters);

// Its inversion on the parameters' T2 axis. Throws what the inversion throws
// (std::bad_alloc for a kernel too large to hold).
t2::T2Distribution runInversion(const DecayCurve& decay,
                                const NuclearMagneticResonanceParameters& parameters);

}  // namespace nmr
