#include "simulation/run_results.h"

namespace nmr {

DecayCurve runDecay(const std::vector<std::uint32_t>& summedCounts, const WalkPlan& plan,
                    const RockSummary& summary,
                    const NuclearMagneticResonanceParameters& parameters) {
    return buildDecayCurve(summedCounts, plan.schedule.intervalEndTime,
                           parameters.numberOfWalkers(), decayModelOf(summary));
}

t2::T2Distribution runInversion(const DecayCurve& decay,
                                const NuclearMagneticResonanceParameters& parameters) {
    return t2::invertDecay(decay.times, decay.values, parameters.t2Minimum(),
                           parameters.t2Maximum(), parameters.t2Components());
}

}  // namespace nmr
