// nmrwalk.invert2d: the map of nmrwalk-invert --dt2 / --t1t2 from numpy arrays, by the same
// block reader, axes and inversion.
#include "python/invert2d.h"

#include <pybind11/numpy.h>
#include <pybind11/stl.h>

#include <cmath>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "inversion/data_file.h"
#include "inversion/map_inversion.h"
#include "python/arrays.h"

namespace py = pybind11;

namespace nmr::python {

namespace {

// The data of invert2d: an N1 x N2 amplitude array with its two axes, or the N x 3 rows of
// a data file (first column in blocks), assembled as the file reader assembles them.
inversion::Data2d data2d(const py::array_t<double, py::array::forcecast>& data,
                         const py::object& first, const py::object& times) {
    if (data.ndim() != 2) throw std::invalid_argument("data must be 2-D");
    const auto view = data.unchecked<2>();
    inversion::Data2d d;
    if (first.is_none() != times.is_none())
        throw std::invalid_argument("give both axes of the data, or neither (three columns)");
    if (first.is_none()) {
        if (view.shape(1) != 3)
            throw std::invalid_argument("data without axes must have three columns; got " +
                                        std::to_string(view.shape(1)));
        inversion::BlockAssembler blocks("the data");
        for (py::ssize_t i = 0; i < view.shape(0); ++i) {
            for (int k = 0; k < 3; ++k)
                if (!std::isfinite(view(i, k)))
                    throw std::invalid_argument("data row " + std::to_string(i) +
                                                " holds a value that is not finite");
            blocks.add(view(i, 0), view(i, 1), view(i, 2), "data row " + std::to_string(i));
        }
        return blocks.finish();
    }
    d.first = listOf(first.cast<py::array_t<double, py::array::forcecast>>(), "first");
    d.times = listOf(times.cast<py::array_t<double, py::array::forcecast>>(), "time_ms");
    if (static_cast<std::size_t>(view.shape(0)) != d.first.size() ||
        static_cast<std::size_t>(view.shape(1)) != d.times.size())
        throw std::invalid_argument(
            "data must be len(first) x len(time_ms): " + std::to_string(view.shape(0)) + " x " +
            std::to_string(view.shape(1)) + " for " + std::to_string(d.first.size()) + " and " +
            std::to_string(d.times.size()));
    d.amplitude.resize(view.shape(0), view.shape(1));
    for (py::ssize_t i = 0; i < view.shape(0); ++i)
        for (py::ssize_t j = 0; j < view.shape(1); ++j) d.amplitude(i, j) = view(i, j);
    return d;
}

std::optional<double> endOf(const py::object& range, int k) {
    if (range.is_none()) return std::nullopt;
    const auto ends = range.cast<std::pair<std::optional<double>, std::optional<double>>>();
    return k == 0 ? ends.first : ends.second;
}

py::dict invert2d(const py::array_t<double, py::array::forcecast>& data, const py::object& first,
                  const py::object& times, const std::string& kind, int points,
                  std::optional<double> noise, const py::object& range1,
                  const py::object& rangeT2) {
    if (kind != "dt2" && kind != "t1t2")
        throw std::invalid_argument("kind must be \"dt2\" or \"t1t2\"; got \"" + kind + "\"");
    if (points < 10 || points > 100)
        throw std::invalid_argument(
            "points must lie between 10 and 100, as in nmrwalk-invert; got " +
            std::to_string(points));
    const inversion::Data2d d = data2d(data, first, times);
    const auto kind1 =
        kind == "dt2" ? inversion::KernelKind::Diffusion : inversion::KernelKind::InversionRecovery;
    for (double x : d.first)
        if (x < 0.0) throw std::invalid_argument("negative b or recovery time in the data");
    for (double t : d.times)
        if (t < 0.0) throw std::invalid_argument("negative time in the data");
    inversion::MapOptions options;
    options.noise = noise;
    inversion::MapResult r;
    {
        py::gil_scoped_release released;
        r = inversion::invertMap(
            inversion::separableKernel(
                kind1, d.first,
                inversion::mapAxis(kind1, d.first, points, endOf(range1, 0), endOf(range1, 1)),
                inversion::KernelKind::Decay, d.times,
                inversion::mapAxis(inversion::KernelKind::Decay, d.times, points, endOf(rangeT2, 0),
                                   endOf(rangeT2, 1))),
            d.amplitude, options);
    }
    py::array_t<double> map(
        {static_cast<py::ssize_t>(r.map.rows()), static_cast<py::ssize_t>(r.map.cols())});
    for (Eigen::Index p = 0; p < r.map.rows(); ++p)
        for (Eigen::Index q = 0; q < r.map.cols(); ++q) *map.mutable_data(p, q) = r.map(p, q);
    const char* source = "given";
    if (r.noiseSource == inversion::NoiseSource::Estimated) source = "estimated";
    if (r.noiseSource == inversion::NoiseSource::Floor) source = "floor";
    py::dict out;
    out["map"] = map;
    out["axis1"] = arrayOf(r.axis1);
    out["t2_ms"] = arrayOf(r.axis2);
    out["alpha"] = r.alpha;
    out["noise"] = r.noise;
    out["noise_source"] = source;
    out["estimated_noise"] = r.estimatedNoise;
    out["residual_rms"] = r.residualRms;
    out["projection1"] = arrayOf(r.projection1);
    out["projection_t2"] = arrayOf(r.projection2);
    out["log_mean1"] = r.logMean1;
    out["log_mean_t2"] = r.logMean2;
    return out;
}

}  // namespace

void defineInvert2d(py::module_& m) {
    m.def("invert2d", &invert2d, py::arg("data"), py::arg("first"), py::arg("time_ms"),
          py::arg("kind"), py::arg("points"), py::arg("noise"), py::arg("axis1_range"),
          py::arg("t2_range"));
}

}  // namespace nmr::python
