#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "params/nmr_parameters.h"
#include "sequence/indexed_walkers.h"
#include "sequence/step_plan.h"
#include "simulation/batched_sums.h"
#include "simulation/exact_sums.h"
#include "simulation/run_core.h"
#include "walk/phase_walk.h"
#include "walk/stable_trig.h"

// Pulsed-field-gradient diffusion with narrow pulses: a walker's signal at wave vector q
// after a diffusion time Delta is its survival times cos(q . (r(Delta) - r(0))), and E(q) is
// the mean over walkers over that at q = 0. Surface relaxation kills by nmrwalk's rule;
// bulk relaxation is the same at every q and cancels. For free diffusion E = exp(-b D) with
// b = q^2 Delta.

namespace nmr {

struct PfgRequest {
    std::vector<double> diffusionTimesMs;
    std::optional<double> qMax;  // 1/m; none: sqrt(3 / (D0 Delta)) at each Delta
    std::uint32_t qPoints = 16;  // q = qMax m / (qPoints - 1), m = 0 .. qPoints - 1
    std::vector<int> axes;       // 0, 1, 2: x, y, z
};

// The axes of a gradient direction "x", "y", "z" or "all"; nothing for any other name.
std::optional<std::vector<int>> axesNamed(const std::string& direction);

// Throws nmr::Exception for an empty list, a time that is not positive, a q-max that is not
// positive, or fewer than two q points (q = 0 alone).
void checkPfgRequest(const PfgRequest& request);

// One diffusion time's walk: `steps.steps` steps filling Delta, and the wave vectors.
struct DiffusionTimePlan {
    double diffusionTimeMs = 0.0;
    StepPlan steps;
    std::vector<double> q;  // 1/m, q[0] = 0
    std::vector<int> axes;
    double cellSizeM = 0.0;
    // Delta r^2 is summed in units of the free walk's mean square displacement along one axis,
    // 2 D0 Delta, in voxels^2: the exact sums take values of order 1.
    double squareUnit = 1.0;
};

// Throws nmr::Exception for a Delta shorter than one step of nmr.yaml's stepLength, or
// what planSteps refuses.
DiffusionTimePlan planDiffusionTime(const NuclearMagneticResonanceParameters& parameters,
                                    double cellSizeM, double diffusionTimeMs,
                                    const PfgRequest& request);

// The sums of one walker after Delta, at their places in its batch (batched_sums.h): the
// walkers, the survivors, then per axis the square displacement over squareUnit, then per
// axis the cosine at every q.
struct PfgSums {
    static std::size_t width(const DiffusionTimePlan& plan) {
        return 2 + plan.axes.size() * (1 + plan.q.size());
    }
    static std::size_t size(const DiffusionTimePlan& plan) { return kBatches * width(plan); }
    static constexpr std::size_t kWalked = 0;
    static constexpr std::size_t kSurvivors = 1;
    static std::size_t square(std::size_t axis) { return 2 + axis; }
    static std::size_t cosine(const DiffusionTimePlan& plan, std::size_t axis, std::size_t q) {
        return 2 + plan.axes.size() + axis * plan.q.size() + q;
    }
};

// The narrow-pulse experiment as an experiment of the run core: walker i of the process is
// walker first + i of the job, placed and walked with its own stream by the step and kill
// rule of the phase walk, without phase; its displacement gives the tally.
template <typename G>
class DisplacementWalk : public ExactSumsState {
public:
    using Tally = ExactSums;

    DisplacementWalk(const G& grid, const DiffusionTimePlan& plan, std::int32_t seed,
                     std::uint64_t first)
        : view_(makeWalkGridView(grid)), plan_(plan), seed_(seed), first_(first) {}

