#pragma once

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "params/nmr_parameters.h"

namespace nmr {

// The YAML parameter file. Its root map holds one key, NuclearMagneticResonanceParameters,
// whose value is the map of settings.
//
// Reads on one process only. Failures the user can fix in the file throw nmr::Exception
// with the message to show. Malformed values (a wrong scalar type, a mineral map that is
// not a map, an unknown mineral name, a region that is not three two-element ranges)
// surface as the YAML library's own exceptions, which derive from std::exception and
// carry the line and column of the offending node. No partial record survives either.
std::unique_ptr<NuclearMagneticResonanceParameters> readParameters(const std::string& path);

// The same for the text of a parameter file; `origin` stands for the path in messages.
std::unique_ptr<NuclearMagneticResonanceParameters> parseParameters(const std::string& text,
                                                                    const std::string& origin);

// The key of the root map ("NuclearMagneticResonanceParameters").
std::string parameterRootKey();
// Every key the settings map may hold, required or optional; the reader ignores others.
const std::set<std::string>& parameterKeys();

// The file text for a record: the root map with the settings in the order of the template.
// echoSpacing is written divided by 1000000.0 while the reader stores what it reads; the
// asymmetry is a long-standing property of the file format and is kept, so a file read and
// written again has its echo spacing divided once more.
std::string encodeParameters(const NuclearMagneticResonanceParameters& parameters);

// Writes encodeParameters() to path (truncating), a line end, and flushes.
// Throws nmr::Exception when the file cannot be written.
void writeParameterFile(const std::string& path,
                        const NuclearMagneticResonanceParameters& parameters);

// One line per setting that makes a run meaningless though it runs (a diffusion constant
// of 0, as the template has, a step or a walker count that is not positive), naming the
// key; empty when there is none. For the caller to show: the run itself goes on.
std::vector<std::string> meaninglessParameterWarnings(
    const NuclearMagneticResonanceParameters& parameters);

// Example values that make a runnable starting point for a new sample.
NuclearMagneticResonanceParameters templateParameters();

void writeTemplateFile(const std::string& path);

}  // namespace nmr
