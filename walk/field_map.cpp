#include "walk/field_map.h"

#include <vector>

namespace nmr {

FieldMap bricked(const float* cells, std::uint32_t nx, std::uint32_t ny, std::uint32_t nz) {
    const BrickLayout layout(nx, ny, nz);
    auto storage = std::make_shared<std::vector<float>>(layout.cells(), 0.0f);
    for (std::uint32_t z = 0; z < nz; ++z) {
        for (std::uint32_t y = 0; y < ny; ++y) {
            for (std::uint32_t x = 0; x < nx; ++x) {
                (*storage)[layout.index(x, y, z)] =
                    cells[(static_cast<std::uint64_t>(z) * ny + y) * nx + x];
            }
        }
    }
    const float* values = storage->data();
    return {std::move(storage), values, nx, ny, nz};
}

}  // namespace nmr
