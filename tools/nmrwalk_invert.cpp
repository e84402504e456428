// nmrwalk-invert: the simulator's T2 inversion applied to a measured decay, and the 2-D
// inversions of measured diffusion-T2 and T1-T2 data.

#include <chrono>
#include <cmath>
#include <filesystem>
#include <iostream>
#include <string>

#include "analysis/decay_file.h"
#include "analysis/t2_summary.h"
#include "common/exception.h"
#include "common/output_file.h"
#include "t2/decay_output.h"
#include "t2/t2_grid.h"
#include "t2/t2_inversion.h"
#include "tools/invert_map.h"
#include "tools/option_parser.h"

namespace {

using namespace nmr;
using namespace nmr::tools;
using namespace nmr::analysis;

constexpr char kUsage[] = R"(Usage: nmrwalk-invert DECAY [options]
       nmrwalk-invert --dt2 FILE [map options]
       nmrwalk-invert --t1t2 FILE [map options]

Inverts a measured decay into a T2 distribution with exactly the simulator's
inversion and prints the chosen regularisation and a petrophysical summary.
With --dt2 or --t1t2 it inverts 2-D data into a D-T2 or T1-T2 map instead.

DECAY holds per line either "time amplitude" or "time unused real imaginary"
(time in ms; blanks, tabs or commas between numbers; "#" starts a comment).
Four-column data are rotated onto the real axis first.

Options:
  -o, --output FILE        distribution in the layout of T2inversion.out
                           (default: T2inversion.out); the summary, with the
                           distribution and its units, goes to T2summary.json in
                           the same folder, which is made when it does not exist
  --t2-min MS              smallest T2 of the axis (default 0.0001)
  --t2-max MS              largest T2 of the axis (default 10000)
  --t2-components N        points of the axis, 10 to 500 (default 100)
  --condition-ratio R      largest kept singular value ratio (default 1000000)
  --cutoff MS              T2 cut-off between bound and free fluid (default 33)
  -h, --help               this text

2-D data: lines "<b s/m^2 | recovery time ms> <time ms> <amplitude>", the first
column repeating in blocks (every echo of the first b, then every echo of the
second, ...), each block with the same times; separators and comments as above.
The map goes to DT2map.out or T1T2map.out ("<D m^2/s | T1 ms> <T2 ms>
<amplitude>", one line per cell) and its picture to DT2map.png or T1T2map.png
beside it.

Map options:
  --dt2 FILE               diffusion-T2 data: kernel exp(-b D) exp(-t / T2)
  --t1t2 FILE              inversion-recovery T1-T2 data: kernel
                           (1 - 2 exp(-tau / T1)) exp(-t / T2)
  -o, --output FILE        the map (default: DT2map.out or T1T2map.out); the PNG
                           goes into the same folder
  --noise SIGMA            noise standard deviation in the data's units (default:
                           estimated from the data no map can fit)
  --map-points N           points of each axis, 10 to 100 (default 50)
  --d-min, --d-max M2S     ends of the D axis (default 1/(3 b_max) to 1/b_min)
  --t1-min, --t1-max MS    ends of the T1 axis (default tau_min to 3 tau_max)
  --t2-min, --t2-max MS    ends of the T2 axis (default t_min to 3 t_max)
  --d0 M2S                 free-water line of the D-T2 picture (default 2.3e-9)
)";

OptionParser::Definition definition() {
    OptionParser::Definition d{
        {"--output", "--t2-min", "--t2-max", "--t2-components", "--condition-ratio", "--cutoff"},
        {"--help"},
        {{"-o", "--output"}, {"-h", "--help"}}};
    d.valueOptions.insert(std::begin(kMapFlags), std::end(kMapFlags));
    d.valueOptions.insert(std::begin(kMapOptions), std::end(kMapOptions));
    return d;
}

int run(int argc, char** argv) {
    const OptionParser options(argc, argv, definition());
    if (options.has("--help")) {
        std::cout << kUsage;
        return 0;
    }
    for (const char* flag : kMapFlags)
        if (options.has(flag)) return runMapInversion(options);
    for (const char* option : kMapOptions)
        if (options.has(option))
            throw Exception(std::string(option) + " is an option of --dt2 and --t1t2 only");
    const std::string& input = options.onlyPositional("decay file");
    // The simulator's defaults, so that lab and simulated distributions compare point by point.
    const double t2Min = options.number("--t2-min", 0.0001);
    const double t2Max = options.number("--t2-max", 10000.0);
    const std::int64_t components = options.integer("--t2-components", 100);
    const double conditionRatio = options.number("--condition-ratio", t2::kDefaultConditionRatio);
    const double cutoff = options.number("--cutoff", kSandstoneCutoffMs);
    if (!(t2Min > 0.0) || !(t2Max > t2Min))
        throw Exception("The T2 axis needs 0 < --t2-min < --t2-max: " + std::to_string(t2Min) +
                        " " + std::to_string(t2Max));
    if (components < 10 || components > 500)
        throw Exception("--t2-components must lie between 10 and 500, as in a run: " +
                        std::to_string(components));
    if (!(conditionRatio > 1.0))
        throw Exception("--condition-ratio must exceed 1: " + std::to_string(conditionRatio));
    if (!(cutoff > 0.0)) throw Exception("--cutoff must be positive: " + std::to_string(cutoff));
    const std::string output = options.value("--output").value_or("T2inversion.out");
    const auto folder = std::filesystem::path(output).parent_path();
    const std::string jsonPath = (folder / "T2summary.json").string();
    // Before the work: a folder that cannot be written to is found now, not after it.
    prepareOutputFolder(output);
    prepareOutputFolder(jsonPath);

    const auto start = std::chrono::steady_clock::now();
    const MeasuredDecay decay = readDecayFile(input);
    std::cout << "Read " << decay.times.size() << " points from " << input << "\n";
    if (decay.columns == 4)
        std::cout << "Phase-rotated by " << decay.phaseRadians * 180.0 / M_PI
                  << " degrees (angle maximising the real-part energy of the first "
                  << decay.phaseEchoes
                  << " echoes); imaginary energy left: " << decay.imaginaryEnergy << "\n";

    const auto inverted = std::chrono::steady_clock::now();
    const t2::T2Distribution d =
        t2::invertDecay(decay.times, decay.values, t2Min, t2Max,
                        static_cast<std::int32_t>(components), conditionRatio);
    const auto done = std::chrono::steady_clock::now();

    writeTextFile(output, t2::formatColumns(d.t2, d.amplitude));
    const T2Summary summary = summariseT2(d.t2, d.amplitude, cutoff);
    // "source" tells nmrwalk-plot that this folder holds a measured distribution, which it
    // plots as it is and never rewrites.
    writeTextFile(jsonPath,
                  summaryJson(summary,
                              {{"lambda", d.lambda},
                               {"rank", d.rank},
                               {"points", static_cast<double>(decay.times.size())}},
                              {{"source", "nmrwalk-invert"}, {"decay", input}, {"output", output}},
                              d.t2, d.amplitude, "as the decay's amplitude (instrument units)"));

    using Ms = std::chrono::duration<double, std::milli>;
    std::cout << "Kept rank: " << d.rank << "\n"
              << "Lambda: " << d.lambda << "\n"
              << formatSummary(summary) << "Wrote " << output << " and " << jsonPath << "\n"
              << "Read time (ms): " << Ms(inverted - start).count() << "\n"
              << "Inversion time (ms): " << Ms(done - inverted).count() << "\n";
    return 0;
}

}  // namespace

int main(int argc, char** argv) { return nmr::tools::runTool("nmrwalk-invert", run, argc, argv); }
