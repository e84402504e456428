// nmrwalk-import: converts a segmented micro-CT volume into a grain bed grid file.

#include <cmath>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "common/exception.h"
#include "common/output_file.h"
#include "rock/grid_export.h"
#include "rock/label_map.h"
#include "rock/meta_image.h"
#include "rock/tiff_stack_reader.h"
#include "tools/option_parser.h"

namespace {

using namespace nmr;
using namespace nmr::tools;
using namespace nmr::rock;

constexpr char kUsage[] = R"(Usage: nmrwalk-import INPUT -o FILE.binc --labels MAP [options]

Converts a segmented volume into a grain bed grid file, one slice at a time.

Inputs (chosen by extension unless --format is given):
  .mhd/.mha        MetaImage header with its data file (MET_UCHAR, MET_CHAR,
                   MET_USHORT, MET_SHORT)
  .tif/.tiff       multi-page TIFF, page k = slice z (8 or 16 bits, one sample)
  anything else    headerless voxels, x fastest: needs --size and --type

Options:
  -o, --output FILE        grid file to write (required; a missing folder is made)
  --labels MAP             label=mineral pairs, e.g. "0=Pore,1=Quartz,2=Clay" with
                           the minerals' display names (required); every label
                           present in the volume must be named
  --voxel-size UM          voxel edge in micrometres (required for raw and TIFF;
                           overrides a MetaImage ElementSpacing)
  --spacing-unit U         unit of a MetaImage ElementSpacing: mm (default), um, m
  --size N | NXxNYxNZ      raw: volume size in voxels; others: checked if given
  --type T                 raw: uint8 (default), int8, uint16, int16 (little-endian)
  --format F               raw, mhd or tiff
  -h, --help               this text
)";

std::string lowerExtension(const std::string& path) {
    std::string ext = std::filesystem::path(path).extension().string();
    for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return ext;
}

double unitInMicrometres(const std::string& unit) {
    if (unit == "mm") return 1000.0;
    if (unit == "um") return 1.0;
    if (unit == "m") return 1.0e6;
    throw Exception("Spacing unit must be mm, um or m: " + unit);
}

std::string formatOf(const OptionParser& options, const std::string& input) {
    if (auto format = options.value("--format")) return *format;
    const std::string ext = lowerExtension(input);
    if (ext == ".mhd" || ext == ".mha") return "mhd";
    if (ext == ".tif" || ext == ".tiff") return "tiff";
    return "raw";
}

// The volume reader together with the voxel size and where that size came from.
struct OpenedVolume {
    std::unique_ptr<VolumeReader> reader;
    std::optional<double> voxelSize;
    std::string voxelSizeOrigin = "--voxel-size";
};

// A MetaImage's ElementSpacing gives the voxel size unless --voxel-size overrides it.
void takeSpacing(const MetaImageHeader& header, const OptionParser& options,
                 const std::string& input, OpenedVolume& volume) {
    if (volume.voxelSize || !header.spacing) return;
    const auto& s = *header.spacing;
    if (std::abs(s[0] - s[1]) > 1e-6 * s[0] || std::abs(s[0] - s[2]) > 1e-6 * s[0])
        throw Exception(
            "Grid cells are cubes; give --voxel-size for the anisotropic ElementSpacing "
            "of " +
            input + ": " + std::to_string(s[0]) + " " + std::to_string(s[1]) + " " +
            std::to_string(s[2]));
    const std::string unit = options.value("--spacing-unit").value_or("mm");
    volume.voxelSize = s[0] * unitInMicrometres(unit);
    volume.voxelSizeOrigin = "ElementSpacing in " + unit;
}

