#include "walk/clay_micro_porosity.h"

#include <cmath>

namespace nmr {
namespace {

constexpr int kComponents = 11;
// Exponent of the fractal pore-size distribution: the number of pores per unit radius
// falls as R^-(d+1).
constexpr double kFractalExponent = 1.7;
// Smallest micro-pore radius of fully porous clay, in metres (50 nm).
constexpr double kSmallestPoreRadius = 0.00000005;

// Fills `out` with kComponents pores at log-spaced radii from rLow to rHigh (m) lined
// with relaxivity rho (m/s) and returns the amplitude-weighted mean T2 in ms.
//
// Per radius, surfaceWeight ~ R^2 n(R) is the pore surface and volumeWeight ~ R^3 n(R)
// the pore volume at that radius. A pore of radius R in the fast-diffusion regime has
// T2 = (V/S) / rho = R / (3 rho): 333.33... * volume / surface / rho in ms.
//
// Amplitudes come from the volume weight: the NMR signal of a pore is proportional to
// the water it holds, not to its wall area. With d = 1.7 the volume weight grows
// mildly with R (R^0.3), so the larger micro-pores carry slightly more signal.
double buildComponents(double rLow, double rHigh, double rho, ClayComponents& out) {
    out.t2.assign(kComponents, 0.0);
    out.amplitude.assign(kComponents, 0.0);
    double volumeSum = 0.0;
    for (int k = 0; k < kComponents; ++k) {
        const double radius = rLow * std::pow(rHigh / rLow, k / 10.0);
        const double ratio = radius / rLow;
        const double surfaceWeight = rLow * rLow * std::pow(ratio, 2.0 - (kFractalExponent + 1.0));
        const double volumeWeight =
            rLow * rLow * rLow * std::pow(ratio, 3.0 - (kFractalExponent + 1.0));
        out.t2[k] = 333.3333333333333 * (volumeWeight / surfaceWeight) / rho;
        out.amplitude[k] = volumeWeight;
        volumeSum += volumeWeight;
    }
    // The last component's T2 is the mean of the last two, not its own: a long-standing
    // rule of this model, kept so that T2_micro and the clay signal stay comparable.
    out.t2[kComponents - 1] = (out.t2[kComponents - 1] + out.t2[kComponents - 2]) / 2.0;
    double meanT2 = 0.0;
    for (int k = 0; k < kComponents; ++k) {
        out.amplitude[k] /= volumeSum;
        meanT2 += out.amplitude[k] * out.t2[k];
    }
    return meanT2;
}

}  // namespace

ClayMicroPorosityModel buildClayMicroPorosityModel(double clayMicroPorosity, double voxelSize,
                                                   double clayRelaxivity, double quartzRelaxivity) {
    ClayMicroPorosityModel model;
    // Micro-pore sizes scale with the clay's porosity: from mu * 50 nm up to mu voxels.
    const double rHigh = clayMicroPorosity * voxelSize;
    const double rLow = clayMicroPorosity * kSmallestPoreRadius;
    if (!(rLow < rHigh)) return model;  // no micro-pore range: no clay signal, T2_micro 0

    model.t2Micro = buildComponents(rLow, rHigh, clayRelaxivity, model.listA);

    // List B covers the same pore-size range as list A: the same micro-pores, lined by
    // quartz instead of clay, so only the relaxivity differs. Its mean T2 plays no part
    // in T2_micro. Pores as large as a voxel (mu >= 1) are resolved by the walk itself,
    // so then list B carries no signal: zero amplitudes make its sum exactly 0, which
    // gives list A the full weight in the decay amplitude.
    if (rHigh < voxelSize) {
        buildComponents(rLow, rHigh, quartzRelaxivity, model.listB);
    } else {
        model.listB.t2 = model.listA.t2;
        model.listB.amplitude.assign(model.listA.size(), 0.0);
    }
    return model;
}

}  // namespace nmr
