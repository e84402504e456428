#pragma once

#include <chrono>
#include <cstdint>

#include "walk/random_stream.h"
#include "walk/walk.h"
#include "walk/walk_plan.h"
#include "walk/walker.h"

namespace nmr {

// Steps per second of one process walking this grid with the coarse step, measured on a
// copy of `start` with a stream of its own, so the run's stream and walkers are untouched.
// Meant for a plan in which nothing absorbs (see nothingAbsorbs); otherwise the walk may
// end early and the figure is too high. Takes a few tens of milliseconds.
template <typename G>
double measureStepRate(const G& grid, const Walker& start, const WalkPlan& plan,
                       std::uint32_t steps = std::uint32_t{1} << 20) {
    RandomStream stream(1);
    Walker walker = start;
    const auto began = std::chrono::steady_clock::now();
    walkInterval(stream, walker, steps, plan.coarseStep, makeWalkGridView(grid), plan.coarseTable);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
    return took.count() > 0.0 ? static_cast<double>(steps) / took.count() : 0.0;
}

}  // namespace nmr
