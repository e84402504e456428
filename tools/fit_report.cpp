#include "tools/fit_report.h"

#include <yaml-cpp/yaml.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>

#include "analysis/t2_summary.h"
#include "common/exception.h"
#include "t2/t2_grid.h"
#include "t2/t2_inversion.h"
#include "tools/plot_script.h"

namespace nmr::tools {

namespace {

void putArray(std::ostream& out, const std::vector<double>& values) {
    out << '[';
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (i) out << ", ";
        if (std::isfinite(values[i])) {
            out << values[i];
        } else {
            out << "null";
        }
    }
    out << ']';
}

// The parameter file as it stands, with the fitted relaxivities in place. yaml-cpp keeps
// the order of the keys and every other value as written; going through the parameter
// record instead would rescale echoSpacing on the way out.
void writeFittedParameters(const std::string& source, const std::string& target,
                           const fit::FitRequest& request, const fit::FitResult& result) {
    YAML::Node root = YAML::LoadFile(source);
    YAML::Node map = root["NuclearMagneticResonanceParameters"]["surfaceRelaxationStrengthWater"];
    for (std::size_t i = 0; i < request.minerals.size(); ++i) {
        char text[32];
        std::snprintf(text, sizeof text, "%.6g", result.value[i]);
        map[Mineral::name(request.minerals[i])] = YAML::Load(text);
    }
    std::ofstream out(target);
    out << root << "\n";
    if (!out.flush()) throw FileAccessException("Unable to write the fitted parameters: " + target);
}

// Everything T2fit.png shows, for the plotting script.
void writePlotData(const std::string& path, const fit::MeasuredWindow& window, double scale,
                   const DecayCurve& fitted, const Distribution& measured,
                   const Distribution& simulated) {
    std::ofstream out(path);
    out << std::setprecision(9) << "{\n  \"measured\": {\"times\": ";
    putArray(out, window.times());
    std::vector<double> scaled = window.values();
    for (double& v : scaled) v *= scale;
    out << ", \"values\": ";
    putArray(out, scaled);
    out << "},\n  \"fitted\": {\"times\": ";
    putArray(out, fitted.times);
    out << ", \"values\": ";
    putArray(out, fitted.values);
    out << "},\n  \"t2\": ";
    putArray(out, measured.t2);
    out << ",\n  \"measuredDistribution\": ";
    putArray(out, measured.amplitude);
    out << ",\n  \"fittedDistribution\": ";
    putArray(out, simulated.amplitude);
    out << ",\n  \"measuredT2LM\": ";
    putArray(out, {measured.logMeanT2});
    out << ",\n  \"fittedT2LM\": ";
    putArray(out, {simulated.logMeanT2});
    out << "\n}\n";
    if (!out.flush()) throw FileAccessException("Unable to write: " + path);
}

}  // namespace

Distribution distributionOf(const std::vector<double>& times, const std::vector<double>& values,
                            const NuclearMagneticResonanceParameters& parameters) {
    t2::T2Distribution inverted = t2::invertDecay(
        times, values, parameters.t2Minimum(), parameters.t2Maximum(), parameters.t2Components());
    Distribution d;
    d.t2 = std::move(inverted.t2);
    d.amplitude = std::move(inverted.amplitude);
    d.logMeanT2 = analysis::summariseT2(d.t2, d.amplitude).logMeanT2;
    return d;
}

void printSweep(std::ostream& out, const fit::RelaxivityFit& fitter, const fit::SweepRequest& sweep,
                const NuclearMagneticResonanceParameters& parameters) {
    out << "Sweep of the " << Mineral::name(sweep.mineral)
        << " relaxivity, every other mineral as in nmr.yaml, all from one walk:\n"
        << std::setw(16) << "relaxivity (m/s)" << std::setw(14) << "T2LM (ms)" << std::setw(16)
        << "misfit" << std::setw(14) << "scale" << std::endl;
    const double ratio = std::log(sweep.upper / sweep.lower) / (sweep.points - 1);
    for (int k = 0; k < sweep.points; ++k) {
        const double value =
            k + 1 == sweep.points ? sweep.upper : sweep.lower * std::exp(ratio * k);
        const auto relaxivity = fitter.relaxivities({sweep.mineral}, {value});
        const DecayCurve curve = fitter.decayAt(relaxivity);
        const Distribution d = distributionOf(curve.times, curve.values, parameters);
        const fit::Misfit m = fitter.misfitAt(relaxivity);
        out << std::setw(16) << value << std::setw(14) << d.logMeanT2 << std::setw(16)
            << m.sumOfSquares << std::setw(14) << m.scale << std::endl;
    }
}

void reportFit(std::ostream& out, const fit::RelaxivityFit& fitter, const fit::FitResult& result,
               const fit::FitRequest& request, const analysis::MeasuredDecay& measured,
               const NuclearMagneticResonanceParameters& parameters, const FitOptions& options,
               const std::string& parameterPath, const std::string& programDirectory) {
    const fit::MeasuredWindow& window = fitter.window();
    out << "Measured: " << options.measured << ", " << measured.times.size() << " points, "
        << window.size() << " of them within the simulated " << window.first() << " to "
        << window.last() << " ms" << std::endl;
    for (std::size_t i = 0; i < request.minerals.size(); ++i) {
        out << "Fitted " << Mineral::name(request.minerals[i]) << ": " << result.value[i]
            << " m/s (+- " << result.uncertainty[i] << ")" << std::endl;
    }
    for (std::size_t i = 0; i < request.minerals.size(); ++i) {
        out << "  " << Mineral::name(request.minerals[i]) << ": bounds " << request.lower[i]
            << " to " << request.upper[i] << " m/s" << (result.atBound[i] ? ", at a bound" : "")
            << "; uncertainty from the walkers " << result.walkerSpread[i]
            << ", from the measurement " << result.dataSpread[i] << std::endl;
    }
    out << "Misfit (sum of squares over " << window.size()
        << " points): " << result.misfit.sumOfSquares << std::endl;
    out << "Amplitude scale (simulated per measured unit): " << result.misfit.scale << std::endl;

    const Distribution lab = distributionOf(measured.times, measured.values, parameters);
    const DecayCurve fitted = fitter.decayAt(result.relaxivity);
    const Distribution simulated = distributionOf(fitted.times, fitted.values, parameters);
    out << "T2LM measured (ms): " << lab.logMeanT2 << std::endl;
    out << "T2LM fitted (ms): " << simulated.logMeanT2 << std::endl;
    out << "Evaluations of the decay: " << result.evaluations << std::endl;

    writeFittedParameters(parameterPath, options.output, request, result);
    const auto folder = std::filesystem::path(options.output).parent_path();
    const std::string data = (folder / "T2fit.json").string();
    const std::string png = (folder / "T2fit.png").string();
    writePlotData(data, window, result.misfit.scale, fitted, lab, simulated);
    if (runPlotScript(programDirectory, {"--fit", data, "-o", png})) {
        out << "Wrote " << options.output << ", " << png << " and " << data << std::endl;
    } else {
        out << "Wrote " << options.output << " and " << data << std::endl;
        std::cerr << "nmrwalk-fit: warning: " << png << " not drawn: " << programDirectory
                  << "/nmrwalk-plot --fit failed (it needs python3-matplotlib)" << std::endl;
    }
}

}  // namespace nmr::tools
