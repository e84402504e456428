#include <gtest/gtest.h>

#include <boost/math/special_functions/bessel.hpp>
#include <cmath>

#include "analysis/brownstein_tarr.h"
#include "common/exception.h"

namespace nmr::analysis {
namespace {

class BrownsteinTarrTest : public ::testing::TestWithParam<std::tuple<PoreShape, double>> {};

TEST_P(BrownsteinTarrTest, ModesSolveTheirEquationAndSumToTheMeanLifetime) {
    const auto [shape, kappa] = GetParam();
    const double a = 10e-6, d = 2.5e-9, rho = kappa * d / a;
    const auto modes = relaxationModes(shape, a, rho, d, 400);
    double amplitudes = 0.0, lifetime = 0.0, previous = 0.0;
    for (const auto& m : modes) {
        ASSERT_GT(m.xi, previous);
        previous = m.xi;
        using boost::math::cyl_bessel_j;
        const double lhs = shape == PoreShape::Slab ? m.xi * std::tan(m.xi)
                           : shape == PoreShape::Cylinder
                               ? m.xi * cyl_bessel_j(1, m.xi) / cyl_bessel_j(0, m.xi)
                               : 1.0 - m.xi / std::tan(m.xi);
        // The tan / Bessel-ratio form amplifies the rounding of xi by about xi near the
        // poles, hence a tolerance growing with xi.
        ASSERT_NEAR(lhs, kappa, 1e-10 * std::max(1.0, kappa) * (1.0 + m.xi)) << "xi " << m.xi;
        EXPECT_GE(m.amplitude, 0.0);
        amplitudes += m.amplitude;
        lifetime += m.amplitude * m.t2;
    }
    // Once xi_n is well above kappa the amplitudes fall off as kappa^2 / xi_n^4, so 400
    // modes leave a tail far below 1e-4 for kappa <= 50.
    EXPECT_NEAR(amplitudes, 1.0, 1e-4);
    EXPECT_NEAR(lifetime / meanLifetime(shape, a, rho, d), 1.0, 1e-4);
    EXPECT_NEAR(relaxivityForSlowestT2(shape, a, d, modes[0].t2) / rho, 1.0, 1e-9);
}

INSTANTIATE_TEST_SUITE_P(ShapesAndWalls, BrownsteinTarrTest,
                         ::testing::Combine(::testing::Values(PoreShape::Slab, PoreShape::Cylinder,
                                                              PoreShape::Sphere),
                                            ::testing::Values(0.01, 1.0, 50.0)));

TEST(BrownsteinTarr, LimitsOfWeakAndStrongWalls) {
    const double a = 5e-6, d = 2e-9, rho = 1e-7;
    // Weak wall (fast diffusion): one mode with 1/T2 = rho S/V, S/V = 1/a, 2/a, 3/a.
    // Absorbing wall: the first roots tend to pi/2, the first zero of J0 and pi.
    const std::tuple<PoreShape, double, double> cases[] = {
        {PoreShape::Slab, 1.0, M_PI / 2},
        {PoreShape::Cylinder, 2.0, 2.404825557695773},
        {PoreShape::Sphere, 3.0, M_PI}};
    for (const auto& [shape, sv, root] : cases) {
        const auto modes = relaxationModes(shape, a, rho, d, 3);
        EXPECT_NEAR(modes[0].amplitude, 1.0, 1e-3);
        EXPECT_NEAR(modes[0].t2 * rho * sv / a, 1.0, 1e-3) << poreShapeName(shape);
        EXPECT_NEAR(eigenvalueRoot(shape, 1e7, 0), root, 1e-6) << poreShapeName(shape);
    }
    // No relaxivity makes the slowest mode faster than the absorbing limit.
    EXPECT_THROW(relaxivityForSlowestT2(PoreShape::Sphere, a, d, 0.5 * a * a / (d * M_PI * M_PI)),
                 Exception);
    EXPECT_THROW(eigenvalueRoot(PoreShape::Slab, 0.0, 0), Exception);
}

}  // namespace
}  // namespace nmr::analysis
