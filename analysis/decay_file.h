#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace nmr::analysis {

// A measured decay: time in ms and amplitude. Four-column files (time, an ignored
// column, real, imaginary) are phase-rotated onto the real axis as they are read.
struct MeasuredDecay {
    std::vector<double> times;
    std::vector<double> values;
    std::vector<std::size_t> lines;  // the file's line of each point, from 1
    std::size_t columns = 2;
    double phaseRadians = 0.0;     // rotation applied (four columns only)
    std::size_t phaseEchoes = 0;   // leading echoes the rotation was chosen from
    double imaginaryEnergy = 0.0;  // share of the signal energy left off the real axis
};

// Echoes used to choose the phase: the early ones carry the signal, the late ones
// mostly noise, whose energy would only blur the angle.
inline constexpr std::size_t kPhaseEchoes = 256;

// Lines hold two or four numbers separated by blanks, tabs or commas; "#" starts a
// comment; blank lines are skipped. Every data line must have the column count of the
// first, and times must increase. Throws nmr::Exception naming the file and the line.
MeasuredDecay readDecayFile(const std::string& path);

// Turns decay.values (the real parts) with `imaginary` onto the real axis by the angle of
// realAxisPhase over the first kPhaseEchoes points, and records the angle, the echoes it
// was chosen from and the share of the energy left off the axis.
void rotateOntoRealAxis(MeasuredDecay& decay, const std::vector<double>& imaginary);

// The angle theta that maximises sum (re cos theta + im sin theta)^2 over the first
// `echoes` points, turned by pi if needed so that the rotated early signal is positive.
double realAxisPhase(const std::vector<double>& re, const std::vector<double>& im,
                     std::size_t echoes);

}  // namespace nmr::analysis
