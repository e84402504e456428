// nmrwalk-invert: the simulator's T2 inversion applied to a measured decay.

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
#include "tools/option_parser.h"

namespace {

using namespace nmr;
using namespace nmr::tools;
using namespace nmr::analysis;

constexpr char kUsage[] = R"(Usage: nmrwalk-invert DECAY [options]

Inverts a measured decay into a T2 distribution with exactly the simulator's
inversion and prints the chosen regularisation and a petrophysical summary.

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
)";

int run(int argc, char** argv) {
    const OptionParser options(
        argc, argv,
        {{"--output", "--t2-min", "--t2-max", "--t2-components", "--condition-ratio", "--cutoff"},
         {"--help"},
         {{"-o", "--output"}, {"-h", "--help"}}});
    if (options.has("--help")) {
        std::cout << kUsage;
        return 0;
    }
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
