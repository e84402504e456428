#pragma once

#include <pybind11/pybind11.h>

namespace nmr::python {

// Defines _nmrwalk.dt2, the diffusion-editing data of nmrwalk-sequence dt2 at one process.
void defineDt2(pybind11::module_& m);

}  // namespace nmr::python
