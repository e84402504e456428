"""NMR T2 relaxation of digital rock by random walks, from numpy.

A label volume (a 3-D integer array indexed [z, y, x]) and the settings of an nmr.yaml
file go in; the magnetization decay and its T2 distribution come out, the same numbers,
bit for bit, that ``nmrwalk`` writes to T2decay.out and T2inversion.out when it runs the
same grid, parameters and seed on one process.

Functions:
    simulate    walk a rock and invert its decay
    fit         surface relaxivities that match a measured decay, from one walk
    invert      the T2 distribution of any decay (as nmrwalk-invert)
    invert2d    a D-T2 or T1-T2 map of 2-D data (as nmrwalk-invert --dt2 / --t1t2)
    read_grid   the mineral codes and cell size of a grain bed grid file
    write_grid  a grain bed grid file of a label volume
    parameter_keys  the keys params may hold

Errors: ValueError for bad arguments, KeyError for an unknown parameter key,
FileNotFoundError for a missing file, nmrwalk.Error (a RuntimeError) with the program's
own message for anything a run or a file reader refuses.
"""

import json
import os
import sys
import warnings

from . import _nmrwalk

__all__ = ["simulate", "fit", "FitResult", "invert", "invert2d", "Map", "read_grid", "write_grid",
           "parameter_keys", "Result", "Error", "MINERALS"]

Error = _nmrwalk.Error

# Mineral codes by display name, as grid files and nmr.yaml name them.
MINERALS = dict(_nmrwalk.minerals())


class Result:
    """What a simulation ends with.

    Attributes:
        time_ms:      decay times in ms (numpy array), as the first column of T2decay.out
        amplitude:    normalised decay amplitudes, its second column
        t2_ms:        the T2 axis of the inversion in ms, as the first column of
                      T2inversion.out
        distribution: the T2 distribution on that axis, its second column
        lambda_:      the regularisation parameter the inversion chose
        summary:      the rock summary that nmrwalk prints (keys as printed, e.g.
                      "Total porosity"), with the T2 figures of nmrwalk-plot: cutoffMs,
                      totalAmplitude, logMeanT2Ms (T2LM), peakT2Ms, boundFraction and
                      freeFraction
        walk_seconds: time spent walking
    """

    def __init__(self, fields):
        self.time_ms = fields["time_ms"]
        self.amplitude = fields["amplitude"]
        self.t2_ms = fields["t2_ms"]
        self.distribution = fields["distribution"]
        self.lambda_ = fields["lambda_"]
        self.summary = fields["summary"]
        self.walk_seconds = fields["walk_seconds"]

    def __repr__(self):
        return ("Result(%d decay points, T2LM %.4g ms, lambda %.4g)"
                % (len(self.time_ms), self.summary["logMeanT2Ms"], self.lambda_))


def parameter_keys():
    """The keys params may hold: those of nmr.yaml, required and optional."""
    return list(_nmrwalk.parameter_keys())


def _native(labels):
    # Cells are read in place in any memory order; only big-endian numbers need a copy.
    # numpy is imported here, not with the package, so that importing nmrwalk needs only
    # the interpreter (help(), MINERALS, parameter_keys()).
    import numpy as np

    if isinstance(labels, np.ndarray) and not labels.dtype.isnative:
        return labels.astype(labels.dtype.newbyteorder("="))
    return labels


def _plain(value):
    # numpy scalars and arrays inside params, as JSON (YAML's flow subset) takes them.
    if hasattr(value, "tolist"):
        return value.tolist()
    raise TypeError("params: %r cannot be written to a parameter file" % (value,))


class _ProgressBar:
    """A one-line bar on standard error, redrawn when a whole percent more is done."""

    def __init__(self, stream=None):
        self._stream = stream or sys.stderr
        self._shown = -1
        self._total = 0

    def __call__(self, done, total):
        self._total = total
        percent = 100 * done // max(total, 1)
        if percent == self._shown:
            return
        self._shown = percent
        filled = percent // 2
        self._stream.write("\rwalking [%s%s] %3d%% of %d walkers"
                           % ("#" * filled, " " * (50 - filled), percent, total))
        self._stream.flush()

    def close(self):
        if self._shown >= 0:
            self.__call__(self._total, self._total)
            self._stream.write("\n")
            self._stream.flush()


