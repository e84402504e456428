#pragma once

#include <cmath>
#include <cstdint>

namespace nmr {

// cos(x) from additions, multiplications and one rounding to an integer only, so that a
// phase gives the same bits on every x86-64 machine: the C library's cos picks an FMA
// variant by CPU, which can change the last bit, and a sum over walkers would carry that
// on. The argument is reduced by multiples of pi/2 (pi/2 in two parts, so that phases of
// thousands of radians keep their digits) into [-pi/4, pi/4], where the Taylor series of
// cos to r^16 and of sin to r^17 leave less than a unit in the last place. Within a few
// units in the last place of the true cosine for |x| below 1e5.
inline double stableCos(double x) {
    constexpr double kTwoOverPi = 0.63661977236758134308;
    constexpr double kHalfPiHigh = 1.5707963267341256;    // pi/2 to 33 bits
    constexpr double kHalfPiLow = 6.077100506506192e-11;  // the rest of pi/2
    const double n = std::nearbyint(x * kTwoOverPi);
    const double r = (x - n * kHalfPiHigh) - n * kHalfPiLow;
    const double r2 = r * r;
    const double cosine =
        1.0 - r2 * (1.0 / 2 -
                    r2 * (1.0 / 24 -
                          r2 * (1.0 / 720 -
                                r2 * (1.0 / 40320 - r2 * (1.0 / 3628800 -
                                                          r2 * (1.0 / 479001600 -
                                                                r2 * (1.0 / 87178291200.0 -
                                                                      r2 / 20922789888000.0)))))));
    const double sine =
        r * (1.0 -
             r2 * (1.0 / 6 -
                   r2 * (1.0 / 120 -
                         r2 * (1.0 / 5040 - r2 * (1.0 / 362880 -
                                                  r2 * (1.0 / 39916800 -
                                                        r2 * (1.0 / 6227020800.0 -
                                                              r2 * (1.0 / 1307674368000.0 -
                                                                    r2 / 355687428096000.0))))))));
    switch (static_cast<std::int64_t>(n) & 3) {
        case 0:
            return cosine;
        case 1:
            return -sine;
        case 2:
            return -cosine;
        default:
            return sine;
    }
}

}  // namespace nmr
