#include "python/dt2.h"

#include <pybind11/numpy.h>
#include <pybind11/stl.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/exception.h"
#include "python/arrays.h"
#include "python/cpmg.h"
#include "python/inputs.h"
#include "sequence/cpmg.h"
#include "sequence/dt2.h"

namespace nmr::python {

namespace {

py::dict dt2(py::array labels, double cellSize, const py::object& minerals, const py::object& path,
             const std::string& overrides, const py::object& seed, double diffusionTimeMs,
             std::vector<double> bValues, std::int64_t bPoints, double echoSpacingMs,
             const py::object& echoes) {
    const LabelledRock rock = labelledRock(std::move(labels), cellSize, minerals);
    const std::unique_ptr<Parameters> parameters = parametersOf(path, overrides, seed);
    if (bPoints < 2 || bPoints > 1000)
        throw std::invalid_argument("b_points must be from 2 to 1000");
    const std::optional<std::uint32_t> count = echoCountOf(echoes);
    std::shared_ptr<ByteMineralGrid> grid;
    {
        py::gil_scoped_release released;
        grid = gridOf(rock, *parameters);
    }
    if (grid->counter(Mineral::Pore) == 0)
        throw std::invalid_argument("the labels (or the region walked) hold no pore cell");
    const double cellSizeM = grid->cellSize() * 1e-6;
    const double bulkT2Ms = parameters->bulkWaterT2() * 1000.0;
    const auto walkers = static_cast<std::uint32_t>(parameters->numberOfWalkers());
    Dt2Plan plan;
    try {
        plan = planDt2(*parameters, cellSizeM, diffusionTimeMs,
                       dt2BValues(std::move(bValues), static_cast<std::uint32_t>(bPoints),
                                  parameters->diffusionConstantWater()),
                       echoSpacingMs, count.value_or(1));
    } catch (const Exception& e) {
        throw std::invalid_argument(e.message());
    }
    std::optional<Dt2Data> data;
    WalkPolls polls{py::none()};
    {
        py::gil_scoped_release released;
        if (!count) {
            const EchoSpacingPlan train =
                planEchoSpacing(*parameters, cellSizeM, echoSpacingMs, 0.0, {});
            plan.echoes =
                countEchoes(*grid, FieldMap(), train, parameters->randomSeed(), walkers, bulkT2Ms);
        }
        DiffusionEditingWalk<ByteMineralGrid> walk(*grid, plan, parameters->randomSeed(), 0);
        ExactSums sums = walk.emptyTally();
        // Ctrl-C is looked at every 1000 walkers.
        std::uint32_t i = 0;
        for (; i < walkers; ++i) {
            if (i % 1000 == 0 && !polls(i, walkers)) break;
            walk.walk(i, sums);
        }
        if (i == walkers) data = dt2Data(plan, sums, walkers, bulkT2Ms);
    }
    if (!data) polls.raisePending();
    py::array_t<double> amplitude({data->b.size(), data->timesMs.size()});
    for (std::size_t j = 0; j < data->b.size(); ++j)
        for (std::size_t k = 0; k < data->timesMs.size(); ++k)
            amplitude.mutable_at(j, k) =
                data->amplitude(static_cast<Eigen::Index>(j), static_cast<Eigen::Index>(k));
    py::dict out;
    out["b"] = arrayOf(data->b);
    out["time_ms"] = arrayOf(data->timesMs);
    out["amplitude"] = amplitude;
    out["encoding_steps"] = plan.encoding.steps;
    out["steps_per_half_echo"] = plan.halfEcho.steps;
    return out;
}

}  // namespace

void defineDt2(py::module_& m) {
    m.def("dt2", &dt2, py::arg("labels"), py::arg("cell_size_um"), py::arg("minerals"),
          py::arg("path"), py::arg("overrides"), py::arg("seed"), py::arg("diffusion_time_ms"),
          py::arg("b_values"), py::arg("b_points"), py::arg("echo_spacing_ms"), py::arg("echoes"));
}

}  // namespace nmr::python
