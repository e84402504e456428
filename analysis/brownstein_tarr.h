#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace nmr::analysis {

// Diffusion with surface relaxation in a single pore (the Brownstein-Tarr problem):
// D laplace(m) = dm/dt inside, D dm/dn + rho m = 0 on the wall, m = 1 at t = 0. The
// mean magnetisation is sum_n A_n exp(-t / T_n) with T_n = a^2 / (D xi_n^2), where a is
// the half-width of a slab or the radius of a cylinder or sphere and xi_n the n-th root
// of the shape's eigenvalue equation in kappa = rho a / D:
//   slab      xi tan xi = kappa
//   cylinder  xi J1(xi) / J0(xi) = kappa
//   sphere    1 - xi cot xi = kappa
enum class PoreShape { Slab, Cylinder, Sphere };

PoreShape parsePoreShape(const std::string& name);  // "slab", "cylinder", "sphere"
std::string poreShapeName(PoreShape shape);

struct RelaxationMode {
    double xi;         // root of the eigenvalue equation
    double amplitude;  // share of the initial magnetisation, the A_n sum to 1
    double t2;         // a^2 / (D xi^2), in the unit of a^2 / D
};

// The n-th root (n from 0) for kappa > 0, found by bisection in the bracket that holds
// exactly that root.
double eigenvalueRoot(PoreShape shape, double kappa, std::size_t n);
double modeAmplitude(PoreShape shape, double xi);

// The first `count` modes for size a (m), relaxivity rho (m/s) and diffusion D (m^2/s);
// T2 in seconds.
std::vector<RelaxationMode> relaxationModes(PoreShape shape, double a, double rho, double d,
                                            std::size_t count);

// Mean lifetime of the magnetisation, the integral of m(t): a^2/(3D) + a/rho (slab),
// a^2/(8D) + a/(2 rho) (cylinder), a^2/(15D) + a/(3 rho) (sphere), in seconds.
double meanLifetime(PoreShape shape, double a, double rho, double d);

// The relaxivity that would give the slowest mode the time constant t2 (s): the inverse
// of the first mode's T2 as a function of rho. Used to express a simulated T2 as an
// effective relaxivity. Throws nmr::Exception when t2 is not above the diffusion limit
// a^2 / (D xi_inf^2) that no relaxivity can beat.
double relaxivityForSlowestT2(PoreShape shape, double a, double d, double t2);

}  // namespace nmr::analysis
