#pragma once

#include <cstdint>

#include "walk/absorption_table.h"
#include "walk/counter_stream.h"
#include "walk/field_map.h"
#include "walk/walk.h"
#include "walk/walker.h"

// The phase walk of a spin echo train (CPMG). A walker moves by nmrwalk's step rule and is
// absorbed by its kill rule; between steps it gathers phase from the field it sits in:
// gamma * B0 * (dB/B0) * tau from the rock's internal field (trilinear between cell
// centres) and gamma * G * (position along B0) * tau from an applied uniform gradient. A pi
// pulse halfway through each echo period reverses the phase, so a static field refocuses at
// every echo and only the field a walker has moved through is left.

namespace nmr {

struct PhasePlan {
    double step = 0.0;                   // voxels
    std::uint32_t stepsPerHalfEcho = 0;  // N: a half echo is N steps of tau
    std::uint32_t echoes = 0;
    AbsorptionTable table;  // for `step`, by nmrwalk's rule
    // Phase per step: rad per unit of dB/B0 (gamma B0 tau), and rad per voxel of position
    // along B0 (gamma G a tau, a the cell size).
    double fieldPhase = 0.0;
    double gradientPhase = 0.0;
    int axis = 2;  // B0 along x (0), y (1) or z (2)
};

// Walks one walker (a copy) through the echo train, drawing from its own stream, and calls
// onEcho(k, phase) at echo k = 0, 1, ... (at time (k + 1) TE) for every echo the walker
// lives to. The applied gradient's phase is taken from the walker's start: a constant
// offset of the field refocuses at every echo and would only cost digits. The field map is
// read only when `field` holds one.
template <typename G, typename F, typename OnEcho>
void walkEchoTrain(CounterStream& stream, Walker walker, const WalkGridView<G>& view,
                   const F& field, const PhasePlan& plan, OnEcho&& onEcho) {
    auto draw = [&stream]() { return stream.next(); };
    detail::MirroredCells<G> mineralAt(view);
    detail::AbsorbAtWall absorb{plan.table.data()};
    double position[3] = {walker.x, walker.y, walker.z};
    const double origin = position[plan.axis];
    const bool internal = static_cast<bool>(field);
    // Each half echo's phase is summed from zero and then added to (or, at the pulse,
    // subtracted from) the walker's: a static field then cancels exactly, not just to
    // rounding, since both halves of an echo add the same numbers in the same order.
    double phase = 0.0;
    for (std::uint32_t k = 0; k < plan.echoes; ++k) {
        for (int half = 0; half < 2; ++half) {
            double gathered = 0.0;
            for (std::uint32_t n = 0; n < plan.stepsPerHalfEcho; ++n) {
                if (detail::step(draw, mineralAt, position[0], position[1], position[2], plan.step,
                                 absorb)) {
                    return;
                }
                double offset = plan.gradientPhase * (position[plan.axis] - origin);
                if (internal) {
                    offset +=
                        plan.fieldPhase * field.interpolate(position[0], position[1], position[2]);
                }
                gathered += offset;
            }
            // The pi pulse at (k + 1/2) TE reverses what was gathered before it.
            phase = half == 0 ? -(phase + gathered) : phase + gathered;
        }
        onEcho(k, phase);
    }
}

}  // namespace nmr
