#include "analysis/t2_summary.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <sstream>

namespace nmr::analysis {

namespace {

// Share of bin j (in log T2) that lies below the cut-off.
double shareBelow(const std::vector<double>& t2, std::size_t j, double cutoff) {
    const std::size_t n = t2.size();
    if (n == 1) return t2[0] < cutoff ? 1.0 : 0.0;
    const double lj = std::log(t2[j]);
    const double lo = j > 0 ? 0.5 * (std::log(t2[j - 1]) + lj) : lj - 0.5 * (std::log(t2[1]) - lj);
    const double hi =
        j + 1 < n ? 0.5 * (lj + std::log(t2[j + 1])) : lj + 0.5 * (lj - std::log(t2[n - 2]));
    return std::clamp((std::log(cutoff) - lo) / (hi - lo), 0.0, 1.0);
}

std::string number(double v) {
    if (!std::isfinite(v)) return "null";
    char text[40];
    std::snprintf(text, sizeof text, "%.17g", v);
    return text;
}

// A JSON string: quotes, backslashes and control characters escaped (file names may hold
// any of them).
std::string quoted(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x",
                          static_cast<unsigned>(static_cast<unsigned char>(c)));
            out += escape;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

}  // namespace

T2Summary summariseT2(const std::vector<double>& t2, const std::vector<double>& amplitudes,
                      double cutoff) {
    T2Summary s;
    s.cutoff = cutoff;
    double total = 0.0, logSum = 0.0, bound = 0.0, peak = -std::numeric_limits<double>::infinity();
    for (std::size_t j = 0; j < t2.size(); ++j) {
        const double a = amplitudes[j];
        total += a;
        logSum += a * std::log(t2[j]);
        bound += a * shareBelow(t2, j, cutoff);
        if (a > peak) {
            peak = a;
            s.peakT2 = t2[j];
        }
    }
    s.totalAmplitude = total;
    s.hasSignal = total > 0.0;
    if (!s.hasSignal) {
        const double nan = std::numeric_limits<double>::quiet_NaN();
        s.logMeanT2 = s.peakT2 = s.boundFraction = s.freeFraction = nan;
        return s;
    }
    s.logMeanT2 = std::exp(logSum / total);
    s.boundFraction = bound / total;
    s.freeFraction = 1.0 - s.boundFraction;
    return s;
}

std::string formatSummary(const T2Summary& s) {
    std::ostringstream out;
    if (!s.hasSignal) {
        out << "No signal: the T2 amplitudes sum to " << s.totalAmplitude << "\n";
        return out.str();
    }
    out << "Log-mean T2 (ms): " << s.logMeanT2 << "\n"
        << "Peak T2 (ms): " << s.peakT2 << "\n"
        << "T2 cut-off (ms): " << s.cutoff << "\n"
        << "Bound fraction (T2 < cut-off): " << s.boundFraction << "\n"
        << "Free fraction (T2 > cut-off): " << s.freeFraction << "\n"
        << "Total amplitude: " << s.totalAmplitude << "\n";
    return out.str();
}

std::vector<std::pair<std::string, double>> summaryEntries(const T2Summary& s) {
    return {{"cutoffMs", s.cutoff},
            {"totalAmplitude", s.totalAmplitude},
            {"logMeanT2Ms", s.logMeanT2},
            {"peakT2Ms", s.peakT2},
            {"boundFraction", s.boundFraction},
            {"freeFraction", s.freeFraction}};
}

std::string summaryJson(const T2Summary& s,
                        const std::vector<std::pair<std::string, double>>& extra) {
    return summaryJson(s, extra, {}, {}, {}, {});
}

std::string summaryJson(const T2Summary& s,
                        const std::vector<std::pair<std::string, double>>& extra,
                        const std::vector<std::pair<std::string, std::string>>& texts,
                        const std::vector<double>& t2, const std::vector<double>& amplitudes,
                        const std::string& amplitudeUnit) {
    std::ostringstream out;
    out << "{";
    const char* separator = "\n";
    const auto key = [&](const std::string& name) -> std::ostringstream& {
        out << separator << "  " << quoted(name) << ": ";
        separator = ",\n";
        return out;
    };
    auto entries = summaryEntries(s);
    entries.insert(entries.end(), extra.begin(), extra.end());
    for (const auto& [name, value] : entries) key(name) << number(value);
    for (const auto& [name, text] : texts) key(name) << quoted(text);
    if (!amplitudeUnit.empty()) {
        key("units") << "{\"t2\": \"ms\", \"amplitude\": " << quoted(amplitudeUnit) << "}";
        for (const auto& [name, values] : {std::pair{"t2Ms", &t2}, {"amplitude", &amplitudes}}) {
            key(name) << "[";
            for (std::size_t i = 0; i < values->size(); ++i)
                out << (i == 0 ? "" : ", ") << number((*values)[i]);
            out << "]";
        }
    }
    out << "\n}\n";
    return out.str();
}

}  // namespace nmr::analysis
