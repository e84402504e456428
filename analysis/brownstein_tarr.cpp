#include "analysis/brownstein_tarr.h"

#include <boost/math/special_functions/bessel.hpp>
#include <cmath>

#include "common/exception.h"

namespace nmr::analysis {

namespace {

double j0(double x) { return boost::math::cyl_bessel_j(0, x); }
double j1(double x) { return boost::math::cyl_bessel_j(1, x); }
double j0Zero(std::size_t n) {
    return boost::math::cyl_bessel_j_zero(0.0, static_cast<int>(n));
}  // n >= 1
double j1Zero(std::size_t n) { return boost::math::cyl_bessel_j_zero(1.0, static_cast<int>(n)); }

// Each equation written without poles, so that a sign change in the bracket means a root.
double residual(PoreShape shape, double kappa, double xi) {
    switch (shape) {
        case PoreShape::Slab:
            return xi * std::sin(xi) - kappa * std::cos(xi);
        case PoreShape::Cylinder:
            return xi * j1(xi) - kappa * j0(xi);
        case PoreShape::Sphere:
            return (1.0 - kappa) * std::sin(xi) - xi * std::cos(xi);
    }
    return 0.0;
}

double bisect(PoreShape shape, double kappa, double lo, double hi) {
    double flo = residual(shape, kappa, lo);
    if (flo == 0.0) return lo;
    for (int i = 0; i < 200 && hi - lo > 1e-15 * hi; ++i) {
        const double mid = 0.5 * (lo + hi);
        const double fmid = residual(shape, kappa, mid);
        if (fmid == 0.0) return mid;
        if ((fmid < 0.0) == (flo < 0.0)) {
            lo = mid;
            flo = fmid;
        } else {
            hi = mid;
        }
    }
    return 0.5 * (lo + hi);
}

}  // namespace

PoreShape parsePoreShape(const std::string& name) {
    if (name == "slab") return PoreShape::Slab;
    if (name == "cylinder") return PoreShape::Cylinder;
    if (name == "sphere") return PoreShape::Sphere;
    throw Exception("Pore shape must be slab, cylinder or sphere: " + name);
}

std::string poreShapeName(PoreShape shape) {
    switch (shape) {
        case PoreShape::Slab:
            return "slab";
        case PoreShape::Cylinder:
            return "cylinder";
        case PoreShape::Sphere:
            return "sphere";
    }
    return "?";
}

double eigenvalueRoot(PoreShape shape, double kappa, std::size_t n) {
    if (!(kappa > 0.0))
        throw Exception("kappa = rho a / D must be positive: " + std::to_string(kappa));
    const double pi = M_PI, k = static_cast<double>(n);
    switch (shape) {
        case PoreShape::Slab:  // xi_n in (n pi, n pi + pi/2)
            return bisect(shape, kappa, k * pi, k * pi + 0.5 * pi);
        case PoreShape::Cylinder:  // xi_n between the n-th zero of J1 (0 for n = 0) and the next
                                   // zero of J0
            return bisect(shape, kappa, n == 0 ? 0.0 : j1Zero(n), j0Zero(n + 1));
        case PoreShape::Sphere: {
            if (n > 0) return bisect(shape, kappa, k * pi, (k + 1.0) * pi);
            // Near 0 the residual is xi (xi^2/3 - kappa): start the bracket below sqrt(3 kappa).
            const double lo = kappa < 1.0 ? 0.5 * std::sqrt(3.0 * kappa) : 0.5 * pi;
            return bisect(shape, kappa, lo, pi);
        }
    }
    return 0.0;
}

double modeAmplitude(PoreShape shape, double xi) {
    switch (shape) {
        case PoreShape::Slab:
            return 4.0 * std::sin(xi) * std::sin(xi) / (xi * (2.0 * xi + std::sin(2.0 * xi)));
        case PoreShape::Cylinder: {
            const double a = j0(xi), b = j1(xi);
            return 4.0 * b * b / (xi * xi * (a * a + b * b));
        }
        case PoreShape::Sphere: {
            const double u = std::sin(xi) - xi * std::cos(xi);
            return 12.0 * u * u / (xi * xi * xi * (2.0 * xi - std::sin(2.0 * xi)));
        }
    }
    return 0.0;
}

std::vector<RelaxationMode> relaxationModes(PoreShape shape, double a, double rho, double d,
                                            std::size_t count) {
    if (!(a > 0.0) || !(d > 0.0))
        throw Exception("Pore size and diffusion constant must be positive: " + std::to_string(a) +
                        ", " + std::to_string(d));
    const double kappa = rho * a / d;
    std::vector<RelaxationMode> modes;
    modes.reserve(count);
    for (std::size_t n = 0; n < count; ++n) {
        const double xi = eigenvalueRoot(shape, kappa, n);
        modes.push_back({xi, modeAmplitude(shape, xi), a * a / (d * xi * xi)});
    }
    return modes;
}

double meanLifetime(PoreShape shape, double a, double rho, double d) {
    switch (shape) {
        case PoreShape::Slab:
            return a * a / (3.0 * d) + a / rho;
        case PoreShape::Cylinder:
            return a * a / (8.0 * d) + a / (2.0 * rho);
        case PoreShape::Sphere:
            return a * a / (15.0 * d) + a / (3.0 * rho);
    }
    return 0.0;
}

double relaxivityForSlowestT2(PoreShape shape, double a, double d, double t2) {
    // T_0 = a^2 / (D xi_0^2) and kappa(xi) is explicit, so no search is needed.
    const double xi = a / std::sqrt(d * t2);
    const double limit = shape == PoreShape::Slab       ? 0.5 * M_PI
                         : shape == PoreShape::Cylinder ? j0Zero(1)
                                                        : M_PI;
    if (!(xi > 0.0) || xi >= limit)
        throw Exception("T2 at or below the diffusion limit of the pore: " + std::to_string(t2));
    double kappa = 0.0;
    switch (shape) {
        case PoreShape::Slab:
            kappa = xi * std::tan(xi);
            break;
        case PoreShape::Cylinder:
            kappa = xi * j1(xi) / j0(xi);
            break;
        case PoreShape::Sphere:
            kappa = 1.0 - xi / std::tan(xi);
            break;
    }
    return kappa * d / a;
}

}  // namespace nmr::analysis
