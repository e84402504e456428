#pragma once

#include <optional>
#include <string>
#include <vector>

#include "fit/recorded_walk_file.h"
#include "fit/relaxivity_fit.h"
#include "params/nmr_parameters.h"
#include "tools/decay_file.h"

namespace nmr::tools {

extern const char kFitUsage[];

struct SweepRequest {
    Mineral::Type mineral = Mineral::Unknown;
    double lower = 0.0;
    double upper = 0.0;
    int points = 0;
};

struct FitOptions {
    bool help = false;
    std::string measured;
    std::vector<std::string> minerals;  // empty: every relaxing mineral of the grid
    std::optional<double> lower;        // --bounds, m/s, for every fitted mineral
    std::optional<double> upper;
    std::optional<SweepRequest> sweep;
    std::string output = "nmr.fitted.yaml";
};

// Throws nmr::Exception naming the offending argument.
FitOptions parseFitOptions(int argc, const char* const* argv);

// Default bounds: the parameter file's value divided and multiplied by this.
inline constexpr double kDefaultBoundFactor = 2.0;

// The minerals to fit with their bounds. Throws nmr::Exception for a mineral the grid
// (gridName, its interior counters) does not hold, one that never absorbs, or one whose
// bounds cannot be set.
fit::FitRequest fitRequest(const FitOptions& options, const MineralValueMap<double>& relaxivity,
                           const std::vector<std::uint64_t>& counters, const std::string& gridName);

// The lowest relaxivity the recording must serve for each mineral that is varied.
MineralValueMap<double> floorsOf(const fit::FitRequest& request, const FitOptions& options);

// Throws when the recording's floors lie above what this fit asks for.
void checkFloorsCover(const fit::RecordedRun& run, const fit::FitRequest& request,
                      const FitOptions& options, const std::string& recordingPath);

// Throws, naming the file and its lines, when the measured times miss the simulated ones.
void checkOverlap(const MeasuredDecay& measured, const std::vector<double>& simulatedTimes,
                  const std::string& path);
void checkWindow(const fit::MeasuredWindow& window, const MeasuredDecay& measured,
                 const std::string& path);

// Everything that shapes a walk: the grid file's checksum, the parameters, the process
// count (each process walks with a stream of its own).
fit::Fingerprint walkFingerprint(const NuclearMagneticResonanceParameters& parameters,
                                 int processes);

}  // namespace nmr::tools
