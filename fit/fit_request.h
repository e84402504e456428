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

// Default bounds: the parameter file's value divided and multiplied by this. A user fits
// because the relaxivities are not known; a guess five times off must still lie well
// inside. The recording walk lasts about as long as a run at the lower bounds, so the
// range is paid for in walking time.
inline constexpr double kDefaultBoundFactor = 10.0;

// The minerals to fit with their bounds. Throws nmr::Exception for a mineral the grid
// (gridName, its interior counters) does not hold, one that never absorbs, or one whose
// bounds cannot be set.
FitRequest fitRequest(const FitChoice& options, const MineralValueMap<double>& relaxivity,
                      const std::vector<std::uint64_t>& counters, const std::string& gridName);

// The lowest relaxivity the recording must serve for each mineral that is varied.
MineralValueMap<double> floorsOf(const FitRequest& request, const FitChoice& choice);

// Why a recording cannot serve this fit (its floor lies above a lower bound, or it does not
// record a fitted mineral), or empty when it can.
std::string floorsShortfall(const RecordedRun& run, const FitRequest& request);

// Throws, naming the file and its lines, when the measured times miss the simulated ones.
void checkOverlap(const analysis::MeasuredDecay& measured,
                  const std::vector<double>& simulatedTimes, const std::string& path);
void checkWindow(const MeasuredWindow& window, const analysis::MeasuredDecay& measured,
                 const std::string& path);

// Everything that shapes a walk: the grid file's checksum, the parameters, the process
// count (each process walks with a stream of its own).
Fingerprint walkFingerprint(const NuclearMagneticResonanceParameters& parameters, int processes);

// The T2 distribution of a decay on the parameter file's T2 axis, through the inversion
// of nmrwalk and nmrwalk-invert: what a fit shows of the measured and the fitted decay.
struct Distribution {
    std::vector<double> t2;
    std::vector<double> amplitude;
    double logMeanT2 = 0.0;  // ms; NaN without signal
};
Distribution distributionOf(const std::vector<double>& times, const std::vector<double>& values,
                            const NuclearMagneticResonanceParameters& parameters);

// "Warning: Quartz is at its upper bound 2e-05 m/s; the best fit may lie outside it (try
// <suggestion>)", the suggestion written as the caller takes bounds.
std::string boundWarning(const BoundHit& hit, const FitRequest& request,
                         const std::string& suggestion);
// The bounds of a suggestion as --bounds takes them: "2e-06:0.0002".
std::string boundsText(double lower, double upper);
// "Not separately determined: Quartz and Clay (correlation -0.98)".
std::string notDeterminedLine(const NotDetermined& pair, const FitRequest& request);

}  // namespace nmr::fit
