#pragma once

#include <vector>

namespace nmr {

// A discrete T2 spectrum: T2 in ms and amplitudes summing to 1, index-aligned.
struct ClayComponents {
    std::vector<double> t2;
    std::vector<double> amplitude;
    bool empty() const { return t2.empty(); }
    std::size_t size() const { return t2.size(); }
};

// The signal of water in the micro-pores of clay voxels, which the walk cannot resolve.
// List A: pores lined by clay (clay relaxivity); list B: the same pore sizes lined by
// quartz. Whenever list A is non-empty list B has the same length (zero amplitudes
// where it does not apply), because the decay amplitude reads B at A's indices.
struct ClayMicroPorosityModel {
    ClayComponents listA;
    ClayComponents listB;
    // Amplitude-weighted mean T2 of list A in ms (0 without list A); the walk switches
    // from the fine to the coarse step there.
    double t2Micro = 0.0;
};

// clayMicroPorosity 0..1, voxelSize in m, relaxivities (m/s) of Clay and Quartz.
ClayMicroPorosityModel buildClayMicroPorosityModel(double clayMicroPorosity, double voxelSize,
                                                   double clayRelaxivity, double quartzRelaxivity);

}  // namespace nmr
