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

// Duration of one step in ms: the mean square displacement of a step, (s * voxel)^2,
// equals 6 D tau in three dimensions. voxelSize in m, step in voxels, diffusion in m^2/s.
double stepDuration(double voxelSize, double step, double diffusion);

// The time each interval of a schedule really ends at, in ms: its steps walked at the fine
// step's duration before the switch and at the coarse step's from the switch on. It runs
// ahead of intervalEndTime from the switch on (that interval's fine-step count is walked
// coarse), and is (coarse / fine step)^2 times intervalEndTime throughout when the switch
// never fires: four times with the usual half step.
std::vector<double> walkedEndTimes(const StepSchedule& schedule, double fineDuration,
                                   double coarseDuration);

}  // namespace nmr
