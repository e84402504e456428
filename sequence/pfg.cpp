#include "sequence/pfg.h"

#include <Eigen/Dense>

#include <algorithm>
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
    if (const auto& delta = request.pulseDurationMs) {
        if (!(*delta > 0.0) || !std::isfinite(*delta))
            throw Exception("--pulse-duration needs a pulse length in ms above 0: " +
                            shortNumber(*delta));
        for (double separation : request.diffusionTimesMs) {
            if (separation < *delta)
                throw Exception("A pulse of " + shortNumber(*delta) +
                                " ms is longer than the diffusion time of " +
                                shortNumber(separation) + " ms: the two pulses would overlap");
        }
    }
}

namespace {

// p / r = ratio in lowest terms, r below `largest`, from the continued fraction of the
// ratio; nothing when no such fraction is within 1e-9 of it.
std::optional<std::pair<std::uint64_t, std::uint64_t>> wholeRatio(double ratio,
                                                                  std::uint64_t largest) {
    std::uint64_t p0 = 0, q0 = 1, p1 = 1, q1 = 0;
    double rest = ratio;
    for (int term = 0; term < 64; ++term) {
        const double whole = std::floor(rest);
        if (whole > 1e12) break;
        const auto a = static_cast<std::uint64_t>(whole);
        const std::uint64_t p2 = a * p1 + p0, q2 = a * q1 + q0;
        if (q2 >= largest) break;
        p0 = p1;
        q0 = q1;
        p1 = p2;
        q1 = q2;
        const double value = static_cast<double>(p1) / static_cast<double>(q1);
        if (std::abs(value - ratio) <= 1e-9 * ratio) return std::make_pair(p1, q1);
        rest = 1.0 / (rest - whole);
    }
    return std::nullopt;
}

}  // namespace

DiffusionTimePlan planDiffusionTime(const NuclearMagneticResonanceParameters& parameters,
                                    double cellSizeM, double diffusionTimeMs,
                                    const PfgRequest& request, const StaticField& field) {
    const double oneStep = nominalStepMs(parameters, cellSizeM);
    if (diffusionTimeMs < oneStep * (1.0 - 1e-12))
        throw Exception("A diffusion time of " + shortNumber(diffusionTimeMs) +
                        " ms is shorter than one step of the walk (" + shortNumber(oneStep) +
                        " ms at the stepLength of nmr.yaml)");
    DiffusionTimePlan plan;
    plan.diffusionTimeMs = diffusionTimeMs;
    plan.axes = request.axes;
    plan.cellSizeM = cellSizeM;
    double encodingMs = diffusionTimeMs;
    if (const auto& pulse = request.pulseDurationMs) {
        // delta = n tau and Delta = m tau for whole n >= what planSteps gives delta, and
        // m + n even, so that the pi pulse falls between two steps.
        const std::uint32_t least = planSteps(parameters, cellSizeM, *pulse).steps;
        constexpr std::uint64_t kMostSteps = 100000000;
        const auto ratio = wholeRatio(diffusionTimeMs / *pulse, kMostSteps);
        std::uint64_t n = 0, m = 0;
        if (ratio) {
            const std::uint64_t k = (least + ratio->second - 1) / ratio->second;
            n = ratio->second * k;
            m = ratio->first * k;
            if ((n + m) % 2 != 0) {
                n *= 2;
                m *= 2;
            }
        }
        if (!ratio || n + m > kMostSteps)
            throw Exception("A diffusion time of " + shortNumber(diffusionTimeMs) +
                            " ms and pulses of " + shortNumber(*pulse) +
                            " ms need more than 10^8 steps to fall on whole steps: give times "
                            "in a simpler ratio");
        plan.pulseDurationMs = *pulse;
        plan.pulseSteps = static_cast<std::uint32_t>(n);
        plan.separationSteps = static_cast<std::uint32_t>(m);
        plan.steps = stepsOf(parameters, cellSizeM, diffusionTimeMs + *pulse,
                             static_cast<std::uint32_t>(n + m));
        plan.fieldPhase = gammaOf(parameters) * field.b0 * plan.steps.tauMs / 1000.0;
        encodingMs = diffusionTimeMs - *pulse / 3.0;
    } else {
        plan.steps = planSteps(parameters, cellSizeM, diffusionTimeMs);
    }
    const double d0 = parameters.diffusionConstantWater();
    const double seconds = diffusionTimeMs / 1000.0;
    plan.squareUnit = 2.0 * d0 * seconds / (cellSizeM * cellSizeM);
    const double encoding = encodingMs / 1000.0;
    const double qMax = request.qMax ? *request.qMax : std::sqrt(3.0 / (d0 * encoding));
    for (std::uint32_t m = 0; m < request.qPoints; ++m)
        plan.q.push_back(qMax * m / (request.qPoints - 1));
    return plan;
}

