#include "walk/block_key_tables.h"

#include <string>

#include "common/exception.h"
#include "grid/block_layout.h"

namespace nmr {

BlockKeyTables makeBlockKeyTables(std::uint32_t nx, std::uint32_t ny, std::uint32_t nz,
                                  std::uint32_t edge) {
    if (edge == 0) throw Exception("Block edge must be positive: " + std::to_string(edge));
    BlockAxis x(nx, edge), y(ny, edge), z(nz, edge);
    BlockKeyTables tables;
    tables.countX = x.count;
    tables.countY = y.count;
    tables.countZ = z.count;
    tables.tx = std::move(x.blockOf);
    tables.ty = std::move(y.blockOf);
    tables.tz = std::move(z.blockOf);
    return tables;
}

}  // namespace nmr
