#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "common/exception.h"
#include "fit/contact_histories.h"
#include "fit/recorded_walk_file.h"
#include "fit/relaxivity_fit.h"
#include "fit/reweighted_decay.h"
#include "testutil/temp_dir.h"
#include "walk/clay_micro_porosity.h"
#include "walk/decay_curve.h"
#include "walk/step_schedule.h"

namespace nmr::fit {
namespace {

struct Entry {
    std::uint32_t interval;
    std::vector<std::uint32_t> counts;  // per slot
    int level;                          // roulettes passed so far
};
struct History {
    std::vector<Entry> entries;
    StopInterval stop;
};

ContactHistories encode(const std::vector<History>& walkers, std::uint32_t slots,
                        std::uint32_t fineIntervals, std::uint32_t chunkWalkers) {
    ContactHistories out;
    HistoryRecorder recorder(out, slots, fineIntervals, chunkWalkers);
    for (const History& h : walkers) {
        for (const Entry& e : h.entries) recorder.interval(e.interval, e.counts.data(), e.level);
        recorder.stop(h.stop);
    }
    return out;
}

std::vector<History> decode(const ContactHistories& histories) {
    std::vector<History> walkers;
    for (const HistoryChunk& chunk : histories.chunks) {
        const std::uint8_t* p = chunk.bytes.data();
        for (std::uint32_t w = 0; w < chunk.walkers; ++w) {
            History h;
            int level = 0;
            std::vector<std::uint32_t> counts(histories.slots, 0);
            auto count = [&](std::uint32_t, std::uint32_t slot, std::uint32_t n) {
                counts[slot] = n;
            };
            auto entry = [&](std::uint32_t interval, std::uint32_t up) {
                level += static_cast<int>(up);
                h.entries.push_back({interval, counts, level});
                std::fill(counts.begin(), counts.end(), 0u);
            };
            p = decodeWalker<true>(p, chunk.bytes.data() + chunk.bytes.size(), histories.slots,
                                   count, entry, h.stop);
            walkers.push_back(std::move(h));
        }
    }
    return walkers;
}

// Random histories with every kind of entry: gaps from 0 to past 255, counts from 1 to
// 10^5, roulettes one at a time and many at once, walkers with no contacts at all.
std::vector<History> randomHistories(std::uint32_t slots, int walkers, std::uint32_t seed) {
    std::mt19937 random(seed);
    auto below = [&random](std::uint32_t n) { return static_cast<std::uint32_t>(random() % n); };
    std::vector<History> result;
    for (int w = 0; w < walkers; ++w) {
        History h;
        std::int64_t interval = -1;
        int level = 0;
        const std::uint32_t entries = below(4) == 0 ? 0 : below(40);
        for (std::uint32_t e = 0; e < entries; ++e) {
            const std::uint32_t gap = below(5) == 0 ? below(280) : below(3);
            if (interval + 1 + gap >= static_cast<std::int64_t>(kIntervalCount)) break;
            interval += 1 + gap;
            std::vector<std::uint32_t> counts(slots, 0);
            const std::uint32_t touched = 1 + below(slots);
            for (std::uint32_t k = 0; k < touched; ++k) {
                const std::uint32_t kind = below(10);
                counts[below(slots)] = kind < 6   ? 1 + below(16)
                                       : kind < 9 ? 17 + below(300)
                                                  : 1 + below(100000);
            }
            if (std::all_of(counts.begin(), counts.end(), [](auto c) { return c == 0; }))
                counts[0] = 1;
            if (below(6) == 0) level += below(8) == 0 ? 20 + static_cast<int>(below(60)) : 1;
            h.entries.push_back({static_cast<std::uint32_t>(interval), counts, level});
        }
        h.stop = below(3) == 0 ? kIntervalCount
                               : static_cast<StopInterval>(std::min<std::int64_t>(
                                     interval + 1 + below(5), kIntervalCount));
        result.push_back(std::move(h));
    }
    return result;
}

TEST(ContactHistories, EveryKindOfEntryDecodesAsRecordedForAnyNumberOfSlots) {
    for (std::uint32_t slots : {1u, 3u, 4u, 6u, 13u, 16u}) {
        SCOPED_TRACE(slots);
        const auto walkers = randomHistories(slots, 300, slots);
        const ContactHistories histories = encode(walkers, slots, 40, 64);
        EXPECT_EQ(histories.walkers(), 300u);
        EXPECT_EQ(histories.chunks.size(), 5u);  // 64 walkers a chunk
        ASSERT_NO_THROW(checkHistories(histories));
        const auto decoded = decode(histories);
        for (std::size_t w = 0; w < walkers.size(); ++w) {
            ASSERT_EQ(decoded[w].stop, walkers[w].stop) << w;
            ASSERT_EQ(decoded[w].entries.size(), walkers[w].entries.size()) << w;
            for (std::size_t e = 0; e < walkers[w].entries.size(); ++e) {
                EXPECT_EQ(decoded[w].entries[e].interval, walkers[w].entries[e].interval);
                EXPECT_EQ(decoded[w].entries[e].counts, walkers[w].entries[e].counts);
                EXPECT_EQ(decoded[w].entries[e].level, walkers[w].entries[e].level);
            }
        }
    }
}

TEST(ContactHistories, DamageIsFoundBeforeAnythingReadsUnchecked) {
    const auto walkers = randomHistories(3, 50, 7u);
    const ContactHistories good = encode(walkers, 3, 40, 1000);
    ContactHistories truncated = good;
    truncated.chunks[0].bytes.pop_back();
    EXPECT_THROW(checkHistories(truncated), Exception);
    ContactHistories smallTables = good;  // a count above its power table
    smallTables.largestCoarse[1] /= 2;
    EXPECT_THROW(checkHistories(smallTables), Exception);
    ContactHistories moreWalkers = good;
    moreWalkers.chunks[0].walkers += 1;
    EXPECT_THROW(checkHistories(moreWalkers), Exception);
}

// A run of 6 intervals, the first 2 fine; one slot with p = 0.1 (fine) and 0.2 (coarse).
RecordedRun smallRun() {
    RecordedRun run;
    run.intervalEndTime = {1, 2, 4, 8, 16, 32};
    run.fineIntervals = 2;
    run.numberOfWalkers = 2;
    run.resolutionM = 1.0;
    run.diffusionWater = 0.6944444444444444;  // p = rho * step
    run.fineStep = 0.1;
    run.coarseStep = 0.2;
    run.totalWaterSaturation = 1.0;
    run.bulkT2Ms = 1e300;
    run.relaxivity.set(Mineral::Quartz, 1.0);
    const std::vector<double> p(Mineral::count(), 1.0);
    run.plan = makeRecordingPlan({Mineral::Quartz}, p, p);
    return run;
}

TEST(ReweightedDecay, SurvivalIsTheProductOverContactsTimesTheRouletteWeight) {
    const RecordedRun run = smallRun();
    // Walker A: 2 fine contacts in interval 1, 1 coarse contact and a roulette passed in
    // interval 3, stopped by the roulette in interval 5. Walker B never touches a wall.
    const std::vector<History> walkers = {{{{1, {2}, 0}, {3, {1}, 1}}, 5}, {{}, 6}};
    const ExpandedHistories histories = expandHistories(encode(walkers, 1, 2, 1));
    const SurvivalSums sums = survivalSums(histories, run, run.relaxivity, 2);
    ASSERT_EQ(sums.perChunk.size(), 2u);
    const double up = rouletteWeight(1);  // one roulette passed: 2^1/4
    const std::vector<double> a = {1.0, 0.81, 0.81, up * 0.81 * 0.8, up * 0.81 * 0.8, 0.0};
    for (std::size_t i = 0; i < 6; ++i) {
        EXPECT_NEAR(sums.perChunk[0][i], a[i], 1e-15) << i;
        EXPECT_EQ(sums.perChunk[1][i], 1.0);
    }
    // The expected histogram cuts before interval 5, the last with an absorption (a rise
    // of the weight is none); survivors of the whole schedule count from the first
    // interval on, as a run counts them: f = (N - X_i + X_last) / N.
    const DecayCurve curve = reweightedDecay(sums, run, run.relaxivity, true);
    ASSERT_EQ(curve.times.size(), 5u);
    for (std::size_t i = 0; i < 5; ++i) {
        EXPECT_NEAR(curve.values[i], 1.0 - (2.0 - (a[i] + 1.0) + 1.0) / 2.0, 1e-15) << i;
    }
    // A resample that takes walker A twice and B not at all.
    const SurvivalTotals twice = totalSurvival(sums, {2.0, 0.0});
    EXPECT_EQ(twice.walkers, 2.0);
    EXPECT_NEAR(twice.surviving[3], 2 * a[3], 1e-15);
    // Other relaxivities: p doubles, so q = 0.8 fine and 0.6 coarse.
    MineralValueMap<double> doubled;
    doubled.set(Mineral::Quartz, 2.0);
    EXPECT_NEAR(survivalSums(histories, run, doubled).perChunk[0][3], up * 0.64 * 0.6, 1e-15);
    // 60 roulettes passed at once, with one coarse contact, in interval 2.
    const auto jump =
        survivalSums(expandHistories(encode({{{{2, {1}, 60}}, 4}}, 1, 2, 1)), run, run.relaxivity);
    EXPECT_EQ(jump.perChunk[0][1], 1.0);
    EXPECT_DOUBLE_EQ(jump.perChunk[0][2], std::ldexp(0.8, 15));  // 60 quarter halvings
}

TEST(ReweightedDecay, ExpandedRecordsGiveTheSurvivalOfEveryHistoryWhateverTheCounts) {
    // Random histories over 13 slots (counts up to 10^5, up to 3 roulettes at once) against
    // the product written out walker by walker; once with the usual tables and once with
    // tables so short that most counts are split into several factors.
    constexpr std::uint32_t kSlots = 13;
    RecordedRun run = smallRun();
    run.intervalEndTime.assign(kIntervalCount, 1.0);
    run.fineIntervals = 40;
    std::vector<Mineral::Type> minerals;
    for (std::uint32_t s = 0; s < kSlots; ++s) {
        minerals.push_back(static_cast<Mineral::Type>(s + 1));
        run.relaxivity.set(minerals.back(), 1e-3 * (s + 1));  // fine p = 1e-4 (s + 1)
    }
    const std::vector<double> none(Mineral::count(), 1.0);
    run.plan = makeRecordingPlan(minerals, none, none);
    const AbsorptionPair p = absorptionFor(run, run.relaxivity);

    auto walkers = randomHistories(kSlots, 200, 11u);
    // A survival is a sum of per-interval changes, so its rounding error scales with the
    // largest weighted survival a walker reaches; a real roulette keeps that near 1, so
    // the random roulettes here pass at most 3 levels.
    std::vector<double> expected(kIntervalCount, 0.0);
    double largestWeighted = 0.0;
    for (History& h : walkers) {
        for (Entry& e : h.entries) e.level = std::min(e.level, 3);
        double weighted = 1.0;
        std::size_t next = 0;
        for (std::uint32_t i = 0; i < kIntervalCount; ++i) {
            for (; next < h.entries.size() && h.entries[next].interval == i; ++next) {
                const Entry& e = h.entries[next];
                weighted = rouletteWeight(static_cast<std::uint32_t>(e.level));
                for (std::size_t t = 0; t <= next; ++t) {
                    for (std::uint32_t s = 0; s < kSlots; ++s) {
                        const double q = 1.0 - (h.entries[t].interval < run.fineIntervals
                                                    ? p.fine[minerals[s]]
                                                    : p.coarse[minerals[s]]);
                        weighted *= std::pow(q, h.entries[t].counts[s]);
                    }
                }
            }
            if (i >= h.stop) weighted = 0.0;
            expected[i] += weighted;
            largestWeighted = std::max(largestWeighted, weighted);
        }
    }
    const ContactHistories histories = encode(walkers, kSlots, run.fineIntervals, 50);
    for (std::uint32_t largest : {ExpandedHistories::kLargestTableCount, 7u}) {
        SCOPED_TRACE(largest);
        const SurvivalTotals totals = totalSurvival(
            survivalSums(expandHistories(histories, largest), run, run.relaxivity, 3), {});
        EXPECT_EQ(totals.walkers, 200.0);
        for (std::uint32_t i = 0; i < kIntervalCount; ++i) {
            ASSERT_NEAR(totals.surviving[i], expected[i], 1e-12 * (200.0 * largestWeighted)) << i;
        }
    }
}

// A recorded run whose schedule switches where its clay model's T2_micro says (fine steps
// of 1 ms, coarse of 4 ms), and a survival that depends only on the time walked.
struct SwitchingRun {
    RecordedRun run;
    std::vector<double> walked;  // of the recording
    SurvivalTotals totals;
    static constexpr double kSurvivalMs = 400.0;

