#pragma once

#include <string>
#include <utility>
#include <vector>

namespace nmr::analysis {

// Petrophysical figures of a T2 distribution (T2 in ms). Each amplitude stands for a bin
// reaching half-way (in log T2) to its neighbours, the outer bins as wide as their inner
// halves; the bin that holds the cut-off is split in proportion to log T2. This keeps
// the bound fraction continuous in the cut-off instead of jumping from one grid point
// to the next. The companion plotting script implements the same arithmetic; the two
// are compared by a test.
struct T2Summary {
    double cutoff = 33.0;  // ms; 33 ms is the usual sandstone cut-off
    double totalAmplitude = 0.0;
    double logMeanT2 = 0.0;      // exp(sum a ln T2 / sum a), ms
    double peakT2 = 0.0;         // T2 of the largest amplitude (the first of equals), ms
    double boundFraction = 0.0;  // share of the amplitude below the cut-off
    double freeFraction = 0.0;   // 1 - boundFraction
    bool hasSignal = false;      // false when the amplitudes sum to 0 or less; then
                                 // the figures above are NaN
};

inline constexpr double kSandstoneCutoffMs = 33.0;

// t2 ascending and positive, amplitudes as long as t2.
T2Summary summariseT2(const std::vector<double>& t2, const std::vector<double>& amplitudes,
                      double cutoff = kSandstoneCutoffMs);

// The human-readable lines printed by the tools.
std::string formatSummary(const T2Summary& summary);
// The figures by the names T2summary.json gives them: cutoffMs, totalAmplitude,
// logMeanT2Ms, peakT2Ms, boundFraction, freeFraction.
std::vector<std::pair<std::string, double>> summaryEntries(const T2Summary& summary);
// A small JSON object of summaryEntries(); `extra` entries (name, value) are appended, e.g. the
// lambda of an inversion. Numbers carry 17 significant digits; NaN is written as null.
std::string summaryJson(const T2Summary& summary,
                        const std::vector<std::pair<std::string, double>>& extra = {});

// T2summary.json as the tools write it: the figures and `extra` as above, then `texts`
// (name, text: where the distribution came from, e.g. "source"), "units" (T2 in ms, the
// amplitude in `amplitudeUnit`) and the distribution itself as "t2Ms" and "amplitude", so
// that the file is read without the bare two-column one beside it.
std::string summaryJson(const T2Summary& summary,
                        const std::vector<std::pair<std::string, double>>& extra,
                        const std::vector<std::pair<std::string, std::string>>& texts,
                        const std::vector<double>& t2, const std::vector<double>& amplitudes,
                        const std::string& amplitudeUnit);

}  // namespace nmr::analysis
