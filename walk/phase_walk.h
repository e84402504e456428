#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "walk/absorption_table.h"
#include "walk/counter_stream.h"
#include "walk/field_map.h"
#include "walk/walk.h"
#include "walk/walker.h"

// The phase walk of a spin echo train (CPMG). A walker moves by nmrwalk's step rule (with
// its direction drawn more coarsely, see cubeDirection) and is absorbed by its kill rule;
// between steps it gathers phase from the field it sits in: gamma * B0 * (dB/B0) * tau from
// the rock's internal field (trilinear between cell centres) and gamma * G * (position along
// B0) * tau from an applied uniform gradient. A pi pulse halfway through each echo period
// reverses the phase, so a static field refocuses at every echo and only the field a walker
// has moved through is left.

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

namespace detail {

// A step's direction from one 64-bit word of a walker's stream: three 21-bit numbers i, each
// made (i + 1/2) 2^-20 - 1, the centres of 2^21 equal parts of [-1, 1), taken z, y, x from
// the low bits up. nmrwalk's walk draws three 52-bit numbers a step; 21 bits put a direction
// within 1e-6 of the point of the cube they stand for, far below anything a walk resolves,
// and one Philox block then serves three or four steps instead of one. No component is 0,
// so no direction has length 0. Each number is built as a double in [1, 2) by its bits, as
// the stream's own numbers are: 1 + (i + 1/2) 2^-21, exact, then 2 (u - 1) - 1, exact too.
struct CubeDirection {
    double x, y, z;
};
inline CubeDirection cubeDirection(std::uint64_t word) {
    auto component = [](std::uint64_t bits21) {
        const std::uint64_t bits =
            (bits21 << 31) | (std::uint64_t{1} << 30) | 0x3FF0000000000000ull;
        double unit;
        std::memcpy(&unit, &bits, sizeof unit);
        return 2.0 * (unit - 1.0) - 1.0;
    };
    constexpr std::uint64_t kMask = (std::uint64_t{1} << 21) - 1;
    return {component((word >> 42) & kMask), component((word >> 21) & kMask),
            component(word & kMask)};
}

// One step of a walk on a walker's own stream: the direction from one word (cubeDirection),
// then nmrwalk's step and kill rule (stepAlong), whose wall test draws a full number.
template <typename Locate, typename AtWall>
[[gnu::always_inline]] inline bool counterStep(CounterStream& stream, Locate& mineralAt, double& x,
                                               double& y, double& z, double s, AtWall& atWall) {
    const CubeDirection d = cubeDirection(stream.word());
    auto draw = [&stream]() { return stream.next(); };
    return stepAlong(d.x, d.y, d.z, draw, mineralAt, x, y, z, s, atWall);
}

}  // namespace detail

// Walks one walker (a copy) through the echo train, drawing from its own stream, and calls
// onEcho(k, phase) at echo k = 0, 1, ... (at time (k + 1) TE) for every echo the walker
// lives to. The applied gradient's phase is taken from the walker's start: a constant
// offset of the field refocuses at every echo and would only cost digits. The field map is
// read only when `field` holds one.
//
// The steps of a half echo go in runs of up to kRun: the run is walked first, its positions
// kept, and only then is the phase of each read. The field reads of a run then depend on
// nothing but positions already known, so they overlap one another instead of waiting on
// each step's wall test; the phase is summed in the order of the steps all the same.
template <typename G, typename F, typename OnEcho>
void walkEchoTrain(CounterStream& stream, Walker walker, const WalkGridView<G>& view,
                   const F& field, const PhasePlan& plan, OnEcho&& onEcho) {
    constexpr std::uint32_t kRun = 16;
    detail::MirroredCells<G> mineralAt(view);
    detail::AbsorbAtWall absorb{plan.table.data()};
    double x = walker.x, y = walker.y, z = walker.z;
    auto along = [axis = plan.axis](double px, double py, double pz) {
        return axis == 0 ? px : axis == 1 ? py : pz;
    };
    const double origin = along(x, y, z);
    const bool internal = static_cast<bool>(field);
    double runX[kRun], runY[kRun], runZ[kRun];
    // Each half echo's phase is summed from zero and then added to (or, at the pulse,
    // subtracted from) the walker's: a static field then cancels exactly, not just to
    // rounding, since both halves of an echo add the same numbers in the same order.
    double phase = 0.0;
    for (std::uint32_t k = 0; k < plan.echoes; ++k) {
        for (int half = 0; half < 2; ++half) {
            double gathered = 0.0;
            for (std::uint32_t done = 0; done < plan.stepsPerHalfEcho; done += kRun) {
                const std::uint32_t run = std::min(kRun, plan.stepsPerHalfEcho - done);
                for (std::uint32_t n = 0; n < run; ++n) {
                    if (detail::counterStep(stream, mineralAt, x, y, z, plan.step, absorb)) return;
                    runX[n] = x;
                    runY[n] = y;
                    runZ[n] = z;
                }
                for (std::uint32_t n = 0; n < run; ++n) {
                    double offset =
                        plan.gradientPhase * (along(runX[n], runY[n], runZ[n]) - origin);
                    if (internal)
                        offset += plan.fieldPhase * field.interpolate(runX[n], runY[n], runZ[n]);
                    gathered += offset;
                }
            }
            // The pi pulse at (k + 1/2) TE reverses what was gathered before it.
            phase = half == 0 ? -(phase + gathered) : phase + gathered;
        }
        onEcho(k, phase);
    }
}

}  // namespace nmr
