#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "grid/mineral.h"

namespace nmr::rock {

// A synthetic rock that can be rasterised one z slice at a time, so that a grid far
// larger than memory can be streamed straight into a grid file. Coordinates are in
// voxel units; voxel (x, y, z) covers [x, x+1) x [y, y+1) x [z, z+1), the same
// convention as the walk, and is classified by its centre.
class PoreGeometry {
public:
    virtual ~PoreGeometry() = default;
    std::uint32_t nx() const { return nx_; }
    std::uint32_t ny() const { return ny_; }
    std::uint32_t nz() const { return nz_; }
    // Fills nx * ny cells of slice z, x fastest. Any z in [0, nz) may be asked for, in
    // any order.
    virtual void fillSlice(std::uint32_t z, GrainBedGridCell* cells) const = 0;

protected:
    PoreGeometry(std::uint32_t nx, std::uint32_t ny, std::uint32_t nz)
        : nx_(nx), ny_(ny), nz_(nz) {}
    std::uint32_t nx_, ny_, nz_;
};

// What the solid is made of. Clay, when thickness > 0, coats the grain surfaces on the
// pore side: it takes pore space, it does not eat into the grains.
struct SolidMaterial {
    Mineral::Type grainMineral = Mineral::Quartz;
    double clayThickness = 0.0;  // voxels
};

// A single planar pore of `width` voxels across x, centred, spanning the whole y and z
// extent. The walk mirrors the grid at its faces, so this is an infinite slab between
// two infinite walls.
class SlabPore final : public PoreGeometry {
public:
    // Throws nmr::Exception when the slab leaves no solid layer on either side in x.
    SlabPore(std::uint32_t nx, std::uint32_t ny, std::uint32_t nz, std::uint32_t width,
             SolidMaterial solid);
    void fillSlice(std::uint32_t z, GrainBedGridCell* cells) const override;

private:
    std::vector<GrainBedGridCell> row_;  // every row of every slice is the same
};

// A cylindrical pore of radius r (voxels) along z, its axis through the centre of the
// x-y cross-section. Mirrored in z it is infinitely long.
class CylinderPore final : public PoreGeometry {
public:
    // Throws nmr::Exception when the pore would touch the x or y faces.
    CylinderPore(std::uint32_t nx, std::uint32_t ny, std::uint32_t nz, double radius,
                 SolidMaterial solid);
    void fillSlice(std::uint32_t z, GrainBedGridCell* cells) const override;

private:
    std::vector<GrainBedGridCell> slice_;  // every slice is the same
};

// A spherical pore of radius r (voxels) at the centre of the grid.
class SpherePore final : public PoreGeometry {
public:
    // Throws nmr::Exception when the pore would touch a face of the grid.
    SpherePore(std::uint32_t nx, std::uint32_t ny, std::uint32_t nz, double radius,
               SolidMaterial solid);
    void fillSlice(std::uint32_t z, GrainBedGridCell* cells) const override;

private:
    double radius_;
    SolidMaterial solid_;
};

struct SpherePackSettings {
    double radius = 8.0;          // mean grain radius, voxels
    double radiusSpread = 0.0;    // radii uniform in radius * [1 - spread, 1 + spread]
    double targetPorosity = 0.2;  // fraction of pore voxels wanted, after the clay coating
    double clayFraction = 1.0;    // share of grains that carry the clay coating
    std::uint64_t seed = 1;
    SolidMaterial solid;
};

// Grains as overlapping spheres with centres uniformly at random (a Boolean model),
// dropped one after another until the pore fraction reaches the target. The centres are
// drawn from the grid widened by the largest grain on every side, so the faces see the
// same grain density as the middle. Only the sphere list is kept; slices are rasterised
// on demand.
class SpherePack final : public PoreGeometry {
public:
    struct Sphere {
        double x, y, z;
        double radius;
        double coating;       // clay thickness on this grain, 0 when uncoated
        std::uint32_t index;  // draw order; the grain number written is index + 1
    };

    // Throws nmr::Exception on a porosity outside (0, 1), a non-positive radius, a
    // spread outside [0, 1) or a clay fraction outside [0, 1].
    SpherePack(std::uint32_t nx, std::uint32_t ny, std::uint32_t nz,
               const SpherePackSettings& definition);
    void fillSlice(std::uint32_t z, GrainBedGridCell* cells) const override;

    const std::vector<Sphere>& spheres() const { return spheres_; }
    // The pore fraction of the sphere list kept, counted exactly while choosing it.
    double porosity() const { return porosity_; }

private:
    void drawSpheres(std::vector<Sphere>& spheres, std::size_t count) const;
    // Pore voxels left by every prefix of the candidate list (in draw order): entry k
    // counts the voxels that none of the first k spheres covers with its coating.
    // One pass over the grid, one slice of scratch memory.
    std::vector<std::uint64_t> poreCountByPrefix(std::vector<Sphere> candidates) const;
    // The spheres of `sorted` (ordered by centre z) that may reach the centres of slice z.
    std::pair<std::size_t, std::size_t> sliceRange(const std::vector<Sphere>& sorted,
                                                   std::uint32_t z) const;

    SpherePackSettings pack_;      // the grains to drop and their coat
    double maxReach_ = 0.0;        // largest radius + coating, voxels
    std::vector<Sphere> spheres_;  // the kept spheres, ordered by centre z
    double porosity_ = 1.0;
};

}  // namespace nmr::rock