namespace {

// E at every q, D from the slope over the points marked, and the MSD D, from one set of sums
// (the whole job's, or a replicate's).
struct Estimate {
    std::vector<double> e;
    double d = 0.0;
    double msdD = 0.0;
};

Estimate estimate(const DiffusionTimePlan& plan, const std::vector<double>& sums,
                  const std::vector<double>& b, const std::vector<bool>& slopeSet) {
    Estimate out;
    const double seconds = plan.diffusionTimeMs / 1000.0;
    const double survivors = sums[PfgSums::kSurvivors];
    const auto axes = static_cast<double>(plan.axes.size());
    const double nan = std::numeric_limits<double>::quiet_NaN();
    // E is the signal over that at q = 0 (q[0]): the survivors with narrow pulses, less
    // where finite ones let the rock's field dephase the walkers.
    double unencoded = 0.0;
    for (std::size_t a = 0; a < plan.axes.size(); ++a)
        unencoded += sums[PfgSums::cosine(plan, a, 0)];
    for (std::size_t m = 0; m < plan.q.size(); ++m) {
        double e = 0.0;
        for (std::size_t a = 0; a < plan.axes.size(); ++a) e += sums[PfgSums::cosine(plan, a, m)];
        out.e.push_back(survivors > 0.0 && unencoded > 0.0 ? e / axes / (unencoded / axes) : nan);
    }
    double squares = 0.0;
    for (std::size_t a = 0; a < plan.axes.size(); ++a) squares += sums[PfgSums::square(a)];
    const double meanSquare =
        squares * plan.squareUnit * plan.cellSizeM * plan.cellSizeM / axes / survivors;
    out.msdD = survivors > 0.0 ? meanSquare / (2.0 * seconds) : nan;
    double bb = 0.0, bLog = 0.0;
    for (std::size_t m = 0; m < b.size(); ++m) {
        if (!slopeSet[m]) continue;
        bb += b[m] * b[m];
        bLog += b[m] * std::log(out.e[m]);
    }
    out.d = bb > 0.0 ? -bLog / bb : nan;
    return out;
}

}  // namespace

DiffusionTimeResult diffusionTimeResult(const DiffusionTimePlan& plan, const ExactSums& sums) {
    const BatchedTotals totals = batchedTotals(sums, PfgSums::width(plan), PfgSums::kWalked);
    DiffusionTimeResult result;
    result.diffusionTimeMs = plan.diffusionTimeMs;
    result.q = plan.q;
    result.survivors = totals.total[PfgSums::kSurvivors];
    // b = q^2 (Delta - delta / 3), q = gamma g delta: narrow pulses have delta = 0.
    const double seconds = (plan.diffusionTimeMs - plan.pulseDurationMs / 3.0) / 1000.0;
    for (double q : plan.q) result.b.push_back(q * q * seconds);
    // The points of the slope are chosen once, from the whole job, and kept in every
    // replicate: a choice that moved between replicates would add its own jitter.
    const Estimate whole = estimate(plan, totals.total, result.b, std::vector<bool>(plan.q.size()));
    std::vector<bool> slopeSet(plan.q.size());
    for (std::size_t m = 0; m < plan.q.size(); ++m) {
        slopeSet[m] = result.b[m] > 0.0 && whole.e[m] >= kSlopeFloor;
        if (slopeSet[m]) ++result.slopePoints;
    }
    const Estimate chosen = estimate(plan, totals.total, result.b, slopeSet);
    result.e = chosen.e;
    result.d = chosen.d;
    result.msdD = chosen.msdD;
    std::vector<double> msdReplicates;
    for (const std::vector<double>& rest : totals.leftOut) {
        const Estimate replicate = estimate(plan, rest, result.b, slopeSet);
        result.dReplicates.push_back(replicate.d);
        msdReplicates.push_back(replicate.msdD);
    }
    result.dError = jackknifeError(result.dReplicates);
    result.msdDError = jackknifeError(msdReplicates);
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
    for (std::size_t i = 0; i < used.size(); ++i) {
        const double t = used[i]->diffusionTimeMs / 1000.0;
        const auto row = static_cast<Eigen::Index>(i);
        design(row, 0) = 1.0;
        design(row, 1) = -kMitraSlope * std::sqrt(d0 * t);
        design(row, 2) = t;
    }
    const Eigen::ColPivHouseholderQR<Eigen::MatrixXd> qr = design.colPivHouseholderQr();
    // The fit of the whole job's D, then of each replicate's: the times share their walkers.
    const auto solve = [&](auto dAt) {
        Eigen::VectorXd ratio(static_cast<Eigen::Index>(used.size()));
        for (std::size_t i = 0; i < used.size(); ++i)
            ratio(static_cast<Eigen::Index>(i)) = dAt(*used[i]) / d0;
        return Eigen::VectorXd(qr.solve(ratio));
    };
    const Eigen::VectorXd solution = solve([](const DiffusionTimeResult& r) { return r.d; });
    fit.fitted = true;
    fit.intercept = solution(0);
    fit.surfaceToVolume = solution(1);
    fit.curvature = solution(2);
    const std::size_t replicates = used.front()->dReplicates.size();
    std::vector<double> surface, intercept;
    for (std::size_t k = 0; k < replicates; ++k) {
        const Eigen::VectorXd one =
            solve([k](const DiffusionTimeResult& r) { return r.dReplicates.at(k); });
        intercept.push_back(one(0));
        surface.push_back(one(1));
    }
    fit.surfaceToVolumeError = jackknifeError(surface);
    fit.interceptError = jackknifeError(intercept);
    fit.determined = fit.surfaceToVolume > 2.0 * fit.surfaceToVolumeError;
    return fit;
}

TortuosityResult tortuosityAtLongestTime(const std::vector<DiffusionTimeResult>& results,
                                         double d0) {
    TortuosityResult out;
    const auto longest = std::max_element(
        results.begin(), results.end(),
        [](const auto& a, const auto& b) { return a.diffusionTimeMs < b.diffusionTimeMs; });
    if (longest == results.end()) return out;
    out.longest = &*longest;
    out.value = d0 / longest->d;
    std::vector<double> replicates;
    replicates.reserve(longest->dReplicates.size());
    for (double d : longest->dReplicates) replicates.push_back(d0 / d);
    out.error = jackknifeError(replicates);
    out.determined = longest->d > 2.0 * longest->dError;
    return out;
}

}  // namespace nmr
