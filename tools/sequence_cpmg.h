#pragma once

#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "sequence/cpmg.h"
#include "tools/option_parser.h"

namespace nmr::tools {

extern const char kCpmgUsage[];

struct CpmgOptions {
    CpmgRequest request;
    std::optional<std::string> field;
};

// Throws nmr::Exception naming the offending option.
CpmgOptions parseCpmgOptions(const OptionParser& parser);

// What a checkpoint of one echo spacing's walk belongs to, beyond nmr.yaml and the grid.
std::string cpmgFingerprint(const CpmgOptions& options, const EchoSpacingPlan& plan);

// cpmg.out, cpmg_inversion.out (each whole or absent) and cpmg.png, whose failure is a
// warning on err.
void writeCpmgOutputs(const std::vector<EchoTrain>& trains, std::ostream& err);

}  // namespace nmr::tools
