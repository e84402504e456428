#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "sequence/indexed_walkers.h"
#include "simulation/exact_sums.h"
#include "simulation/run_core.h"
#include "walk/phase_walk.h"
#include "walk/stable_trig.h"

namespace nmr {

// The phase walk of a CPMG echo train as an experiment of the run core: walker i of the
// process is walker first + i of the job, placed and walked with its own stream; the
// tally is the sum over walkers of cos(phase) at every echo (0 for a walker absorbed
// before it), exact whatever the division of walkers.
template <typename G>
class EchoTrainWalk : public ExactSumsState {
public:
    using Tally = ExactSums;

    EchoTrainWalk(const G& grid, const FieldMap& field, const PhasePlan& plan, std::int32_t seed,
                  std::uint64_t first)
        : view_(makeWalkGridView(grid)), field_(field), plan_(plan), seed_(seed), first_(first) {}

    Tally emptyTally() const { return ExactSums(plan_.echoes); }
    void walk(std::uint32_t i, Tally& tally) {
        CounterStream stream(seed_, first_ + i);
        const Walker start = placeWalker(stream, view_);
        walkEchoTrain(stream, start, view_, field_, plan_,
                      [&tally](std::uint32_t k, double phase) { tally.add(k, stableCos(phase)); });
    }

private:
    WalkGridView<G> view_;
    const FieldMap& field_;
    const PhasePlan& plan_;
    std::int32_t seed_;
    std::uint64_t first_;
};

// Walks this process's walkers through the echo train: walkKept's sums.
template <typename G>
std::optional<ExactSums> walkEchoTrains(const G& grid, const FieldMap& field, const PhasePlan& plan,
                                        std::int32_t seed, const WalkerRange& walkers,
                                        RunControl control) {
    EchoTrainWalk<G> experiment(grid, field, plan, seed, walkers.first);
    return walkKept(experiment, walkers.count, std::move(control));
}

}  // namespace nmr
