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

// What the schedule is built from. voxelSize in metres, steps in voxels, switchTime in
// ms, diffusion constants in m^2/s; a positive waterSelector picks the water diffusion
// constant, otherwise oil.
struct ScheduleRequest {
    double voxelSize = 0.0;
    double fineStep = 0.0;
    double coarseStep = 0.0;
    double switchTime = 0.0;
    double diffusionWater = 0.0;
    double diffusionOil = 0.0;
    double waterSelector = 0.0;
    std::uint32_t intervalCount = kIntervalCount;
};

// Step counts grow geometrically, forty intervals per decade, after a start of single
// steps. The switch to the coarse step is armed only for coarseStep > 0.1 and fires at the
// first interval whose end time passes switchTime; that interval keeps its fine-step count
// and end time but is walked with the coarse step. When the switch never fires, every
// interval is walked coarse on fine-step times. Both quirks are long-standing and kept so
// that results stay comparable.
StepSchedule buildStepSchedule(const ScheduleRequest& request);

}  // namespace nmr
