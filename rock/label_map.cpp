#include "rock/label_map.h"

#include "common/exception.h"
#include "common/text.h"

namespace nmr::rock {

LabelMap::LabelMap()
    : table_(static_cast<std::size_t>(kMaxLabel - kMinLabel + 1), Mineral::Unknown) {}

LabelMap LabelMap::parse(const std::string& text) {
    LabelMap map;
    std::size_t begin = 0;
    while (begin <= text.size()) {
        std::size_t end = text.find(',', begin);
        if (end == std::string::npos) end = text.size();
        const std::string entry = trim(text.substr(begin, end - begin));
        begin = end + 1;
        if (entry.empty()) continue;  // tolerate "0=Pore,,1=Quartz," from scripts
        const std::size_t eq = entry.find('=');
        if (eq == std::string::npos)
            throw Exception("A label map entry must read label=mineral: " + entry);
        const std::string labelText = trim(entry.substr(0, eq));
        const std::int64_t label =
            parseInteger(labelText, "Label in the label map is not an integer");
        if (label < kMinLabel || label > kMaxLabel)
            throw Exception("Label in the label map outside [-32768, 65535]: " + labelText);
        map.add(static_cast<std::int32_t>(label), mineralFromName(trim(entry.substr(eq + 1))));
    }
    if (map.entries_.empty()) throw Exception("The label map is empty: " + text);
    return map;
}

void LabelMap::add(std::int32_t label, Mineral::Type mineral) {
    if (label < kMinLabel || label > kMaxLabel)
        throw Exception("Label outside [-32768, 65535]: " + std::to_string(label));
    if (!Mineral::isValid(mineral))
        throw Exception("Not a mineral code: " + std::to_string(mineral));
    if (!entries_.emplace(label, mineral).second)
        throw Exception("Label given twice in the label map: " + std::to_string(label));
    table_[static_cast<std::size_t>(label - kMinLabel)] = static_cast<std::uint8_t>(mineral);
}

std::string LabelMap::describe() const {
    std::string text;
    for (const auto& [label, mineral] : entries_) {
        if (!text.empty()) text += ',';
        text += std::to_string(label) + '=' + Mineral::name(mineral);
    }
    return text;
}

std::string knownMineralNames() {
    std::string names;
    for (Mineral::Type m : Mineral::allTypes())
        names += (names.empty() ? "" : ", ") + Mineral::name(m);
    return names;
}

Mineral::Type mineralFromName(const std::string& name) {
    const Mineral::Type code = Mineral::fromName(name);
    if (code == Mineral::Unknown)
        throw Exception("Unknown mineral name (known, case-sensitive: " + knownMineralNames() +
                        "): " + name);
    return code;
}

}  // namespace nmr::rock
