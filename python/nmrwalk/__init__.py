"""NMR T2 relaxation of digital rock by random walks, from numpy.

A label volume (a 3-D integer array indexed [z, y, x]) and the settings of an nmr.yaml
file go in; the magnetization decay and its T2 distribution come out, the same numbers,
bit for bit, that ``nmrwalk`` writes to T2decay.out and T2inversion.out when it runs the
same grid, parameters and seed on one process.

Functions:
    simulate    walk a rock and invert its decay
    fit         surface relaxivities that match a measured decay, from one walk
    invert      the T2 distribution of any decay (as nmrwalk-invert)
    field       the internal magnetic field from mineral susceptibilities (as nmrwalk-field)
    cpmg        echo trains in the rock's internal field, per echo spacing (as nmrwalk-sequence)
    invert2d    a D-T2 or T1-T2 map of 2-D data (as nmrwalk-invert --dt2 / --t1t2)
    pfg         PFG diffusion: E(q, Delta), D(Delta), S/V, tortuosity
    dt2         D-T2 data by diffusion editing (as nmrwalk-sequence dt2), for invert2d
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

__all__ = ["simulate", "fit", "FitResult", "invert", "invert2d", "Map", "field", "cpmg", "pfg", "dt2",
           "Train", "read_grid",
           "write_grid", "parameter_keys", "Result", "Error", "MINERALS"]

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
        warnings:     the warnings shown before the walk (see simulate), as a list of
                      texts; empty when there were none
    """

    def __init__(self, fields):
        self.time_ms = fields["time_ms"]
        self.amplitude = fields["amplitude"]
        self.t2_ms = fields["t2_ms"]
        self.distribution = fields["distribution"]
        self.lambda_ = fields["lambda_"]
        self.summary = fields["summary"]
        self.walk_seconds = fields["walk_seconds"]
        self.warnings = list(fields["warnings"])

    def __repr__(self):
        return ("Result(%d decay points, T2LM %.4g ms, lambda %.4g)"
                % (len(self.time_ms), self.summary["logMeanT2Ms"], self.lambda_))


def parameter_keys():
    """The keys params may hold: those of nmr.yaml, required and optional."""
    return list(_nmrwalk.parameter_keys())


