#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "inversion/data_file.h"
#include "sequence/cpmg.h"
#include "sequence/dt2.h"
#include "tools/option_parser.h"

namespace nmr::tools {

extern const char kDt2Usage[];

struct Dt2Options {
    double diffusionTimeMs = 0.0;
    std::vector<double> bValues;           // s/m^2, given
    std::optional<std::uint32_t> bPoints;  // or this many from 0 to kDt2BMax / D0
    double echoSpacingMs = 0.2;
    std::optional<std::uint32_t> echoes;
};

// Throws nmr::Exception naming the offending option.
Dt2Options parseDt2Options(const OptionParser& parser);

// What a checkpoint of the walk belongs to, beyond nmr.yaml and the grid.
std::string dt2Fingerprint(const Dt2Plan& plan);

// dt2.out ("<b s/m^2> <time ms> <amplitude>", time since excitation, amplitude with every
// digit), then DT2map.out and DT2map.png from it with the figures of the inversion.
void writeDt2Outputs(const Dt2Data& data, double d0);

}  // namespace nmr::tools
