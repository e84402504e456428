#pragma once

// What the functions of the Python module take in: the label volume and its minerals,
// the settings (a parameter file or a dict on nmrwalk -p's template), the grid a run
// walks, MPI started on demand, and the polls of a walk with the GIL released.

#include <pybind11/pybind11.h>
#include <yaml-cpp/yaml.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "grid/byte_mineral_grid.h"
#include "params/nmr_parameters.h"
#include "python/label_volume.h"

namespace nmr::python {

namespace py = pybind11;
using Parameters = NuclearMagneticResonanceParameters;

// MPI is started here when nobody has (a plain interpreter: singleton mode) and finished at
// the interpreter's exit, only then. When mpi4py or a host program started it, it is theirs
// to finish. Every run inside the module uses MPI_COMM_SELF only.
void ensureMpi();

// The settings of nmrwalk -p with `overrides` in place (see inputs.cpp); a key a parameter
// file cannot hold raises KeyError.
std::unique_ptr<Parameters> parametersWith(const YAML::Node& overrides, const std::string& origin,
                                           bool mergeRelaxivities);
// A negative relaxivity passes nmrwalk's validation and then absorbs nothing; here it is
// refused (ValueError).
void refuseNegativeRelaxivities(const Parameters& parameters);
// FileNotFoundError, as open() would raise it, for a path that is not there.
void requireFile(const std::string& path);
// A parameter file as nmrwalk takes it; FileNotFoundError when it is not there.
std::unique_ptr<Parameters> parametersFromFile(const std::string& path);

// Polls of a walk in progress, with the GIL released in between: Ctrl-C (or an exception
// of the progress callback) stops the walk at the next poll and is raised once the walk
// has let go.
class WalkPolls {
public:
    explicit WalkPolls(py::object progress) : progress_(std::move(progress)) {}

    bool operator()(std::uint32_t done, std::uint32_t total) {
        py::gil_scoped_acquire gil;
        try {
            if (PyErr_CheckSignals() != 0) throw py::error_already_set();
            if (!progress_.is_none()) progress_(done, total);
            return true;
        } catch (py::error_already_set& error) {
            pending_ = std::move(error);
            return false;
        }
    }
    void raisePending() {
        if (pending_) throw std::move(*pending_);
    }
    // Shows each line as a RuntimeWarning at the caller of nmrwalk's function, before the
    // walk, which may take long. False when a warning became an error (a warnings filter
    // set to "error"); that error is then pending.
    bool warn(const std::vector<std::string>& lines) {
        if (lines.empty()) return true;
        py::gil_scoped_acquire gil;
        for (const std::string& line : lines) {
            // Level 2: past the function of nmrwalk/__init__.py, at the user's call.
            if (PyErr_WarnEx(PyExc_RuntimeWarning, line.c_str(), 2) != 0) {
                pending_.emplace();
                return false;
            }
        }
        return true;
    }

private:
    py::object progress_;
    std::optional<py::error_already_set> pending_;
};

// A label volume with its cell size and the codes of its labels, as simulate() and
// write_grid() take them.
struct LabelledRock {
    LabelVolume volume;
    LabelCodes codes;
    double cellSize;
};
LabelledRock labelledRock(py::array labels, double cellSize, const py::object& minerals);

// The settings of a call: the file's (path) or the dict's (overrides, as YAML text) on the
// template, with the seed in place when one is given. Starts MPI.
std::unique_ptr<Parameters> parametersOf(const py::object& path, const std::string& overrides,
                                         const py::object& seed);

// The rock's cells as a run with these parameters loads them (its region, when one is on).
// Reads the label buffer only, so it runs without the GIL.
std::shared_ptr<ByteMineralGrid> gridOf(const LabelledRock& rock, const Parameters& parameters);

}  // namespace nmr::python
