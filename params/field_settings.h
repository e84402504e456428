#pragma once

#include <optional>
#include <set>
#include <string>

#include "grid/mineral_value_map.h"

namespace nmr {

// The settings of the internal-field computation, optional keys of nmr.yaml beside the
// run's own. nmrwalk never reads them (a mistake in them cannot stop a walk), nmrwalk -p
// never writes them, and the parameter broadcast does not carry them: the program that
// needs them reads them on process 0 and sends on what it uses.
struct FieldSettings {
    // SI volume susceptibility by mineral; Pore holds the pore fluid's. Always has Pore.
    MineralValueMap<double> volumeSusceptibility;
    double staticField = 0.0;  // B0, tesla, > 0
    char staticFieldDirection = 'z';
};

// Reads the settings from the parameter file at path (one process). Every refusal throws
// nmr::Exception with the text to show, naming the key and the offending value: a missing
// volumeSusceptibility or staticField, a name in volumeSusceptibility that is no mineral,
// no Pore entry, a value that is not a finite number, a staticField that is not positive,
// a staticFieldDirection other than x, y or z.
FieldSettings readFieldSettings(const std::string& path);
// The same for the text of a parameter file; `origin` stands for the path in messages.
FieldSettings parseFieldSettings(const std::string& text, const std::string& origin);

// For programs to which the field is optional: nothing when nmr.yaml has neither
// staticField nor volumeSusceptibility; staticField (with its direction) alone, and an
// empty volumeSusceptibility, when it has no susceptibilities; otherwise as above
// (volumeSusceptibility without staticField is refused).
std::optional<FieldSettings> readOptionalFieldSettings(const std::string& path);
std::optional<FieldSettings> parseOptionalFieldSettings(const std::string& text,
                                                        const std::string& origin);

// volumeSusceptibility, staticField, staticFieldDirection.
const std::set<std::string>& fieldSettingKeys();

}  // namespace nmr
