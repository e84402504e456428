#pragma once

#include <Eigen/Core>

#include <cstdint>
#include <optional>
#include <vector>

#include "params/nmr_parameters.h"
#include "sequence/indexed_walkers.h"
#include "sequence/step_plan.h"
#include "simulation/exact_sums.h"
#include "simulation/run_core.h"
#include "walk/phase_walk.h"
#include "walk/stable_trig.h"

// Diffusion editing: narrow gradient pulses encode each walker's displacement over Delta,
// then a CPMG train follows from the same walkers. The signal at b and echo k is the mean
// over the walkers of survival to that echo times cos(q . (r(Delta) - r(0))), q = sqrt(b /
// Delta), averaged over the three axes, times bulk relaxation over the whole time since
// excitation, Delta + k TE. With that time the data are exp(-b D) exp(-t / T2) for free
// water exactly: the kernel of a D-T2 map holds the relaxation during the encoding. The
// echo train has no field and no applied gradient: the walkers only live or die.

namespace nmr {

struct Dt2Plan {
    double diffusionTimeMs = 0.0;
    StepPlan encoding;  // Delta in encoding.steps steps
    double echoSpacingMs = 0.0;
    StepPlan halfEcho;  // a half echo in halfEcho.steps steps
    std::uint32_t echoes = 0;
    std::vector<double> b;  // s/m^2, b[0] may be 0
    std::vector<double> q;  // 1/m, sqrt(b / Delta)
    double cellSizeM = 0.0;
};

// The largest b of evenly spread b values, times D0: free water falls to exp(-5) there,
// and a D ten times smaller to 0.6.
inline constexpr double kDt2BMax = 5.0;
inline constexpr std::uint32_t kDt2BPoints = 16;

// The b values asked for: those given, or `points` (kDt2BPoints when none) evenly from 0
// to kDt2BMax / d0. Throws nmr::Exception when none is above 0 (b = 0 alone encodes
// nothing).
std::vector<double> dt2BValues(std::vector<double> given, std::optional<std::uint32_t> points,
                               double d0);

// Throws nmr::Exception for a Delta or an echo spacing that is not positive, a Delta shorter
// than one step of nmr.yaml, no b value, a b value below 0, or no echo.
Dt2Plan planDt2(const NuclearMagneticResonanceParameters& parameters, double cellSizeM,
                double diffusionTimeMs, std::vector<double> b, double echoSpacingMs,
                std::uint32_t echoes);

// The sums at b index j and K = 0 .. echoes: the walkers that lived through the encoding
// and exactly K whole echoes after it (K = echoes: all of them), each weighted by its mean
// cosine at that b.
inline std::size_t dt2Index(const Dt2Plan& plan, std::size_t j, std::uint32_t k) {
    return j * (plan.echoes + std::size_t{1}) + k;
}

// The experiment of the run core: walker i of the process is walker first + i of the job,
// placed and walked with its own stream by the phase walk's step and kill rule, first over
// Delta with the encoding's steps, then through the echoes with a half echo's.
template <typename G>
class DiffusionEditingWalk : public ExactSumsState {
public:
    using Tally = ExactSums;

    DiffusionEditingWalk(const G& grid, const Dt2Plan& plan, std::int32_t seed, std::uint64_t first)
        : view_(makeWalkGridView(grid)), plan_(plan), seed_(seed), first_(first) {}

    Tally emptyTally() const { return ExactSums(plan_.b.size() * (plan_.echoes + std::size_t{1})); }
    void walk(std::uint32_t i, Tally& tally) {
        CounterStream stream(seed_, first_ + i);
        const Walker start = placeWalker(stream, view_);
        detail::MirroredCells<G> mineralAt(view_);
        double r[3] = {start.x, start.y, start.z};
        detail::AbsorbAtWall encodingKill{plan_.encoding.table.data()};
        for (std::uint32_t n = 0; n < plan_.encoding.steps; ++n) {
            if (detail::counterStep(stream, mineralAt, r[0], r[1], r[2], plan_.encoding.step,
                                    encodingKill))
                return;
        }
        const double shift[3] = {r[0] - start.x, r[1] - start.y, r[2] - start.z};
        detail::AbsorbAtWall echoKill{plan_.halfEcho.table.data()};
        const std::uint64_t echoSteps = 2 * std::uint64_t{plan_.halfEcho.steps};
        std::uint32_t lived = 0;
        for (; lived < plan_.echoes; ++lived) {
            bool absorbed = false;
            for (std::uint64_t n = 0; n < echoSteps && !absorbed; ++n)
                absorbed = detail::counterStep(stream, mineralAt, r[0], r[1], r[2],
                                               plan_.halfEcho.step, echoKill);
            if (absorbed) break;
        }
        for (std::size_t j = 0; j < plan_.q.size(); ++j) {
            const double phase = plan_.q[j] * plan_.cellSizeM;
            const double cosine = (stableCos(phase * shift[0]) + stableCos(phase * shift[1]) +
                                   stableCos(phase * shift[2])) /
                                  3.0;
            tally.add(dt2Index(plan_, j, lived), cosine);
        }
    }

private:
    WalkGridView<G> view_;
    const Dt2Plan& plan_;
    std::int32_t seed_;
    std::uint64_t first_;
};

// Walks this process's walkers: walkKept's sums.
template <typename G>
std::optional<ExactSums> walkDiffusionEditing(const G& grid, const Dt2Plan& plan, std::int32_t seed,
                                              const WalkerRange& walkers, RunControl control) {
    DiffusionEditingWalk<G> experiment(grid, plan, seed, walkers.first);
    return walkKept(experiment, walkers.count, std::move(control));
}

// The data from the job's sums: amplitude(j, k) at b[j] and echo k + 1, time since
// excitation Delta + (k + 1) TE, the mean over `walkers` times exp(-time / bulkT2Ms).
struct Dt2Data {
    std::vector<double> b;
    std::vector<double> timesMs;
    Eigen::MatrixXd amplitude;
};
Dt2Data dt2Data(const Dt2Plan& plan, const ExactSums& sums, std::int64_t walkers, double bulkT2Ms);

}  // namespace nmr
