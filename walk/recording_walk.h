#pragma once

#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "walk/random_stream.h"
#include "walk/step_schedule.h"
#include "walk/walk.h"

// A recording walk follows each walker through the schedule without ever removing it: at a
// wall the contact number is drawn as in a run and ignored, and the step is undone. Its
// path is therefore that of a walker that is never absorbed, and in a run with absorption
// probabilities p the walker would survive to the end of interval i with probability
// prod over its contacts so far of (1 - p[mineral]). The contact counts per interval thus
// give the decay for any relaxivities without walking again.
//
// Walking every walker to the end of the schedule would take millions of steps each, most
// of them long after the walker would have been absorbed. So each walker is played Russian
// roulette against its survival at the floor relaxivities, the lowest the recording is
// meant for: whenever that survival falls past another quarter of a halving (2^-1/4,
// 2^-2/4, 2^-3/4, 1/2, ...), the walker goes on with probability 2^-1/4 and multiplies its
// weight by 2^1/4, or stops there. Its expected weight stays 1 for every relaxivity, so the
// decay estimate is unbiased. At the floor a walker is alive with a probability between
// its survival and 2^1/4 times it, so the walk takes at most 1.19 (on average about 1.09)
// times the steps of a run at the floor, and the variance of the estimate stays within
// 1.19 times the binomial variance of a run; above the floor it stays smaller. Halvings
// (go on with probability 1/2) would cost 1.44 times the steps and twice the variance. The
// roulette draws come from a stream of their own, so the paths are drawn exactly as a run
// draws them.

namespace nmr {

// The relaxing minerals a recording tracks, each in a slot, with their absorption
// probabilities at the floor relaxivities.
struct RecordingPlan {
    static constexpr int kNotRecorded = -1;
    std::array<int, 16> slotOf{};         // mineral code -> slot or kNotRecorded
    std::vector<Mineral::Type> minerals;  // slot -> mineral code
    // Per slot, ln(1 - p) at the floor for the fine and the coarse step; -infinity where
    // p >= 1 (every contact absorbs).
    std::vector<double> fineLog;
    std::vector<double> coarseLog;

    std::size_t slots() const { return minerals.size(); }

    // ln of the survival at the floor after `fine` and `coarse` contacts per slot.
    double floorLogSurvival(const std::uint32_t* fine, const std::uint32_t* coarse) const {
        double sum = 0.0;
        for (std::size_t s = 0; s < minerals.size(); ++s) {
            if (fine[s] != 0) sum += static_cast<double>(fine[s]) * fineLog[s];
            if (coarse[s] != 0) sum += static_cast<double>(coarse[s]) * coarseLog[s];
        }
        return sum;
    }
};

// Builds a plan from the absorption probabilities at the floor (tables indexed by mineral
// code, as a run builds them); minerals whose floor probability is not positive do not
// relax at the floor and are not recorded.
RecordingPlan makeRecordingPlan(const std::vector<Mineral::Type>& minerals,
                                const std::vector<double>& fineFloor,
                                const std::vector<double>& coarseFloor);

// A recording tracks at most one slot per mineral code, and a walker passes at most
// kLargestRouletteLevel roulettes in all: its weight 2^(level/4) still fits a double.
inline constexpr std::uint32_t kLargestRecordedSlots = 16;
inline constexpr int kLargestRouletteLevel = 1000;

// Roulettes per halving of the survival at the floor, the chance to go on at each, and the
// weight a walker carries after `level` of them.
inline constexpr int kRoulettesPerHalving = 4;
inline constexpr double kRouletteGoOn = 0.8408964152537145;  // 2^-1/4
inline double rouletteWeight(std::uint32_t level) {
    return std::exp2(static_cast<double>(level) / kRoulettesPerHalving);
}

// A roulette level that no walker survives: its survival at the floor is exactly 0.
inline constexpr int kCertainStop = std::numeric_limits<int>::max();
// Roulettes passed by a walker whose survival at the floor is exp(logSurvival): 0 while it
// is at least 2^-1/4, k while it lies in [2^-(k+1)/4, 2^-k/4), kCertainStop at 0. Capped
// so that the weight stays far inside a double.
inline int rouletteLevel(double logSurvival) {
    constexpr double kQuarterLn2 = 0.6931471805599453 / kRoulettesPerHalving;
    if (!(logSurvival < -kQuarterLn2)) return 0;
    if (std::isinf(logSurvival)) return kCertainStop;
    const double level = std::ceil(-logSurvival / kQuarterLn2) - 1.0;
    return level < kLargestRouletteLevel ? static_cast<int>(level) : kLargestRouletteLevel;
}

// Where a recorded walker stopped: an interval index, or kIntervalCount when it walked
// the whole schedule.
using StopInterval = std::uint32_t;

namespace detail {

// The rule of a recording at a wall: count the contact, and when the survival at the
// floor has passed another roulette level, play it. True stops the walker.
struct RecordAtWall {
    const RecordingPlan& plan;
    RandomStream& roulette;
    std::array<std::uint32_t, 16> fine{};
    std::array<std::uint32_t, 16> coarse{};
    std::array<std::uint32_t, 16> inInterval{};
    bool finePhase = true;
    int level = 0;

    bool operator()(Mineral::Type code, double /*contact number: drawn, not used*/) {
        const int slot = plan.slotOf[code];
        if (slot == RecordingPlan::kNotRecorded) return false;
        ++inInterval[static_cast<std::size_t>(slot)];
        ++(finePhase ? fine : coarse)[static_cast<std::size_t>(slot)];
        const int needed = rouletteLevel(plan.floorLogSurvival(fine.data(), coarse.data()));
        while (level < needed) {
            if (needed == kCertainStop || roulette.next() - 1.0 >= kRouletteGoOn) return true;
            ++level;
        }
        return false;
    }
};

}  // namespace detail

// Walks one walker (a copy) through the schedule as walkWalker does, with the stream
// `stream` drawing exactly what a run draws, and hands `sink` the recorded contacts:
// sink.interval(i, counts, level) for every interval i in which it touched a recorded
// mineral and that it completed (counts per slot, and the roulettes passed so far: its
// weight is rouletteWeight(level)), then sink.stop(interval) once. The stop interval is where the
// roulette ended it, or the schedule's interval count.
template <typename G, typename Sink>
void recordWalker(RandomStream& stream, RandomStream& roulette, Walker walker,
                  const WalkGridView<G>& view, const WalkPlan& walk, const RecordingPlan& plan,
                  Sink& sink) {
    detail::RecordAtWall atWall{plan, roulette};
    const auto& steps = walk.schedule.stepsPerInterval;
    const auto intervals = static_cast<std::uint32_t>(steps.size());
    const std::uint32_t fineEnd = std::min(walk.schedule.fineIntervals, intervals);
    for (std::uint32_t i = 0; i < intervals; ++i) {
        atWall.finePhase = i < fineEnd;
        atWall.inInterval.fill(0);
        if (detail::walkSteps(stream, walker, steps[i],
                              atWall.finePhase ? walk.fineStep : walk.coarseStep, view, atWall)) {
            sink.stop(i);
            return;
        }
        for (std::size_t s = 0; s < plan.slots(); ++s) {
            if (atWall.inInterval[s] != 0) {
                sink.interval(i, atWall.inInterval.data(), atWall.level);
                break;
            }
        }
    }
    sink.stop(intervals);
}

}  // namespace nmr
