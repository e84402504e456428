#pragma once

#include <pybind11/pybind11.h>

namespace nmr::python {

// Defines _nmrwalk.cpmg, the echo trains of nmrwalk-sequence cpmg at one process.
void defineCpmg(pybind11::module_& m);

}  // namespace nmr::python
