#include "fit/reweighted_decay.h"

#include <algorithm>
#include <cmath>
#include <thread>

#include "walk/absorption_table.h"
#include "walk/clay_micro_porosity.h"
#include "walk/step_schedule.h"

namespace nmr::fit {

namespace {

// The factor of every table entry of the records for these relaxivities: 0 for a stop,
// the weight of n roulettes passed, q^n for n contacts in one interval of a phase.
std::vector<double> factorTable(const ExpandedHistories& histories, const RecordedRun& run,
                                const MineralValueMap<double>& relaxivity) {
    const AbsorptionPair p = absorptionFor(run, relaxivity);
    std::vector<double> table(histories.tableSize());
    table[ExpandedHistories::kStopEntry] = 0.0;
    for (std::uint32_t n = 0; n <= histories.largestLevelUp; ++n) {
        table[histories.levelBase + n] = rouletteWeight(n);
    }
    for (std::size_t t = 0; t < histories.tableBase.size(); ++t) {
        const bool coarse = t >= histories.slots;
        const Mineral::Type code = run.plan.minerals[coarse ? t - histories.slots : t];
        const double q = 1.0 - std::clamp((coarse ? p.coarse : p.fine)[code], 0.0, 1.0);
        double value = 1.0;
        for (std::uint32_t n = 0; n <= histories.tableCount[t]; ++n) {
            table[histories.tableBase[t] + n] = value;
            value *= q;
        }
    }
    return table;
}

// One chunk: a running difference per interval of the walkers' weighted survival, summed
// up at the end. Every record multiplies the walker's weighted survival by its factor and
// adds the change to its interval; a stop (factor 0) takes the walker's whole weight out
// where the roulette stopped it and starts the next walker at 1.
std::vector<double> chunkSums(const ExpandedChunk& chunk, std::size_t intervals,
                              const std::vector<double>& table) {
    constexpr unsigned kBits = ExpandedHistories::kIntervalBits;
    std::vector<double> change(
        std::max<std::size_t>(intervals, ExpandedHistories::kIntervalMask) + 1, 0.0);
    const double* const factor = table.data();
    double* const delta = change.data();
    double weighted = 1.0;
    for (const std::uint32_t record : chunk.records) {
        const std::uint32_t entry = record >> kBits;
        const double next = weighted * factor[entry];
        delta[record & ExpandedHistories::kIntervalMask] += next - weighted;
        weighted = entry == ExpandedHistories::kStopEntry ? 1.0 : next;
    }
    std::vector<double> sums(intervals);
    double running = static_cast<double>(chunk.walkers);
    for (std::size_t i = 0; i < intervals; ++i) {
        running += change[i];
        sums[i] = running;
    }
    return sums;
}

}  // namespace

AbsorptionPair absorptionFor(const RecordedRun& run, const MineralValueMap<double>& relaxivity) {
    AbsorptionPair p;
    buildAbsorptionTable(relaxivity, run.fineStep, run.resolutionM, run.diffusionWater, p.fine);
    buildAbsorptionTable(relaxivity, run.coarseStep, run.resolutionM, run.diffusionWater, p.coarse);
    return p;
}

SurvivalSums survivalSums(const ExpandedHistories& histories, const RecordedRun& run,
                          const MineralValueMap<double>& relaxivity, unsigned threads,
                          std::size_t stride) {
    const std::vector<double> table = factorTable(histories, run, relaxivity);
    const std::size_t intervals = run.intervalEndTime.size();
    SurvivalSums sums;
    stride = std::max<std::size_t>(stride, 1);
    const std::size_t chunks = (histories.chunks.size() + stride - 1) / stride;
    sums.perChunk.resize(chunks);
    sums.walkers.resize(chunks);
    auto work = [&](std::size_t first, std::size_t step) {
        for (std::size_t c = first; c < chunks; c += step) {
            const ExpandedChunk& chunk = histories.chunks[c * stride];
            sums.perChunk[c] = chunkSums(chunk, intervals, table);
            sums.walkers[c] = chunk.walkers;
        }
    };
    threads = std::max(1u, std::min<unsigned>(threads, static_cast<unsigned>(chunks)));
    std::vector<std::thread> helpers;
    for (unsigned t = 1; t < threads; ++t) helpers.emplace_back(work, t, threads);
    work(0, threads);
    for (auto& helper : helpers) helper.join();
    return sums;
}

SurvivalTotals totalSurvival(const SurvivalSums& sums, const std::vector<double>& chunkWeights) {
    SurvivalTotals totals;
    if (sums.perChunk.empty()) return totals;
    totals.surviving.assign(sums.perChunk.front().size(), 0.0);
    for (std::size_t c = 0; c < sums.perChunk.size(); ++c) {
        const double weight = chunkWeights.empty() ? 1.0 : chunkWeights[c];
        if (weight == 0.0) continue;
        totals.walkers += weight * sums.walkers[c];
        const auto& chunk = sums.perChunk[c];
        for (std::size_t i = 0; i < chunk.size(); ++i) totals.surviving[i] += weight * chunk[i];
    }
    return totals;
}

std::size_t keptIntervals(const SurvivalTotals& totals) {
    std::size_t kept = 0;
    for (std::size_t k = 1; k < totals.surviving.size(); ++k) {
        if (totals.surviving[k - 1] - totals.surviving[k] > 0.0) kept = k;
    }
    return kept;
}

namespace {

// A run's map from its interval end times to the time its walkers have walked by then.
struct WalkedSchedule {
    std::vector<double> labels;  // intervalEndTime, ms
    std::vector<double> walked;  // ms
};
WalkedSchedule walkedSchedule(const RecordedRun& run, double switchTime) {
    const StepSchedule schedule = buildStepSchedule(
        {.voxelSize = run.resolutionM,
         .fineStep = run.fineStep,
         .coarseStep = run.coarseStep,
         .switchTime = switchTime,
         .diffusionWater = run.scheduleDiffusion,
         .waterSelector = 1.0,
         .intervalCount = static_cast<std::uint32_t>(run.intervalEndTime.size())});
    return {
        schedule.intervalEndTime,
        walkedEndTimes(schedule, stepDuration(run.resolutionM, run.fineStep, run.scheduleDiffusion),
                       stepDuration(run.resolutionM, run.coarseStep, run.scheduleDiffusion))};
}

// y at x by linear interpolation in ln x between the points (xs, ys), xs ascending; the end
// values beyond them. At a point itself, exactly its value.
double interpolateLog(const std::vector<double>& xs, const std::vector<double>& ys, double x) {
    if (!(x > xs.front())) return ys.front();
    if (!(x < xs.back())) return ys.back();
    const auto above =
        static_cast<std::size_t>(std::upper_bound(xs.begin(), xs.end(), x) - xs.begin());
    const std::size_t below = above - 1;
    if (xs[below] == x) return ys[below];
    const double w = std::log(x / xs[below]) / std::log(xs[above] / xs[below]);
    return ys[below] + w * (ys[above] - ys[below]);
}

// The walked-time map of a run whose switch time is T2_micro, as a sum of weighted maps.
// Exact: the run's own schedule. Smooth: a run's switch moves by whole intervals as T2_micro
// moves, so its decay jumps; the blend of the two schedules whose switch intervals lie
// nearest, weighted by where T2_micro lies between interval ends, moves with T2_micro
// continuously and meets the run's own schedule half-way between two ends.
std::vector<std::pair<double, WalkedSchedule>> runSchedules(const RecordedRun& run, double t2Micro,
                                                            ScheduleEmulation emulation) {
    if (emulation == ScheduleEmulation::Exact) return {{1.0, walkedSchedule(run, t2Micro)}};
    // Interval end times before any switch: the fine step's.
    const std::vector<double> ends = walkedSchedule(run, HUGE_VAL).labels;
    const auto k = static_cast<std::size_t>(std::upper_bound(ends.begin(), ends.end(), t2Micro) -
                                            ends.begin());
    if (run.coarseStep <= 0.1 || k == 0 || k + 1 >= ends.size()) {
        return {{1.0, walkedSchedule(run, t2Micro)}};
    }
    // Switch times that make a run switch at interval j: any time in [ends[j-1], ends[j]).
    auto switchingAt = [&ends](std::size_t j) { return std::sqrt(ends[j - 1] * ends[j]); };
    const double w = std::log(t2Micro / ends[k - 1]) / std::log(ends[k] / ends[k - 1]);
    const double other = w < 0.5 ? 0.5 - w : w - 0.5;
    const std::size_t neighbour = w < 0.5 ? k - 1 : k + 1;
    std::vector<std::pair<double, WalkedSchedule>> blend = {
        {1.0 - other, walkedSchedule(run, switchingAt(k))}};
    if (other > 0.0 && neighbour > 0) {
        blend.emplace_back(other, walkedSchedule(run, switchingAt(neighbour)));
    }
    return blend;
}

}  // namespace

std::vector<double> decayAmplitudes(const SurvivalTotals& totals, const RecordedRun& run,
                                    const MineralValueMap<double>& relaxivity, std::size_t count,
                                    ScheduleEmulation emulation) {
    const auto clay = [&run](const MineralValueMap<double>& r) {
        return buildClayMicroPorosityModel(run.clayMicroPorosity, run.resolutionM,
                                           r.valueOr(Mineral::Clay), r.valueOr(Mineral::Quartz));
    };
    const DecayModel model{clay(relaxivity), run.totalWaterSaturation, run.clayFraction,
                           run.bulkT2Ms, run.fieldTerm};
    const double survivors = totals.surviving.empty() ? 0.0 : totals.surviving.back();
    std::vector<double> amplitudes(count);
    const double recordedSwitch = clay(run.relaxivity).t2Micro;
    // The recording's own schedule needs no mapping: its survival is read as recorded.
    const bool recorded =
        (emulation == ScheduleEmulation::Exact && model.clay.t2Micro == recordedSwitch) ||
        run.scheduleDiffusion <= 0.0 || count == 0;
    WalkedSchedule recording;
    std::vector<std::pair<double, WalkedSchedule>> asRun;
    if (!recorded) {
        recording = walkedSchedule(run, recordedSwitch);
        asRun = runSchedules(run, model.clay.t2Micro, emulation);
    }
    for (std::size_t i = 0; i < count; ++i) {
        const double t = run.intervalEndTime[i];
        double surviving = totals.surviving[i];
        if (!recorded) {
            double walked = 0.0;
            for (const auto& [weight, schedule] : asRun) {
                walked += weight * interpolateLog(schedule.labels, schedule.walked, t);
            }
            surviving = interpolateLog(recording.walked, totals.surviving, walked);
        }
        const double f = (totals.walkers - surviving + survivors) / totals.walkers;
        amplitudes[i] = decayAmplitude(f, t, model);
    }
    return amplitudes;
}

DecayCurve reweightedDecay(const SurvivalSums& sums, const RecordedRun& run,
                           const MineralValueMap<double>& relaxivity, bool keepAll,
                           const std::vector<double>& chunkWeights) {
    const SurvivalTotals totals = totalSurvival(sums, chunkWeights);
    const std::size_t kept = keptIntervals(totals);
    const std::vector<double> amplitudes = decayAmplitudes(totals, run, relaxivity, kept);
    constexpr double kSmallestKept = 0.001;
    DecayCurve curve;
    for (std::size_t i = 0; i < kept; ++i) {
        if (keepAll || amplitudes[i] > kSmallestKept) {
            curve.times.push_back(run.intervalEndTime[i]);
            curve.values.push_back(amplitudes[i]);
        }
    }
    return curve;
}

}  // namespace nmr::fit
