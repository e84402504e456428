#pragma once

#include <string>
#include <vector>

namespace nmr::tools {

// The folder of the running program; the build and an install put nmrwalk-plot there,
// beside the programs that call it. "." when /proc cannot tell.
std::string programDirectory();

// Runs "<directory>/nmrwalk-plot <arguments>" with its standard output discarded. True
// when it drew; false when it failed (no python3 or matplotlib, say), which costs the
// caller a picture and a warning, never the run.
bool runPlotScript(const std::string& directory, const std::vector<std::string>& arguments);

}  // namespace nmr::tools
