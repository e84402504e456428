#include "fit/reweighted_decay.h"

#include <algorithm>
#include <cmath>
#include <thread>

#include "walk/absorption_table.h"
#include "walk/clay_micro_porosity.h"

namespace nmr::fit {

namespace {

// The factor of every table entry of the records for these relaxivities: 0 for a stop,
// 2^n for n roulettes passed, q^n for n contacts in one interval of a phase.
std::vector<double> factorTable(const ExpandedHistories& histories, const RecordedRun& run,
                                const MineralValueMap<double>& relaxivity) {
    const AbsorptionPair p = absorptionFor(run, relaxivity);
    std::vector<double> table(histories.tableSize());
    table[ExpandedHistories::kStopEntry] = 0.0;
    for (std::uint32_t n = 0; n <= histories.largestLevelUp; ++n) {
        table[histories.levelBase + n] = std::ldexp(1.0, static_cast<int>(n));
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
                          const MineralValueMap<double>& relaxivity, unsigned threads) {
    const std::vector<double> table = factorTable(histories, run, relaxivity);
    const std::size_t intervals = run.intervalEndTime.size();
    SurvivalSums sums;
    const std::size_t chunks = histories.chunks.size();
    sums.perChunk.resize(chunks);
    sums.walkers.resize(chunks);
    auto work = [&](std::size_t first, std::size_t step) {
        for (std::size_t c = first; c < chunks; c += step) {
            sums.perChunk[c] = chunkSums(histories.chunks[c], intervals, table);
            sums.walkers[c] = histories.chunks[c].walkers;
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

std::vector<double> decayAmplitudes(const SurvivalTotals& totals, const RecordedRun& run,
                                    const MineralValueMap<double>& relaxivity, std::size_t count) {
    const DecayModel model{buildClayMicroPorosityModel(run.clayMicroPorosity, run.resolutionM,
                                                       relaxivity.valueOr(Mineral::Clay),
                                                       relaxivity.valueOr(Mineral::Quartz)),
                           run.totalWaterSaturation, run.clayFraction, run.bulkT2Ms, run.fieldTerm};
    const double survivors = totals.surviving.empty() ? 0.0 : totals.surviving.back();
    std::vector<double> amplitudes(count);
    for (std::size_t i = 0; i < count; ++i) {
        const double f = (totals.walkers - totals.surviving[i] + survivors) / totals.walkers;
        amplitudes[i] = decayAmplitude(f, run.intervalEndTime[i], model);
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