OpenedVolume openVolume(const OptionParser& options, const std::string& input,
                        const std::string& format) {
    OpenedVolume volume;
    volume.voxelSize = options.number("--voxel-size");
    if (format == "raw") {
        const auto sizeText = options.value("--size");
        if (!sizeText) throw Exception("A raw volume needs its size (--size NXxNYxNZ): " + input);
        const auto n = parseTriple(*sizeText, "Volume size must be N or NXxNYxNZ with N >= 1", 1);
        const VoxelType type = parseVoxelType(options.value("--type").value_or("uint8"));
        volume.reader =
            std::make_unique<RawVolumeReader>(input, VolumeShape{n[0], n[1], n[2], type});
    } else if (format == "mhd") {
        const MetaImageHeader header = readMetaImageHeader(input);
        takeSpacing(header, options, input, volume);
        volume.reader = openMetaImage(header);
    } else if (format == "tiff") {
        volume.reader = std::make_unique<TiffStackReader>(input);
    } else {
        throw Exception("Format must be raw, mhd or tiff: " + format);
    }
    if (!volume.voxelSize)
        throw Exception(
            "The voxel size is not known; give it in micrometres with --voxel-size for: " + input);
    if (!(*volume.voxelSize > 0.0))
        throw Exception("The voxel size must be positive: " + std::to_string(*volume.voxelSize));
    return volume;
}

// For headered volumes --size is a check against what the header says.
void checkGivenSize(const OptionParser& options, const std::string& input,
                    const VolumeShape& shape) {
    const auto sizeText = options.value("--size");
    if (!sizeText) return;
    const auto n = parseTriple(*sizeText, "Volume size must be N or NXxNYxNZ with N >= 1", 1);
    if (n[0] != shape.nx || n[1] != shape.ny || n[2] != shape.nz)
        throw Exception("Size of " + input + " is " + std::to_string(shape.nx) + "x" +
                        std::to_string(shape.ny) + "x" + std::to_string(shape.nz) +
                        ", not the --size given: " + *sizeText);
}

void printReport(const OpenedVolume& volume, const LabelMap& labels, const std::string& output,
                 const PoreStatistics& stats) {
    const VolumeShape& shape = volume.reader->shape();
    const double voxelSize = *volume.voxelSize;
    std::cout << "Read " << volume.reader->source() << ": " << shape.nx << " x " << shape.ny
              << " x " << shape.nz << " " << voxelTypeName(shape.type) << " voxels\n"
              << "Voxel size (um): " << voxelSize << " (from " << volume.voxelSizeOrigin << ")\n"
              << "Labels: " << labels.describe() << "\n"
              << "Wrote " << output << "\n";
    for (Mineral::Type m : Mineral::allTypes())
        if (stats.count(m) > 0)
            std::cout << "Fraction " << Mineral::name(m) << ": " << stats.volumeFraction(m) << "\n";
    std::cout << "Porosity: " << stats.porosity() << "\n"
              << "Pore-solid voxel faces: " << stats.poreSolidFaces() << "\n"
              << "Surface-to-volume ratio S/V (1/um): " << stats.surfaceToVolume(voxelSize) << "\n";
}

int run(int argc, char** argv) {
    const OptionParser options(
        argc, argv,
        {{"--output", "--labels", "--voxel-size", "--spacing-unit", "--size", "--type", "--format"},
         {"--help"},
         {{"-o", "--output"}, {"-h", "--help"}}});
    if (options.has("--help")) {
        std::cout << kUsage;
        return 0;
    }
    const std::string input = options.onlyPositional("input volume");
    const std::string& output = options.required("--output");
    const LabelMap labels =
        LabelMap::parse(options.required("--labels", "e.g. --labels 0=Pore,1=Quartz"));
    if (!std::filesystem::exists(input))
        throw FileAccessException("Input volume not found: " + input);

    const std::string format = formatOf(options, input);
    const OpenedVolume volume = openVolume(options, input, format);
    if (format != "raw") checkGivenSize(options, input, volume.reader->shape());
    prepareOutputFolder(output);
    const PoreStatistics stats = importVolume(*volume.reader, labels, output, *volume.voxelSize);
    printReport(volume, labels, output, stats);
    return 0;
}

}  // namespace

int main(int argc, char** argv) { return nmr::tools::runTool("nmrwalk-import", run, argc, argv); }
