#include "walk/step_schedule.h"

#include <cmath>

namespace nmr {
double stepDuration(double voxelSize, double step, double diffusion) {
    const double length = voxelSize * step;
    return length * length / (6.0 * diffusion) * 1000.0;
}

std::vector<double> walkedEndTimes(const StepSchedule& schedule, double fineDuration,
                                   double coarseDuration) {
    std::vector<double> times(schedule.stepsPerInterval.size());
    double t = 0.0;
    for (std::size_t i = 0; i < times.size(); ++i) {
        t += schedule.stepsPerInterval[i] *
             (i < schedule.fineIntervals ? fineDuration : coarseDuration);
        times[i] = t;
    }
    return times;
}

StepSchedule buildStepSchedule(const ScheduleRequest& r) {
    StepSchedule schedule;
    schedule.stepsPerInterval.assign(r.intervalCount, 0u);
    schedule.intervalEndTime.assign(r.intervalCount, 0.0);

    const double diffusion = r.waterSelector > 0.0 ? r.diffusionWater : r.diffusionOil;
    double tau = stepDuration(r.voxelSize, r.fineStep, diffusion);
    bool switchArmed = r.coarseStep > 0.1;
    const double growth = std::pow(10.0, 0.025);

    std::int32_t k = 0;
    for (std::uint32_t i = 0; i < r.intervalCount; ++i) {
        // lround rounds halves away from zero; the +1 makes the first intervals one step.
        const std::int32_t next =
            static_cast<std::int32_t>(std::lround(static_cast<double>(k) * growth)) + 1;
        schedule.stepsPerInterval[i] = static_cast<std::uint32_t>(next - k);
        k = next;
        const double t = static_cast<double>(next) * tau;
        schedule.intervalEndTime[i] = t;
        if (switchArmed && t > r.switchTime) {
            switchArmed = false;
            schedule.fineIntervals = i;
            tau = stepDuration(r.voxelSize, r.coarseStep, diffusion);
            // Continue counting in coarse steps from the time reached.
            k = static_cast<std::int32_t>(t / tau);
        }
    }
    return schedule;
}

}  // namespace nmr
