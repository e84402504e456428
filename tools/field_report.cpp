#include "tools/field_report.h"

#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>

#include "common/exception.h"
#include "field/field_file.h"
#include "tools/option_parser.h"

namespace nmr::tools {

const char kFieldUsage[] = R"(Usage: nmrwalk-field [-o FIELD.mhd] [--padding F]

Computes the internal magnetic field of the rock of a run directory (./nmr.yaml and
its grid) in the static field B0 of the magnet, from the volume susceptibility of
each mineral and of the pore fluid. Runs under mpiexec like nmrwalk; the processes
share the work and each holds a slab of the field.

Conventions:
  - The field is dB/B0 (dimensionless) along B0 at every cell centre, to first
    order in the susceptibilities (SI volume susceptibilities, dimensionless).
  - Lorentz sphere: the field is the one a nucleus feels, so the dipole kernel is
    1/3 - k_par^2/k^2 and its k = 0 term is 0; a uniformly magnetised sphere has
    no field inside.
  - The sample is embedded in its own pore fluid: the source is chi(cell) -
    chi(Pore), zero outside the grid (a region of interest is its own sample).
  - Zero padding: the FFT box holds the grid and zeros, at least F times the grid
    along each axis (rounded up to a product of 2, 3, 5 and 7), so that the
    cyclic images of the sample do not reach into it.
  - The internal gradient |grad dB| = B0 |grad(dB/B0)| in T/m, by central
    differences over cell centres (cell size in micrometres), over the interior
    pore cells; percentiles are nearest-rank.

Keys of nmr.yaml (nmrwalk ignores them):
  volumeSusceptibility  map of mineral name to SI volume susceptibility, with Pore
                        for the pore fluid (water: -9.05e-6); every mineral of
                        the grid needs a value
  staticField           B0 in tesla, > 0
  staticFieldDirection  x, y or z (default z)

Options:
  -o, --output FILE.mhd  field file (default field.mhd); the data go to FILE.raw,
                         the plot data to FILE.json and the plot to FILE.png
  --padding F            FFT box per axis, at least F times the grid (default 2,
                         at least 1)
  -h, --help             this text

Output: FILE.mhd/FILE.raw, a MetaImage of 32-bit floats (x fastest, spacing in
micrometres) that ParaView and ITK read; the line "Internal gradient in pore space
at <B0> T: mean, median, 90th percentile" and the peak memory. Memory: about 21
bytes per cell at one process, about 30 per cell over several. Exit status 1 on
every process after any error, with no output written.
)";

FieldToolOptions parseFieldToolOptions(int argc, const char* const* argv) {
    const OptionParser::Definition definition{
        {"--output", "--padding"}, {"--help"}, {{"-o", "--output"}, {"-h", "--help"}}};
    const OptionParser parser(argc, argv, definition);
    FieldToolOptions options;
    options.help = parser.has("--help");
    if (!parser.positional().empty())
        throw Exception("nmrwalk-field takes no arguments: " + parser.positional().front());
    options.output = parser.value("--output").value_or(options.output);
    options.padding = parser.number("--padding", options.padding);
    field::paddedLength(1, options.padding);
    field::fieldDataPath(options.output);
    return options;
}

std::string besideField(const std::string& headerPath, const std::string& extension) {
    return headerPath.substr(0, headerPath.size() - 4) + "." + extension;
}

std::string gradientLine(double staticField, const field::GradientStatistics& statistics) {
    std::ostringstream line;
    line << "Internal gradient in pore space at " << staticField << " T: ";
    if (statistics.cells == 0) {
        line << "no pore cell in the grid";
    } else {
        line << "mean " << statistics.mean << " T/m, median " << statistics.median
             << " T/m, 90th percentile " << statistics.percentile90 << " T/m";
    }
    return line.str();
}

namespace {

template <typename T>
void writeList(std::ostream& out, const std::vector<T>& values) {
    out << "[";
    for (std::size_t i = 0; i < values.size(); ++i) out << (i ? ", " : "") << values[i];
    out << "]";
}

std::string sizeList(const field::Extent& n) {
    return "[" + std::to_string(n[0]) + ", " + std::to_string(n[1]) + ", " + std::to_string(n[2]) +
           "]";
}

// NaN (a grid without pore) as JSON's null.
std::string number(double value) {
    if (!std::isfinite(value)) return "null";
    std::ostringstream text;
    text.precision(std::numeric_limits<double>::max_digits10);
    text << value;
    return text.str();
}

void writeSlice(std::ostream& out, const Grid<Mineral::Type>& grid, field::Axis direction) {
    const bool alongZ = direction == field::Axis::Z;
    const std::uint32_t rows = alongZ ? grid.nz() : grid.ny();
    const std::uint32_t index = alongZ ? grid.ny() / 2 : grid.nz() / 2;
    out << "  \"slice\": {\"axis\": \"" << (alongZ ? "y" : "z") << "\", \"index\": " << index
        << ", \"rows\": [";
    Mineral::Type cell{};
    for (std::uint32_t r = 0; r < rows; ++r) {
        std::string row(grid.nx(), '0');
        for (std::uint32_t x = 0; x < grid.nx(); ++x) {
            const auto code = static_cast<int>(alongZ ? grid.getCell(cell, x, index, r)
                                                      : grid.getCell(cell, x, r, index));
            row[x] = "0123456789abcdef"[code & 15];
        }
        out << (r ? ", " : "") << "\"" << row << "\"";
    }
    out << "]}\n";
}

}  // namespace

void writeFieldPlotData(const std::string& path, const FieldPlotData& data,
                        const Grid<Mineral::Type>& grid) {
    const field::Extent n{grid.nx(), grid.ny(), grid.nz()};
    const field::GradientStatistics& g = data.statistics;
    std::ofstream out(path, std::ios::trunc);
    std::vector<std::string> edges;
    for (double e : g.edges) edges.push_back(number(e));
    out << "{\n  \"fieldFile\": \"" << std::filesystem::path(data.headerPath).filename().string()
        << "\",\n"
        << "  \"dataFile\": \""
        << std::filesystem::path(field::fieldDataPath(data.headerPath)).filename().string()
        << "\",\n  \"size\": " << sizeList(n) << ",\n  \"cellSizeUm\": " << number(grid.cellSize())
        << ",\n  \"staticFieldT\": " << number(data.staticField) << ",\n  \"direction\": \""
        << field::axisName(data.options.direction)
        << "\",\n  \"padding\": " << number(data.options.padding)
        << ",\n  \"paddedSize\": " << sizeList(field::paddedExtent(n, data.options.padding))
        << ",\n  \"gradient\": {\"cells\": " << g.cells << ", \"meanTPerM\": " << number(g.mean)
        << ", \"medianTPerM\": " << number(g.median)
        << ", \"percentile90TPerM\": " << number(g.percentile90) << ", \"zeros\": " << g.zeros
        << ",\n    \"edges\": ";
    writeList(out, edges);
    out << ",\n    \"counts\": ";
    writeList(out, g.counts);
    out << "},\n";
    writeSlice(out, grid, data.options.direction);
    out << "}\n";
    out.close();
    if (!out) throw FileAccessException("Cannot write the plot data " + path);
}

}  // namespace nmr::tools
