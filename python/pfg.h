#pragma once

#include <pybind11/pybind11.h>

namespace nmr::python {

// Defines _nmrwalk.pfg, the narrow-pulse signal of nmrwalk-sequence pfg at one process.
void definePfg(pybind11::module_& m);

}  // namespace nmr::python
