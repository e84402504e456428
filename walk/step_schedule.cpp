#include "walk/step_schedule.h"

#include <cmath>

namespace nmr {
namespace {

// Duration of one step in ms: the mean square displacement of a step, (s * voxel)^2,
// equals 6 D tau in three dimensions.
double stepTime(double voxelSize, double step, double diffusion) {
    const double length = voxelSize * step;
    return length * length / (6.0 * diffusion) * 1000.0;
}

}  // namespace

std::uint32_t buildStepSchedule(double voxelSize, double fineStep, double coarseStep,
                                double switchTime, double diffusionWater, double diffusionOil,
                                double waterSelector, std::uint32_t intervalCount,
                                StepSchedule& schedule) {
    schedule.stepsPerInterval.assign(intervalCount, 0u);
    schedule.intervalEndTime.assign(intervalCount, 0.0);

    const double diffusion = waterSelector > 0.0 ? diffusionWater : diffusionOil;
    double tau = stepTime(voxelSize, fineStep, diffusion);
    bool switchArmed = coarseStep > 0.1;
    const double growth = std::pow(10.0, 0.025);

    std::int32_t k = 0;
    std::uint32_t fineIntervals = 0;
    for (std::uint32_t i = 0; i < intervalCount; ++i) {
        // lround rounds halves away from zero; the +1 makes the first intervals one step.
        const std::int32_t next =
            static_cast<std::int32_t>(std::lround(static_cast<double>(k) * growth)) + 1;
        schedule.stepsPerInterval[i] = static_cast<std::uint32_t>(next - k);
        k = next;
        const double t = static_cast<double>(next) * tau;
        schedule.intervalEndTime[i] = t;
        if (switchArmed && t > switchTime) {
            switchArmed = false;
            fineIntervals = i;
            tau = stepTime(voxelSize, coarseStep, diffusion);
            // Continue counting in coarse steps from the time reached.
            k = static_cast<std::int32_t>(t / tau);
        }
    }
    schedule.fineIntervals = fineIntervals;
    return fineIntervals;
}

}  // namespace nmr
