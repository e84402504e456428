#include "python/pfg.h"

#include <pybind11/numpy.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/exception.h"
#include "python/arrays.h"
#include "python/cpmg.h"
#include "python/inputs.h"
#include "sequence/pfg.h"

namespace nmr::python {

namespace {

py::dict pfg(py::array labels, double cellSize, const py::object& minerals, const py::object& path,
             const std::string& overrides, const py::object& seed, std::vector<double> timesMs,
             const py::object& qMax, std::int64_t qPoints, const std::string& direction,
             const py::object& pulseDuration, const py::object& field) {
    const LabelledRock rock = labelledRock(std::move(labels), cellSize, minerals);
    const std::unique_ptr<Parameters> parameters = parametersOf(path, overrides, seed);
    PfgRequest request;
    std::sort(timesMs.begin(), timesMs.end());
    timesMs.erase(std::unique(timesMs.begin(), timesMs.end()), timesMs.end());
    request.diffusionTimesMs = timesMs;
    if (!qMax.is_none()) request.qMax = qMax.cast<double>();
    if (qPoints < 2 || qPoints > 1000)
        throw std::invalid_argument("q_points must be from 2 to 1000");
    request.qPoints = static_cast<std::uint32_t>(qPoints);
    const auto axes = axesNamed(direction);
    if (!axes) throw std::invalid_argument("direction must be \"x\", \"y\", \"z\" or \"all\"");
    request.axes = *axes;
    if (!pulseDuration.is_none()) request.pulseDurationMs = pulseDuration.cast<double>();
    if (!request.pulseDurationMs && !field.is_none())
        throw std::invalid_argument("field acts only during finite pulses: give pulse_duration_ms");
    const std::optional<FieldSettings> settings =
        request.pulseDurationMs ? fieldSettingsOf(path, overrides) : std::nullopt;
    std::shared_ptr<ByteMineralGrid> grid;
    std::vector<DiffusionTimePlan> plans;
    try {
        checkPfgRequest(request);
        {
            py::gil_scoped_release released;
            grid = gridOf(rock, *parameters);
        }
        if (grid->counter(Mineral::Pore) == 0)
            throw std::invalid_argument("the labels (or the region walked) hold no pore cell");
        for (double delta : timesMs)
            plans.push_back(planDiffusionTime(*parameters, grid->cellSize() * 1e-6, delta, request,
                                              staticFieldOf(settings)));
    } catch (const Exception& e) {
        throw std::invalid_argument(e.message());
    }
    // Narrow pulses leave the field no time to act: none is made.
    const FieldMap map = request.pulseDurationMs ? fieldMapOf(field, settings, *grid) : FieldMap();
    const auto walkers = static_cast<std::uint32_t>(parameters->numberOfWalkers());
    WalkPolls polls{py::none()};
    std::vector<DiffusionTimeResult> results;
    for (const DiffusionTimePlan& plan : plans) {
        bool done = false;
        {
            py::gil_scoped_release released;
            DisplacementWalk<ByteMineralGrid> walk(*grid, plan, parameters->randomSeed(), 0, map);
            ExactSums sums = walk.emptyTally();
            // Ctrl-C is looked at every 1000 walkers.
            std::uint32_t i = 0;
            for (; i < walkers; ++i) {
                if (i % 1000 == 0 && !polls(i, walkers)) break;
                walk.walk(i, sums);
            }
            done = i == walkers;
            if (done) results.push_back(diffusionTimeResult(plan, sums));
        }
        if (!done) polls.raisePending();
    }
    const double d0 = parameters->diffusionConstantWater();
    const std::size_t n = results.size(), m = request.qPoints;
    py::array_t<double> q({n, m}), b({n, m}), e({n, m});
    std::vector<double> d, dError, ratio, msd, msdError;
    for (std::size_t i = 0; i < n; ++i) {
        for (std::size_t j = 0; j < m; ++j) {
            q.mutable_at(i, j) = results[i].q[j];
            b.mutable_at(i, j) = results[i].b[j];
            e.mutable_at(i, j) = results[i].e[j];
        }
        d.push_back(results[i].d);
        dError.push_back(results[i].dError);
        ratio.push_back(results[i].d / d0);
        msd.push_back(results[i].msdD);
        msdError.push_back(results[i].msdDError);
    }
    const ShortTimeFit fit = fitShortTimes(results, d0);
    const TortuosityResult tortuosity = tortuosityAtLongestTime(results, d0);
    const double nan = std::numeric_limits<double>::quiet_NaN();
    py::dict out;
    out["diffusion_time_ms"] = arrayOf(timesMs);
    out["q"] = q;
    out["b"] = b;
    out["e"] = e;
    out["d"] = arrayOf(d);
    out["d_error"] = arrayOf(dError);
    out["d_over_d0"] = arrayOf(ratio);
    out["msd_d"] = arrayOf(msd);
    out["msd_d_error"] = arrayOf(msdError);
    out["surface_to_volume"] = fit.determined ? fit.surfaceToVolume : nan;
    out["surface_to_volume_error"] = fit.determined ? fit.surfaceToVolumeError : nan;
    out["intercept"] = fit.determined ? fit.intercept : nan;
    out["short_times_ms"] = arrayOf(fit.timesMs);
    out["tortuosity"] = tortuosity.determined ? tortuosity.value : nan;
    out["tortuosity_error"] = tortuosity.determined ? tortuosity.error : nan;
    out["steps"] = py::cast([&] {
        std::vector<std::uint32_t> steps;
        steps.reserve(plans.size());
        for (const DiffusionTimePlan& plan : plans) steps.push_back(plan.steps.steps);
        return steps;
    }());
    return out;
}

}  // namespace

void definePfg(py::module_& m) {
    m.def("pfg", &pfg, py::arg("labels"), py::arg("cell_size_um"), py::arg("minerals"),
          py::arg("path"), py::arg("overrides"), py::arg("seed"), py::arg("diffusion_time_ms"),
          py::arg("q_max"), py::arg("q_points"), py::arg("direction"), py::arg("pulse_duration_ms"),
          py::arg("field"));
}

}  // namespace nmr::python
