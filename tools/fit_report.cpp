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
                   const DecayCurve& fitted, const fit::Distribution& measured,
                   const fit::Distribution& simulated) {
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
        const fit::Distribution d = fit::distributionOf(curve.times, curve.values, parameters);
        const fit::Misfit m = fitter.misfitAt(relaxivity);
        out << std::setw(16) << value << std::setw(14) << d.logMeanT2 << std::setw(16)
            << m.sumOfSquares << std::setw(14) << m.scale << std::endl;
    }
}

namespace {

// The lines that say how far the fit can be trusted: the intervals, every correlation,
// what the decay cannot tell apart and what it does fix, and the noise behind them.
void printUncertainty(std::ostream& out, const fit::FitResult& result,
                      const fit::FitRequest& request) {
    const std::size_t m = request.minerals.size();
    auto name = [&request](std::size_t i) { return Mineral::name(request.minerals[i]); };
    for (std::size_t i = 0; i < m; ++i) {
        out << "  " << name(i) << ": bounds " << request.lower[i] << " to " << request.upper[i]
            << " m/s; one-deviation interval " << result.lower[i] << " to " << result.upper[i]
            << " m/s" << std::endl;
    }
    char text[16];
    for (std::size_t i = 0; i < m; ++i) {
        for (std::size_t j = i + 1; j < m; ++j) {
            std::snprintf(text, sizeof text, "%.2f", result.correlationOf(i, j));
            out << "Correlation of " << name(i) << " and " << name(j) << ": " << text << std::endl;
        }
    }
    for (const fit::NotDetermined& pair : result.notDetermined) {
        out << fit::notDeterminedLine(pair, request) << std::endl;
    }
    for (const fit::SurfaceWeightedMean& mean : result.combinations) {
        std::string names, shares;
        for (std::size_t k = 0; k < mean.members.size(); ++k) {
            const char* separator = k == 0 ? "" : (k + 1 == mean.members.size() ? " and " : ", ");
            names += separator + name(mean.members[k]);
            std::snprintf(text, sizeof text, "%.3g", mean.weights[k]);
            shares += std::string(k == 0 ? "" : ", ") + text;
        }
        out << "Surface-weighted mean relaxivity of " << names << ": " << mean.value << " m/s (+- "
            << mean.uncertainty << "), surface shares " << shares << std::endl;
    }
    out << "Noise per measured point (rms, simulated units): walk " << result.noise.walk
        << ", measurement " << result.noise.measurementWhite << " white and "
        << result.noise.measurementShaped << " shaped like a walk's" << std::endl;
}

// The plot and its data go beside the fitted parameters: T2fit.png and T2fit.json for the
// default file, named after the file otherwise, so that a second fit into another file
// leaves the first one's plot alone.
std::pair<std::string, std::string> plotPaths(const std::string& output) {
    const std::filesystem::path path(output);
    const std::filesystem::path folder = path.parent_path();
    const std::string stem = output == FitOptions{}.output ? "T2fit" : path.stem().string();
    return {(folder / (stem + ".json")).string(), (folder / (stem + ".png")).string()};
}

}  // namespace

void reportFit(std::ostream& out, std::ostream& err, const fit::RelaxivityFit& fitter,
               const fit::FitResult& result, const fit::FitRequest& request,
               const analysis::MeasuredDecay& measured,
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
    printUncertainty(out, result, request);
    for (const fit::BoundHit& hit : result.atBound) {
        err << fit::boundWarning(
                   hit, request,
                   "--bounds " + fit::boundsText(hit.suggestedLower, hit.suggestedUpper))
            << std::endl;
    }
    out << "Misfit (sum of squares over " << window.size()
        << " points): " << result.misfit.sumOfSquares << std::endl;
    out << "Amplitude scale (simulated per measured unit): " << result.misfit.scale << std::endl;

    const fit::Distribution lab = fit::distributionOf(measured.times, measured.values, parameters);
    const DecayCurve fitted = fitter.decayAt(result.relaxivity);
    const fit::Distribution simulated =
        fit::distributionOf(fitted.times, fitted.values, parameters);
    out << "T2LM measured (ms): " << lab.logMeanT2 << std::endl;
    out << "T2LM fitted (ms): " << simulated.logMeanT2 << std::endl;
    out << "Evaluations of the decay: " << result.evaluations << std::endl;

    writeFittedParameters(parameterPath, options.output, request, result);
    const auto [data, png] = plotPaths(options.output);
    writePlotData(data, window, result.misfit.scale, fitted, lab, simulated);
    if (runPlotScript(programDirectory, {"--fit", data, "-o", png})) {
        out << "Wrote " << options.output << ", " << png << " and " << data << std::endl;
    } else {
        out << "Wrote " << options.output << " and " << data << std::endl;
        err << "nmrwalk-fit: warning: " << png << " not drawn: " << programDirectory
            << "/nmrwalk-plot --fit failed (it needs python3-matplotlib)" << std::endl;
    }
}

}  // namespace nmr::tools
