#include "sequence/step_plan.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>

#include "common/exception.h"
#include "common/text.h"
#include "walk/step_schedule.h"

namespace nmr {

double nominalStepMs(const NuclearMagneticResonanceParameters& parameters, double cellSizeM) {
    const double diffusion = parameters.diffusionConstantWater();
    if (!(diffusion > 0.0))
        throw Exception("The walk needs a positive diffusionConstantWater in nmr.yaml: " +
                        shortNumber(diffusion));
    if (!(cellSizeM > 0.0))
        throw Exception("The grid's cell size is not positive: " + shortNumber(cellSizeM));
    const double nominalStep = parameters.stepLength() > 0.0 ? parameters.stepLength() : 0.5;
    return stepDuration(cellSizeM, nominalStep, diffusion);
}

StepPlan planSteps(const NuclearMagneticResonanceParameters& parameters, double cellSizeM,
                   double durationMs) {
    const double nominalTau = nominalStepMs(parameters, cellSizeM);
    // A ratio a few units in the last place above a whole number is that number: the step
    // of nmr.yaml is kept whenever it divides the span.
    const double steps = std::ceil(durationMs / nominalTau * (1.0 - 1e-12));
    return stepsOf(
        parameters, cellSizeM, durationMs,
        static_cast<std::uint32_t>(std::clamp(steps, static_cast<double>(kLeastSteps), 1e9)));
}

StepPlan stepsOf(const NuclearMagneticResonanceParameters& parameters, double cellSizeM,
                 double durationMs, std::uint32_t steps) {
    StepPlan plan;
    plan.steps = steps;
    plan.tauMs = durationMs / plan.steps;
    const double diffusion = parameters.diffusionConstantWater();
    plan.step = std::sqrt(6.0 * diffusion * plan.tauMs / 1000.0) / cellSizeM;
    buildAbsorptionTable(parameters.surfaceRelaxationStrengthWater(), plan.step, cellSizeM,
                         diffusion, plan.table);
    return plan;
}

}  // namespace nmr
