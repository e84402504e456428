#include "rock/pore_geometry.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <string>

#include "common/exception.h"

namespace nmr::rock {

namespace {

constexpr std::uint32_t kWallGrain = 1;
constexpr std::uint32_t kNoSphere = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint32_t kMaxGrainNumber = 0xFFFFFFu;  // the cell word keeps 24 bits

// Grains are numbered from 1 in draw order; the cell word has 24 bits for the number,
// so an enormous pack shares the last number among its latest grains.
std::uint32_t grainNumber(std::uint32_t index) { return std::min(index + 1, kMaxGrainNumber); }

GrainBedGridCell poreCell() { return GrainBedGridCell::make(0, Mineral::Pore); }
GrainBedGridCell clayCell(std::uint32_t grain) {
    return GrainBedGridCell::make(grain, Mineral::Clay);
}
GrainBedGridCell grainCell(const SolidMaterial& solid, std::uint32_t grain) {
    return GrainBedGridCell::make(grain, solid.grainMineral);
}

// A pore wall at distance `depth` voxels inside the pore: clay within the coating,
// open pore beyond it.
GrainBedGridCell poreSideCell(const SolidMaterial& solid, double depth) {
    return depth < solid.clayThickness ? clayCell(kWallGrain) : poreCell();
}

void checkSolid(const SolidMaterial& solid) {
    if (!Mineral::isValid(solid.grainMineral) || solid.grainMineral == Mineral::Pore)
        throw Exception("The grain mineral must be a solid mineral code: " +
                        std::to_string(solid.grainMineral));
    if (!(solid.clayThickness >= 0.0))
        throw Exception("Clay thickness must not be negative: " +
                        std::to_string(solid.clayThickness));
}

void checkSize(std::uint32_t nx, std::uint32_t ny, std::uint32_t nz) {
    if (nx == 0 || ny == 0 || nz == 0)
        throw Exception("Grid sizes must be at least 1: " + std::to_string(nx) + "x" +
                        std::to_string(ny) + "x" + std::to_string(nz));
}

// Calls row(y, x0, x1) for the voxels of an nx * ny slice whose centres lie in the
// closed disk around (cx, cy) with squared radius r2 (x1 exclusive).
template <typename Row>
void rasteriseDisk(double cx, double cy, double r2, std::uint32_t nx, std::uint32_t ny, Row row) {
    if (r2 < 0.0) return;
    const double r = std::sqrt(r2);
    const auto y0 = static_cast<std::int64_t>(std::max(0.0, std::ceil(cy - r - 0.5)));
    const auto y1 = static_cast<std::int64_t>(
        std::min(static_cast<double>(ny) - 1.0, std::floor(cy + r - 0.5)));
    for (std::int64_t y = y0; y <= y1; ++y) {
        const double dy = static_cast<double>(y) + 0.5 - cy;
        const double h2 = r2 - dy * dy;
        if (h2 < 0.0) continue;
        const double h = std::sqrt(h2);
        const auto x0 = static_cast<std::int64_t>(std::max(0.0, std::ceil(cx - h - 0.5)));
        const auto x1 = static_cast<std::int64_t>(
            std::min(static_cast<double>(nx) - 1.0, std::floor(cx + h - 0.5)));
        if (x0 <= x1)
            row(static_cast<std::uint32_t>(y), static_cast<std::uint32_t>(x0),
                static_cast<std::uint32_t>(x1 + 1));
    }
}

// Uniform in [0, 1) from the top 53 bits: the standard distributions are free to differ
// between library versions, and a seed must give the same rock everywhere.
double uniform(std::mt19937_64& rng) { return static_cast<double>(rng() >> 11) * 0x1.0p-53; }

}  // namespace

SlabPore::SlabPore(std::uint32_t nx, std::uint32_t ny, std::uint32_t nz, std::uint32_t width,
                   SolidMaterial solid)
    : PoreGeometry(nx, ny, nz), row_(nx) {
    checkSize(nx, ny, nz);
    checkSolid(solid);
    // Without a solid layer at x = 0 and x = nx - 1 the mirror image of the pore would
    // join it and the slab would be wider than asked for.
    if (width == 0 || width + 2 > nx)
        throw Exception("The slab needs 1 <= width <= nx - 2 voxels, width: " +
                        std::to_string(width));
    const std::uint32_t x0 = (nx - width) / 2;
    for (std::uint32_t x = 0; x < nx; ++x) {
        if (x < x0 || x >= x0 + width) {
            row_[x] = grainCell(solid, kWallGrain);
        } else {
            const std::uint32_t depth = std::min(x - x0, x0 + width - 1 - x);
            row_[x] = poreSideCell(solid, depth);
        }
    }
}

void SlabPore::fillSlice(std::uint32_t, GrainBedGridCell* cells) const {
    for (std::uint32_t y = 0; y < ny_; ++y)
        std::copy(row_.begin(), row_.end(), cells + std::size_t{y} * nx_);
}

CylinderPore::CylinderPore(std::uint32_t nx, std::uint32_t ny, std::uint32_t nz, double radius,
                           SolidMaterial solid)
    : PoreGeometry(nx, ny, nz), slice_(std::size_t{nx} * ny) {
    checkSize(nx, ny, nz);
    checkSolid(solid);
    if (!(radius > 0.0) || 2.0 * radius + 1.0 > static_cast<double>(std::min(nx, ny)))
        throw Exception("The cylinder needs 0 < 2 * radius + 1 <= min(nx, ny), radius: " +
                        std::to_string(radius));
    const double cx = nx / 2.0, cy = ny / 2.0;
    for (std::uint32_t y = 0; y < ny; ++y)
        for (std::uint32_t x = 0; x < nx; ++x) {
            const double d = std::hypot(x + 0.5 - cx, y + 0.5 - cy);
            slice_[std::size_t{y} * nx + x] =
                d < radius ? poreSideCell(solid, radius - d) : grainCell(solid, kWallGrain);
        }
}

void CylinderPore::fillSlice(std::uint32_t, GrainBedGridCell* cells) const {
    std::copy(slice_.begin(), slice_.end(), cells);
}

SpherePore::SpherePore(std::uint32_t nx, std::uint32_t ny, std::uint32_t nz, double radius,
                       SolidMaterial solid)
    : PoreGeometry(nx, ny, nz), radius_(radius), solid_(solid) {
    checkSize(nx, ny, nz);
    checkSolid(solid);
    if (!(radius > 0.0) || 2.0 * radius + 1.0 > static_cast<double>(std::min({nx, ny, nz})))
        throw Exception("The sphere needs 0 < 2 * radius + 1 <= min(nx, ny, nz), radius: " +
                        std::to_string(radius));
}

void SpherePore::fillSlice(std::uint32_t z, GrainBedGridCell* cells) const {
    const double cx = nx_ / 2.0, cy = ny_ / 2.0, cz = nz_ / 2.0;
    const double dz = z + 0.5 - cz;
    for (std::uint32_t y = 0; y < ny_; ++y)
        for (std::uint32_t x = 0; x < nx_; ++x) {
            const double dx = x + 0.5 - cx, dy = y + 0.5 - cy;
            const double d = std::sqrt(dx * dx + dy * dy + dz * dz);
            cells[std::size_t{y} * nx_ + x] =
                d < radius_ ? poreSideCell(solid_, radius_ - d) : grainCell(solid_, kWallGrain);
        }
}

SpherePack::SpherePack(std::uint32_t nx, std::uint32_t ny, std::uint32_t nz,
                       const SpherePackSettings& definition)
    : PoreGeometry(nx, ny, nz), pack_(definition) {
    checkSize(nx, ny, nz);
    checkSolid(definition.solid);
    if (!(definition.targetPorosity > 0.0 && definition.targetPorosity < 1.0))
        throw Exception("The target porosity must lie strictly between 0 and 1: " +
                        std::to_string(definition.targetPorosity));
    if (!(definition.radius > 0.0))
        throw Exception("The grain radius must be positive: " + std::to_string(definition.radius));
    if (!(definition.radiusSpread >= 0.0 && definition.radiusSpread < 1.0))
        throw Exception("The radius spread must lie in [0, 1): " +
                        std::to_string(definition.radiusSpread));
    if (!(definition.clayFraction >= 0.0 && definition.clayFraction <= 1.0))
        throw Exception("The clay fraction must lie in [0, 1]: " +
                        std::to_string(definition.clayFraction));
    const double coating = definition.clayFraction > 0.0 ? definition.solid.clayThickness : 0.0;
    maxReach_ = definition.radius * (1.0 + definition.radiusSpread) + coating;

    // First guess from the Boolean model, where the pore fraction left by a density n of
    // spheres of volume v is exp(-n v); mean (r + c)^3 over r uniform in [a, b].
    const double a = definition.radius * (1.0 - definition.radiusSpread),
                 b = definition.radius * (1.0 + definition.radiusSpread);
    auto meanCube = [&](double c) {
        return b > a ? (std::pow(b + c, 4) - std::pow(a + c, 4)) / (4.0 * (b - a))
                     : std::pow(a + c, 3);
    };
    const double meanVolume = 4.0 / 3.0 * M_PI *
                              (definition.clayFraction * meanCube(coating) +
                               (1.0 - definition.clayFraction) * meanCube(0.0));
    const double box = (nx + 2.0 * maxReach_) * (ny + 2.0 * maxReach_) * (nz + 2.0 * maxReach_);
    auto count =
        static_cast<std::size_t>(-std::log(definition.targetPorosity) * box / meanVolume * 1.25) +
        16;

    const double total = static_cast<double>(nx) * ny * nz;
    std::vector<Sphere> candidates;
    std::vector<std::uint64_t> pores;
    for (;;) {
        drawSpheres(candidates, count);
        pores = poreCountByPrefix(candidates);
        if (static_cast<double>(pores.back()) / total <= definition.targetPorosity) break;
        if (count > kNoSphere / 2)
            throw Exception("The target porosity cannot be reached: " +
                            std::to_string(definition.targetPorosity));
        count = count * 3 / 2 + 16;
    }
    // Smallest prefix at or below the target, or the one before it if that is closer.
    std::size_t k = 0;
    while (static_cast<double>(pores[k]) / total > definition.targetPorosity) ++k;
    if (k > 0 && static_cast<double>(pores[k - 1]) / total - definition.targetPorosity <
                     definition.targetPorosity - static_cast<double>(pores[k]) / total)
        --k;
    candidates.resize(k);
    porosity_ = static_cast<double>(pores[k]) / total;
    std::sort(candidates.begin(), candidates.end(),
              [](const Sphere& p, const Sphere& q) { return p.z < q.z; });
    spheres_ = std::move(candidates);
}

void SpherePack::drawSpheres(std::vector<Sphere>& spheres, std::size_t count) const {
    // Redrawn from the seed every time, so a longer list starts with the shorter one.
    std::mt19937_64 rng(pack_.seed);
    spheres.clear();
    spheres.reserve(count);
    const double reach = maxReach_;
    for (std::size_t i = 0; i < count; ++i) {
        Sphere s{};
        s.x = -reach + uniform(rng) * (nx_ + 2.0 * reach);
        s.y = -reach + uniform(rng) * (ny_ + 2.0 * reach);
        s.z = -reach + uniform(rng) * (nz_ + 2.0 * reach);
        s.radius = pack_.radius * (1.0 + pack_.radiusSpread * (2.0 * uniform(rng) - 1.0));
        s.coating = uniform(rng) < pack_.clayFraction ? pack_.solid.clayThickness : 0.0;
        s.index = static_cast<std::uint32_t>(i);
        spheres.push_back(s);
    }
}

std::pair<std::size_t, std::size_t> SpherePack::sliceRange(const std::vector<Sphere>& sorted,
                                                           std::uint32_t z) const {
    const double zc = z + 0.5;
    auto lo = std::lower_bound(sorted.begin(), sorted.end(), zc - maxReach_,
                               [](const Sphere& s, double v) { return s.z < v; });
    auto hi = std::upper_bound(lo, sorted.end(), zc + maxReach_,
                               [](double v, const Sphere& s) { return v < s.z; });
    return {static_cast<std::size_t>(lo - sorted.begin()),
            static_cast<std::size_t>(hi - sorted.begin())};
}

std::vector<std::uint64_t> SpherePack::poreCountByPrefix(std::vector<Sphere> candidates) const {
    std::sort(candidates.begin(), candidates.end(),
              [](const Sphere& p, const Sphere& q) { return p.z < q.z; });
    const std::size_t n = candidates.size();
    std::vector<std::uint64_t> firstCover(n + 1, 0);  // last entry: never covered
    std::vector<std::uint32_t> owner(std::size_t{nx_} * ny_);
    for (std::uint32_t z = 0; z < nz_; ++z) {
        std::fill(owner.begin(), owner.end(), kNoSphere);
        const auto [lo, hi] = sliceRange(candidates, z);
        const double zc = z + 0.5;
        for (std::size_t i = lo; i < hi; ++i) {
            const Sphere& s = candidates[i];
            const double reach = s.radius + s.coating;
            const std::uint32_t index = s.index;
            rasteriseDisk(s.x, s.y, reach * reach - (zc - s.z) * (zc - s.z), nx_, ny_,
                          [&](std::uint32_t y, std::uint32_t x0, std::uint32_t x1) {
                              std::uint32_t* row = owner.data() + std::size_t{y} * nx_;
                              for (std::uint32_t x = x0; x < x1; ++x)
                                  row[x] = std::min(row[x], index);
                          });
        }
        for (std::uint32_t o : owner) ++firstCover[o == kNoSphere ? n : o];
    }
    // A voxel first covered by sphere i is pore for every prefix of length <= i.
    std::vector<std::uint64_t> pores(n + 1);
    std::uint64_t sum = 0;
    for (std::size_t k = n + 1; k-- > 0;) {
        sum += firstCover[k];
        pores[k] = sum;
    }
    return pores;
}

void SpherePack::fillSlice(std::uint32_t z, GrainBedGridCell* cells) const {
    const std::size_t area = std::size_t{nx_} * ny_;
    std::vector<std::uint32_t> grainOwner(area, kNoSphere), clayOwner(area, kNoSphere);
    const auto [lo, hi] = sliceRange(spheres_, z);
    const double zc = z + 0.5;
    auto mark = [&](std::vector<std::uint32_t>& owner, const Sphere& s, double r) {
        rasteriseDisk(s.x, s.y, r * r - (zc - s.z) * (zc - s.z), nx_, ny_,
                      [&](std::uint32_t y, std::uint32_t x0, std::uint32_t x1) {
                          std::uint32_t* row = owner.data() + std::size_t{y} * nx_;
                          for (std::uint32_t x = x0; x < x1; ++x)
                              row[x] = std::min(row[x], s.index);
                      });
    };
    for (std::size_t i = lo; i < hi; ++i) {
        const Sphere& s = spheres_[i];
        mark(grainOwner, s, s.radius);
        if (s.coating > 0.0) mark(clayOwner, s, s.radius + s.coating);
    }
    // Solid wins over clay: a coating never covers another grain.
    for (std::size_t i = 0; i < area; ++i) {
        if (grainOwner[i] != kNoSphere) {
            cells[i] = grainCell(pack_.solid, grainNumber(grainOwner[i]));
        } else if (clayOwner[i] != kNoSphere) {
            cells[i] = clayCell(grainNumber(clayOwner[i]));
        } else {
            cells[i] = poreCell();
        }
    }
}

}  // namespace nmr::rock
