#include "sequence/pfg.h"

#include <Eigen/Dense>

#include <cmath>
#include <cstdio>
#include <limits>

#include "common/exception.h"
#include "common/text.h"

namespace nmr {

namespace {

// 4 / (9 sqrt(pi)), the short-time slope of D(t)/D0 against (S/V) sqrt(D0 t).
constexpr double kMitraSlope = 0.25077981258941457;

}  // namespace

std::optional<std::vector<int>> axesNamed(const std::string& direction) {
    if (direction == "x") return std::vector<int>{0};
    if (direction == "y") return std::vector<int>{1};
    if (direction == "z") return std::vector<int>{2};
    if (direction == "all") return std::vector<int>{0, 1, 2};
    return std::nullopt;
}

void checkPfgRequest(const PfgRequest& request) {
    if (request.diffusionTimesMs.empty()) throw Exception("Give at least one diffusion time");
    for (double delta : request.diffusionTimesMs) {
        if (!(delta > 0.0) || !std::isfinite(delta))
            throw Exception("A diffusion time must be a positive number of ms: " +
                            shortNumber(delta));
    }
    if (request.qMax && (!(*request.qMax > 0.0) || !std::isfinite(*request.qMax)))
        throw Exception("--q-max must be above 0, or there is only q = 0: " +
                        shortNumber(*request.qMax));
    if (request.qPoints < 2)
        throw Exception("--q-points must be at least 2, or there is only q = 0");
    if (request.axes.empty()) throw Exception("Give a gradient direction: x, y, z or all");
}

DiffusionTimePlan planDiffusionTime(const NuclearMagneticResonanceParameters& parameters,
                                    double cellSizeM, double diffusionTimeMs,
                                    const PfgRequest& request) {
    const double oneStep = nominalStepMs(parameters, cellSizeM);
    if (diffusionTimeMs < oneStep * (1.0 - 1e-12))
        throw Exception("A diffusion time of " + shortNumber(diffusionTimeMs) +
                        " ms is shorter than one step of the walk (" + shortNumber(oneStep) +
                        " ms at the stepLength of nmr.yaml)");
    DiffusionTimePlan plan;
    plan.diffusionTimeMs = diffusionTimeMs;
    plan.steps = planSteps(parameters, cellSizeM, diffusionTimeMs);
    plan.axes = request.axes;
    plan.cellSizeM = cellSizeM;
    const double d0 = parameters.diffusionConstantWater();
    const double seconds = diffusionTimeMs / 1000.0;
    plan.squareUnit = 2.0 * d0 * seconds / (cellSizeM * cellSizeM);
    const double qMax = request.qMax ? *request.qMax : std::sqrt(3.0 / (d0 * seconds));
    for (std::uint32_t m = 0; m < request.qPoints; ++m)
        plan.q.push_back(qMax * m / (request.qPoints - 1));
    return plan;
}

DiffusionTimeResult diffusionTimeResult(const DiffusionTimePlan& plan, const ExactSums& sums) {
    DiffusionTimeResult result;
    result.diffusionTimeMs = plan.diffusionTimeMs;
    result.q = plan.q;
    const double seconds = plan.diffusionTimeMs / 1000.0;
    const double survivors = sums.sum(0);
    result.survivors = survivors;
    const auto axes = static_cast<double>(plan.axes.size());
    const double nan = std::numeric_limits<double>::quiet_NaN();
    for (std::size_t m = 0; m < plan.q.size(); ++m) {
        double e = 0.0;
        for (std::size_t a = 0; a < plan.axes.size(); ++a)
            e += sums.sum(PfgSums::cosine(plan, a, m));
        result.b.push_back(plan.q[m] * plan.q[m] * seconds);
        result.e.push_back(survivors > 0.0 ? e / axes / survivors : nan);
    }
    double squares = 0.0;
    for (std::size_t a = 0; a < plan.axes.size(); ++a) squares += sums.sum(PfgSums::square(a));
    const double meanSquare =
        squares * plan.squareUnit * plan.cellSizeM * plan.cellSizeM / axes / survivors;
    result.msdD = survivors > 0.0 ? meanSquare / (2.0 * seconds) : nan;
    double bb = 0.0, bLog = 0.0;
    for (std::size_t m = 0; m < result.b.size(); ++m) {
        if (!(result.b[m] > 0.0) || !(result.e[m] >= kSlopeFloor)) continue;
        bb += result.b[m] * result.b[m];
        bLog += result.b[m] * std::log(result.e[m]);
        ++result.slopePoints;
    }
    result.d = result.slopePoints > 0 ? -bLog / bb : nan;
    return result;
}

ShortTimeFit fitShortTimes(const std::vector<DiffusionTimeResult>& results, double d0) {
    ShortTimeFit fit;
    std::vector<const DiffusionTimeResult*> used;
    for (const DiffusionTimeResult& r : results) {
        if (r.d / d0 >= kShortTimeFloor) used.push_back(&r);
    }
    for (const DiffusionTimeResult* r : used) fit.timesMs.push_back(r->diffusionTimeMs);
    if (used.size() < kShortTimesNeeded) return fit;
    // Columns: a, S/V, c; the rows D/D0 at each time, t in s and lengths in m.
    Eigen::MatrixXd design(static_cast<Eigen::Index>(used.size()), 3);
    Eigen::VectorXd ratio(static_cast<Eigen::Index>(used.size()));
    for (std::size_t i = 0; i < used.size(); ++i) {
        const double t = used[i]->diffusionTimeMs / 1000.0;
        const auto row = static_cast<Eigen::Index>(i);
        design(row, 0) = 1.0;
        design(row, 1) = -kMitraSlope * std::sqrt(d0 * t);
        design(row, 2) = t;
        ratio(row) = used[i]->d / d0;
    }
    const Eigen::VectorXd solution = design.colPivHouseholderQr().solve(ratio);
    fit.determined = true;
    fit.intercept = solution(0);
    fit.surfaceToVolume = solution(1);
    fit.curvature = solution(2);
    return fit;
}

}  // namespace nmr
