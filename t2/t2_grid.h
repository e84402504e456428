#pragma once

#include <cstdint>
#include <vector>

namespace nmr::t2 {

// The logarithmically spaced, ascending axis of T2 values (ms) that the inversion
// distributes amplitudes over. Element 0 is t2Minimum and the last element is exactly
// t2Maximum; the elements between are a running product, so rounding accumulates along
// the axis but never moves its ends. One component gives [t2Maximum]. No validation:
// a count below 1 gives an empty axis, and t2Minimum must be positive.
std::vector<double> makeT2Grid(double t2Minimum, double t2Maximum, std::int32_t t2Components);

}  // namespace nmr::t2
