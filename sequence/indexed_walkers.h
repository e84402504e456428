#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "simulation/exact_sums.h"
#include "simulation/run_core.h"
#include "walk/counter_stream.h"
#include "walk/walker.h"

namespace nmr {

// The walkers of a process in an experiment whose walkers are numbered across the whole
// job: process r of p holds walkers first .. first + count - 1 of `total`, the first
// total mod p processes one more than the rest. Any division gives the same results,
// since each walker draws from its own stream.
struct WalkerRange {
    std::uint64_t first = 0;
    std::uint32_t count = 0;
};
inline WalkerRange walkerRange(std::int64_t total, int rank, int size) {
    const auto n = static_cast<std::uint64_t>(total > 0 ? total : 0);
    const auto p = static_cast<std::uint64_t>(size);
    const auto r = static_cast<std::uint64_t>(rank);
    const std::uint64_t share = n / p, extra = n % p;
    return {r * share + (r < extra ? r : extra), static_cast<std::uint32_t>(share + (r < extra))};
}

// A start uniform over the pore space of the view, from the walker's own stream: points
// uniform over the whole box, drawn x, y, z, until one lands in pore. Unlike the walkers of
// nmrwalk's own runs (which leave out the top layer of every axis, a rule kept there for
// its results' sake) every pore voxel can receive one. The view must hold pore.
template <typename G>
Walker placeWalker(CounterStream& stream, const WalkGridView<G>& view) {
    for (;;) {
        const double x = static_cast<double>(view.sizeX) * (stream.next() - 1.0);
        const double y = static_cast<double>(view.sizeY) * (stream.next() - 1.0);
        const double z = static_cast<double>(view.sizeZ) * (stream.next() - 1.0);
        if (view.mineralAt(x, y, z) == Mineral::Pore) return Walker{x, y, z};
    }
}

// The checkpoint state of an experiment whose tally is exact sums and nothing else: each
// walker starts its own stream afresh, so the sums are all there is.
struct ExactSumsState {
    std::string save(const ExactSums& tally) const { return tally.save(); }
    bool accepts(const std::string& state, const ExactSums& tally) const {
        ExactSums copy = tally;
        return copy.restore(state);
    }
    void restore(const std::string& state, ExactSums& tally) { tally.restore(state); }
};

// Walks this process's `count` walkers of such an experiment: its part of the sums (reduce
// them with ExactSums::reduce), nothing when a poll stopped the walk. A finished walk is
// kept as a checkpoint when checkpoints are on, for a program that walks several in turn
// and is taken up again; that program removes them at its end. Collective over
// control.comm.
template <typename E>
std::optional<ExactSums> walkKept(E& experiment, std::uint32_t count, RunControl control) {
    ExactSums sums = experiment.emptyTally();
    RunCore core(std::move(control));
    const std::uint32_t from = core.resume(experiment, sums, count);
    if (!core.walk(experiment, sums, count, from).completed) return std::nullopt;
    // Every process, whatever its walkers: the call is collective.
    core.checkpointNow(experiment, sums, count, count);
    return sums;
}

}  // namespace nmr
