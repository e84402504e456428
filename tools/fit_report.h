#pragma once

#include <ostream>
#include <string>

#include "analysis/decay_file.h"
#include "fit/relaxivity_fit.h"
#include "params/nmr_parameters.h"
#include "tools/fit_options.h"

namespace nmr::tools {

// The what-if table of --sweep: per relaxivity the T2LM of the simulated distribution and
// the misfit.
void printSweep(std::ostream& out, const fit::RelaxivityFit& fitter, const fit::SweepRequest& sweep,
                const NuclearMagneticResonanceParameters& parameters);

// The fit's lines on `out` and its warnings on `err`, the fitted parameter file (the
// parameter file at parameterPath with the fitted relaxivities in place, everything else as
// it was), and the plot of the fit beside it with its data (T2fit.png and T2fit.json for the
// default name, <stem>.png and <stem>.json for another), drawn by nmrwalk-plot from
// programDirectory.
void reportFit(std::ostream& out, std::ostream& err, const fit::RelaxivityFit& fitter,
               const fit::FitResult& result, const fit::FitRequest& request,
               const analysis::MeasuredDecay& measured,
               const NuclearMagneticResonanceParameters& parameters, const FitOptions& options,
               const std::string& parameterPath, const std::string& programDirectory);

}  // namespace nmr::tools
