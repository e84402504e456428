#include "grid/mineral.h"

namespace nmr::Mineral {

namespace {

// A function-local table, so that code running in other files' static initialisers
// finds it built.
const std::map<Type, std::string>& names() {
    static const std::map<Type, std::string> table = {
        {Pore, "Pore"},
        {Clay, "Clay"},
        {QuartzCement, "Quartz cement"},
        {Quartz, "Quartz"},
        {Mica, "Mica"},
        {FeldsparsDissolvable, "Feldspars (dissolvable)"},
        {CarbonateCement, "Carbonate cement"},
        {Pyrite, "Pyrite"},
        {FeldsparsNonDissolvable, "Feldspars (non-dissolvable)"},
        {Matrix, "Matrix"},
        {Unspecified1, "Unspecified 1"},
        {Unspecified2, "Unspecified 2"},
        {Unspecified3, "Unspecified 3"},
        {Unspecified4, "Unspecified 4"},
    };
    return table;
}

std::vector<Type> makeAllTypes() {
    std::vector<Type> types;
    for (const auto& [code, name] : names()) {
        if (code != Reserved && code != Unknown) types.push_back(code);
    }
    return types;
}

}  // namespace

int count() { return static_cast<int>(names().size()); }

bool isValid(std::uint32_t code) { return code < static_cast<std::uint32_t>(count()); }

std::string name(Type code) {
    auto it = names().find(code);
    return it == names().end() ? std::string() : it->second;
}

Type fromName(const std::string& name) {
    // A linear scan in code order: 14 entries do not justify a second index.
    for (const auto& [code, text] : names()) {
        if (text == name) return code;
    }
    return Unknown;
}

bool isKnownName(const std::string& name) { return fromName(name) != Unknown; }

const std::vector<Type>& allTypes() {
    static const std::vector<Type> types = makeAllTypes();
    return types;
}

}  // namespace nmr::Mineral