    Tally emptyTally() const { return ExactSums(PfgSums::size(plan_)); }
    void walk(std::uint32_t i, Tally& tally) {
        const std::size_t at = batchStart(first_ + i, PfgSums::width(plan_));
        tally.add(at + PfgSums::kWalked, 1.0);
        CounterStream stream(seed_, first_ + i);
        const Walker start = placeWalker(stream, view_);
        detail::MirroredCells<G> mineralAt(view_);
        detail::AbsorbAtWall absorb{plan_.steps.table.data()};
        double r[3] = {start.x, start.y, start.z};
        for (std::uint32_t n = 0; n < plan_.steps.steps; ++n) {
            if (detail::counterStep(stream, mineralAt, r[0], r[1], r[2], plan_.steps.step, absorb))
                return;
        }
        const double from[3] = {start.x, start.y, start.z};
        tally.add(at + PfgSums::kSurvivors, 1.0);
        for (std::size_t a = 0; a < plan_.axes.size(); ++a) {
            const auto axis = static_cast<std::size_t>(plan_.axes[a]);
            const double shift = r[axis] - from[axis];  // voxels
            // A walk of n steps moves at most n s along an axis; beyond 2047 units (a
            // displacement some 45 times the free one) the sum would overflow, so it is held
            // there: no walk comes near it.
            tally.add(at + PfgSums::square(a), std::min(shift * shift / plan_.squareUnit, 2047.0));
            for (std::size_t m = 0; m < plan_.q.size(); ++m)
                tally.add(at + PfgSums::cosine(plan_, a, m),
                          stableCos(plan_.q[m] * plan_.cellSizeM * shift));
        }
    }

private:
    WalkGridView<G> view_;
    const DiffusionTimePlan& plan_;
    std::int32_t seed_;
    std::uint64_t first_;
};

// Walks this process's walkers for one diffusion time: walkKept's sums.
template <typename G>
std::optional<ExactSums> walkDisplacements(const G& grid, const DiffusionTimePlan& plan,
                                           std::int32_t seed, const WalkerRange& walkers,
                                           RunControl control) {
    DisplacementWalk<G> experiment(grid, plan, seed, walkers.first);
    return walkKept(experiment, walkers.count, std::move(control));
}

// The signal of one diffusion time, from the job's sums. Every result comes with its
// jackknife replicates over the batches of walkers (the same batches at every diffusion
// time, so that fits across times can leave the same walkers out of each) and their
// standard error.
struct DiffusionTimeResult {
    double diffusionTimeMs = 0.0;
    std::vector<double> q;  // 1/m
    std::vector<double> b;  // s/m^2, q^2 Delta
    std::vector<double> e;  // the mean over the axes of E(q) on each
    double survivors = 0.0;
    // The initial slope of ln E against b: the least-squares line through the origin (E is
    // 1 at b = 0 by its normalisation) over the points with b > 0 and E >= kSlopeFloor. NaN
    // when there is none. The replicates use the same points.
    double d = 0.0;
    double dError = 0.0;
    std::vector<double> dReplicates;
    std::size_t slopePoints = 0;
    // <Delta r^2> / (2 Delta) per axis, averaged over the axes: over 6 Delta for all three.
    double msdD = 0.0;
    double msdDError = 0.0;
};
inline constexpr double kSlopeFloor = 0.7;
DiffusionTimeResult diffusionTimeResult(const DiffusionTimePlan& plan, const ExactSums& sums);

// Mitra's short-time law, D(t)/D0 = a - (4 / (9 sqrt(pi))) (S/V) sqrt(D0 t) + c t, fitted by
// least squares with its intercept a free: a walk that undoes a step into a wall also slows
// the motion along it, which lowers a below 1 by a term of order (S/V) s that does not
// depend on t. Fitted over the diffusion times with D/D0 >= kShortTimeFloor, needing
// kShortTimesNeeded of them; the errors are the jackknife's, the same times fitted in
// every replicate. S/V is determined when the fit is made and S/V exceeds twice its error.
struct ShortTimeFit {
    bool fitted = false;
    bool determined = false;
    double surfaceToVolume = 0.0;  // 1/m
    double surfaceToVolumeError = 0.0;
    double intercept = 0.0;
    double interceptError = 0.0;
    double curvature = 0.0;       // c, 1/s
    std::vector<double> timesMs;  // the times fitted
};
inline constexpr double kShortTimeFloor = 0.6;
inline constexpr std::size_t kShortTimesNeeded = 3;
ShortTimeFit fitShortTimes(const std::vector<DiffusionTimeResult>& results, double d0);

// D0 / D(Delta) at the longest Delta, with its jackknife error; determined when that D
// exceeds twice its error.
struct TortuosityResult {
    bool determined = false;
    double value = 0.0;
    double error = 0.0;
    const DiffusionTimeResult* longest = nullptr;  // none for no results
};
TortuosityResult tortuosityAtLongestTime(const std::vector<DiffusionTimeResult>& results,
                                         double d0);

}  // namespace nmr
