#pragma once

#include <cmath>
#include <cstdio>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "testutil/command.h"

namespace nmr::test {

// The parameter file of a fit test: `walkers` walkers, `seed`, the water relaxivities
// (mineral name, m/s), bulk T2 2.5 s, D = 2.3e-9 m^2/s, and whatever else `changes` sets.
inline std::string fitParameters(int walkers, int seed,
                                 const std::vector<std::pair<std::string, double>>& relaxivity,
                                 std::vector<std::pair<std::string, std::string>> changes = {}) {
    std::ostringstream map;
    map << "{";
    for (std::size_t i = 0; i < relaxivity.size(); ++i) {
        map << (i ? ", " : "") << relaxivity[i].first << ": " << relaxivity[i].second;
    }
    map << "}";
    changes.insert(changes.begin(), {{"bulkWaterT2", "2.5"},
                                     {"diffusionConstantWater", "2.3e-09"},
                                     {"surfaceRelaxationStrengthWater", map.str()},
                                     {"numberOfWalkers", std::to_string(walkers)},
                                     {"randomSeed", std::to_string(seed)},
                                     {"t2Components", "60"}});
    return parameterFile(changes);
}

struct Fitted {
    double value = NAN;
    double uncertainty = NAN;
};
// The line "Fitted <name>: <value> m/s (+- <u>)" of nmrwalk-fit's output.
inline Fitted fitted(const std::string& output, const std::string& name) {
    const std::string key = "\nFitted " + name + ": ";
    const std::string text = "\n" + output;
    Fitted f;
    const auto at = text.find(key);
    if (at != std::string::npos) {
        std::sscanf(text.c_str() + at + key.size(), "%lf m/s (+- %lf)", &f.value, &f.uncertainty);
    }
    return f;
}

}  // namespace nmr::test
