#pragma once

#include <cstdint>
#include <vector>

#include "fit/expanded_histories.h"
#include "grid/mineral_value_map.h"
#include "walk/decay_curve.h"
#include "walk/recording_walk.h"

namespace nmr::fit {

// What a decay needs besides the histories, fixed when the walk was recorded: the
// schedule's times, the walk's step lengths and the rock's fluid split. Relaxivities in
// m/s, lengths in metres or voxels as noted, times in ms.
struct RecordedRun {
    std::vector<double> intervalEndTime;  // ms, one per interval
    std::uint32_t fineIntervals = 0;      // K: intervals below it used the fine step
    std::int32_t numberOfWalkers = 0;
    double resolutionM = 0.0;        // cell size, metres
    double fineStep = 0.0;           // voxels
    double coarseStep = 0.0;         // voxels
    double diffusionWater = 0.0;     // m^2/s
    double scheduleDiffusion = 0.0;  // m^2/s: the one the step schedule was timed with
    double clayMicroPorosity = 0.0;
    double totalWaterSaturation = 0.0;
    double clayFraction = 0.0;
    double bulkT2Ms = 0.0;
    double fieldTerm = 0.0;                // 1/ms
    MineralValueMap<double> relaxivity;    // the parameter file's water relaxivities
    MineralValueMap<double> floor;         // the floor of every recorded mineral
    std::vector<std::uint64_t> counters;   // cells per mineral code in the grid's interior
    std::vector<std::uint64_t> poreFaces;  // pore-solid voxel faces per mineral code
    RecordingPlan plan;
};

// Per chunk of walkers, the sum over its walkers of their weighted survival at the end of
// every interval; the walkers' count per chunk. A resample of the walkers is a weight per
// chunk.
struct SurvivalSums {
    std::vector<std::vector<double>> perChunk;
    std::vector<double> walkers;
};

// Absorption probabilities per mineral code for the fine and the coarse step, exactly as
// a run builds them from the same relaxivities.
struct AbsorptionPair {
    std::vector<double> fine;
    std::vector<double> coarse;
};
AbsorptionPair absorptionFor(const RecordedRun& run, const MineralValueMap<double>& relaxivity);

// Survival sums of the recorded walkers for these relaxivities (every mineral code;
// those not recorded do not matter). `threads` share the chunks. With a stride above 1 only
// every stride-th chunk is summed: a quicker, noisier look with fewer walkers.
SurvivalSums survivalSums(const ExpandedHistories& histories, const RecordedRun& run,
                          const MineralValueMap<double>& relaxivity, unsigned threads = 1,
                          std::size_t stride = 1);

// The surviving weight at the end of every interval, summed over the chunks with their
// weights (empty: every chunk once), and the walkers it stands for.
struct SurvivalTotals {
    std::vector<double> surviving;
    double walkers = 0.0;
};
SurvivalTotals totalSurvival(const SurvivalSums& sums, const std::vector<double>& chunkWeights);

// The intervals a run's histogram keeps: up to, and not including, the last interval in
// which any walker is still absorbed (a run cuts its histogram before the largest
// interval it saw).
std::size_t keptIntervals(const SurvivalTotals& totals);

// Amplitude at the end of each of the first `count` intervals, by nmrwalk's decay
// formula, from the expected absorption histogram: bin k holds the walkers absorbed in
// interval k, bin 0 also those that survive the whole schedule, as a run counts them.
//
// A run at other relaxivities has another step schedule: its switch from the fine to the
// coarse step follows T2_micro, which the Clay and Quartz relaxivities set, and from the
// switch on a run's times run behind the time its walkers have walked (see walkedEndTimes).
// So the amplitude at a recorded interval's end time t is taken as that run would give it:
// its survival at the time its walkers have walked by t, read off the recording's survival
// against the time the recording's walkers have walked. At the recording's own
// relaxivities this is the recorded survival itself. A run's decay jumps where its switch
// moves by an interval; a fit follows the Smooth emulation instead, so that its misfit is
// continuous in the relaxivities.
enum class ScheduleEmulation {
    Exact,   // the schedule a run at these relaxivities walks
    Smooth,  // blended across the run's switch intervals, continuous in the relaxivities
};
std::vector<double> decayAmplitudes(const SurvivalTotals& totals, const RecordedRun& run,
                                    const MineralValueMap<double>& relaxivity, std::size_t count,
                                    ScheduleEmulation emulation = ScheduleEmulation::Exact);

// The decay of nmrwalk's formula from the summed survivals: the expected absorption
// histogram (survivors of the whole schedule counted in the first interval, as a run
// counts them), cut at the last interval in which any walker is still absorbed, and the
// amplitude of every interval. `chunkWeights` resamples the chunks (empty: every chunk
// once). With keepAll false, points at or below 0.001 are dropped as a run drops them;
// with keepAll true every interval up to the cut is kept, for comparing with data.
DecayCurve reweightedDecay(const SurvivalSums& sums, const RecordedRun& run,
                           const MineralValueMap<double>& relaxivity, bool keepAll,
                           const std::vector<double>& chunkWeights = {});

}  // namespace nmr::fit
