#include "tools/sequence_dt2.h"

#include <iomanip>
#include <sstream>

#include "common/exception.h"
#include "common/output_file.h"
#include "common/text.h"
#include "tools/invert_map.h"

namespace nmr::tools {

const char kDt2Usage[] =
    R"USAGE(Usage: nmrwalk-sequence dt2 --diffusion-time MS [--b-values B,...|--b-points N]
                            [--echo-spacing MS] [--echoes N]

A D-T2 map by diffusion editing. Run it in a run directory (nmr.yaml and its
grid) under mpiexec, as nmrwalk. Each walker walks Delta by nmrwalk's step and
kill rule; narrow gradient pulses at 0 and Delta encode its displacement,
cos(q . (r(Delta) - r(0))) averaged over the three axes, q = sqrt(b / Delta).
The same walker then walks on through a CPMG train of the echo spacing given,
with a half echo of a whole number N >= 8 of steps (as cpmg), and its signal at
echo k is that cosine while it lives. The signal at b and echo k is the mean
over the walkers times exp(-t / T2 bulk), t = Delta + k TE the time since
excitation. The data are then exp(-b D) exp(-t / T2) for free water exactly, so
the map's kernel holds the relaxation during the encoding. The rock's field and
an applied gradient play no part here, and neither does nmrwalk's clay
micro-porosity signal.

Each walker draws from its own counter-based stream (Philox) keyed by the seed
and its index, and the sums over walkers are exact: every output is the same,
bit for bit, at any number of processes.

Options:
  --diffusion-time MS   Delta in ms
  --b-values B,...      b values in s/m^2, from 0, at least one above 0
  --b-points N          or N b values evenly from 0 to 5 / D0 (default 16)
  --echo-spacing MS     the echo spacing of the CPMG train (default 0.2)
  --echoes N            echoes (default: until the signal at b = 0 falls below
                        0.1 % of its start, judged as cpmg judges it)
  -h, --help            this text

Output: dt2.out ("<b s/m^2> <time ms> <amplitude>", the time since excitation),
DT2map.out ("<D m^2/s> <T2 ms> <amplitude>", 50 x 50 cells over the ranges the
data resolve, alpha by the discrepancy rule of nmrwalk-invert --dt2) and
DT2map.png, with the figures of the inversion on standard output. The progress
bar, ABORT, checkpoints and the exit status are those of nmrwalk.
)USAGE";

Dt2Options parseDt2Options(const OptionParser& parser) {
    Dt2Options options;
    const auto time = parser.value("--diffusion-time");
    if (!time) throw Exception("Missing option (20): --diffusion-time");
    const std::vector<double> times =
        parsePositiveList(*time, "--diffusion-time needs one diffusion time in ms above 0");
    if (times.size() != 1)
        throw Exception("--diffusion-time needs one diffusion time for dt2: " + *time);
    options.diffusionTimeMs = times.front();
    const auto values = parser.value("--b-values");
    const auto points = parser.value("--b-points");
    if (values && points) throw Exception("Give --b-values or --b-points, not both");
    if (values) {
        std::istringstream in(*values);
        for (std::string part; std::getline(in, part, ',');) {
            const double b = parseDouble(part, "--b-values needs b values in s/m^2 from 0");
            if (!(b >= 0.0))
                throw Exception("--b-values needs b values in s/m^2 from 0: " + *values);
            options.bValues.push_back(b);
        }
        if (options.bValues.empty())
            throw Exception("--b-values needs b values in s/m^2 from 0: " + *values);
    }
    if (points) {
        const std::int64_t n =
            parseInteger(*points, "--b-points needs a whole number from 2 to 1000");
        if (n < 2 || n > 1000)
            throw Exception("--b-points needs a whole number from 2 to 1000: " + *points);
        options.bPoints = static_cast<std::uint32_t>(n);
    }
    if (const auto spacing = parser.value("--echo-spacing")) {
        const std::vector<double> spacings =
            parsePositiveList(*spacing, "--echo-spacing needs one echo spacing in ms above 0");
        if (spacings.size() != 1)
            throw Exception("--echo-spacing needs one echo spacing for dt2: " + *spacing);
        options.echoSpacingMs = spacings.front();
    }
    if (const auto echoes = parser.value("--echoes")) {
        const std::int64_t n = parseInteger(*echoes, "--echoes needs a whole number from 1");
        if (n < 1 || n > kMostEchoes)
            throw Exception("--echoes needs a whole number from 1 to " +
                            std::to_string(kMostEchoes) + ": " + *echoes);
        options.echoes = static_cast<std::uint32_t>(n);
    }
    return options;
}

std::string dt2Fingerprint(const Dt2Plan& plan) {
    std::ostringstream text;
    text << "dt2; diffusion time " << fullNumber(plan.diffusionTimeMs) << " in "
         << plan.encoding.steps << " steps; echo spacing " << fullNumber(plan.echoSpacingMs) << ", "
         << plan.halfEcho.steps << " steps a half echo, " << plan.echoes << " echoes; b";
    for (double b : plan.b) text << ' ' << fullNumber(b);
    return text.str();
}

void writeDt2Outputs(const Dt2Data& data, double d0) {
    std::ostringstream text;
    for (std::size_t j = 0; j < data.b.size(); ++j) {
        for (std::size_t k = 0; k < data.timesMs.size(); ++k) {
            text << std::setprecision(10) << data.b[j] << " " << data.timesMs[k] << " "
                 << std::setprecision(17)
                 << data.amplitude(static_cast<Eigen::Index>(j), static_cast<Eigen::Index>(k))
                 << "\n";
        }
    }
    // The map first: a failed inversion leaves no dt2.out behind either.
    inversion::Data2d data2d{data.b, data.timesMs, data.amplitude};
    writeDiffusionMap(data2d, "the walk", 50, d0, "nmrwalk-sequence");
    writeTextFile("dt2.out", text.str());
}

}  // namespace nmr::tools
