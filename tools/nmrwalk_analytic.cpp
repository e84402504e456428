// nmrwalk-analytic: the exact relaxation of a single slab, cylinder or sphere pore.

#include <cstdio>
#include <iostream>
#include <string>

#include "analysis/brownstein_tarr.h"
#include "common/exception.h"
#include "tools/option_parser.h"

namespace {

using namespace nmr;
using namespace nmr::tools;
using namespace nmr::analysis;

constexpr char kUsage[] =
    R"(Usage: nmrwalk-analytic SHAPE --size UM --relaxivity RHO --diffusion D [options]

Prints the relaxation modes of one pore with surface relaxation (diffusion inside,
relaxing wall, uniform start): per mode the root xi, the amplitude and T2, and the
mean lifetime of the magnetisation.

  SHAPE                slab, cylinder or sphere
  --size UM            slab: half-width; cylinder, sphere: radius (micrometres)
  --relaxivity RHO     surface relaxivity in m/s
  --diffusion D        diffusion constant in m^2/s
  --modes N            modes to print (default 10; 400 are used for sums)
  --t2 MS              also print the relaxivity whose slowest mode has this T2
                       (the effective relaxivity behind a measured or simulated T2)
  --json               one JSON object instead of text
  -h, --help           this text
)";

int run(int argc, char** argv) {
    const OptionParser options(argc, argv,
                               {{"--size", "--relaxivity", "--diffusion", "--modes", "--t2"},
                                {"--help", "--json"},
                                {{"-h", "--help"}}});
    if (options.has("--help")) {
        std::cout << kUsage;
        return 0;
    }
    if (options.positional().size() != 1)
        throw Exception("Give exactly one shape (slab, cylinder, sphere), got: " +
                        std::to_string(options.positional().size()));
    const PoreShape shape = parsePoreShape(options.positional()[0]);
    auto need = [&](const std::string& name) {
        const auto v = options.number(name);
        if (!v || !(*v > 0.0)) throw Exception("A positive value is needed for: " + name);
        return *v;
    };
    const double a = need("--size") * 1e-6, rho = need("--relaxivity"), d = need("--diffusion");
    const std::int64_t shown = options.integer("--modes", 10);
    if (shown < 1 || shown > 400)
        throw Exception("--modes must lie between 1 and 400: " + std::to_string(shown));

    // Enough modes that the amplitudes sum to 1 within ~1e-4 even for a strongly relaxing
    // wall, where they fall off only as 1/n^2.
    const auto modes = relaxationModes(shape, a, rho, d, 400);
    double amplitudeSum = 0.0;
    for (const auto& m : modes) amplitudeSum += m.amplitude;
    const double lifetimeMs = meanLifetime(shape, a, rho, d) * 1000.0;
    const double kappa = rho * a / d;
    const auto t2Ms = options.number("--t2");
    const double matched = t2Ms ? relaxivityForSlowestT2(shape, a, d, *t2Ms / 1000.0) : 0.0;

    char line[200];
    if (options.has("--json")) {
        std::cout << "{\n  \"shape\": \"" << poreShapeName(shape) << "\",\n";
        std::snprintf(
            line, sizeof line,
            "  \"kappa\": %.17g,\n  \"meanLifetimeMs\": %.17g,\n  \"amplitudeSum\": %.17g,\n",
            kappa, lifetimeMs, amplitudeSum);
        std::cout << line;
        if (t2Ms) {
            std::snprintf(line, sizeof line, "  \"relaxivityForT2\": %.17g,\n", matched);
            std::cout << line;
        }
        std::cout << "  \"modes\": [";
        for (std::int64_t n = 0; n < shown; ++n) {
            const auto& m = modes[static_cast<std::size_t>(n)];
            std::snprintf(line, sizeof line,
                          "%s\n    {\"xi\": %.17g, \"amplitude\": %.17g, \"t2Ms\": %.17g}",
                          n ? "," : "", m.xi, m.amplitude, m.t2 * 1000.0);
            std::cout << line;
        }
        std::cout << "\n  ]\n}\n";
        return 0;
    }
    std::cout << "Shape: " << poreShapeName(shape) << "\nkappa = rho a / D: " << kappa
              << "\nMean lifetime (ms): " << lifetimeMs << "\n";
    if (t2Ms)
        std::cout << "Relaxivity for a slowest T2 of " << *t2Ms << " ms (m/s): " << matched << "\n";
    std::cout << "Mode  xi  amplitude  T2 (ms)\n";
    for (std::int64_t n = 0; n < shown; ++n) {
        const auto& m = modes[static_cast<std::size_t>(n)];
        std::snprintf(line, sizeof line, "%4lld  %.10g  %.6g  %.6g\n", static_cast<long long>(n),
                      m.xi, m.amplitude, m.t2 * 1000.0);
        std::cout << line;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) { return nmr::tools::runTool("nmrwalk-analytic", run, argc, argv); }