    explicit SwitchingRun(double clay) {
        run.resolutionM = 1e-6;
        run.fineStep = 0.25;
        run.coarseStep = 0.5;
        run.diffusionWater = run.scheduleDiffusion = 6.25e-14 * 1000.0 / 6.0;
        run.clayMicroPorosity = 0.5;
        run.totalWaterSaturation = 1.0;
        run.bulkT2Ms = 1e300;
        run.relaxivity = relaxivities(clay);
        const auto model = buildClayMicroPorosityModel(0.5, 1e-6, clay, 1e-5);
        const StepSchedule schedule = buildStepSchedule({.voxelSize = 1e-6,
                                                         .fineStep = 0.25,
                                                         .coarseStep = 0.5,
                                                         .switchTime = model.t2Micro,
                                                         .diffusionWater = run.scheduleDiffusion,
                                                         .waterSelector = 1.0});
        run.intervalEndTime = schedule.intervalEndTime;
        run.fineIntervals = schedule.fineIntervals;
        walked = walkedEndTimes(schedule, 1.0, 4.0);
        totals.walkers = 1000.0;
        for (double t : walked) totals.surviving.push_back(1000.0 * std::exp(-t / kSurvivalMs));
    }
    static MineralValueMap<double> relaxivities(double clay) {
        MineralValueMap<double> r;
        r.set(Mineral::Clay, clay);
        r.set(Mineral::Quartz, 1e-5);
        return r;
    }
};

TEST(ReweightedDecay, OtherRelaxivitiesAreReadOffAsARunWithTheirOwnScheduleWouldWalk) {
    const SwitchingRun recorded(1e-6);
    const std::size_t n = 200;
    // At the recording's own relaxivities: the recorded survival itself, to the last bit.
    const auto own = decayAmplitudes(recorded.totals, recorded.run, recorded.run.relaxivity, n);
    const DecayModel ownModel{buildClayMicroPorosityModel(0.5, 1e-6, 1e-6, 1e-5), 1.0, 0.0, 1e300,
                              0.0};
    for (std::size_t i = 0; i < n; ++i) {
        const double f =
            (1000.0 - recorded.totals.surviving[i] + recorded.totals.surviving.back()) / 1000.0;
        ASSERT_EQ(own[i], decayAmplitude(f, recorded.run.intervalEndTime[i], ownModel)) << i;
    }
    // Three times the clay relaxivity moves the switch a third as far: a run there walks
    // further by a given end time from its switch on, and sees the survival of that time.
    const SwitchingRun other(3e-6);
    ASSERT_LT(other.run.fineIntervals + 5, recorded.run.fineIntervals);
    const auto read =
        decayAmplitudes(recorded.totals, recorded.run, SwitchingRun::relaxivities(3e-6), n);
    const DecayModel otherModel{buildClayMicroPorosityModel(0.5, 1e-6, 3e-6, 1e-5), 1.0, 0.0, 1e300,
                                0.0};
    for (std::size_t i = 0; i < n; ++i) {
        const double t = recorded.run.intervalEndTime[i];
        // Where t is one of the other run's end times, the survival it sees is exact up to
        // the interpolation of an exponential between 6 % steps in time.
        const auto j =
            std::find(other.run.intervalEndTime.begin(), other.run.intervalEndTime.end(), t);
        if (j == other.run.intervalEndTime.end()) continue;
        const double walked =
            other.walked[static_cast<std::size_t>(j - other.run.intervalEndTime.begin())];
        const double f = 1.0 - std::exp(-walked / SwitchingRun::kSurvivalMs) +
                         recorded.totals.surviving.back() / 1000.0;
        EXPECT_NEAR(read[i], decayAmplitude(f, t, otherModel), 2e-4) << i;
    }
}

TEST(ReweightedDecay, TheFitsScheduleMovesSmoothlyWhereARunsJumps) {
    // Clay relaxivities 1 % apart, across several intervals of the switch: a run's decay
    // jumps where its switch moves by an interval; the fit's blend must not.
    const SwitchingRun recorded(1e-6);
    double largestExact = 0.0, largestSmooth = 0.0;
    std::vector<double> lastExact, lastSmooth;
    for (double clay = 1.5e-6; clay < 3e-6; clay *= 1.01) {
        const auto r = SwitchingRun::relaxivities(clay);
        const auto exact = decayAmplitudes(recorded.totals, recorded.run, r, 250);
        const auto smooth =
            decayAmplitudes(recorded.totals, recorded.run, r, 250, ScheduleEmulation::Smooth);
        for (std::size_t i = 0; i < 250 && !lastExact.empty(); ++i) {
            largestExact = std::max(largestExact, std::abs(exact[i] - lastExact[i]));
            largestSmooth = std::max(largestSmooth, std::abs(smooth[i] - lastSmooth[i]));
        }
        lastExact = exact;
        lastSmooth = smooth;
    }
    // A jump of the switch by one interval shifts the late decay by a few % of T2_micro;
    // the blend moves by a fraction of that per 1 % of relaxivity.
    EXPECT_GT(largestExact, 4.0 * largestSmooth);
}

TEST(MeasuredWindow, PointsInsideTheSimulationAreComparedAtAFreeScale) {
    // A simulated curve linear in log t is interpolated exactly; the measurement holds
    // the same curve at a third of the amplitude, plus points outside the simulation.
    const std::vector<double> times = {1, 2, 4, 8, 16};
    std::vector<double> simulated;
    simulated.reserve(times.size());
    for (double t : times) simulated.push_back(5.0 - std::log(t));
    MeasuredDecay measured;
    for (double t : {0.5, 1.0, 1.5, 3.0, 7.0, 16.0, 20.0}) {
        measured.times.push_back(t);
        measured.values.push_back((5.0 - std::log(t)) / 3.0);
    }
    const MeasuredWindow window(measured, times);
    ASSERT_EQ(window.size(), 5u);
    EXPECT_EQ(window.source(), (std::vector<std::size_t>{1, 2, 3, 4, 5}));
    std::vector<double> at;
    window.interpolate(simulated, at);
    const Misfit m = misfit(at, window.values());
    EXPECT_NEAR(m.scale, 3.0, 1e-12);
    EXPECT_NEAR(m.sumOfSquares, 0.0, 1e-20);
}

TEST(RecordedWalkFile, RoundTripsAndRefusesDamageAndOtherWalks) {
    const test::TempDir dir;
    const std::string path = dir.file("fit.walk");
    RecordedWalk walk;
    walk.fingerprint = {{"the seed", "8008"}, {"the step", "0.5"}};
    walk.run = smallRun();
    walk.run.intervalEndTime.resize(kIntervalCount, 64.0);
    walk.run.counters = {10, 0, 0, 5};
    walk.histories = encode(randomHistories(1, 40, 3u), 1, 2, 16);
    writeRecordedWalk(path, walk);
    const RecordedWalk back = readRecordedWalk(path);
    EXPECT_EQ(back.fingerprint, walk.fingerprint);
    EXPECT_EQ(back.run.intervalEndTime, walk.run.intervalEndTime);
    EXPECT_EQ(back.run.counters, walk.run.counters);
    EXPECT_EQ(back.run.plan.minerals, walk.run.plan.minerals);
    EXPECT_EQ(serialise(back.histories), serialise(walk.histories));

    EXPECT_EQ(fingerprintDifference(walk.fingerprint, walk.fingerprint), "");
    EXPECT_EQ(fingerprintDifference(walk.fingerprint, {{"the seed", "8009"}, {"the step", "0.5"}}),
              "it was recorded with the seed 8008 and the run now has 8009");

    const std::string bytes = dir.read("fit.walk");
    std::string flipped = bytes;
    flipped[flipped.size() / 2] ^= 0x10;
    for (const std::string& damaged :
         {flipped, bytes.substr(0, bytes.size() - 9), std::string("not a recorded walk")}) {
        dir.write("fit.walk", damaged);
        EXPECT_THROW(readRecordedWalk(path), FileAccessException);
    }
}

}  // namespace
}  // namespace nmr::fit
