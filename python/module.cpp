// The compiled half of the nmrwalk Python package; nmrwalk/__init__.py holds the public
// functions and their documentation and calls these.
#include <mpi.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "analysis/t2_summary.h"
#include "common/exception.h"
#include "common/logger.h"
#include "common/progress_reporter.h"
#include "field/dipole_field.h"
#include "fit/fit_request.h"
#include "fit/recording.h"
#include "fit/relaxivity_fit.h"
#include "io/grain_bed_grid_writer.h"
#include "io/grid_loader.h"
#include "params/parameter_file.h"
#include "python/arrays.h"
#include "python/cpmg.h"
#include "python/dt2.h"
#include "python/inputs.h"
#include "python/invert2d.h"
#include "python/label_volume.h"
#include "python/pfg.h"
#include "simulation/local_run.h"
#include "simulation/run_setup.h"
#include "simulation/step_rate.h"
#include "simulation/walk_warnings.h"
#include "t2/t2_inversion.h"

namespace py = pybind11;

namespace nmr::python {

namespace {

py::dict summaryOf(const LocalRun& run) {
    py::dict out;
    for (const RockSummaryEntry& entry : run.summaryEntries) {
        std::visit(
            [&](const auto& value) {
                using V = std::decay_t<decltype(value)>;
                if constexpr (std::is_same_v<V, std::array<std::uint32_t, 3>>) {
                    out[py::str(entry.label)] = py::make_tuple(value[0], value[1], value[2]);
                } else {
                    out[py::str(entry.label)] = value;
                }
            },
            entry.value);
    }
    const t2::T2Distribution& d = run.results.distribution;
    for (const auto& [name, value] :
         analysis::summaryEntries(analysis::summariseT2(d.t2, d.amplitude)))
        out[py::str(name)] = value;
    return out;
}

// Labels that are only 0 and 1 read as mineral codes make a rock of pore and clay: a
// pore/grain segmentation given without minerals= looks like that, and its walk is slow
// and wrong.
std::string codeLabelWarning(const LabelledRock& rock, const Grid<Mineral::Type>& grid) {
    if (!rock.codes.identity()) return {};
    const auto& counters = grid.counters();
    for (std::size_t code = 2; code < counters.size(); ++code)
        if (counters[code] != 0) return {};
    if (counters[Mineral::Clay] == 0) return {};
    std::ostringstream text;
    text << "labels hold only 0 and 1 and no minerals= was given, so they are read as mineral "
            "codes: 0 Pore and 1 Clay, a rock "
         << std::lround(100.0 * grid.volumeFraction(Mineral::Pore))
         << " % pore with clay for its only solid. For a pore/grain segmentation name the "
            "labels, e.g. minerals={0: \"Pore\", 1: \"Quartz\"} (or {1: \"Pore\", 0: "
            "\"Quartz\"} when 1 marks the pore)";
    return text.str();
}

// What simulate() and fit() say before they walk: the warnings of the parameters, of the
// walk (nmrwalk's own, see walkWarnings) and of the labels. Needs no GIL.
std::vector<std::string> warningsBeforeWalking(const LabelledRock& rock,
                                               const Parameters& parameters,
                                               const LocalWalk& walk) {
    std::vector<std::string> lines = meaninglessParameterWarnings(parameters);
    const Grid<Mineral::Type>& grid = walk.grid.grid();
    double stepsPerSecond = 0.0;
    if (!walk.walkers.empty() && nothingAbsorbs(grid, walk.plan)) {
        stepsPerSecond = walk.grid.visit(
            [&](const auto& g) { return measureStepRate(g, walk.walkers.front(), walk.plan); });
    }
    for (std::string& line :
         walkWarnings(parameters, walk.summary, walk.plan, grid, stepsPerSecond, 1))
        lines.push_back(std::move(line));
    if (std::string line = codeLabelWarning(rock, grid); !line.empty())
        lines.push_back(std::move(line));
    // Python names the category itself ("RuntimeWarning: ...").
    for (std::string& line : lines)
        if (line.rfind("Warning: ", 0) == 0) line.erase(0, 9);
    return lines;
}

// One walk at a time in a process: MPI was asked for serialised calls only.
std::mutex& walking() {
    static std::mutex lock;
    return lock;
}

py::dict simulate(py::array labels, double cellSize, const py::object& minerals,
                  const py::object& path, const std::string& overrides, const py::object& seed,
                  const py::object& progress) {
    const LabelledRock rock = labelledRock(std::move(labels), cellSize, minerals);
    const std::unique_ptr<Parameters> parameters = parametersOf(path, overrides, seed);
    WalkPolls polls(progress);
    std::optional<LocalRun> run;
    std::vector<std::string> warnings;
    {
        py::gil_scoped_release released;
        const std::lock_guard<std::mutex> one(walking());
        LocalWalk walk = prepareLocalWalk(*parameters, gridOf(rock, *parameters));
        warnings = warningsBeforeWalking(rock, *parameters, walk);
        if (polls.warn(warnings)) run = runLocally(*parameters, std::move(walk), std::ref(polls));
    }
    if (!run) polls.raisePending();

    py::dict out;
    out["time_ms"] = arrayOf(run->results.decay.times);
    out["amplitude"] = arrayOf(run->results.decay.values);
    out["t2_ms"] = arrayOf(run->results.distribution.t2);
    out["distribution"] = arrayOf(run->results.distribution.amplitude);
    out["lambda_"] = run->results.distribution.lambda;
    out["summary"] = summaryOf(*run);
    out["walk_seconds"] = run->walkSeconds;
    out["warnings"] = warnings;
    return out;
}

// The measured decay; with an imaginary part it is turned onto the real axis as
// nmrwalk-invert turns a four-column file.
analysis::MeasuredDecay measuredDecay(const py::array_t<double, py::array::forcecast>& times,
                                      const py::array_t<double, py::array::forcecast>& values,
                                      const py::object& imaginary) {
    analysis::MeasuredDecay measured;
    measured.times = listOf(times, "time_ms");
    measured.values = listOf(values, "amplitude");
    if (!imaginary.is_none()) {
        const std::vector<double> im =
            listOf(imaginary.cast<py::array_t<double, py::array::forcecast>>(), "amplitude");
        if (im.size() != measured.values.size())
            throw std::invalid_argument("amplitude: bad shape");
        measured.columns = 4;
        analysis::rotateOntoRealAxis(measured, im);
    }
    if (measured.times.size() != measured.values.size()) {
        throw std::invalid_argument(
            "time_ms and amplitude differ in length: " + std::to_string(measured.times.size()) +
            " and " + std::to_string(measured.values.size()));
    }
    if (measured.times.size() < fit::MeasuredWindow::kLeastPoints) {
        throw std::invalid_argument(
            "a fit needs at least " + std::to_string(fit::MeasuredWindow::kLeastPoints) +
            " measured points; got " + std::to_string(measured.times.size()));
    }
    for (std::size_t i = 0; i < measured.times.size(); ++i) measured.lines.push_back(i + 1);
    return measured;
}

// The fields of FitResult (python/nmrwalk/__init__.py): values, intervals, correlations,
// what the decay cannot tell apart and the combination it does fix, and the warnings.
py::dict fitFields(const fit::FitRequest& request, const fit::FitResult& result,
                   const DecayCurve& decay) {
    std::vector<std::string> names;
    for (Mineral::Type code : request.minerals) names.push_back(Mineral::name(code));
    const std::size_t m = names.size();
    py::dict out;
    out["minerals"] = names;
    out["relaxivity"] = result.value;
    out["uncertainty"] = result.uncertainty;
    out["interval"] = py::make_tuple(result.lower, result.upper);
    py::array_t<double> correlation({m, m});
    for (std::size_t i = 0; i < m; ++i) {
        for (std::size_t j = 0; j < m; ++j)
            correlation.mutable_at(i, j) = result.correlationOf(i, j);
    }
    out["correlation"] = correlation;
    py::list pairs, means, warnings;
    for (const fit::NotDetermined& pair : result.notDetermined) {
        pairs.append(py::make_tuple(names[pair.first], names[pair.second], pair.correlation));
    }
    for (const fit::SurfaceWeightedMean& mean : result.combinations) {
        py::dict weights;
        for (std::size_t k = 0; k < mean.members.size(); ++k) {
            weights[py::str(names[mean.members[k]])] = mean.weights[k];
        }
        means.append(py::make_tuple(weights, mean.value, mean.uncertainty));
    }
    std::vector<bool> atBound(m, false);
    for (const fit::BoundHit& hit : result.atBound) {
        atBound[hit.index] = true;
        char suggestion[64];
        std::snprintf(suggestion, sizeof suggestion, "bounds=(%g, %g)", hit.suggestedLower,
                      hit.suggestedUpper);
        warnings.append(fit::boundWarning(hit, request, suggestion));
    }
    out["not_determined"] = pairs;
    out["surface_weighted_means"] = means;
    out["fit_warnings"] = warnings;
    out["at_bound"] = atBound;
    out["noise"] = py::make_tuple(result.noise.walk, result.noise.measurementWhite,
                                  result.noise.measurementShaped);
    out["misfit"] = result.misfit.sumOfSquares;
    out["scale"] = result.misfit.scale;
    out["evaluations"] = result.evaluations;
    out["time_ms"] = arrayOf(decay.times);
    out["amplitude"] = arrayOf(decay.values);
    return out;
}

// The fit of nmrwalk-fit at one process: the recording walk of the rock (the walk of a
// run, every walker's contacts kept), then the relaxivities of `fitted` (empty: every
// relaxing mineral of the rock) that make it match the measured decay.
py::dict fitRelaxivity(py::array labels, double cellSize, const py::object& minerals,
                       const py::object& path, const std::string& overrides, const py::object& seed,
                       const py::array_t<double, py::array::forcecast>& times,
                       const py::array_t<double, py::array::forcecast>& values,
                       const py::object& imaginary, const std::vector<std::string>& fitted,
                       const py::object& bounds, const py::object& progress) {
    const LabelledRock rock = labelledRock(std::move(labels), cellSize, minerals);
    const analysis::MeasuredDecay measured = measuredDecay(times, values, imaginary);
    fit::FitChoice options;
    options.measured = "the measured decay";
    options.minerals = fitted;
    if (!bounds.is_none()) {
        const auto [lower, upper] = bounds.cast<std::pair<double, double>>();
        options.lower = lower;
        options.upper = upper;
    }
    const std::unique_ptr<Parameters> parameters = parametersOf(path, overrides, seed);
    WalkPolls polls(progress);

    struct Outcome {
        fit::FitRequest request;
        fit::FitResult result;
        DecayCurve decay;
        fit::Distribution measured;
        fit::Distribution fitted;
    };
    std::optional<Outcome> outcome;
    std::vector<std::string> warnings;
    {
        py::gil_scoped_release released;
        const std::lock_guard<std::mutex> one(walking());
        LocalWalk walk = prepareLocalWalk(*parameters, gridOf(rock, *parameters));
        warnings = warningsBeforeWalking(rock, *parameters, walk);
        if (!polls.warn(warnings)) polls.raisePending();
        const fit::FitRequest request =
            fit::fitRequest(options, parameters->surfaceRelaxationStrengthWater(),
                            walk.grid.grid().counters(), "labels");
        fit::checkOverlap(measured, walk.plan.schedule.intervalEndTime, options.measured);
        const fit::RecordedRun run = fit::describeRecordedRun(
            *parameters, walk.summary, walk.plan, walk.grid, fit::floorsOf(request, options));
        RandomStream roulette(fit::rouletteSeed(parameters->randomSeed(), 0));
        fit::RecordingHooks hooks;
        hooks.poll = std::ref(polls);
        std::optional<fit::ContactHistories> histories = walk.grid.visit([&](const auto& g) {
            return fit::recordWalkers(g, walk.walkers, *walk.stream, roulette, run, walk.plan,
                                      fit::chunkWalkersFor(parameters->numberOfWalkers()), hooks,
                                      MPI_COMM_SELF);
        });
        walk.grid = {};
        if (histories) {
            const fit::RelaxivityFit fitter(*histories, run, {measured.times, measured.values},
                                            std::max(1u, std::thread::hardware_concurrency()));
            histories.reset();  // the fitter evaluates its own expanded copy
            fit::checkWindow(fitter.window(), measured, options.measured);
            fit::FitResult result = fitter.fit(request);
            DecayCurve decay = fitter.decayAt(result.relaxivity);
            fit::Distribution fittedDistribution =
                fit::distributionOf(decay.times, decay.values, *parameters);
            outcome = Outcome{request, std::move(result), std::move(decay),
                              fit::distributionOf(measured.times, measured.values, *parameters),
                              std::move(fittedDistribution)};
        }
    }
    if (!outcome) polls.raisePending();

    // What was said before the walk comes first, then what the fit found.
    py::dict out = fitFields(outcome->request, outcome->result, outcome->decay);
    py::list all;
    for (const std::string& line : warnings) all.append(line);
    for (const auto& line : out["fit_warnings"]) all.append(line);
    out["warnings"] = all;
    // Both distributions on the T2 axis of the parameters, as T2fit.png shows them.
    out["t2_ms"] = arrayOf(outcome->measured.t2);
    out["measured_distribution"] = arrayOf(outcome->measured.amplitude);
    out["fitted_distribution"] = arrayOf(outcome->fitted.amplitude);
    out["measured_t2lm_ms"] = outcome->measured.logMeanT2;
    out["fitted_t2lm_ms"] = outcome->fitted.logMeanT2;
    out["phase_radians"] = measured.phaseRadians;
    return out;
}

py::tuple invert(const py::array_t<double, py::array::forcecast>& times,
                 const py::array_t<double, py::array::forcecast>& amplitude, double t2Min,
                 double t2Max, std::int32_t components) {
    const std::vector<double> t = listOf(times, "time_ms");
    const std::vector<double> a = listOf(amplitude, "amplitude");
    if (t.size() != a.size()) {
        throw std::invalid_argument("time_ms and amplitude differ in length: " +
                                    std::to_string(t.size()) + " and " + std::to_string(a.size()));
    }
    if (t.empty()) throw std::invalid_argument("the decay has no points");
    if (!(t2Min > 0.0) || !(t2Max > t2Min)) {
        throw std::invalid_argument("the T2 axis needs 0 < t2_min < t2_max; got " +
                                    std::to_string(t2Min) + " and " + std::to_string(t2Max));
    }
    if (components < 10 || components > 500) {
        throw std::invalid_argument("components must lie between 10 and 500, as in a run; got " +
                                    std::to_string(components));
    }
    t2::T2Distribution d;
    {
        py::gil_scoped_release released;
        d = t2::invertDecay(t, a, t2Min, t2Max, components);
    }
    return py::make_tuple(arrayOf(d.t2), arrayOf(d.amplitude), d.lambda);
}

// The interior cells of a grid file (its margins cut off, as a run does), codes [z, y, x].
py::tuple readGrid(const std::string& path) {
    requireFile(path);
    NullLogger quiet;
    NullProgressReporter progress;
    std::shared_ptr<ByteMineralGrid> grid;
    {
        py::gil_scoped_release released;
        grid =
            loadByteMineralGrid(prepareGridFile(path, quiet), GridLoadOptions{}, quiet, progress);
    }
    const std::uint32_t nx = grid->nx(), ny = grid->ny(), nz = grid->nz();
    py::array_t<std::uint8_t> codes(
        {static_cast<py::ssize_t>(nz), static_cast<py::ssize_t>(ny), static_cast<py::ssize_t>(nx)});
    // Loaded without margins, so each slice is nx * ny contiguous cells, x fastest.
    for (std::uint32_t z = 0; z < nz; ++z)
        std::memcpy(codes.mutable_data(z, 0, 0), grid->sliceData(z), std::size_t{nx} * ny);
    return py::make_tuple(codes, grid->cellSize());
}

// The susceptibility per mineral code from a mapping of display name to SI susceptibility,
// as volumeSusceptibility of nmr.yaml gives it: Pore is required, every mineral of the grid
// needs a value, and the others take the fluid's.
field::Susceptibilities susceptibilityTable(const py::dict& given, const ByteMineralGrid& grid) {
    std::map<Mineral::Type, double> values;
    for (const auto& [key, value] : given) {
        const std::string name = py::str(key);
        const Mineral::Type code = Mineral::fromName(name);
        if (code == Mineral::Unknown || !py::isinstance<py::str>(key))
            throw std::invalid_argument("susceptibility: " + std::string(py::repr(key)) +
                                        " is not a mineral name (see MINERALS)");
        values[code] = value.cast<double>();
    }
    if (values.count(Mineral::Pore) == 0)
        throw std::invalid_argument(
            "susceptibility needs \"Pore\", the susceptibility of the pore fluid (water: "
            "-9.05e-06)");
    field::Susceptibilities table{};
    table.fill(values[Mineral::Pore]);
    for (const auto& [code, chi] : values) table[code] = chi;
    for (const Mineral::Type code : Mineral::allTypes())
        if (grid.counter(code) > 0 && values.count(code) == 0)
            throw std::invalid_argument("susceptibility has no value for " + Mineral::name(code) +
                                        ", which the labels hold");
    return table;
}

// dB/B0 of the rock as nmrwalk-field computes it at one process, [z, y, x] float32. The
// values move into the array without a copy.
py::array_t<float> internalField(py::array labels, double cellSize, const py::object& minerals,
                                 const py::dict& susceptibility, const std::string& direction,
                                 const py::object& padding) {
    const LabelledRock rock = labelledRock(std::move(labels), cellSize, minerals);
    field::FieldOptions options;
    try {
        options.direction = field::axisFromName(direction);
        if (!padding.is_none()) options.padding = padding.cast<double>();
        field::paddedLength(1, options.padding);
    } catch (const Exception& e) {
        throw std::invalid_argument(e.message());
    }
    const MineralVolume cells{
        rock.volume.nx(), rock.volume.ny(), rock.volume.nz(), rock.cellSize,
        [&](std::uint32_t z, std::uint8_t* out) { rock.volume.sliceCodes(z, rock.codes, out); }};
    std::shared_ptr<ByteMineralGrid> grid;
    {
        py::gil_scoped_release released;
        grid = buildByteMineralGrid(cells, GridLoadOptions{});
    }
    const field::Susceptibilities table = susceptibilityTable(susceptibility, *grid);
    auto values = std::make_unique<std::vector<float>>();
    {
        py::gil_scoped_release released;
        *values = field::computeField(*grid, table, options);
    }
    const std::vector<py::ssize_t> shape{rock.volume.nz(), rock.volume.ny(), rock.volume.nx()};
    std::vector<float>* held = values.release();
    const py::capsule owner(held,
                            [](void* vector) { delete static_cast<std::vector<float>*>(vector); });
    return py::array_t<float>(shape, held->data(), owner);
}

// A grain bed grid file of the labels' minerals, without margins; a failed write leaves
// no file behind.
void writeGrid(const std::string& path, py::array labels, double cellSize,
               const py::object& minerals) {
    const LabelledRock rock = labelledRock(std::move(labels), cellSize, minerals);
    const LabelVolume& volume = rock.volume;
    const LabelCodes& codes = rock.codes;
    py::gil_scoped_release released;
    try {
        GrainBedGridWriter writer(path, volume.nx(), volume.ny(), volume.nz(), 0, 0, 0, cellSize);
        const std::size_t n = static_cast<std::size_t>(volume.nx()) * volume.ny();
        std::vector<std::uint8_t> slice(n);
        std::vector<GrainBedGridCell> cells(n);
        for (std::uint32_t z = 0; z < volume.nz(); ++z) {
            volume.sliceCodes(z, codes, slice.data());
            for (std::size_t i = 0; i < n; ++i) cells[i] = GrainBedGridCell::make(0, slice[i]);
            writer.writeSlice(cells.data());
        }
        writer.close();
    } catch (...) {
        std::error_code ignored;
        std::filesystem::remove(path, ignored);
        throw;
    }
}

}  // namespace

}  // namespace nmr::python

