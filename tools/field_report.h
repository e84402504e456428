#pragma once

#include <ostream>
#include <string>

#include "field/dipole_field.h"
#include "field/gradient_statistics.h"
#include "grid/grid.h"

// What nmrwalk-field alone needs: its command line, its printed report and the data of its
// plot.
namespace nmr::tools {

extern const char kFieldUsage[];

struct FieldToolOptions {
    std::string output = "field.mhd";
    double padding = field::kDefaultPadding;
    bool help = false;
};

// Throws nmr::Exception with the text to show: an unknown option, an argument, a padding
// that is not a number of at least 1, an output not named <name>.mhd.
FieldToolOptions parseFieldToolOptions(int argc, const char* const* argv);

// "<name>.<extension>" beside "<name>.mhd".
std::string besideField(const std::string& headerPath, const std::string& extension);

// The line "Internal gradient in pore space at <B0> T: mean <g> T/m, median <g> T/m, 90th
// percentile <g> T/m", or the note that the grid has no pore cell.
std::string gradientLine(double staticField, const field::GradientStatistics& statistics);

// What the plot draws, written as JSON for the plotting script: the field file's name, the
// grid and FFT sizes, B0, the gradient statistics and histogram, and the mineral codes of the
// plotted slice. The slice holds B0 and x: the middle y plane (rows z) when B0 is along z,
// else the middle z plane (rows y); each row is a string of hex digits, one per cell, x
// first.
struct FieldPlotData {
    std::string headerPath;
    field::FieldOptions options;
    double staticField = 0.0;
    field::GradientStatistics statistics;
};
void writeFieldPlotData(const std::string& path, const FieldPlotData& data,
                        const Grid<Mineral::Type>& grid);

}  // namespace nmr::tools
