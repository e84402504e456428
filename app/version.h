#pragma once

#include <string>

namespace nmr::app {

// The three lines printed for -V, each ending in a line end: the program path with the
// program's name, version and build platform; the compiler; who develops it.
// Every part but the path is fixed when the build is configured.
std::string versionBanner(const std::string& programPath);

}  // namespace nmr::app
