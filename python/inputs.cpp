#include "python/inputs.h"

#include <mpi.h>
#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <stdexcept>

#include "common/exception.h"
#include "io/grid_loader.h"
#include "params/parameter_file.h"
#include "simulation/run_setup.h"
#include "simulation/walk_warnings.h"

namespace nmr::python {

namespace {

constexpr const char* kRelaxivityKeys[] = {"surfaceRelaxationStrengthWater",
                                           "surfaceRelaxationStrengthOil"};

bool isRelaxivityKey(const std::string& key) {
    return std::any_of(std::begin(kRelaxivityKeys), std::end(kRelaxivityKeys),
                       [&](const char* k) { return key == k; });
}

}  // namespace

// FileNotFoundError, as open() would raise it, for a path that is not there.
void requireFile(const std::string& path) {
    if (std::filesystem::exists(path)) return;
    errno = ENOENT;
    PyErr_SetFromErrnoWithFilename(PyExc_FileNotFoundError, path.c_str());
    throw py::error_already_set();
}

void ensureMpi() {
    int finalized = 0;
    MPI_Finalized(&finalized);
    if (finalized) throw std::runtime_error("MPI was already finalised in this process");
    int initialised = 0;
    MPI_Initialized(&initialised);
    if (initialised) return;
    int provided = 0;
    MPI_Init_thread(nullptr, nullptr, MPI_THREAD_SERIALIZED, &provided);
    py::module_::import("atexit").attr("register")(py::cpp_function([] {
        int done = 0;
        MPI_Finalized(&done);
        if (!done) MPI_Finalize();
    }));
}

// The settings of nmrwalk -p with `overrides` (a YAML map of settings) in place. A key a
// parameter file cannot hold raises KeyError: a misspelt key would otherwise be ignored
// and the run would quietly use the template's value. With mergeRelaxivities, a relaxivity
// map replaces the template's values of the minerals it names and keeps the others: a dict
// that names only Quartz would otherwise leave Clay without a relaxivity, and with it the
// walk without its switch to the coarse step (times 4 times too short). A file is taken as
// nmrwalk takes it, so that both give the same numbers.
std::unique_ptr<Parameters> parametersWith(const YAML::Node& overrides, const std::string& origin,
                                           bool mergeRelaxivities) {
    YAML::Node document = YAML::Load(encodeParameters(templateParameters()));
    YAML::Node settings = document[parameterRootKey()];
    if (overrides && !overrides.IsNull()) {
        if (!overrides.IsMap()) throw Exception(origin + " does not contain a yaml map.");
        for (const auto& entry : overrides) {
            const auto key = entry.first.as<std::string>();
            if (parameterKeys().count(key) == 0) throw py::key_error(key);
            if (mergeRelaxivities && isRelaxivityKey(key) && entry.second.IsMap()) {
                for (const auto& mineral : entry.second)
                    settings[key][mineral.first] = mineral.second;
            } else {
                settings[key] = entry.second;
            }
        }
    }
    return parseParameters(YAML::Dump(document), origin);
}

// A negative relaxivity passes nmrwalk's validation and then absorbs nothing; here it is
// refused.
void refuseNegativeRelaxivities(const Parameters& parameters) {
    const std::string refusal = negativeRelaxivityRefusal(parameters);
    if (!refusal.empty()) throw std::invalid_argument(refusal);
}

std::unique_ptr<Parameters> parametersFromFile(const std::string& path) {
    requireFile(path);
    const YAML::Node document = YAML::LoadFile(path);
    if (!document.IsMap() || !document[parameterRootKey()]) {
        throw Exception(path + " does not contain a yaml map.");
    }
    return parametersWith(document[parameterRootKey()], path, false);
}

LabelledRock labelledRock(py::array labels, double cellSize, const py::object& minerals) {
    LabelVolume volume(std::move(labels));
    if (!(cellSize > 0.0) || !std::isfinite(cellSize)) {
        throw std::invalid_argument("cell_size_um must be a positive number of micrometres; got " +
                                    std::to_string(cellSize));
    }
    return {std::move(volume), minerals.is_none() ? LabelCodes() : LabelCodes(minerals), cellSize};
}

// The settings of a call: the file's (path) or the dict's (overrides, as YAML text) on the
// template, with the seed in place when one is given.
std::unique_ptr<Parameters> parametersOf(const py::object& path, const std::string& overrides,
                                         const py::object& seed) {
    std::unique_ptr<Parameters> parameters;
    if (path.is_none()) {
        YAML::Node settings = YAML::Load(overrides);
        if (!seed.is_none()) settings["randomSeed"] = seed.cast<std::int32_t>();
        parameters = parametersWith(settings, "params", true);
    } else {
        parameters = parametersFromFile(path.cast<std::string>());
        if (!seed.is_none()) parameters->setRandomSeed(seed.cast<std::int32_t>());
    }
    if (parameters->numberOfWalkers() <= 0) {
        throw std::invalid_argument("numberOfWalkers must be positive; got " +
                                    std::to_string(parameters->numberOfWalkers()));
    }
    refuseNegativeRelaxivities(*parameters);
    ensureMpi();
    return parameters;
}

// The rock's cells as a run with these parameters loads them (its region, when one is on).
// Reads the label buffer only, so it runs without the GIL.
std::shared_ptr<ByteMineralGrid> gridOf(const LabelledRock& rock, const Parameters& parameters) {
    const MineralVolume cells{
        rock.volume.nx(), rock.volume.ny(), rock.volume.nz(), rock.cellSize,
        [&](std::uint32_t z, std::uint8_t* out) { rock.volume.sliceCodes(z, rock.codes, out); }};
    return buildByteMineralGrid(cells, runLoadOptions(parameters));
}

}  // namespace nmr::python