def _parameter_overrides(params, seed):
    """(path, YAML text of the overrides) for the params argument of simulate and fit.

    Unknown keys are refused by the compiled part, for a dict as for a file.
    """
    if seed is not None and not isinstance(seed, int):
        raise TypeError("seed must be an integer")
    if isinstance(params, (str, bytes, os.PathLike)):
        return os.fsdecode(params), "{}"
    if not isinstance(params, dict):
        raise TypeError("params must be a dict of nmr.yaml settings or a path to one, not %s"
                        % type(params).__name__)
    if "subsampleCalculation" not in params:
        warnings.warn("subsampleCalculation defaults to true with the regionOfInterest of "
                      "nmrwalk -p (x 10-20, y 20-30, z 3-9): only that box is walked; pass "
                      "subsampleCalculation=False in params to walk the whole volume",
                      stacklevel=3)
    return None, json.dumps(params, default=_plain)


def simulate(labels, cell_size_um, params, minerals=None, seed=None, progress=False):
    """Walk a rock and return its decay and T2 distribution (a Result).

    labels:       3-D integer numpy array indexed [z, y, x], any integer dtype and any
                  memory order (read in place, not copied).
    cell_size_um: edge of a cell in micrometres, > 0.
    params:       a dict of nmr.yaml settings, or the path of an nmr.yaml file. Keys left
                  out take the values that ``nmrwalk -p`` writes; a key nmr.yaml cannot
                  hold raises KeyError. Mind two of those values: diffusionConstantWater
                  is 0 (set it), and subsampleCalculation is true with a small
                  regionOfInterest; pass subsampleCalculation=False to walk the whole
                  volume. The grid key is not used: the grid is labels.
    minerals:     dict from label value to mineral display name (see MINERALS), e.g.
                  {0: "Pore", 1: "Quartz", 2: "Clay"}. Without it the labels are the
                  mineral codes 0 to 13. A label absent from it raises ValueError.
    seed:         random seed, in place of the randomSeed of params.
    progress:     show a progress bar on standard error.

    The walk runs in this process with the GIL released; Ctrl-C stops it with
    KeyboardInterrupt. The result equals, bit for bit, nmrwalk's T2decay.out and
    T2inversion.out on one process for the same grid, parameters and seed.
    """
    path, overrides = _parameter_overrides(params, seed)
    bar = _ProgressBar() if progress else None
    try:
        fields = _nmrwalk.simulate(_native(labels), float(cell_size_um), minerals, path, overrides,
                                   seed, bar)
    finally:
        if bar is not None:
            bar.close()
    for line in fields["warnings"]:
        warnings.warn(line, RuntimeWarning, stacklevel=2)
    return Result(fields)


class FitResult:
    """Surface relaxivities fitted to a measured decay.

    Attributes:
        relaxivity:  {mineral display name: fitted relaxivity in m/s}
        uncertainty: {mineral display name: one standard deviation in m/s}, from the
                     walkers (bootstrap) and the measurement's scatter (curvature of the
                     misfit) in quadrature, as nmrwalk-fit reports it
        at_bound:    {mineral display name: True when the value lies on a bound}
        misfit:      sum of squared differences at the fit
        scale:       amplitude scale, simulated per measured unit
        evaluations: decays computed by the optimiser
        time_ms, amplitude: the simulated decay at the fitted relaxivities
    """

    def __init__(self, fields):
        names = fields["minerals"]
        self.relaxivity = dict(zip(names, fields["relaxivity"]))
        self.uncertainty = dict(zip(names, fields["uncertainty"]))
        self.at_bound = dict(zip(names, fields["at_bound"]))
        self.misfit = fields["misfit"]
        self.scale = fields["scale"]
        self.evaluations = fields["evaluations"]
        self.time_ms = fields["time_ms"]
        self.amplitude = fields["amplitude"]

    def __repr__(self):
        return "FitResult(%s, misfit %.4g)" % (
            ", ".join("%s %.4g m/s" % item for item in self.relaxivity.items()), self.misfit)


def fit(labels, cell_size_um, params, time_ms, amplitude, minerals=None, fit=None, bounds=None,
        seed=None, progress=False):
    """Fit the surface relaxivity of each mineral to a measured decay, from one walk.

    As nmrwalk-fit at one process: the walk of simulate() with every walker's contacts
    with each mineral recorded, then the relaxivities that make the simulated decay match
    the measured one times a free amplitude scale (NLopt's BOBYQA on log relaxivity).

    labels, cell_size_um, params, minerals, seed, progress: as for simulate().
    time_ms, amplitude: the measured decay (at least 10 points inside the simulated times).
    fit:    mineral display names to fit; by default every mineral of the rock with a
            non-zero relaxivity in params. The others keep their values.
    bounds: (lower, upper) in m/s for every fitted mineral; by default each one's value in
            params halved and doubled.

    Returns a FitResult. The walk and the fit run with the GIL released; Ctrl-C stops the
    walk with KeyboardInterrupt (the fit after it takes seconds).
    """
    path, overrides = _parameter_overrides(params, seed)
    names = [fit] if isinstance(fit, str) else list(fit or [])
    bar = _ProgressBar() if progress else None
    try:
        fields = _nmrwalk.fit(_native(labels), float(cell_size_um), minerals, path, overrides,
                              seed, time_ms, amplitude, names,
                              None if bounds is None else tuple(map(float, bounds)), bar)
    finally:
        if bar is not None:
            bar.close()
    return FitResult(fields)


