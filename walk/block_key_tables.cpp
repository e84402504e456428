#include "walk/block_key_tables.h"

#include <algorithm>
#include <string>

#include "common/exception.h"

namespace nmr {
namespace {

std::uint32_t blockCount(std::uint32_t n, std::uint32_t edge) { return std::max(n / edge, 1u); }

std::vector<std::uint32_t> axisTable(std::uint32_t n, std::uint32_t edge, std::uint32_t count) {
    std::vector<std::uint32_t> table(n);
    for (std::uint32_t i = 0; i < n; ++i) table[i] = std::min(i / edge, count - 1);
    return table;
}

}  // namespace

BlockKeyTables makeBlockKeyTables(std::uint32_t nx, std::uint32_t ny, std::uint32_t nz,
                                  std::uint32_t edge) {
    if (edge == 0) throw Exception("Block edge must be positive: " + std::to_string(edge));
    BlockKeyTables tables;
    tables.countX = blockCount(nx, edge);
    tables.countY = blockCount(ny, edge);
    tables.countZ = blockCount(nz, edge);
    tables.tx = axisTable(nx, edge, tables.countX);
    tables.ty = axisTable(ny, edge, tables.countY);
    tables.tz = axisTable(nz, edge, tables.countZ);
    return tables;
}

}  // namespace nmr
