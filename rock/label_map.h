#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "grid/mineral.h"

namespace nmr::rock {

// Which mineral each label of a segmented image stands for. Labels are the voxel
// values of an 8- or 16-bit image, signed or not, so they lie in [-32768, 65535].
class LabelMap {
public:
    static constexpr std::int32_t kMinLabel = -32768;
    static constexpr std::int32_t kMaxLabel = 65535;

    LabelMap();

    // Parses "0=Pore,1=Quartz,2=Clay": comma-separated label=name pairs, names being
    // the minerals' display names, exact and case-sensitive (blanks around a label or
    // a name are ignored). Throws nmr::Exception naming the offending entry.
    static LabelMap parse(const std::string& text);

    // Throws nmr::Exception for a label out of range or given twice.
    void add(std::int32_t label, Mineral::Type mineral);
    // Mineral::Unknown for a label that was never added.
    Mineral::Type mineralOf(std::int32_t label) const {
        return label < kMinLabel || label > kMaxLabel
                   ? Mineral::Unknown
                   : static_cast<Mineral::Type>(
                         table_[static_cast<std::size_t>(label - kMinLabel)]);
    }
    const std::map<std::int32_t, Mineral::Type>& entries() const { return entries_; }
    std::string describe() const;  // "0=Pore,1=Quartz"

private:
    std::map<std::int32_t, Mineral::Type> entries_;
    // Dense lookup over the whole label range (96 kB): the import asks once per voxel.
    std::vector<std::uint8_t> table_;
};

// Display names joined by ", ", for messages that list what is allowed.
std::string knownMineralNames();
// The code of an exact display name, or an nmr::Exception that lists the known names.
Mineral::Type mineralFromName(const std::string& name);

}  // namespace nmr::rock
