#include "tools/invert_map.h"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "common/exception.h"
#include "common/output_file.h"
#include "inversion/data_file.h"
#include "inversion/map_inversion.h"
#include "tools/plot_script.h"

namespace nmr::tools {

namespace {

using inversion::KernelKind;

// What differs between the two experiments.
struct Experiment {
    const char* flag;
    KernelKind kind;
    const char* name;      // of the map file and its PNG
    const char* plotKind;  // nmrwalk-plot --kind
    const char* minOption;
    const char* maxOption;
    const char* samples;               // what the first column holds
    const char* sampleUnit;            // and in which unit
    const char* unit;                  // of the first axis
    std::vector<const char*> foreign;  // options of the other experiment
};

const Experiment kDiffusion{.flag = "--dt2",
                            .kind = KernelKind::Diffusion,
                            .name = "DT2map",
                            .plotKind = "dt2",
                            .minOption = "--d-min",
                            .maxOption = "--d-max",
                            .samples = "b values",
                            .sampleUnit = "s/m^2",
                            .unit = "m^2/s",
                            .foreign = {"--t1-min", "--t1-max"}};
const Experiment kRelaxation{.flag = "--t1t2",
                             .kind = KernelKind::InversionRecovery,
                             .name = "T1T2map",
                             .plotKind = "t1t2",
                             .minOption = "--t1-min",
                             .maxOption = "--t1-max",
                             .samples = "recovery times",
                             .sampleUnit = "ms",
                             .unit = "ms",
                             .foreign = {"--d-min", "--d-max", "--d0"}};

// Free water at 25 C, the reference line of a D-T2 map.
constexpr double kFreeWaterDiffusion = 2.3e-9;

const Experiment& experimentOf(const OptionParser& options) {
    if (options.has("--dt2") && options.has("--t1t2"))
        throw Exception("Give one of --dt2 and --t1t2, not both");
    const Experiment& e = options.has("--dt2") ? kDiffusion : kRelaxation;
    for (const char* option : e.foreign)
        if (options.has(option))
            throw Exception(std::string("Not an option of ") + e.flag + ": " + option);
    for (const char* option : {"--t2-components", "--condition-ratio", "--cutoff"})
        if (options.has(option))
            throw Exception(std::string("Not an option of ") + e.flag +
                            " (1-D decays only): " + option);
    if (!options.positional().empty())
        throw Exception(std::string("A decay file and ") + e.flag +
                        " exclude each other: " + options.positional().front());
    return e;
}

std::optional<double> positive(const OptionParser& options, const std::string& name) {
    const std::optional<double> v = options.number(name);
    if (v && !(*v > 0.0)) throw Exception(name + " must be positive: " + std::to_string(*v));
    return v;
}

// The data's resolvable range with the user's ends in place of the defaults.
std::vector<double> axisOf(const OptionParser& options, const char* minOption,
                           const char* maxOption, KernelKind kind,
                           const std::vector<double>& samples, int points,
                           const std::string& source) {
    const std::optional<double> lo = positive(options, minOption);
    const std::optional<double> hi = positive(options, maxOption);
    if (lo && hi && !(*hi > *lo))
        throw Exception(std::string("The ") + inversion::axisName(kind) + " axis needs " +
                        minOption + " < " + maxOption + ": " + std::to_string(*lo) + " " +
                        std::to_string(*hi));
    try {
        return inversion::mapAxis(kind, samples, points, lo, hi);
    } catch (const Exception& e) {
        throw Exception(e.message() + " in " + source);
    }
}

void report(const Experiment& e, const inversion::Data2d& data, const std::string& input,
            const inversion::MapResult& r) {
    const std::string name = inversion::axisName(e.kind);
    std::cout << "Read " << data.first.size() << " x " << data.times.size() << " points from "
              << input << ": " << e.samples << " from " << data.first.front() << " to "
              << data.first.back() << " " << e.sampleUnit << ", echo times from "
              << data.times.front() << " to " << data.times.back() << " ms\n"
              << name << " axis: " << r.axis1.size() << " points from " << r.axis1.front() << " to "
              << r.axis1.back() << " " << e.unit << "\n"
              << "T2 axis: " << r.axis2.size() << " points from " << r.axis2.front() << " to "
              << r.axis2.back() << " ms\n"
              << "Kept singular values: " << r.rank1 << " x " << r.rank2 << "\n"
              << "Noise level: " << r.noise << " (";
    switch (r.noiseSource) {
        case inversion::NoiseSource::Given:
            std::cout << "given";
            break;
        case inversion::NoiseSource::Estimated:
            std::cout << "estimated from the data outside the kept singular vectors";
            break;
        case inversion::NoiseSource::Floor:
            std::cout << "the floor, 1e-4 of the largest |amplitude|; the estimate was "
                      << r.estimatedNoise;
            break;
    }
    std::cout << ")\n"
              << "Alpha: " << r.alpha << "\n"
              << "RMS residual: " << r.residualRms << " (" << r.residualRms / r.noise
              << " times the noise)\n"
              << "Log-mean " << name << " (" << e.unit << "): " << r.logMean1 << "\n"
              << "Log-mean T2 (ms): " << r.logMean2 << "\n"
              << "Total amplitude: " << r.map.sum() << "\n";
}

// Inverts `data`, read from `source` (in readMs, when it was read), into the map of e at
// `output`, writes its PNG beside it and prints the figures. Nothing is printed or written
// before the whole inversion has succeeded.
void writeMapOf(const Experiment& e, const inversion::Data2d& data, const std::string& source,
                inversion::SeparableKernel kernel, const inversion::MapOptions& settings,
                const std::string& output, double d0, const char* program,
                std::optional<double> readMs) {
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    const inversion::MapResult r =
        inversion::invertMap(std::move(kernel), data.amplitude, settings);
    const auto done = Clock::now();
    inversion::writeMap(output, r);
    report(e, data, source, r);
    const auto folder = std::filesystem::path(output).parent_path();
    const std::string png = (folder / (std::string(e.name) + ".png")).string();
    std::vector<std::string> plot = {"--map", output, "--kind", e.plotKind, "-o", png};
    if (e.kind == KernelKind::Diffusion) {
        char text[32];
        std::snprintf(text, sizeof text, "%.9g", d0);
        plot.insert(plot.end(), {"--d0", text});
    }
    if (runPlotScript(programDirectory(), plot)) {
        std::cout << "Wrote " << output << " and " << png << "\n";
    } else {
        std::cout << "Wrote " << output << "\n";
        std::cerr << program << ": warning: " << png << " not drawn: " << programDirectory()
                  << "/nmrwalk-plot --map failed (it needs python3-matplotlib)\n";
    }
    using Ms = std::chrono::duration<double, std::milli>;
    if (readMs) std::cout << "Read time (ms): " << *readMs << "\n";
    std::cout << "Inversion time (ms): " << Ms(done - start).count() << "\n";
}

}  // namespace

int runMapInversion(const OptionParser& options) {
    const Experiment& e = experimentOf(options);
    const std::string input = *options.value(e.flag);
    const std::int64_t points = options.integer("--map-points", 50);
    if (points < 10 || points > 100)
        throw Exception("--map-points must lie between 10 and 100: " + std::to_string(points));
    inversion::MapOptions settings;
    settings.noise = positive(options, "--noise");
    const double d0 = positive(options, "--d0").value_or(kFreeWaterDiffusion);
    const std::string output = options.value("--output").value_or(std::string(e.name) + ".out");

    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    const inversion::Data2d data = inversion::readData2d(input);
    const int n = static_cast<int>(points);
    inversion::SeparableKernel kernel = inversion::separableKernel(
        e.kind, data.first, axisOf(options, e.minOption, e.maxOption, e.kind, data.first, n, input),
        KernelKind::Decay, data.times,
        axisOf(options, "--t2-min", "--t2-max", KernelKind::Decay, data.times, n, input));
    prepareOutputFolder(output);
    using Ms = std::chrono::duration<double, std::milli>;
    writeMapOf(e, data, input, std::move(kernel), settings, output, d0, "nmrwalk-invert",
               Ms(Clock::now() - start).count());
    return 0;
}

void writeDiffusionMap(const inversion::Data2d& data, const std::string& source, int points,
                       double d0, const char* program) {
    inversion::SeparableKernel kernel = inversion::separableKernel(
        KernelKind::Diffusion, data.first,
        inversion::mapAxis(KernelKind::Diffusion, data.first, points), KernelKind::Decay,
        data.times, inversion::mapAxis(KernelKind::Decay, data.times, points));
    writeMapOf(kDiffusion, data, source, std::move(kernel), {},
               std::string(kDiffusion.name) + ".out", d0, program, std::nullopt);
}

}  // namespace nmr::tools
