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
class EchoTrainWalk {
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
    // The sums are all there is: each walker starts its own stream afresh.
    std::string save(const Tally& tally) const { return tally.save(); }
    bool accepts(const std::string& state, const Tally& tally) const {
        ExactSums copy = tally;
        return copy.restore(state);
    }
    void restore(const std::string& state, Tally& tally) { tally.restore(state); }

private:
    WalkGridView<G> view_;
    const FieldMap& field_;
    const PhasePlan& plan_;
    std::int32_t seed_;
    std::uint64_t first_;
};

// Walks this process's walkers through the echo train: its part of the sums (reduce them
// with ExactSums::reduce). Nothing when a poll stopped the walk. A finished walk is kept as
// a checkpoint when checkpoints are on, for a program that walks several trains and is taken
// up again; that program removes them at its end. Collective over control.comm.
template <typename G>
std::optional<ExactSums> walkEchoTrains(const G& grid, const FieldMap& field, const PhasePlan& plan,
                                        std::int32_t seed, const WalkerRange& walkers,
                                        RunControl control) {
    EchoTrainWalk<G> experiment(grid, field, plan, seed, walkers.first);
    ExactSums sums = experiment.emptyTally();
    RunCore core(std::move(control));
    const std::uint32_t from = core.resume(experiment, sums, walkers.count);
    if (!core.walk(experiment, sums, walkers.count, from).completed) return std::nullopt;
    // Every process, whatever its walkers: the call is collective.
    core.checkpointNow(experiment, sums, walkers.count, walkers.count);
    return sums;
}

}  // namespace nmr
