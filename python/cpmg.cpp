#include "python/cpmg.h"

#include <pybind11/numpy.h>
#include <pybind11/stl.h>

#include <cmath>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/exception.h"
#include "field/dipole_field.h"
#include "params/field_settings.h"
#include "params/parameter_file.h"
#include "python/arrays.h"
#include "python/inputs.h"
#include "sequence/cpmg.h"

namespace nmr::python {

std::optional<FieldSettings> fieldSettingsOf(const py::object& path, const std::string& overrides) {
    if (!path.is_none()) return readOptionalFieldSettings(path.cast<std::string>());
    YAML::Node document;
    document[parameterRootKey()] = YAML::Load(overrides);
    return parseOptionalFieldSettings(YAML::Dump(document), "params");
}

FieldMap fieldMapOf(const py::object& given, const std::optional<FieldSettings>& settings,
                    const ByteMineralGrid& grid) {
    const std::uint32_t nx = grid.nx(), ny = grid.ny(), nz = grid.nz();
    if (!given.is_none()) {
        if (!settings)
            throw std::invalid_argument(
                "field gives dB/B0; params need staticField (B0 in T) to make it a field");
        const auto values =
            given.cast<py::array_t<float, py::array::c_style | py::array::forcecast>>();
        if (values.ndim() != 3 || values.shape(0) != nz || values.shape(1) != ny ||
            values.shape(2) != nx) {
            throw std::invalid_argument(
                "field must have the shape of the walked grid [z, y, x], (" + std::to_string(nz) +
                ", " + std::to_string(ny) + ", " + std::to_string(nx) + ")");
        }
        const float* cells = values.data();
        for (py::ssize_t i = 0; i < values.size(); ++i)
            if (!std::isfinite(cells[i]))
                throw std::invalid_argument("field holds a value that is not finite at index " +
                                            std::to_string(i));
        return bricked(cells, nx, ny, nz);
    }
    if (!settings || settings->volumeSusceptibility.entries().empty()) return {};
    field::FieldOptions options;
    options.direction = static_cast<field::Axis>(settings->staticFieldDirection - 'x');
    const field::Susceptibilities table =
        field::susceptibilityTable(settings->volumeSusceptibility, grid);
    py::gil_scoped_release released;
    const std::vector<float> values = field::computeField(grid, table, options);
    return bricked(values.data(), nx, ny, nz);
}

std::optional<std::uint32_t> echoCountOf(const py::object& echoes) {
    if (echoes.is_none()) return std::nullopt;
    const auto n = echoes.cast<std::int64_t>();
    if (n < 1 || n > kMostEchoes)
        throw std::invalid_argument("echoes must be from 1 to " + std::to_string(kMostEchoes));
    return static_cast<std::uint32_t>(n);
}

StaticField staticFieldOf(const std::optional<FieldSettings>& settings) {
    return {settings ? settings->staticField : 0.0,
            settings ? settings->staticFieldDirection - 'x' : 2};
}

namespace {

py::list cpmg(py::array labels, double cellSize, const py::object& minerals, const py::object& path,
              const std::string& overrides, const py::object& seed,
              const std::vector<double>& spacingsMs, const py::object& echoes, double gradient,
              const py::object& field) {
    const LabelledRock rock = labelledRock(std::move(labels), cellSize, minerals);
    const std::unique_ptr<Parameters> parameters = parametersOf(path, overrides, seed);
    if (spacingsMs.empty()) throw std::invalid_argument("echo_spacing_ms: give at least one");
    const std::optional<std::uint32_t> count = echoCountOf(echoes);
    if (!std::isfinite(gradient)) throw std::invalid_argument("gradient must be finite");
    const std::optional<FieldSettings> settings = fieldSettingsOf(path, overrides);
    std::shared_ptr<ByteMineralGrid> grid;
    {
        py::gil_scoped_release released;
        grid = gridOf(rock, *parameters);
    }
    if (grid->counter(Mineral::Pore) == 0)
        throw std::invalid_argument("the labels (or the region walked) hold no pore cell");
    const FieldMap map = fieldMapOf(field, settings, *grid);
    const StaticField b0 = staticFieldOf(settings);
    const double cellSizeM = grid->cellSize() * 1e-6;
    const auto walkers = static_cast<std::uint32_t>(parameters->numberOfWalkers());
    WalkPolls polls{py::none()};
    py::list trains;
    for (const double spacing : spacingsMs) {
        EchoSpacingPlan plan;
        try {
            plan = planEchoSpacing(*parameters, cellSizeM, spacing, gradient, b0);
        } catch (const Exception& e) {
            throw std::invalid_argument(e.message());
        }
        std::optional<EchoTrain> train;
        {
            py::gil_scoped_release released;
            plan.phase.echoes = count ? *count
                                      : countEchoes(*grid, map, plan, parameters->randomSeed(),
                                                    walkers, parameters->bulkWaterT2() * 1000.0);
            EchoTrainWalk<ByteMineralGrid> walk(*grid, map, plan.phase, parameters->randomSeed(),
                                                0);
            ExactSums sums = walk.emptyTally();
            // Ctrl-C is looked at every 1000 walkers.
            std::uint32_t i = 0;
            for (; i < walkers; ++i) {
                if (i % 1000 == 0 && !polls(i, walkers)) break;
                walk.walk(i, sums);
            }
            if (i == walkers) train = echoTrainOf(plan, sums, walkers, *parameters);
        }
        if (!train) polls.raisePending();
        py::dict out;
        out["echo_spacing_ms"] = spacing;
        out["time_ms"] = arrayOf(train->times);
        out["amplitude"] = arrayOf(train->amplitudes);
        out["t2_ms"] = arrayOf(train->distribution.t2);
        out["distribution"] = arrayOf(train->distribution.amplitude);
        out["t2lm_ms"] = train->logMeanT2;
        out["step_voxels"] = train->stepVoxels;
        out["steps_per_half_echo"] = train->stepsPerHalfEcho;
        trains.append(out);
    }
    return trains;
}

}  // namespace

void defineCpmg(py::module_& m) {
    m.def("cpmg", &cpmg, py::arg("labels"), py::arg("cell_size_um"), py::arg("minerals"),
          py::arg("path"), py::arg("overrides"), py::arg("seed"), py::arg("echo_spacing_ms"),
          py::arg("echoes"), py::arg("gradient"), py::arg("field"));
}

}  // namespace nmr::python
