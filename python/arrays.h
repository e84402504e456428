#pragma once

#include <pybind11/numpy.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

namespace nmr::python {

// A 1-D sequence of numbers as a vector; std::invalid_argument (ValueError) naming the
// argument when it is not 1-D.
inline std::vector<double> listOf(
    const pybind11::array_t<double, pybind11::array::forcecast>& values, const char* name) {
    if (values.ndim() != 1) throw std::invalid_argument(std::string(name) + " must be 1-D");
    const auto view = values.unchecked<1>();
    std::vector<double> out(static_cast<std::size_t>(view.shape(0)));
    for (pybind11::ssize_t i = 0; i < view.shape(0); ++i)
        out[static_cast<std::size_t>(i)] = view(i);
    return out;
}

// Arrays that own a copy, so nothing returned points into a C++ object.
inline pybind11::array_t<double> arrayOf(const std::vector<double>& values) {
    pybind11::array_t<double> out(static_cast<pybind11::ssize_t>(values.size()));
    std::copy(values.begin(), values.end(), out.mutable_data());
    return out;
}

}  // namespace nmr::python
