// nmrwalk-grid: writes a synthetic rock as a grain bed grid file.

#include <array>
#include <cmath>
#include <iostream>
#include <memory>
#include <string>

#include "common/exception.h"
#include "common/output_file.h"
#include "rock/grid_export.h"
#include "rock/label_map.h"
#include "rock/pore_geometry.h"
#include "tools/option_parser.h"

namespace {

using namespace nmr;
using namespace nmr::tools;
using namespace nmr::rock;

constexpr char kUsage[] = R"(Usage: nmrwalk-grid GEOMETRY -o FILE.binc [options]

Writes a synthetic rock as a grain bed grid file and prints its porosity and
voxel-face surface-to-volume ratio.

Geometries:
  slab       a planar pore of --width voxels across x (walls beyond it)
  cylinder   a cylindrical pore of --radius voxels along z
  sphere     a spherical pore of --radius voxels
  pack       overlapping spherical grains of --radius voxels, dropped at random
             until the pore fraction reaches --porosity

Options:
  -o, --output FILE        grid file to write (required; a missing folder is made)
  --size N | NXxNYxNZ      grid size in voxels (pack: required; the single pores
                           default to the pore plus one solid layer on each side)
  --cell-size UM           voxel edge in micrometres (default 1)
  --width W                slab: pore width in voxels
  --radius R               cylinder, sphere: pore radius; pack: grain radius (voxels)
  --radius-spread F        pack: radii uniform in R*(1-F) .. R*(1+F) (default 0)
  --porosity P             pack: target pore fraction, 0 < P < 1
  --mineral NAME           grain mineral by display name (default "Quartz")
  --clay-thickness T       voxels of Clay coating the grain surfaces (default 0)
  --clay-fraction F        pack: share of grains that carry the coating (default 1)
  --seed S                 pack: random seed (default 1)
  --margin M | MXxMYxMZ    margin cells per face, filled with the mirror image of
                           the rock (default 0)
  -h, --help               this text
)";

std::unique_ptr<PoreGeometry> makeGeometry(const std::string& kind, const OptionParser& options) {
    SolidMaterial solid;
    solid.grainMineral = mineralFromName(options.value("--mineral").value_or("Quartz"));
    solid.clayThickness = options.number("--clay-thickness", 0.0);
    auto size = [&](const std::array<std::uint32_t, 3>& fallback) -> std::array<std::uint32_t, 3> {
        const auto text = options.value("--size");
        return text ? parseTriple(*text, "Grid size must be N or NXxNYxNZ with N >= 1", 1)
                    : fallback;
    };
    auto need = [&](const std::string& name) {
        const auto v = options.number(name);
        if (!v) throw Exception("The geometry " + kind + " needs the option: " + name);
        return *v;
    };
    if (kind == "slab") {
        const std::int64_t width = options.integer("--width", 0);
        if (width < 1 || width > 32765)
            throw Exception("The slab needs --width between 1 and 32765: " + std::to_string(width));
        const auto w = static_cast<std::uint32_t>(width);
        const auto n = size(std::array<std::uint32_t, 3>{w + 2, w + 2, w + 2});
        return std::make_unique<SlabPore>(n[0], n[1], n[2], w, solid);
    }
    if (kind == "cylinder" || kind == "sphere") {
        const double r = need("--radius");
        if (!(r > 0.0) || r > 16000.0)
            throw Exception("The pore radius must lie in (0, 16000]: " + std::to_string(r));
        const auto fit = static_cast<std::uint32_t>(2.0 * std::ceil(r) + 2.0);
        if (kind == "cylinder") {
            const auto n = size(std::array<std::uint32_t, 3>{fit, fit, 1});
            return std::make_unique<CylinderPore>(n[0], n[1], n[2], r, solid);
        }
        const auto n = size(std::array<std::uint32_t, 3>{fit, fit, fit});
        return std::make_unique<SpherePore>(n[0], n[1], n[2], r, solid);
    }
    if (kind == "pack") {
        if (!options.has("--size")) throw Exception("The geometry pack needs the option: --size");
        SpherePackSettings definition;
        definition.radius = need("--radius");
        definition.targetPorosity = need("--porosity");
        definition.radiusSpread = options.number("--radius-spread", 0.0);
        definition.clayFraction = options.number("--clay-fraction", 1.0);
        const std::int64_t seed = options.integer("--seed", 1);
        if (seed < 0) throw Exception("The seed must not be negative: " + std::to_string(seed));
        definition.seed = static_cast<std::uint64_t>(seed);
        definition.solid = solid;
        const auto n = size(std::array<std::uint32_t, 3>{});
        return std::make_unique<SpherePack>(n[0], n[1], n[2], definition);
    }
    throw Exception("Geometry must be slab, cylinder, sphere or pack: " + kind);
}

int run(int argc, char** argv) {
    const OptionParser options(
        argc, argv,
        {{"--output", "--size", "--cell-size", "--width", "--radius", "--radius-spread",
          "--porosity", "--mineral", "--clay-thickness", "--clay-fraction", "--seed", "--margin"},
         {"--help"},
         {{"-o", "--output"}, {"-h", "--help"}}});
    if (options.has("--help")) {
        std::cout << kUsage;
        return 0;
    }
    const std::string kind = options.onlyPositional("geometry (slab, cylinder, sphere, pack)");
    const std::string& output = options.required("--output");
    const double cellSize = options.number("--cell-size", 1.0);
    const auto marginText = options.value("--margin");
    const Margins margins =
        marginText ? parseTriple(*marginText, "Margin must be M or MXxMYxMZ", 0) : Margins{0, 0, 0};

    const auto geometry = makeGeometry(kind, options);
    prepareOutputFolder(output);
    const PoreStatistics stats = writeGeometry(*geometry, output, cellSize, margins);

    std::cout << "Wrote " << output << ": " << geometry->nx() << " x " << geometry->ny() << " x "
              << geometry->nz() << " cells of " << cellSize << " um";
    if (margins != Margins{0, 0, 0})
        std::cout << " plus margins " << margins[0] << " " << margins[1] << " " << margins[2];
    std::cout << "\n";
    if (const auto* pack = dynamic_cast<const SpherePack*>(geometry.get()))
        std::cout << "Grains: " << pack->spheres().size() << "\n";
    std::cout << "Porosity: " << stats.porosity() << "\n";
    if (stats.count(Mineral::Clay) > 0)
        std::cout << "Clay fraction: " << stats.volumeFraction(Mineral::Clay) << "\n";
    std::cout << "Pore-solid voxel faces: " << stats.poreSolidFaces() << "\n";
    std::cout << "Surface-to-volume ratio S/V (1/um): " << stats.surfaceToVolume(cellSize) << "\n";
    return 0;
}

}  // namespace

int main(int argc, char** argv) { return nmr::tools::runTool("nmrwalk-grid", run, argc, argv); }
