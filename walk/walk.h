#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "walk/absorption_table.h"
#include "walk/random_stream.h"
#include "walk/walk_plan.h"
#include "walk/walker.h"

// The innermost loop of the program. It lives in this header so that it is compiled
// into the caller together with the grid's non-virtual at(); nmr_walk passes
// -ffp-contract=off to everything that includes it, so no multiply-add is fused and a
// seed gives the same walk bit for bit on every x86-64 machine.

namespace nmr {

namespace detail {

// Most draws a step takes: three for the direction, one for a wall contact.
constexpr int kMaxDrawsPerStep = 4;

// Exact IEEE square root without the errno branch of std::sqrt (q is never negative).
inline double squareRoot(double q) {
#if defined(__SSE2__)
    return _mm_cvtsd_f64(_mm_sqrt_sd(_mm_setzero_pd(), _mm_set_sd(q)));
#else
    return std::sqrt(q);
#endif
}

// The rule of a run at a wall: the step is undone unless p[code] > u - 1 (strictly), in
// which case the walker is absorbed. `absorption` must cover every code the grid holds
// (validated grids 0..13).
struct AbsorbAtWall {
    const double* absorption;
    bool operator()(Mineral::Type code, double u) const { return absorption[code] > u - 1.0; }
};

// One step of length s (voxels) along a direction (dx, dy, dz) of the cube [-1, 1)^3, not
// all zero, scaled to length s; true when the walk of this walker ends here. A step into a
// solid voxel draws one more number u and asks atWall(code, u): true ends the walk with the
// walker on the wall, false undoes the step, which still takes its time. `draw` yields the
// stream's next number in [1, 2); `mineralAt` maps a position to the mineral of the voxel
// under it (mirrored).
template <typename Draw, typename Locate, typename AtWall>
[[gnu::always_inline]] inline bool stepAlong(double dx, double dy, double dz, Draw&& draw,
                                             Locate&& mineralAt, double& x, double& y, double& z,
                                             double s, AtWall& atWall) {
    const double q = dz * dz + (dx * dx + dy * dy);
    const double f = s / squareRoot(q);
    const double nextX = x + f * dx;
    const double nextY = y + f * dy;
    const double nextZ = z + f * dz;

    const Mineral::Type code = mineralAt(nextX, nextY, nextZ);
    if (code != Mineral::Pore) {
        if (atWall(code, draw())) {
            x = nextX;
            y = nextY;
            z = nextZ;
            return true;
        }
        return false;  // held back at the wall
    }
    x = nextX;
    y = nextY;
    z = nextZ;
    return false;
}

// One step of nmrwalk's walk: the direction is a point of the cube [-1, 1)^3, three draws
// taken z, y, x, then the step goes as stepAlong says (a point of the cube, not of the
// sphere: no rejection outside the unit ball).
template <typename Draw, typename Locate, typename AtWall>
[[gnu::always_inline]] inline bool step(Draw&& draw, Locate&& mineralAt, double& x, double& y,
                                        double& z, double s, AtWall& atWall) {
    const double dz = 2.0 * (draw() - 1.0) - 1.0;
    const double dy = 2.0 * (draw() - 1.0) - 1.0;
    const double dx = 2.0 * (draw() - 1.0) - 1.0;
    return stepAlong(dx, dy, dz, draw, mineralAt, x, y, z, s, atWall);
}

// The mineral at a position in the mirrored extension of a view's grid, each axis keeping
// the mirror period it was last in (see MirrorAxis).
template <typename G>
class MirroredCells {
public:
    explicit MirroredCells(const WalkGridView<G>& view)
        : view_(view), x_(view.sizeX), y_(view.sizeY), z_(view.sizeZ) {}
    auto operator()(double px, double py, double pz) {
        return view_.cell(x_(static_cast<std::int32_t>(px)), y_(static_cast<std::int32_t>(py)),
                          z_(static_cast<std::int32_t>(pz)));
    }

private:
    const WalkGridView<G>& view_;
    MirrorAxis x_, y_, z_;
};

// `count` steps that cannot exhaust the block (count * kMaxDrawsPerStep numbers are
// left): no regeneration check and no call inside, so the position and the stream's
// index live in registers for the whole run.
template <typename G, typename AtWall>
[[gnu::noinline]] bool walkRun(RandomStream& stream, Walker& walker, std::uint32_t count, double s,
                               const WalkGridView<G>& view, AtWall& atWall) {
    RandomStream::Reader random(stream);
    auto draw = [&random]() { return random.nextUnchecked(); };
    MirroredCells<G> mineralAt(view);
    double x = walker.x;
    double y = walker.y;
    double z = walker.z;
    bool ended = false;
    for (std::uint32_t n = 0; n < count; ++n) {
        if (step(draw, mineralAt, x, y, z, s, atWall)) {
            ended = true;
            break;
        }
    }
    walker = Walker{x, y, z};
    return ended;
}

// stepCount steps; true when the walk ended (atWall said so). The draws are exactly those
// of a draw-by-draw loop that regenerates the block when its index reaches the end: runs
// of steps that cannot reach the end go unchecked, and the step that may cross it draws
// through next(), which regenerates in the middle of the step if it must.
template <typename G, typename AtWall>
inline bool walkSteps(RandomStream& stream, Walker& walker, std::uint32_t stepCount, double s,
                      const WalkGridView<G>& view, AtWall& atWall) {
    std::uint32_t done = 0;
    while (done < stepCount) {
        const auto safe = static_cast<std::uint32_t>(stream.available() / kMaxDrawsPerStep);
        if (safe == 0) {
            auto draw = [&stream]() { return stream.next(); };
            auto mineralAt = [&view](double px, double py, double pz) {
                return view.mineralAt(px, py, pz);
            };
            if (step(draw, mineralAt, walker.x, walker.y, walker.z, s, atWall)) return true;
            ++done;
            continue;
        }
        const std::uint32_t run = std::min(stepCount - done, safe);
        if (walkRun(stream, walker, run, s, view, atWall)) return true;
        done += run;
    }
    return false;
}

}  // namespace detail

// Walks stepCount steps of the given length; true when the walker was absorbed.
template <typename G>
bool walkInterval(RandomStream& stream, Walker& walker, std::uint32_t stepCount, double stepLength,
                  const WalkGridView<G>& view, const AbsorptionTable& table) {
    detail::AbsorbAtWall absorb{table.data()};
    return detail::walkSteps(stream, walker, stepCount, stepLength, view, absorb);
}

// Walks one walker (a copy) through every interval of the schedule and returns the
// index of the interval in which it was absorbed. A walker that survives them all also
// returns 0, so it is counted with the walkers absorbed in the first interval; the
// accumulation relies on that, and the result is always below the interval count.
template <typename G>
std::uint32_t walkWalker(RandomStream& stream, Walker walker, const WalkGridView<G>& view,
                         const WalkPlan& plan) {
    const auto& steps = plan.schedule.stepsPerInterval;
    const auto intervals = static_cast<std::uint32_t>(steps.size());
    const std::uint32_t fineEnd = std::min(plan.schedule.fineIntervals, intervals);
    detail::AbsorbAtWall absorbFine{plan.fineTable.data()};
    for (std::uint32_t i = 0; i < fineEnd; ++i) {
        if (detail::walkSteps(stream, walker, steps[i], plan.fineStep, view, absorbFine)) {
            return i;
        }
    }
    for (std::uint32_t i = fineEnd; i < intervals; ++i) {
        if (walkInterval(stream, walker, steps[i], plan.coarseStep, view, plan.coarseTable)) {
            return i;
        }
    }
    return 0;
}

}  // namespace nmr
