#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "analysis/decay_file.h"
#include "fit/recorded_walk_file.h"
#include "fit/relaxivity_fit.h"
#include "params/nmr_parameters.h"

namespace nmr::fit {

// A --sweep: a table over one mineral's relaxivity instead of a fit.
struct SweepRequest {
    Mineral::Type mineral = Mineral::Unknown;
    double lower = 0.0;
    double upper = 0.0;
    int points = 0;
};

// What a user asked to fit: by name, with bounds in m/s for every fitted mineral.
struct FitChoice {
    std::vector<std::string> minerals;  // empty: every relaxing mineral of the grid
    std::optional<double> lower;
    std::optional<double> upper;
    std::optional<SweepRequest> sweep;
    std::string measured;  // names the measurement in messages
};

// Default bounds: the parameter file's value divided and multiplied by this.
inline constexpr double kDefaultBoundFactor = 2.0;

// The minerals to fit with their bounds. Throws nmr::Exception for a mineral the grid
// (gridName, its interior counters) does not hold, one that never absorbs, or one whose
// bounds cannot be set.
FitRequest fitRequest(const FitChoice& options, const MineralValueMap<double>& relaxivity,
                      const std::vector<std::uint64_t>& counters, const std::string& gridName);

// The lowest relaxivity the recording must serve for each mineral that is varied.
MineralValueMap<double> floorsOf(const FitRequest& request, const FitChoice& choice);

// Throws when the recording's floors lie above what this fit asks for.
void checkFloorsCover(const RecordedRun& run, const FitRequest& request, const FitChoice& choice,
                      const std::string& recordingPath);

// Throws, naming the file and its lines, when the measured times miss the simulated ones.
void checkOverlap(const analysis::MeasuredDecay& measured, const std::vector<double>& simulatedTimes,
                  const std::string& path);
void checkWindow(const MeasuredWindow& window, const analysis::MeasuredDecay& measured,
                 const std::string& path);

// Everything that shapes a walk: the grid file's checksum, the parameters, the process
// count (each process walks with a stream of its own).
Fingerprint walkFingerprint(const NuclearMagneticResonanceParameters& parameters, int processes);

}  // namespace nmr::fit
