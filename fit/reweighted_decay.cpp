#include "fit/reweighted_decay.h"

#include <algorithm>
#include <cmath>
#include <thread>

#include "walk/absorption_table.h"
#include "walk/clay_micro_porosity.h"

namespace nmr::fit {

namespace {

// q^n for n = 0 .. largest, q = 1 - p the survival of one contact.
std::vector<double> powers(double p, std::uint32_t largest) {
    const double q = 1.0 - std::clamp(p, 0.0, 1.0);
    std::vector<double> table(static_cast<std::size_t>(largest) + 1);
    double value = 1.0;
    for (double& entry : table) {
        entry = value;
        value *= q;
    }
    return table;
}

// q^n for every slot, n = 0 .. the largest count in one interval, fine phase then coarse,
// in one flat array: entry (phase * slots + slot) * stride + n.
struct PowerTables {
    std::vector<double> values;
    std::size_t stride = 0;
    std::size_t slots = 0;
    const double* phase(bool coarse) const { return values.data() + (coarse ? slots * stride : 0); }
};

PowerTables powerTables(const ContactHistories& histories, const RecordedRun& run,
                        const MineralValueMap<double>& relaxivity) {
    const AbsorptionPair p = absorptionFor(run, relaxivity);
    PowerTables tables;
    tables.slots = run.plan.slots();
    for (std::size_t s = 0; s < tables.slots; ++s) {
        tables.stride = std::max<std::size_t>(
            tables.stride,
            std::max(histories.largestFine[s], histories.largestCoarse[s]) + std::size_t{1});
    }
    tables.values.assign(2 * tables.slots * tables.stride, 1.0);
    for (std::size_t s = 0; s < tables.slots; ++s) {
        const Mineral::Type code = run.plan.minerals[s];
        const auto fine = powers(p.fine[code], histories.largestFine[s]);
        const auto coarse = powers(p.coarse[code], histories.largestCoarse[s]);
        std::copy(fine.begin(), fine.end(),
                  tables.values.begin() + static_cast<std::ptrdiff_t>(s * tables.stride));
        std::copy(coarse.begin(), coarse.end(),
                  tables.values.begin() +
                      static_cast<std::ptrdiff_t>((tables.slots + s) * tables.stride));
    }
    return tables;
}

// One chunk: a running difference per interval of the walkers' weighted survival, summed
// up at the end. A walker's survival only changes in intervals with contacts and where the
// roulette stopped it, so the cost is one update per recorded interval.
std::vector<double> chunkSums(const HistoryChunk& chunk, const ContactHistories& histories,
                              const RecordedRun& run, const PowerTables& tables) {
    const std::size_t intervals = run.intervalEndTime.size();
    const std::uint32_t fineIntervals = histories.fineIntervals;
    const std::size_t stride = tables.stride;
    const double* const fine = tables.phase(false);
    const double* const coarse = tables.phase(true);
    std::vector<double> change(intervals + 1, 0.0);
    const std::uint8_t* p = chunk.bytes.data();
    const std::uint8_t* end = p + chunk.bytes.size();
    for (std::uint32_t w = 0; w < chunk.walkers; ++w) {
        // Survival is a product over contacts, so each interval's counts multiply it by
        // q^count; the weight doubles with every roulette passed.
        double survival = 1.0;
        double weight = 1.0;
        double weighted = 1.0;  // weight times survival, 1 before any contact
        auto contacts = [&](std::uint32_t interval, std::uint32_t slot, std::uint32_t count) {
            survival *= (interval < fineIntervals ? fine : coarse)[slot * stride + count];
        };
        auto entry = [&](std::uint32_t interval, std::uint32_t levelUp) {
            if (levelUp != 0) [[unlikely]]
                weight = std::ldexp(weight, static_cast<int>(levelUp));
            const double next = weight * survival;
            change[interval] += next - weighted;
            weighted = next;
        };
        StopInterval stop = 0;
        p = decodeWalker<false>(p, end, histories.slots, contacts, entry, stop);
        if (stop < intervals) change[stop] -= weighted;
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

SurvivalSums survivalSums(const ContactHistories& histories, const RecordedRun& run,
                          const MineralValueMap<double>& relaxivity, unsigned threads) {
    const PowerTables tables = powerTables(histories, run, relaxivity);
    SurvivalSums sums;
    const std::size_t chunks = histories.chunks.size();
    sums.perChunk.resize(chunks);
    sums.walkers.resize(chunks);
    auto work = [&](std::size_t first, std::size_t step) {
        for (std::size_t c = first; c < chunks; c += step) {
            sums.perChunk[c] = chunkSums(histories.chunks[c], histories, run, tables);
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
