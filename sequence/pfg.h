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
#include "walk/field_map.h"
#include "walk/phase_walk.h"
#include "walk/stable_trig.h"

// Pulsed-field-gradient diffusion. With narrow pulses a walker's signal at wave vector q
// after a diffusion time Delta is its survival times cos(q . (r(Delta) - r(0))); with
// rectangular pulses of delta, r(Delta) - r(0) becomes the mean position under the second
// pulse less that under the first, and the phase the rock's field gives over Delta + delta
// (reversed at the pi pulse) is added. E(q) is the mean over walkers over that at q = 0.
// Surface relaxation kills by nmrwalk's rule; bulk relaxation is the same at every q and
// cancels. For free diffusion E = exp(-b D) with b = q^2 (Delta - delta/3).

namespace nmr {

struct PfgRequest {
    std::vector<double> diffusionTimesMs;
    std::optional<double> qMax;  // 1/m; none: sqrt(3 / (D0 (Delta - delta/3))) at each Delta
    std::uint32_t qPoints = 16;  // q = qMax m / (qPoints - 1), m = 0 .. qPoints - 1
    std::vector<int> axes;       // 0, 1, 2: x, y, z
    // Rectangular gradient pulses of this length (ms) instead of narrow ones.
    std::optional<double> pulseDurationMs;
};

// The axes of a gradient direction "x", "y", "z" or "all"; nothing for any other name.
std::optional<std::vector<int>> axesNamed(const std::string& direction);

// Throws nmr::Exception for an empty list, a time that is not positive, a q-max that is not
// positive, fewer than two q points (q = 0 alone), or a pulse that is not positive or is
// longer than a diffusion time (the pulses would overlap).
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
    // Finite pulses: delta is pulseSteps steps and Delta separationSteps, and the walk of
    // Delta + delta (steps.steps) has its pi pulse after half of its steps. Narrow pulses:
    // pulseSteps 0, and the walk is Delta.
    double pulseDurationMs = 0.0;
    std::uint32_t pulseSteps = 0;
    std::uint32_t separationSteps = 0;
    double fieldPhase = 0.0;  // rad per unit of dB/B0 a step, gamma B0 tau
};

// Throws nmr::Exception for a Delta shorter than one step of nmr.yaml's stepLength, what
// planSteps refuses, or a Delta / delta that no whole numbers of steps below 10^8 give.
DiffusionTimePlan planDiffusionTime(const NuclearMagneticResonanceParameters& parameters,
                                    double cellSizeM, double diffusionTimeMs,
                                    const PfgRequest& request, const StaticField& field = {});

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

// The experiment of the run core: walker i of the process is walker first + i of the job,
// placed and walked with its own stream by the step and kill rule of the phase walk; its
// displacement (and with finite pulses the field's phase) gives the tally.
template <typename G>
class DisplacementWalk : public ExactSumsState {
public:
    using Tally = ExactSums;

    DisplacementWalk(const G& grid, const DiffusionTimePlan& plan, std::int32_t seed,
                     std::uint64_t first, const FieldMap& field = FieldMap())
        : view_(makeWalkGridView(grid)), field_(field), plan_(plan), seed_(seed), first_(first) {}

    Tally emptyTally() const { return ExactSums(PfgSums::size(plan_)); }
    void walk(std::uint32_t i, Tally& tally) {
        const std::size_t at = batchStart(first_ + i, PfgSums::width(plan_));
        tally.add(at + PfgSums::kWalked, 1.0);
        CounterStream stream(seed_, first_ + i);
        const Walker start = placeWalker(stream, view_);
        detail::MirroredCells<G> mineralAt(view_);
        detail::AbsorbAtWall absorb{plan_.steps.table.data()};
        double r[3] = {start.x, start.y, start.z};
        const double from[3] = {start.x, start.y, start.z};
        // Narrow pulses: the encoding is r(Delta) - r(0). Finite ones: the mean position
        // during the second pulse less that during the first (the pi pulse between them
        // reverses the first), each the mean of the positions after its steps; the field's
        // phase is gathered after every step and reversed at the pi pulse.
        double shift[3] = {0.0, 0.0, 0.0};
        double moved[3] = {0.0, 0.0, 0.0};
        double fieldPhase = 0.0;
        const std::uint32_t n = plan_.pulseSteps, m = plan_.separationSteps;
        const bool internal = n > 0 && static_cast<bool>(field_);
        for (std::uint32_t k = 1; k <= plan_.steps.steps; ++k) {
            if (detail::counterStep(stream, mineralAt, r[0], r[1], r[2], plan_.steps.step, absorb))
                return;
            if (n == 0) continue;
            for (int a = 0; a < 3; ++a) {
                if (k <= n) shift[a] -= r[a];
                if (k > m) shift[a] += r[a];
            }
            if (k == m) std::copy(r, r + 3, moved);
            if (internal) {
                fieldPhase += plan_.fieldPhase * field_.interpolate(r[0], r[1], r[2]);
                if (2 * k == plan_.steps.steps) fieldPhase = -fieldPhase;
            }
        }
        for (int a = 0; a < 3; ++a) {
            if (n > 0) {
                shift[a] /= n;
            } else {
                moved[a] = r[a];
                shift[a] = r[a] - from[a];
            }
        }
        tally.add(at + PfgSums::kSurvivors, 1.0);
        for (std::size_t a = 0; a < plan_.axes.size(); ++a) {
            const auto axis = static_cast<std::size_t>(plan_.axes[a]);
            const double dx = moved[axis] - from[axis];  // voxels over Delta
            // A walk of n steps moves at most n s along an axis; beyond 2047 units (a
            // displacement some 45 times the free one) the sum would overflow, so it is held
            // there: no walk comes near it.
            tally.add(at + PfgSums::square(a), std::min(dx * dx / plan_.squareUnit, 2047.0));
            for (std::size_t q = 0; q < plan_.q.size(); ++q)
                tally.add(at + PfgSums::cosine(plan_, a, q),
                          stableCos(plan_.q[q] * plan_.cellSizeM * shift[axis] + fieldPhase));
        }
    }

private:
    WalkGridView<G> view_;
    const FieldMap& field_;
    const DiffusionTimePlan& plan_;
    std::int32_t seed_;
    std::uint64_t first_;
};

// Walks this process's walkers for one diffusion time: walkKept's sums.
template <typename G>
std::optional<ExactSums> walkDisplacements(const G& grid, const FieldMap& field,
                                           const DiffusionTimePlan& plan, std::int32_t seed,
                                           const WalkerRange& walkers, RunControl control) {
    DisplacementWalk<G> experiment(grid, plan, seed, walkers.first, field);
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