def _native(labels, minerals):
    """(labels, minerals) as the compiled part takes them.

    Cells are read in place in any memory order; only big-endian numbers need a copy. A
    boolean mask is read as the bytes 0 and 1, so minerals keyed by True and False work.
    """
    # numpy is imported here, not with the package, so that importing nmrwalk needs only
    # the interpreter (help(), MINERALS, parameter_keys()).
    import numpy as np

    if not isinstance(labels, np.ndarray):
        # Said here: the compiled part would print its whole signature and every number.
        raise TypeError("labels must be a 3-D numpy array of integers indexed [z, y, x], not %s;"
                        " numpy.asarray(labels) makes one" % type(labels).__name__)
    if labels.dtype == np.bool_:
        if minerals is None:
            raise ValueError('a boolean mask needs minerals, e.g. minerals={True: "Pore", '
                             'False: "Quartz"}')
        return labels.view(np.uint8), {int(key): name for key, name in minerals.items()}
    if not labels.dtype.isnative:
        labels = labels.astype(labels.dtype.newbyteorder("="))
    return labels, minerals


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
                  A relaxivity map in the dict (surfaceRelaxationStrengthWater, -Oil) is
                  merged into the template's: the minerals it leaves out keep the
                  template's values (Clay 2.3e-09 m/s, the other solids 1.6e-05 m/s), so
                  {"Quartz": 1.6e-5} changes Quartz only; give 0 to make a mineral inert.
                  A file is read as nmrwalk reads it: a mineral it leaves out has no
                  relaxivity. A negative relaxivity raises ValueError.
    minerals:     dict from label value to mineral display name (see MINERALS), e.g.
                  {0: "Pore", 1: "Quartz", 2: "Clay"}. Without it the labels are the
                  mineral codes 0 to 13 (0 Pore, 1 Clay, 3 Quartz, ...): a 0/1
                  segmentation then means pore and clay, which a warning points out. A
                  label absent from it raises ValueError. A boolean mask takes minerals
                  keyed by True and False, e.g. {True: "Pore", False: "Quartz"}.
    seed:         random seed, in place of the randomSeed of params.
    progress:     show a progress bar on standard error.

    Before walking, settings that make the answer wrong without an error are warned about
    (RuntimeWarning, also kept in Result.warnings), with nmrwalk's own texts: a Clay
    relaxivity of 0, whose walk never switches to the coarse step and so comes out 4
    times too fast; a rock whose minerals absorb nothing, with the time the walk will
    take; a diffusion constant of 0.

    The walk runs in this process with the GIL released; Ctrl-C stops it with
    KeyboardInterrupt. The result equals, bit for bit, nmrwalk's T2decay.out and
    T2inversion.out on one process for the same grid, parameters and seed.
    """
    path, overrides = _parameter_overrides(params, seed)
    labels, minerals = _native(labels, minerals)
    bar = _ProgressBar() if progress else None
    try:
        fields = _nmrwalk.simulate(labels, float(cell_size_um), minerals, path, overrides, seed,
                                   bar)
    finally:
        if bar is not None:
            bar.close()
    return Result(fields)


class FitResult:
    """Surface relaxivities fitted to a measured decay, as nmrwalk-fit reports them.

    Attributes:
        relaxivity:  {mineral display name: fitted relaxivity in m/s}
        uncertainty: {mineral display name: one standard deviation in m/s}, the larger side
                     of `interval`
        interval:    {mineral display name: (low, high) in m/s}, where the misfit, profiled
                     along that relaxivity with every other one refitted, has risen by what
                     one standard deviation of the noise explains (the walk's own Monte
                     Carlo noise and the measurement's); it spans the whole valley of
                     relaxivities that the decay cannot tell apart
        correlation: {(name, name): correlation of the two fitted values}, every pair
        not_determined: [(name, name, correlation)] of the pairs the decay does not tell
                     apart (|correlation| above 0.9): it fixes only a combination of them
        surface_weighted_means: [({name: surface share}, value, uncertainty)], the
                     combination each group of such minerals does fix: their mean
                     relaxivity weighted by the pore surface each offers, in m/s
        warnings:    the warnings shown before the walk, as for simulate(), then those of
                     the fit, such as "Warning: Quartz is at its upper bound ..."; each is
                     also issued through the warnings module
        at_bound:    {mineral display name: True when the value lies on a bound}
        noise:       (walk, measurement white, measurement shaped like a walk's): rms per
                     measured point, in the units of the simulated decay
        misfit:      sum of squared differences at the fit
        scale:       amplitude scale, simulated per measured unit
        evaluations: decays computed by the search and the uncertainty
        time_ms, amplitude: the simulated decay at the fitted relaxivities
        t2_ms, measured_distribution, fitted_distribution: both T2 distributions on the
                     T2 axis of params, through the inversion of nmrwalk-invert
        measured_t2lm_ms, fitted_t2lm_ms: their log-mean T2
        phase_radians: the angle a complex measured signal was turned by (0 for a real one)
    """

    def __init__(self, fields):
        names = fields["minerals"]
        self.relaxivity = dict(zip(names, fields["relaxivity"]))
        self.uncertainty = dict(zip(names, fields["uncertainty"]))
        low, high = fields["interval"]
        self.interval = {n: (lo, hi) for n, lo, hi in zip(names, low, high)}
        matrix = fields["correlation"]
        self.correlation = {(a, b): float(matrix[i][j]) for i, a in enumerate(names)
                            for j, b in enumerate(names) if i != j}
        self.not_determined = [tuple(pair) for pair in fields["not_determined"]]
        self.surface_weighted_means = [tuple(mean) for mean in fields["surface_weighted_means"]]
        self.warnings = list(fields["warnings"])
        self.at_bound = dict(zip(names, fields["at_bound"]))
        self.noise = tuple(fields["noise"])
        self.misfit = fields["misfit"]
        self.scale = fields["scale"]
        self.evaluations = fields["evaluations"]
        self.time_ms = fields["time_ms"]
        self.amplitude = fields["amplitude"]
        self.t2_ms = fields["t2_ms"]
        self.measured_distribution = fields["measured_distribution"]
        self.fitted_distribution = fields["fitted_distribution"]
        self.measured_t2lm_ms = fields["measured_t2lm_ms"]
        self.fitted_t2lm_ms = fields["fitted_t2lm_ms"]
        self.phase_radians = fields["phase_radians"]

    def __repr__(self):
        return "FitResult(%s, misfit %.4g)" % (
            ", ".join("%s %.4g m/s" % item for item in self.relaxivity.items()), self.misfit)


def _measured_signal(amplitude):
    """(real, imaginary or None) of a measured decay; warns of one that looks unrotated."""
    import numpy as np
    signal = np.asarray(amplitude)
    if np.iscomplexobj(signal):
        return np.ascontiguousarray(signal.real, float), np.ascontiguousarray(signal.imag, float)
    early = np.asarray(signal, float)[:256]
    if early.size and early.mean() < 0.0:
        warnings.warn("the measured amplitude starts negative (mean of its first %d points %.4g): "
                      "a signal that was not phase-rotated? Pass the complex signal "
                      "(real + 1j * imaginary) to have it turned onto the real axis as "
                      "nmrwalk-invert turns four-column files" % (early.size, early.mean()),
                      stacklevel=3)
    return signal, None


def fit(labels, cell_size_um, params, time_ms, amplitude, minerals=None, fit=None, bounds=None,
        seed=None, progress=False):
    """Fit the surface relaxivity of each mineral to a measured decay, from one walk.

    As nmrwalk-fit at one process: the walk of simulate() with every walker's contacts
    with each mineral recorded, then the relaxivities that make the simulated decay match
    the measured one times a free amplitude scale (a coarse look over the bounds in log space, then NLopt's BOBYQA from its best valleys).

    labels, cell_size_um, params, minerals, seed, progress: as for simulate().
    time_ms, amplitude: the measured decay (at least 10 points inside the simulated times).
            A complex amplitude (real + 1j * imaginary, as an instrument records it) is
            turned onto the real axis first, as nmrwalk-invert turns four-column files; a
            real one that starts negative is warned about.
    fit:    mineral display names to fit; by default every mineral of the rock with a
            non-zero relaxivity in params. The others keep their values.
    bounds: (lower, upper) in m/s for every fitted mineral; by default each one's value in
            params divided and multiplied by 10. The walk lasts about as long as a
            simulate() at the lower bounds.

    Returns a FitResult. The walk and the fit run with the GIL released; Ctrl-C stops the
    walk with KeyboardInterrupt (the fit after it takes seconds). A fitted value on a bound
    of its range is warned about (warnings.warn), as are the relaxivities the decay cannot
    tell apart.
    """
    path, overrides = _parameter_overrides(params, seed)
    labels, minerals = _native(labels, minerals)
    names = [fit] if isinstance(fit, str) else list(fit or [])
    real, imaginary = _measured_signal(amplitude)
    bar = _ProgressBar() if progress else None
    try:
        fields = _nmrwalk.fit(labels, float(cell_size_um), minerals, path, overrides,
                              seed, time_ms, real, imaginary, names,
                              None if bounds is None else tuple(map(float, bounds)), bar)
    finally:
        if bar is not None:
            bar.close()
    result = FitResult(fields)
    for line in fields["fit_warnings"]:  # those before the walk were issued then
        warnings.warn(line, stacklevel=2)
    for a, b, r in result.not_determined:
        warnings.warn("Not separately determined: %s and %s (correlation %.2f)" % (a, b, r),
                      stacklevel=2)
    return result


def invert(time_ms, amplitude, t2_min=0.0001, t2_max=10000.0, components=100):
    """The T2 distribution of a decay, by the inversion of nmrwalk-invert.

    time_ms, amplitude: the decay, two 1-D sequences of one length.
    t2_min, t2_max:     ends of the logarithmic T2 axis in ms (0 < t2_min < t2_max).
    components:         points of the axis, 10 to 500.

    Returns (t2_ms, distribution, lambda_): the axis, the amplitudes on it and the
    regularisation parameter chosen at the corner of the L-curve.
    """
    return _nmrwalk.invert(time_ms, amplitude, float(t2_min), float(t2_max), int(components))


def field(labels, cell_size_um, susceptibility, b0_direction="z", minerals=None, padding=None):
    """The internal magnetic field dB/B0 of a rock in the static field B0, as nmrwalk-field.

    labels, cell_size_um, minerals: as for simulate().
    susceptibility: dict from mineral display name to SI volume susceptibility, with "Pore"
                  for the pore fluid (water: -9.05e-6); every mineral of the rock needs one.
    b0_direction: "x", "y" or "z", the axis of B0.
    padding:      the FFT box per axis is at least padding times the rock (default 2).

    Returns a float32 numpy array indexed [z, y, x]: dB/B0 along B0 at every cell centre,
    to first order in the susceptibilities, with the Lorentz-sphere correction (a
    uniformly magnetised sphere has no field inside), the rock embedded in its own pore
    fluid (the source is chi - chi_Pore, zero outside the rock) and zero padding. The
    values have the bits of nmrwalk-field's .raw file for the same rock at any process
    count. Multiply by B0 for dB in tesla. Runs with the GIL released.
    """
    labels, minerals = _native(labels, minerals)
    return _nmrwalk.field(labels, float(cell_size_um), minerals, dict(susceptibility),
                          str(b0_direction), None if padding is None else float(padding))


class Train:
    """The echo train of one echo spacing, from cpmg().

    Attributes:
        echo_spacing_ms:     the echo spacing TE
        time_ms, amplitude:  the echoes, at TE, 2 TE, ...: the mean over the walkers of
                             cos(phase) (0 for a walker absorbed), times exp(-t / T2 bulk)
        t2_ms, distribution: the T2 distribution of the train, by the inversion of simulate
        t2lm_ms:             its log-mean T2
        step_voxels, steps_per_half_echo: the step walked and the N steps of a half echo
    """

    def __init__(self, fields):
        self.__dict__.update(fields)

    def __repr__(self):
        return "Train(TE %g ms, %d echoes, T2LM %.4g ms)" % (
            self.echo_spacing_ms, len(self.time_ms), self.t2lm_ms)


def cpmg(labels, cell_size_um, params, echo_spacing_ms, echoes=None, gradient=0.0, field=None,
         seed=None, minerals=None):
    """CPMG echo trains that feel the rock's internal field, as nmrwalk-sequence cpmg.

    labels, cell_size_um, params, seed, minerals: as for simulate(). params may hold
                     staticField (B0 in T), staticFieldDirection and volumeSusceptibility,
                     as nmr.yaml does for nmrwalk-sequence.
    echo_spacing_ms: one echo spacing TE in ms, or a list of them.
    echoes:          echoes per spacing; None runs them until the signal falls below 0.1 %
                     of its start.
    gradient:        a uniform applied gradient along B0, T/m.
    field:           dB/B0 as field() returns it ([z, y, x], the shape of the walked grid);
                     None computes it from volumeSusceptibility when params hold it. A field
                     needs staticField in params.

    The walk: nmrwalk's step and kill rule; phase gamma B0 (dB/B0) tau from the field
    (trilinear) and gamma G x tau from the gradient every step, gamma = 2 pi
    gyroMagneticRatio rad/(s T); a pi pulse at (k + 1/2) TE. No clay micro-porosity signal
    and no analytic gradient factor (see nmrwalk-sequence cpmg --help). A half echo is a
    whole number N >= 8 of steps: the step is shortened when needed. The same seed gives the
    bits of nmrwalk-sequence's cpmg.out at any process count. Runs with the GIL released.

    Returns a list of Train, one per echo spacing.
    """
    path, overrides = _parameter_overrides(params, seed)
    labels, minerals = _native(labels, minerals)
    if hasattr(echo_spacing_ms, "tolist"):
        echo_spacing_ms = echo_spacing_ms.tolist()
    if not isinstance(echo_spacing_ms, (list, tuple)):
        echo_spacing_ms = [echo_spacing_ms]
    spacings = [float(te) for te in echo_spacing_ms]
    return [Train(fields) for fields in _nmrwalk.cpmg(
        labels, float(cell_size_um), minerals, path, overrides, seed, spacings,
        None if echoes is None else int(echoes), float(gradient), field)]


def pfg(labels, cell_size_um, params, diffusion_time_ms, q_max=None, q_points=16,
        direction="all", seed=None, minerals=None, pulse_duration_ms=None, field=None):
    """Pulsed-field-gradient diffusion, as nmrwalk-sequence pfg.

    labels, cell_size_um, params, seed, minerals: as for simulate().
    diffusion_time_ms: one diffusion time Delta in ms, or a list of them.
    q_max:             the largest q in 1/m; None takes sqrt(3 / (D0 Delta)) at each Delta.
    q_points:          q values from 0 to q_max, evenly.
    direction:         "x", "y", "z" or "all" (the mean of the three axes).
    pulse_duration_ms: None for narrow pulses; else rectangular pulses of that length,
                       b = q^2 (Delta - delta/3), through the rock's field (field, as for
                       cpmg(), or the one params' susceptibilities give) over Delta + delta.

    A walker's signal is its survival times cos(q . (r(Delta) - r(0))); E is the mean over
    the walkers over the same at q = 0, and b = q^2 Delta. Walked by nmrwalk's step and
    kill rule, Delta filled by a whole number N >= 8 of steps (see nmrwalk-sequence pfg
    --help). The same seed gives the bits of nmrwalk-sequence's pfg.out at any process
    count. Runs with the GIL released.

    Returns a dict of numpy arrays, one row per diffusion time, ascending:
        diffusion_time_ms;  q (1/m), b (s/m^2), e: each len(times) x q_points;
        d, d_over_d0:       the initial slope of ln E against b (points with E >= 0.7);
        msd_d:              <dr^2> / (2 Delta) per axis;
        surface_to_volume:  1/m from the fit of Mitra's law with its intercept free (NaN
                            with fewer than three times of D/D0 >= 0.6, or when it is not
                            above twice its error), with intercept and short_times_ms, the
                            times it used;
        tortuosity:         D0 / D at the longest time (NaN when that D is not above
                            twice its error); steps: N per time.
        d_error, msd_d_error, surface_to_volume_error, tortuosity_error: one standard
        error each, the jackknife's over 32 batches of walkers (walker j in batch j mod 32).
    """
    path, overrides = _parameter_overrides(params, seed)
    labels, minerals = _native(labels, minerals)
    if hasattr(diffusion_time_ms, "tolist"):
        diffusion_time_ms = diffusion_time_ms.tolist()
    if not isinstance(diffusion_time_ms, (list, tuple)):
        diffusion_time_ms = [diffusion_time_ms]
    times = [float(t) for t in diffusion_time_ms]
    return _nmrwalk.pfg(labels, float(cell_size_um), minerals, path, overrides, seed, times,
                        None if q_max is None else float(q_max), int(q_points), str(direction),
                        None if pulse_duration_ms is None else float(pulse_duration_ms), field)


def dt2(labels, cell_size_um, params, diffusion_time_ms, b_values=None, b_points=16,
        echo_spacing_ms=0.2, echoes=None, seed=None, minerals=None):
    """D-T2 data by diffusion editing, as nmrwalk-sequence dt2.

    labels, cell_size_um, params, seed, minerals: as for simulate().
    diffusion_time_ms: Delta of the narrow-pulse encoding.
    b_values:          b values in s/m^2 (from 0, one above 0 at least); None takes
                       b_points of them evenly from 0 to 5 / D0.
    echo_spacing_ms:   of the CPMG train after the encoding.
    echoes:            None runs them until the signal falls below 0.1 % (as cpmg()).

    Each walker's displacement over Delta is encoded as cos(q dx), q = sqrt(b / Delta),
    averaged over the three axes, while it lives through the echoes; the data are the mean
    over the walkers times exp(-t / T2 bulk), t the time since excitation (Delta + k TE),
    so that invert2d's kernel exp(-b D) exp(-t / T2) matches them exactly. The same seed
    gives the bits of nmrwalk-sequence's dt2.out at any process count. Runs with the GIL
    released.

    Returns a dict: b (s/m^2), time_ms, amplitude (len(b) x len(time_ms)),
    encoding_steps and steps_per_half_echo. nmrwalk.invert2d(d["amplitude"], "dt2",
    first=d["b"], time_ms=d["time_ms"]) gives the map.
    """
    path, overrides = _parameter_overrides(params, seed)
    labels, minerals = _native(labels, minerals)
    given = [] if b_values is None else [float(b) for b in
                                         (b_values.tolist() if hasattr(b_values, "tolist")
                                          else b_values)]
    return _nmrwalk.dt2(labels, float(cell_size_um), minerals, path, overrides, seed,
                        float(diffusion_time_ms), given, int(b_points), float(echo_spacing_ms),
                        None if echoes is None else int(echoes))


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
    labels, minerals = _native(labels, minerals)
    _nmrwalk.write_grid(os.fsdecode(path), labels, float(cell_size_um), minerals)
