#include "simulation/walk_warnings.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numeric>
#include <sstream>

namespace nmr {

namespace {

std::string number(double value) {
    std::ostringstream text;
    text << value;
    return text.str();
}

// A duration as a person plans with it: seconds, minutes, hours or days, two digits.
std::string duration(double seconds) {
    std::ostringstream text;
    text.precision(2);
    if (seconds < 120.0) {
        text << seconds << " seconds";
    } else if (seconds < 7200.0) {
        text << seconds / 60.0 << " minutes";
    } else if (seconds < 2.0 * 86400.0) {
        text << seconds / 3600.0 << " hours";
    } else {
        text << seconds / 86400.0 << " days";
    }
    return text.str();
}

constexpr double kTemplateClayRelaxivity = 2.3e-09;  // m/s, what nmrwalk -p writes

std::string neverSwitches(const RockSummary& summary, const WalkPlan& plan,
                          const NuclearMagneticResonanceParameters& parameters) {
    const double clay = parameters.surfaceRelaxationStrengthWater().valueOr(Mineral::Clay, 0.0);
    const double last = plan.schedule.intervalEndTime.back();
    std::string text = "Warning: the walk never switches from the fine step (" +
                       number(plan.fineStep) + " voxels) to the coarse step (" +
                       number(plan.coarseStep) +
                       " voxels): the switch comes at T2_micro = " + number(summary.clay.t2Micro) +
                       " ms, beyond the walk's last time of " + number(last) + " ms, ";
    if (!(clay > 0.0)) {
        text += "because surfaceRelaxationStrengthWater gives Clay no relaxivity (" +
                std::string(parameters.surfaceRelaxationStrengthWater().contains(Mineral::Clay)
                                ? "it is " + number(clay)
                                : "it is missing") +
                ")";
    } else {
        text +=
            "because the clay micro-porosity relaxes that slowly (T2_micro follows from "
            "clayMicroPorosity, the cell size and the Clay relaxivity of " +
            number(clay) + " m/s)";
    }
    return text;
}

}  // namespace

std::string stepSwitchWarning(const RockSummary& summary, const WalkPlan& plan,
                              const NuclearMagneticResonanceParameters& parameters) {
    const std::vector<double>& ends = plan.schedule.intervalEndTime;
    if (ends.empty() || !(plan.coarseStep > 0.0) || !(plan.fineStep > 0.0)) return {};
    // The walk's rule: armed only for a coarse step above 0.1 voxels, fired by the first
    // interval end past T2_micro (a NaN T2_micro never fires).
    const bool armed = plan.coarseStep > 0.1;
    const double switchTime = summary.clay.t2Micro;
    const bool fires =
        std::any_of(ends.begin(), ends.end(), [&](double t) { return t > switchTime; });
    if (armed && fires) return {};

    const double ratio = plan.coarseStep / plan.fineStep;
    const std::string consequence =
        ". By the walk's rules every interval is then walked with the coarse step on a time "
        "axis computed for the fine one, so every time of the decay comes out " +
        number(ratio * ratio) + " times too short (T2 " + number(ratio * ratio) +
        " times too fast). ";
    if (!armed) {
        return "Warning: stepLength " + number(plan.coarseStep) +
               " is 0.1 voxels or less, which never arms the switch from the fine step to the "
               "coarse step" +
               consequence + "Use a stepLength above 0.1 (0.5 is usual).";
    }
    const double clay = parameters.surfaceRelaxationStrengthWater().valueOr(Mineral::Clay, 0.0);
    return neverSwitches(summary, plan, parameters) + consequence +
           (clay > 0.0
                ? "Raise the Clay relaxivity or lower clayMicroPorosity so that T2_micro "
                  "falls within the walk's times."
                : "Give Clay its relaxivity in surfaceRelaxationStrengthWater (the "
                  "template's " +
                      number(kTemplateClayRelaxivity) + " m/s) even when the rock holds no clay.");
}

std::vector<std::string> negativeRelaxivityWarnings(
    const NuclearMagneticResonanceParameters& parameters) {
    std::vector<std::string> lines;
    const auto check = [&](const char* key, const MineralValueMap<double>& map, bool walked) {
        for (const auto& [code, value] : map.entries()) {
            if (!(value < 0.0)) continue;
            lines.push_back("Warning: " + std::string(key) + " of " + Mineral::name(code) + " is " +
                            number(value) + " m/s, below 0" +
                            (walked ? ": walkers are never absorbed by " + Mineral::name(code) +
                                          ", its walls only turn them back"
                                    : "") +
                            ". Give it a value of 0 or more.");
        }
    };
    check("surfaceRelaxationStrengthWater", parameters.surfaceRelaxationStrengthWater(), true);
    check("surfaceRelaxationStrengthOil", parameters.surfaceRelaxationStrengthOil(), false);
    return lines;
}

std::string negativeRelaxivityRefusal(const NuclearMagneticResonanceParameters& parameters) {
    const std::pair<const char*, const MineralValueMap<double>*> maps[] = {
        {"surfaceRelaxationStrengthWater", &parameters.surfaceRelaxationStrengthWater()},
        {"surfaceRelaxationStrengthOil", &parameters.surfaceRelaxationStrengthOil()}};
    for (const auto& [key, map] : maps) {
        for (const auto& [code, value] : map->entries()) {
            if (value < 0.0) {
                std::ostringstream text;
                text << key << " of " << Mineral::name(code) << " is " << value
                     << " m/s: a relaxivity cannot be negative (0 makes a mineral inert)";
                return text.str();
            }
        }
    }
    return {};
}

bool nothingAbsorbs(const Grid<Mineral::Type>& grid, const WalkPlan& plan) {
    const auto& counters = grid.counters();
    for (std::size_t code = 1; code < counters.size(); ++code) {
        if (counters[code] == 0) continue;
        if (code < plan.coarseTable.size() && plan.coarseTable[code] > 0.0) return false;
        if (code < plan.fineTable.size() && plan.fineTable[code] > 0.0) return false;
    }
    return true;
}

std::string noAbsorptionWarning(const Grid<Mineral::Type>& grid, const WalkPlan& plan,
                                const NuclearMagneticResonanceParameters& parameters,
                                double stepsPerSecond, int processes) {
    if (!nothingAbsorbs(grid, plan)) return {};
    const auto& steps = plan.schedule.stepsPerInterval;
    const std::uint64_t perWalker = std::accumulate(steps.begin(), steps.end(), std::uint64_t{0});
    const auto walkers = static_cast<double>(std::max(parameters.numberOfWalkers(), 0));
    const double total = static_cast<double>(perWalker) * walkers;

    std::string present;
    const auto& rho = parameters.surfaceRelaxationStrengthWater();
    const auto& counters = grid.counters();
    for (std::size_t code = 1; code < counters.size(); ++code) {
        if (counters[code] == 0) continue;
        const auto m = static_cast<Mineral::Type>(code);
        present += (present.empty() ? "" : ", ") + Mineral::name(m) +
                   (m == Mineral::Matrix ? " never absorbs"
                                         : " has " + number(rho.valueOr(m, 0.0)) + " m/s");
    }
    std::string text =
        "Warning: no mineral of the rock absorbs walkers (" +
        (present.empty() ? std::string("the rock holds no solid") : present) +
        " in surfaceRelaxationStrengthWater): every walker walks the whole schedule, " +
        std::to_string(perWalker) + " steps, " + number(total) + " steps for " + number(walkers) +
        " walkers";
    if (stepsPerSecond > 0.0 && processes > 0) {
        const double rate = stepsPerSecond * processes;
        text += ", about " + duration(total / rate) + " at the " + number(rate) +
                " steps per second measured on " + std::to_string(processes) + " process" +
                (processes == 1 ? "" : "es");
    }
    return text +
           ", and the decay then shows bulk relaxation only. Give the minerals of the rock "
           "positive relaxivities.";
}

std::vector<std::string> walkWarnings(const NuclearMagneticResonanceParameters& parameters,
                                      const RockSummary& summary, const WalkPlan& plan,
                                      const Grid<Mineral::Type>& grid, double stepsPerSecond,
                                      int processes) {
    std::vector<std::string> lines = negativeRelaxivityWarnings(parameters);
    for (std::string line :
         {stepSwitchWarning(summary, plan, parameters),
          noAbsorptionWarning(grid, plan, parameters, stepsPerSecond, processes)})
        if (!line.empty()) lines.push_back(std::move(line));
    return lines;
}

}  // namespace nmr
