#pragma once

#include "walk/absorption_table.h"
#include "walk/step_schedule.h"

namespace nmr {

// Everything a walk needs besides the grid and the stream: the schedule, and for each of
// its two phases the step length (voxels) and the absorption table. Built once per run
// and read-only while walking.
struct WalkPlan {
    StepSchedule schedule;
    double fineStep = 0.0;
    double coarseStep = 0.0;
    AbsorptionTable fineTable;
    AbsorptionTable coarseTable;
};

}  // namespace nmr
