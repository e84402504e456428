#pragma once

#include <pybind11/pybind11.h>

#include <cstdint>
#include <optional>
#include <string>

#include "grid/byte_mineral_grid.h"
#include "params/field_settings.h"
#include "sequence/step_plan.h"
#include "walk/field_map.h"

namespace nmr::python {

// staticField, its direction and volumeSusceptibility from the same settings as the
// run's: the parameter file, or the dict's keys (its YAML text) under the root key.
std::optional<FieldSettings> fieldSettingsOf(const pybind11::object& path,
                                             const std::string& overrides);

// The field map the walkers read: the array given (dB/B0, [z, y, x], the grid's shape), or
// the one nmrwalk-field computes when the settings hold susceptibilities, or none.
FieldMap fieldMapOf(const pybind11::object& given, const std::optional<FieldSettings>& settings,
                    const ByteMineralGrid& grid);

// The echoes asked for (None: none, to be counted); throws std::invalid_argument outside
// 1 .. kMostEchoes.
std::optional<std::uint32_t> echoCountOf(const pybind11::object& echoes);

// B0 and its axis from the settings; none (0 T along z) without them.
StaticField staticFieldOf(const std::optional<FieldSettings>& settings);

// Defines _nmrwalk.cpmg, the echo trains of nmrwalk-sequence cpmg at one process.
void defineCpmg(pybind11::module_& m);

}  // namespace nmr::python
