#pragma once

#include <string>

#include "fit/fit_request.h"

namespace nmr::tools {

extern const char kFitUsage[];

struct FitOptions {
    bool help = false;
    std::string measured;
    fit::FitChoice choice;
    std::string output = "nmr.fitted.yaml";
};

// Throws nmr::Exception naming the offending argument.
FitOptions parseFitOptions(int argc, const char* const* argv);

}  // namespace nmr::tools
