#pragma once

#include <cstdint>
#include <vector>

namespace nmr {

constexpr std::uint32_t kIntervalCount = 300;

// The time axis of the walk. Interval i takes stepsPerInterval[i] steps and ends at
// intervalEndTime[i] milliseconds; the first fineIntervals intervals are walked with
// the fine (half) step, the rest with the coarse step.
struct StepSchedule {
    std::vector<std::uint32_t> stepsPerInterval;
    std::vector<double> intervalEndTime;
    std::uint32_t fineIntervals = 0;
};

// Step counts grow geometrically, forty intervals per decade, after a start of single
// steps. voxelSize in metres, steps in voxels, switchTime in ms, diffusion constants in
// m^2/s; a positive waterSelector picks the water diffusion constant, otherwise oil.
// The switch to the coarse step is armed only for coarseStep > 0.1 and fires at the
// first interval whose end time passes switchTime; that interval keeps its fine-step
// count and end time but is walked with the coarse step. When the switch never fires,
// every interval is walked coarse on fine-step times. Both quirks are long-standing and
// kept so that results stay comparable. Returns the fine interval count K (also stored).
std::uint32_t buildStepSchedule(double voxelSize, double fineStep, double coarseStep,
                                double switchTime, double diffusionWater, double diffusionOil,
                                double waterSelector, std::uint32_t intervalCount,
                                StepSchedule& schedule);

}  // namespace nmr
