#include "walk/recording_walk.h"

#include <algorithm>

namespace nmr {

namespace {

double logSurvivalPerContact(double p) {
    if (p >= 1.0) return -std::numeric_limits<double>::infinity();
    return std::log1p(-p);
}

}  // namespace

RecordingPlan makeRecordingPlan(const std::vector<Mineral::Type>& minerals,
                                const std::vector<double>& fineFloor,
                                const std::vector<double>& coarseFloor) {
    RecordingPlan plan;
    plan.slotOf.fill(RecordingPlan::kNotRecorded);
    for (Mineral::Type code : minerals) {
        if (code >= fineFloor.size() || code >= coarseFloor.size()) continue;
        if (!(fineFloor[code] > 0.0) && !(coarseFloor[code] > 0.0)) continue;
        if (plan.slotOf[code] != RecordingPlan::kNotRecorded) continue;
        plan.slotOf[code] = static_cast<int>(plan.minerals.size());
        plan.minerals.push_back(code);
        plan.fineLog.push_back(logSurvivalPerContact(std::max(fineFloor[code], 0.0)));
        plan.coarseLog.push_back(logSurvivalPerContact(std::max(coarseFloor[code], 0.0)));
    }
    return plan;
}

}  // namespace nmr