def invert(time_ms, amplitude, t2_min=0.0001, t2_max=10000.0, components=100):
    """The T2 distribution of a decay, by the inversion of nmrwalk-invert.

    time_ms, amplitude: the decay, two 1-D sequences of one length.
    t2_min, t2_max:     ends of the logarithmic T2 axis in ms (0 < t2_min < t2_max).
    components:         points of the axis, 10 to 500.

    Returns (t2_ms, distribution, lambda_): the axis, the amplitudes on it and the
    regularisation parameter chosen at the corner of the L-curve.
    """
    return _nmrwalk.invert(time_ms, amplitude, float(t2_min), float(t2_max), int(components))


class Map:
    """A D-T2 or T1-T2 map of invert2d.

    Attributes:
        map:            the amplitudes, a numpy array of len(axis1) x len(t2_ms), in the
                        data's units; map[p, q] is the amplitude at (axis1[p], t2_ms[q])
        axis1:          D in m^2/s (kind "dt2") or T1 in ms (kind "t1t2"), ascending
        t2_ms:          T2 in ms, ascending
        alpha:          the regularisation parameter
        noise:          the noise standard deviation alpha was chosen for
        noise_source:   "given", "estimated" (the rms of the data no map can fit) or
                        "floor" (1e-4 of the largest |amplitude|, above the estimate)
        estimated_noise: that estimate, whatever the source
        residual_rms:   rms of data minus fit over all data
        projection1:    the map summed over T2, one value per axis1 point
        projection_t2:  the map summed over axis 1, one value per T2
        log_mean1, log_mean_t2: exp of the projection-weighted mean of ln(axis)
    """

    def __init__(self, fields):
        self.__dict__.update(fields)

    def __repr__(self):
        return "Map(%d x %d, alpha %.4g, noise %.4g)" % (
            len(self.axis1), len(self.t2_ms), self.alpha, self.noise)


def invert2d(data, kind="dt2", first=None, time_ms=None, noise=None, points=50,
             axis1_range=None, t2_range=None):
    """A D-T2 or T1-T2 map of 2-D data, by the inversion of nmrwalk-invert --dt2 / --t1t2.

    data:     either an N1 x N2 array of amplitudes, with first (N1 b values in s/m^2, or
              recovery times in ms) and time_ms (N2 echo times) given; or, with neither
              given, the N x 3 rows of a data file: <b or recovery time> <time ms>
              <amplitude>, the first column repeating in blocks.
    kind:     "dt2" (kernel exp(-b D) exp(-t / T2)) or "t1t2" (inversion recovery,
              (1 - 2 exp(-tau / T1)) exp(-t / T2)).
    noise:    the noise standard deviation in the data's units; estimated when None.
    points:   values of each axis, 10 to 100.
    axis1_range, t2_range: (lo, hi) ends of an axis, either of them None for the default
              (the range the data resolve: from the first positive time to three times
              the last, or 1/(3 b_max) to 1/b_min for D).

    Returns a Map. The same data and settings give the same numbers as the program.
    """
    return Map(_nmrwalk.invert2d(data, first, time_ms, str(kind), int(points),
                                 None if noise is None else float(noise), axis1_range,
                                 t2_range))


def read_grid(path):
    """The cells of a grain bed grid file (binary, or plain text) without its margins.

    Returns (codes, cell_size_um): a uint8 array of mineral codes indexed [z, y, x], and
    the edge of a cell in micrometres. A plain-text grid is converted first, beside it,
    as nmrwalk does.
    """
    return _nmrwalk.read_grid(os.fsdecode(path))


def write_grid(path, labels, cell_size_um, minerals=None):
    """Write a label volume as a grain bed grid file (no margins) that nmrwalk reads.

    labels, cell_size_um and minerals as for simulate(). A failed write leaves no file.
    """
    _nmrwalk.write_grid(os.fsdecode(path), _native(labels), float(cell_size_um), minerals)
