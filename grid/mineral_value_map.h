#pragma once

#include <map>

#include "grid/mineral.h"

namespace nmr {

// A number per mineral code, such as the surface relaxivity of each mineral.
//
// Looking up a mineral that was never given inserts and returns a zero value: a
// mineral with no relaxivity in the parameter file does not relax, which is the
// physically neutral reading, and the parameter broadcast then sends an explicit 0
// for it so every process holds the same table.
template <typename V>
class MineralValueMap {
public:
    MineralValueMap() = default;
    MineralValueMap(const MineralValueMap&) = default;
    MineralValueMap& operator=(const MineralValueMap&) = default;
    virtual ~MineralValueMap() = default;

    virtual V& value(Mineral::Type code) { return values_[code]; }

    // Read-only lookup that leaves the map unchanged.
    V valueOr(Mineral::Type code, V fallback = V()) const {
        auto it = values_.find(code);
        return it == values_.end() ? fallback : it->second;
    }
    void set(Mineral::Type code, V v) { values_[code] = v; }
    bool contains(Mineral::Type code) const { return values_.count(code) != 0; }
    std::size_t size() const { return values_.size(); }
    const std::map<Mineral::Type, V>& entries() const { return values_; }

private:
    std::map<Mineral::Type, V> values_;
};

}  // namespace nmr
