#include "analysis/decay_file.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <sstream>

#include "common/exception.h"
#include "common/text.h"

namespace nmr::analysis {

double realAxisPhase(const std::vector<double>& re, const std::vector<double>& im,
                     std::size_t echoes) {
    const std::size_t n = std::min({echoes, re.size(), im.size()});
    double xx = 0.0, yy = 0.0, xy = 0.0;
    for (std::size_t i = 0; i < n; ++i) {
        xx += re[i] * re[i];
        yy += im[i] * im[i];
        xy += re[i] * im[i];
    }
    // Principal axis of the 2x2 scatter matrix of (re, im).
    double theta = 0.5 * std::atan2(2.0 * xy, xx - yy);
    double early = 0.0;
    for (std::size_t i = 0; i < n; ++i) early += re[i] * std::cos(theta) + im[i] * std::sin(theta);
    if (early < 0.0) theta += theta > 0.0 ? -M_PI : M_PI;
    return theta;
}

MeasuredDecay readDecayFile(const std::string& path) {
    std::ifstream in(path);
    if (!in) throw Exception("Cannot open the decay file: " + path);
    MeasuredDecay decay;
    std::vector<double> imaginary;
    std::size_t columns = 0;
    std::string line;
    for (std::size_t number = 1; std::getline(in, line); ++number) {
        std::string data = line.substr(0, line.find('#'));
        std::replace(data.begin(), data.end(), ',', ' ');
        std::istringstream fields(data);
        std::vector<double> values;
        for (std::string field; fields >> field;) {
            try {
                values.push_back(parseDouble(field, "number"));
            } catch (const Exception&) {
                throw Exception("Not a number in " + path + " line " + std::to_string(number) +
                                ": " + trim(line));
            }
        }
        if (values.empty()) continue;
        const std::string where = path + " line " + std::to_string(number);
        if (values.size() != 2 && values.size() != 4)
            throw Exception(
                "Expected 2 (time, amplitude) or 4 (time, unused, real, imaginary) numbers in " +
                where + ": " + trim(line));
        if (columns == 0) columns = values.size();
        if (values.size() != columns)
            throw Exception("Column count differs from the first data line (" +
                            std::to_string(columns) + ") in " + where + ": " + trim(line));
        if (values[0] < 0.0 || (!decay.times.empty() && values[0] <= decay.times.back()))
            throw Exception("Times must be non-negative and increasing in " + where + ": " +
                            trim(line));
        decay.times.push_back(values[0]);
        decay.values.push_back(columns == 2 ? values[1] : values[2]);
        decay.lines.push_back(number);
        if (columns == 4) imaginary.push_back(values[3]);
    }
    if (decay.times.empty()) throw Exception("No data lines in the decay file: " + path);
    decay.columns = columns;
    if (columns == 4) rotateOntoRealAxis(decay, imaginary);
    return decay;
}

void rotateOntoRealAxis(MeasuredDecay& decay, const std::vector<double>& imaginary) {
    decay.phaseEchoes = std::min(kPhaseEchoes, decay.values.size());
    decay.phaseRadians = realAxisPhase(decay.values, imaginary, decay.phaseEchoes);
    const double c = std::cos(decay.phaseRadians), s = std::sin(decay.phaseRadians);
    double total = 0.0, off = 0.0;
    for (std::size_t i = 0; i < decay.values.size(); ++i) {
        const double re = decay.values[i], im = imaginary[i];
        decay.values[i] = re * c + im * s;
        const double rotatedIm = -re * s + im * c;
        total += re * re + im * im;
        off += rotatedIm * rotatedIm;
    }
    decay.imaginaryEnergy = total > 0.0 ? off / total : 0.0;
}

}  // namespace nmr::analysis