PYBIND11_MODULE(_nmrwalk, m) {
    using namespace nmr::python;
    m.doc() = "Compiled core of the nmrwalk package; use the functions of nmrwalk itself.";
    static py::exception<nmr::Exception> error(m, "Error", PyExc_RuntimeError);
    // By value: pybind11 takes a plain function of an exception_ptr.
    // NOLINTNEXTLINE(performance-unnecessary-value-param)
    py::register_exception_translator([](std::exception_ptr thrown) {
        try {
            if (thrown) std::rethrow_exception(thrown);
        } catch (const nmr::Exception& e) {
            // The detail (which file, what sizes) is the line nmrwalk prints under a fixed
            // message; here it goes into the one text.
            const std::string text =
                e.detail().empty() ? e.message() : e.message() + "\n" + e.detail();
            PyErr_SetString(error.ptr(), text.c_str());
        } catch (const YAML::Exception& e) {
            // A value of the wrong type or a malformed file, with its line and column.
            PyErr_SetString(PyExc_ValueError, e.what());
        }
    });
    m.def("simulate", &simulate, py::arg("labels"), py::arg("cell_size_um"), py::arg("minerals"),
          py::arg("path"), py::arg("overrides"), py::arg("seed"), py::arg("progress"));
    m.def("invert", &invert, py::arg("time_ms"), py::arg("amplitude"), py::arg("t2_min"),
          py::arg("t2_max"), py::arg("components"));
    defineInvert2d(m);
    defineCpmg(m);
    definePfg(m);
    defineDt2(m);
    m.def("fit", &fitRelaxivity, py::arg("labels"), py::arg("cell_size_um"), py::arg("minerals"),
          py::arg("path"), py::arg("overrides"), py::arg("seed"), py::arg("time_ms"),
          py::arg("amplitude"), py::arg("imaginary"), py::arg("fit"), py::arg("bounds"),
          py::arg("progress"));
    m.def("field", &internalField, py::arg("labels"), py::arg("cell_size_um"), py::arg("minerals"),
          py::arg("susceptibility"), py::arg("b0_direction"), py::arg("padding"));
    m.def("read_grid", &readGrid, py::arg("path"));
    m.def("write_grid", &writeGrid, py::arg("path"), py::arg("labels"), py::arg("cell_size_um"),
          py::arg("minerals"));
    m.def("minerals", [] {
        std::vector<std::pair<std::string, int>> table;
        for (nmr::Mineral::Type code : nmr::Mineral::allTypes())
            table.emplace_back(nmr::Mineral::name(code), static_cast<int>(code));
        return table;
    });
    m.def("parameter_keys", [] {
        return std::vector<std::string>(nmr::parameterKeys().begin(), nmr::parameterKeys().end());
    });
}
