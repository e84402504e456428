// Speed and size of a recorded walk: bytes of contact histories per walker, the records
// they expand to for a fit, the time of one re-weighted decay (one thread and every
// thread), and the time of a whole fit.
//
//   fit_bench FIT_WALK MEASURED [rounds]
//
// bench/fit_example makes both inputs from the bundled example rock.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "fit/fit_request.h"
#include "fit/recorded_walk_file.h"
#include "fit/relaxivity_fit.h"

namespace {

using Clock = std::chrono::steady_clock;

double millisecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: fit_bench FIT_WALK MEASURED [rounds]\n");
        return 1;
    }
    const int rounds = argc > 3 ? std::atoi(argv[3]) : 20;
    const nmr::fit::RecordedWalk walk = nmr::fit::readRecordedWalk(argv[1]);
    nmr::fit::MeasuredDecay measured;
    std::ifstream in(argv[2]);
    for (double t, a; in >> t >> a;) {
        measured.times.push_back(t);
        measured.values.push_back(a);
    }
    const auto walkers = static_cast<double>(walk.histories.walkers());
    std::printf("walkers %.0f, relaxing minerals recorded %zu, %.1f MB of contact histories\n",
                walkers, walk.run.plan.slots(), static_cast<double>(walk.histories.bytes()) / 1e6);
    std::printf("bytes per walker: %.1f (10^6 walkers: %.0f MB)\n",
                static_cast<double>(walk.histories.bytes()) / walkers,
                static_cast<double>(walk.histories.bytes()) / walkers);

    // Expanded once, as a fit does before its first evaluation.
    const auto expandStart = Clock::now();
    const nmr::fit::ExpandedHistories expanded = nmr::fit::expandHistories(walk.histories);
    std::uint64_t records = 0;
    for (const auto& chunk : expanded.chunks) records += chunk.records.size();
    std::printf("expanded for evaluation in %.0f ms: %.1f records, %.1f bytes per walker\n",
                millisecondsSince(expandStart), static_cast<double>(records) / walkers,
                4.0 * static_cast<double>(records) / walkers);

    const unsigned all = std::max(1u, std::thread::hardware_concurrency());
    for (unsigned threads : {1u, all}) {
        // Best of the rounds: on a shared machine the minimum is the least disturbed figure.
        double best = 1e300;
        for (int r = 0; r < rounds; ++r) {
            nmr::MineralValueMap<double> relaxivity = walk.run.relaxivity;
            for (nmr::Mineral::Type code : walk.run.plan.minerals) {
                relaxivity.set(code, relaxivity.valueOr(code) * (1.0 + 0.01 * r));
            }
            const auto start = Clock::now();
            const auto sums = nmr::fit::survivalSums(expanded, walk.run, relaxivity, threads);
            const auto curve = nmr::fit::reweightedDecay(sums, walk.run, relaxivity, true);
            best = std::min(best, millisecondsSince(start));
            if (curve.times.empty()) std::printf("(empty curve)\n");
        }
        std::printf("one evaluation, %u thread%s: %.2f ms (%.2f ms per 2e5 walkers)\n", threads,
                    threads == 1 ? "" : "s", best, best * 2e5 / walkers);
        if (all == 1) break;
    }

    const auto start = Clock::now();
    const nmr::fit::RelaxivityFit fitter(walk.histories, walk.run, measured, all);
    nmr::fit::FitRequest request;
    for (nmr::Mineral::Type code : walk.run.plan.minerals) {
        const double value = walk.run.relaxivity.valueOr(code);
        if (!(value > 0.0)) continue;
        request.minerals.push_back(code);
        request.lower.push_back(
            std::max(value / nmr::fit::kDefaultBoundFactor, walk.run.floor.valueOr(code)));
        request.upper.push_back(value * nmr::fit::kDefaultBoundFactor);
    }
    const auto result = fitter.fit(request);
    std::printf("whole fit of %zu minerals (with uncertainties): %.2f s, %d evaluations\n",
                request.minerals.size(), millisecondsSince(start) / 1000.0, result.evaluations);
    for (std::size_t i = 0; i < request.minerals.size(); ++i) {
        std::printf("  %s: %g m/s (+- %g)\n", nmr::Mineral::name(request.minerals[i]).c_str(),
                    result.value[i], result.uncertainty[i]);
    }
    return 0;
}
