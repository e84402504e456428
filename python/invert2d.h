#pragma once

#include <pybind11/pybind11.h>

namespace nmr::python {

// Defines _nmrwalk.invert2d, the D-T2 / T1-T2 map of nmrwalk-invert --dt2 / --t1t2.
void defineInvert2d(pybind11::module_& m);

}  // namespace nmr::python
