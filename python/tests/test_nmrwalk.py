"""The Python module against the command-line programs, and its handling of bad input."""

import _thread
import os
import re
import subprocess
import sys
import threading
import time

import numpy as np
import pytest

import nmrwalk

BUILD = os.environ.get("NMR_BINARY_DIR", os.path.join(os.path.dirname(__file__), "../../build"))
SOURCE = os.environ.get("NMR_SOURCE_DIR", os.path.join(os.path.dirname(__file__), "../.."))

# Labels as an image segmentation gives them; 7 is left out of MINERALS on purpose.
MINERALS = {10: "Pore", 20: "Quartz", 30: "Clay"}


def rock(shape=(10, 32, 22), seed=3):
    """Grains of quartz in pore space with clay, labelled 10/20/30, indexed [z, y, x]."""
    rng = np.random.default_rng(seed)
    draw = rng.random(shape)
    return np.where(draw < 0.55, 10, np.where(draw < 0.9, 20, 30)).astype(np.int32)


def settings(**changes):
    values = {"diffusionConstantWater": 2.3e-9, "numberOfWalkers": 3000,
              "subsampleCalculation": False, "randomSeed": 11}
    values.update(changes)
    return values


def write_run_directory(directory, labels, values):
    """nmr.yaml (the template of nmrwalk -p with values in place) and its grid."""
    # -p writes the template and ends with the status of a run that did not walk.
    subprocess.run([os.path.join(BUILD, "nmrwalk"), "-p"], cwd=directory, capture_output=True)
    path = os.path.join(directory, "nmr.yaml")
    lines = []
    replaced = False  # the nested lines of a replaced map go with it
    for line in open(path).read().splitlines():
        key = line.strip().split(":")[0]
        if line.startswith("   ") and replaced:
            continue
        replaced = False
        if line.startswith("  ") and not line.startswith("   ") and key in values:
            value = values[key]
            if isinstance(value, dict):
                value = "{%s}" % ", ".join("%s: %r" % item for item in value.items())
                replaced = True
            line = "  %s: %s" % (key, str(value).lower() if isinstance(value, bool) else value)
        lines.append(line)
    open(path, "w").write("\n".join(lines) + "\n")
    nmrwalk.write_grid(os.path.join(directory, "grid.binc"), labels, 2.5, MINERALS)
    return path


def columns(x, y):
    # The files hold numbers in the stream's default format, which is printf's %g.
    return ["%g %g" % pair for pair in zip(x, y)]


@pytest.mark.parametrize("region", [False, True])
def test_simulation_equals_the_command_line_at_one_process(tmp_path, region):
    labels = rock()
    values = settings(subsampleCalculation=region)
    path = write_run_directory(tmp_path, labels, values)
    subprocess.run([os.path.join(BUILD, "nmrwalk")], cwd=tmp_path, check=True,
                   capture_output=True)

    from_file = nmrwalk.simulate(labels, 2.5, path, minerals=MINERALS)
    from_dict = nmrwalk.simulate(labels, 2.5, values, minerals=MINERALS)
    assert columns(from_file.time_ms, from_file.amplitude) == \
        (tmp_path / "T2decay.out").read_text().splitlines()
    assert columns(from_file.t2_ms, from_file.distribution) == \
        (tmp_path / "T2inversion.out").read_text().splitlines()
    for name in ("time_ms", "amplitude", "t2_ms", "distribution"):
        assert np.array_equal(getattr(from_file, name), getattr(from_dict, name))
    assert from_file.summary["Is sub region"] == int(region)
    assert from_file.summary["Data size"] == ((10, 10, 6) if region else (22, 32, 10))


def test_same_seed_same_bits_and_seed_overrides_the_parameters():
    labels = rock()
    first = nmrwalk.simulate(labels, 2.5, settings(), minerals=MINERALS)
    again = nmrwalk.simulate(labels, 2.5, settings(randomSeed=99), minerals=MINERALS, seed=11)
    other = nmrwalk.simulate(labels, 2.5, settings(), minerals=MINERALS, seed=12)
    assert np.array_equal(first.amplitude, again.amplitude)
    assert np.array_equal(first.distribution, again.distribution)
    assert not np.array_equal(first.amplitude, other.amplitude)
    for array in (first.time_ms, first.amplitude, first.t2_ms, first.distribution):
        assert array.base is None and array.flags.owndata
    summary = first.summary
    assert summary["freeFraction"] == pytest.approx(1.0 - summary["boundFraction"])
    assert summary["Random Walkers"] == 3000
    assert 0.0 < summary["Total porosity"] < 1.0


def test_memory_order_and_dtype_do_not_change_the_rock(tmp_path):
    labels = rock()
    reference = nmrwalk.simulate(labels, 2.5, settings(numberOfWalkers=500), minerals=MINERALS)
    for variant in (np.asfortranarray(labels).astype(np.uint16), labels.astype(">i4"),
                    labels.astype(np.int64)[:, ::-1, :][:, ::-1, :],
                    np.ascontiguousarray(labels.transpose(2, 1, 0)).transpose(2, 1, 0)):
        result = nmrwalk.simulate(variant, 2.5, settings(numberOfWalkers=500), minerals=MINERALS)
        assert np.array_equal(result.amplitude, reference.amplitude)

    nmrwalk.write_grid(tmp_path / "rock.binc", labels[::2, :, ::-1], 1.5, MINERALS)
    codes, cell_size = nmrwalk.read_grid(tmp_path / "rock.binc")
    expected = np.select([labels == 10, labels == 20], [0, 3], 1)[::2, :, ::-1]
    assert codes.dtype == np.uint8 and cell_size == 1.5
    assert np.array_equal(codes, expected)


def test_fit_equals_the_fit_tool_at_one_process(tmp_path):
    # The "measurement" is a run at other relaxivities; the fit starts from the file's.
    labels = rock()
    truth = settings(surfaceRelaxationStrengthWater={"Quartz": 3e-5, "Clay": 4e-6})
    measured = nmrwalk.simulate(labels, 2.5, truth, minerals=MINERALS, seed=5)
    np.savetxt(tmp_path / "measured.txt", np.column_stack([measured.time_ms, measured.amplitude]),
               fmt="%.17g")
    guess = settings(surfaceRelaxationStrengthWater={"Quartz": 1.6e-5, "Clay": 1e-6})
    path = write_run_directory(tmp_path, labels, guess)
    done = subprocess.run([os.path.join(BUILD, "nmrwalk-fit"), "measured.txt"], cwd=tmp_path,
                          check=True, capture_output=True, text=True)
    printed = [line for line in done.stdout.splitlines() if line.startswith("Fitted ")]

    result = nmrwalk.fit(labels, 2.5, path, measured.time_ms, measured.amplitude,
                         minerals=MINERALS)
    assert printed == ["Fitted %s: %g m/s (+- %g)" % (name, value, result.uncertainty[name])
                       for name, value in result.relaxivity.items()]
    pair = "Correlation of Clay and Quartz: %.2f" % result.correlation[("Clay", "Quartz")]
    assert pair in done.stdout.splitlines()
    for name, truth in (("Quartz", 3e-5), ("Clay", 4e-6)):
        assert abs(result.relaxivity[name] - truth) <= 2 * result.uncertainty[name]
    low, high = result.interval["Quartz"]
    assert low < result.relaxivity["Quartz"] < high
    assert result.uncertainty["Quartz"] == pytest.approx(
        max(high - result.relaxivity["Quartz"], result.relaxivity["Quartz"] - low))
    # A range that stops short of the truth: the value sits on its bound, and says so.
    assert result.measured_t2lm_ms == pytest.approx(result.fitted_t2lm_ms, rel=0.05)
    assert len(result.t2_ms) == len(result.measured_distribution) == len(
        result.fitted_distribution)
    # The signal as an instrument records it, turned by 0.7 rad: rotated back as
    # nmrwalk-invert rotates four-column files. A range that stops short of the truth: the
    # value sits on its bound, and says so.
    recorded = measured.amplitude * np.exp(0.7j)
    with pytest.warns(UserWarning, match="Quartz is at its upper bound 1.5e-05 m/s"):
        capped = nmrwalk.fit(labels, 2.5, path, measured.time_ms, recorded,
                             minerals=MINERALS, fit="Quartz", bounds=(1e-6, 1.5e-5))
    assert capped.phase_radians == pytest.approx(0.7, abs=1e-9)
    assert list(capped.relaxivity) == ["Quartz"] and capped.at_bound["Quartz"]
    assert capped.warnings == ["Warning: Quartz is at its upper bound 1.5e-05 m/s; the best "
                               "fit may lie outside it (try bounds=(1e-06, 0.00015))"]
    with pytest.warns(UserWarning, match="starts negative"):
        expect(nmrwalk.Error, "Pyrite", lambda: nmrwalk.fit(
            labels, 2.5, path, measured.time_ms, -measured.amplitude, minerals=MINERALS,
            fit="Pyrite"))
    expect(ValueError, "at least 10", lambda: nmrwalk.fit(
        labels, 2.5, path, measured.time_ms[:5], measured.amplitude[:5], minerals=MINERALS))


def test_invert_equals_the_inversion_tool(tmp_path):
    times = np.geomspace(0.2, 3000.0, 400)
    amplitude = 0.6 * np.exp(-times / 15.0) + 0.4 * np.exp(-times / 400.0)
    np.savetxt(tmp_path / "decay.txt", np.column_stack([times, amplitude]), fmt="%.17g")
    subprocess.run([os.path.join(BUILD, "nmrwalk-invert"), "decay.txt", "--t2-components", "60",
                    "-o", "inverted.out"], cwd=tmp_path, check=True, capture_output=True)
    t2, distribution, lambda_ = nmrwalk.invert(times, amplitude, components=60)
    assert columns(t2, distribution) == (tmp_path / "inverted.out").read_text().splitlines()
    assert lambda_ > 0.0


@pytest.mark.parametrize("kind", ["dt2", "t1t2"])
def test_invert2d_equals_the_program(tmp_path, kind):
    first = np.geomspace(1e7, 3e10, 12) if kind == "dt2" else np.geomspace(1.0, 1e4, 12)
    times = np.arange(1, 301) * 2.0
    k1 = (np.exp(-np.outer(first, [1.5e-10, 2.3e-9])) if kind == "dt2"
          else 1.0 - 2.0 * np.exp(-np.outer(first, 1.0 / np.array([100.0, 1000.0]))))
    amplitude = 0.5 * k1 @ np.exp(-np.outer([1.0 / 20.0, 1.0 / 200.0], times))
    amplitude += np.random.default_rng(1).normal(0.0, 0.01, amplitude.shape)
    rows = np.column_stack([np.repeat(first, len(times)), np.tile(times, len(first)),
                            amplitude.ravel()])
    np.savetxt(tmp_path / "data.txt", rows, fmt="%.17g")
    done = subprocess.run([os.path.join(BUILD, "nmrwalk-invert"), "--" + kind, "data.txt",
                           "--map-points", "30"], cwd=tmp_path, check=True, capture_output=True,
                          text=True)
    result = nmrwalk.invert2d(rows, kind=kind, points=30)
    cells = ["%.9g %.9g %.9g" % (a, t, v) for a, row in zip(result.axis1, result.map)
             for t, v in zip(result.t2_ms, row)]
    name = "DT2map.out" if kind == "dt2" else "T1T2map.out"
    assert cells == (tmp_path / name).read_text().splitlines()
    assert "Alpha: %g\n" % result.alpha in done.stdout
    assert result.noise_source == "estimated" and abs(result.noise - 0.01) < 0.001
    assert np.array_equal(nmrwalk.invert2d(amplitude, kind, first=first, time_ms=times,
                                           points=30).map, result.map)
    expect(nmrwalk.Error, "in data row 600 comes back after its block ended",
           lambda: nmrwalk.invert2d(np.concatenate([rows[:600], rows[:300]]), kind=kind))


def expect(error, text, call):
    with pytest.raises(error) as raised:
        call()
    assert text in str(raised.value)


def test_bad_input_raises_the_right_exception(tmp_path):
    labels = rock((4, 4, 4))
    run = lambda **kw: nmrwalk.simulate(kw.pop("labels", labels), kw.pop("cell", 2.0),
                                        kw.pop("params", settings()),
                                        minerals=kw.pop("minerals", MINERALS))
    expect(ValueError, "3-D", lambda: run(labels=labels[0]))
    expect(ValueError, "integer dtype", lambda: run(labels=labels.astype(float)))
    expect(ValueError, "label 7 (at [z, y, x] = [0, 0, 1]) is not in minerals",
           lambda: run(labels=np.where(np.indices(labels.shape)[2] == 1, 7, labels)))
    expect(ValueError, "not a mineral code 0 to 13", lambda: run(minerals=None))
    expect(ValueError, "not a mineral name", lambda: run(minerals={10: "Quarz"}))
    for cell in (0.0, -1.0, float("nan")):
        expect(ValueError, "cell_size_um", lambda: run(cell=cell))
    expect(ValueError, "numberOfWalkers must be positive", lambda: run(
        params=settings(numberOfWalkers=0)))
    expect(ValueError, "bad conversion", lambda: run(params=settings(numberOfWalkers="many")))
    expect(KeyError, "numberOfWalker", lambda: run(params={"numberOfWalker": 10}))
    expect(FileNotFoundError, "absent.yaml", lambda: run(params=str(tmp_path / "absent.yaml")))
    expect(FileNotFoundError, "absent.binc", lambda: nmrwalk.read_grid(tmp_path / "absent.binc"))
    (tmp_path / "bad.yaml").write_text("NuclearMagneticResonanceParameters: 5\n")
    expect(nmrwalk.Error, "bad.yaml does not contain a yaml map.",
           lambda: run(params=str(tmp_path / "bad.yaml")))
    (tmp_path / "grid.binc").write_bytes(b"\x1f\x8b\x08\x00 not really gzip")
    with pytest.raises(nmrwalk.Error):
        nmrwalk.read_grid(tmp_path / "grid.binc")
    expect(nmrwalk.Error, "Region of interest is larger than grid size",
           lambda: run(params=settings(subsampleCalculation=True)))
    expect(ValueError, "0 < t2_min < t2_max", lambda: nmrwalk.invert([1, 2], [1, 0.5], t2_min=5,
                                                                     t2_max=1))
    with pytest.warns(UserWarning, match="subsampleCalculation defaults to true"):
        with pytest.raises(nmrwalk.Error):
            nmrwalk.simulate(labels, 2.0, {"numberOfWalkers": 10}, minerals=MINERALS)


@pytest.mark.parametrize("call", ["simulate", "fit"])
def test_ctrl_c_stops_a_walk_with_the_gil_released(call):
    # The interrupt comes from another thread while the walk runs: it can only arrive if
    # the walk lets go of the GIL, and it only stops the walk if the walk polls for it.
    labels = rock((30, 30, 30))
    params = settings(numberOfWalkers=2_000_000)
    times = np.geomspace(0.1, 1000.0, 40)
    walk = {"simulate": lambda: nmrwalk.simulate(labels, 2.0, params, minerals=MINERALS),
            "fit": lambda: nmrwalk.fit(labels, 2.0, params, times, np.exp(-times / 100.0),
                                       minerals=MINERALS)}[call]
    timer = threading.Timer(0.5, _thread.interrupt_main)
    timer.start()
    started = time.monotonic()
    with pytest.raises(KeyboardInterrupt):
        walk()
    assert time.monotonic() - started < 30.0
    timer.cancel()


def test_mpi_started_by_mpi4py_is_used_and_left_to_it(tmp_path):
    script = ("from mpi4py import MPI\n"
              "import numpy as np, nmrwalk\n"
              "labels = np.where(np.arange(512).reshape(8, 8, 8) % 3 == 0, 3, 0)\n"
              "r = nmrwalk.simulate(labels, 1.0,\n"
              "    {'numberOfWalkers': 50, 'subsampleCalculation': False,\n"
              "     'diffusionConstantWater': 2.3e-9})\n"
              "print(MPI.Is_initialized(), MPI.Is_finalized(), len(r.time_ms) > 0)\n")
    done = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True,
                          timeout=120)
    assert done.returncode == 0, done.stderr
    assert done.stdout.strip() == "True False True"


def test_example_writes_its_plot(tmp_path):
    done = subprocess.run([sys.executable, os.path.join(SOURCE, "examples/python/grain_pack.py"),
                           str(tmp_path / "grain_pack.png")], capture_output=True, text=True,
                          timeout=300)
    assert done.returncode == 0, done.stderr
    assert (tmp_path / "grain_pack.png").stat().st_size > 10_000
    assert "T2LM" in done.stdout


SUSCEPTIBILITY = {"Pore": -9.05e-6, "Quartz": -1.65e-5, "Clay": 2.0e-4}


def test_field_has_the_bits_of_the_field_tool(tmp_path):
    labels = rock()
    write_run_directory(tmp_path, labels, settings())
    with open(tmp_path / "nmr.yaml", "a") as handle:
        handle.write("  volumeSusceptibility: {Pore: -9.05e-06, Quartz: -1.65e-05, Clay: 2.0e-04}\n"
                     "  staticField: 0.05\n  staticFieldDirection: x\n")
    subprocess.run([os.path.join(BUILD, "nmrwalk-field")], cwd=tmp_path, check=True,
                   capture_output=True)
    written = np.fromfile(tmp_path / "field.raw", dtype="<f4").reshape(labels.shape)
    along_x = nmrwalk.field(labels, 2.5, SUSCEPTIBILITY, "x", minerals=MINERALS)
    assert along_x.dtype == np.float32 and along_x.shape == labels.shape
    assert np.array_equal(along_x.view(np.uint32), written.view(np.uint32))
    along_z = nmrwalk.field(labels, 2.5, SUSCEPTIBILITY, minerals=MINERALS, padding=2)
    assert not np.array_equal(along_z, along_x)


@pytest.mark.parametrize("changes, message", [
    ({"susceptibility": {"Pore": -9e-6, "Quartzz": 1e-5}}, "Quartzz"),
    ({"susceptibility": {"Quartz": -1.65e-5, "Clay": 2e-4}}, "Pore"),
    ({"susceptibility": {"Pore": -9e-6, "Quartz": -1.65e-5}}, "no value for Clay"),
    ({"b0_direction": "w"}, "x, y or z"),
    ({"padding": 0.5}, "padding must be a number of at least 1"),
])
def test_field_refuses_bad_input(changes, message):
    arguments = {"susceptibility": SUSCEPTIBILITY, **changes}
    with pytest.raises(ValueError, match=message):
        nmrwalk.field(rock(), 2.5, minerals=MINERALS, **arguments)


def test_cpmg_has_the_bits_of_the_sequence_program(tmp_path):
    labels = rock()
    values = settings(numberOfWalkers=500, volumeSusceptibility=SUSCEPTIBILITY, staticField=0.2)
    path = write_run_directory(tmp_path, labels, values)
    with open(path, "a") as handle:
        handle.write("  volumeSusceptibility: {Pore: -9.05e-06, Quartz: -1.65e-05, "
                     "Clay: 2.0e-04}\n  staticField: 0.2\n")
    subprocess.run([os.path.join(BUILD, "nmrwalk-sequence"), "cpmg", "--echo-spacing", "0.5,2"],
                   cwd=tmp_path, check=True, capture_output=True)
    written = np.loadtxt(tmp_path / "cpmg.out")
    from_dict = nmrwalk.cpmg(labels, 2.5, values, [0.5, 2], minerals=MINERALS)
    given = nmrwalk.field(labels, 2.5, SUSCEPTIBILITY, minerals=MINERALS)
    from_file = nmrwalk.cpmg(labels, 2.5, path, (0.5, 2), field=given, minerals=MINERALS)
    for trains in (from_dict, from_file):
        # The file holds every digit of the amplitudes.
        assert np.array_equal(np.concatenate([train.amplitude for train in trains]),
                              written[:, 2])
        assert np.allclose(np.concatenate([train.time_ms for train in trains]), written[:, 1])
    # In this field the longer spacing dephases more.
    assert from_dict[1].t2lm_ms < from_dict[0].t2lm_ms


@pytest.mark.parametrize("changes, message", [
    ({"echo_spacing_ms": 0.0}, "echo spacing must be a positive number"),
    ({"echoes": 0}, "echoes must be from 1"),
    ({"field": np.zeros((3, 3, 3))}, "field must have the shape of the walked grid"),
    ({"field": np.full((10, 32, 22), np.nan)}, "not finite"),
    ({"labels": np.full((10, 32, 22), 20)}, "no pore"),
])
def test_cpmg_refuses_bad_input(changes, message):
    arguments = {"labels": rock(), "echo_spacing_ms": 1.0, **changes}
    values = settings(numberOfWalkers=50, staticField=0.2)
    with pytest.raises(ValueError, match=message):
        nmrwalk.cpmg(cell_size_um=2.5, params=values, minerals=MINERALS, **arguments)


def test_pfg_has_the_bits_of_the_sequence_program(tmp_path):
    labels = rock()
    values = settings(numberOfWalkers=500)
    write_run_directory(tmp_path, labels, values)
    run = subprocess.run([os.path.join(BUILD, "nmrwalk-sequence"), "pfg", "--diffusion-time",
                          "0.5,0.2", "--q-points", "5", "--direction", "y"],
                         cwd=tmp_path, check=True, capture_output=True, text=True)
    written = np.loadtxt(tmp_path / "pfg.out")
    result = nmrwalk.pfg(labels, 2.5, values, [0.5, 0.2], q_points=5, direction="y",
                         minerals=MINERALS)
    assert np.array_equal(result["diffusion_time_ms"], [0.2, 0.5])
    assert np.array_equal(result["e"].ravel(), written[:, 3])
    assert np.allclose(result["b"].ravel(), written[:, 2])
    # Walls slow the walkers, and more so the longer they walk.
    assert result["d_over_d0"][1] < result["d_over_d0"][0] < 1
    # The tortuosity and its jackknife error as the program prints them.
    printed = re.search(r"Tortuosity from the longest diffusion time: (\S+) \(\+- (\S+)\)",
                        run.stdout)
    assert printed, run.stdout
    assert np.isclose(result["tortuosity"], float(printed[1]), rtol=1e-5)
    assert np.isclose(result["tortuosity_error"], float(printed[2]), rtol=0.05)
    assert np.all(result["d_error"] > 0) and np.all(result["msd_d_error"] > 0)
    # Finite pulses through the field that the parameters' susceptibilities give.
    values = settings(numberOfWalkers=500, volumeSusceptibility=SUSCEPTIBILITY, staticField=0.2)
    path = write_run_directory(tmp_path, labels, values)
    with open(path, "a") as handle:
        handle.write("  volumeSusceptibility: {Pore: -9.05e-06, Quartz: -1.65e-05, "
                     "Clay: 2.0e-04}\n  staticField: 0.2\n")
    subprocess.run([os.path.join(BUILD, "nmrwalk-sequence"), "pfg", "--diffusion-time", "0.5",
                    "--pulse-duration", "0.2", "--q-points", "3"],
                   cwd=tmp_path, check=True, capture_output=True)
    finite = nmrwalk.pfg(labels, 2.5, values, 0.5, q_points=3, pulse_duration_ms=0.2,
                         minerals=MINERALS)
    assert np.array_equal(finite["e"].ravel(), np.loadtxt(tmp_path / "pfg.out")[:, 3])
    # The field is felt: without it the encoded signal is another.
    free = nmrwalk.pfg(labels, 2.5, settings(numberOfWalkers=500), 0.5, q_points=3,
                       pulse_duration_ms=0.2, minerals=MINERALS)
    assert not np.array_equal(free["e"], finite["e"])


def test_dt2_has_the_bits_of_the_sequence_program_and_inverts_into_a_map(tmp_path):
    labels = rock()
    values = settings(numberOfWalkers=400)
    write_run_directory(tmp_path, labels, values)
    subprocess.run([os.path.join(BUILD, "nmrwalk-sequence"), "dt2", "--diffusion-time", "0.5",
                    "--b-points", "4", "--echo-spacing", "0.4", "--echoes", "60"],
                   cwd=tmp_path, check=True, capture_output=True)
    written = np.loadtxt(tmp_path / "dt2.out")
    data = nmrwalk.dt2(labels, 2.5, values, 0.5, b_points=4, echo_spacing_ms=0.4, echoes=60,
                       minerals=MINERALS)
    assert np.array_equal(data["amplitude"].ravel(), written[:, 2])
    assert np.allclose(data["time_ms"], written[:60, 1])
    result = nmrwalk.invert2d(data["amplitude"], "dt2", first=data["b"], time_ms=data["time_ms"],
                              points=12)
    assert result.map.shape == (12, 12) and result.map.min() >= 0
    with pytest.raises(ValueError, match="A b of 0 alone"):
        nmrwalk.dt2(labels, 2.5, values, 0.5, b_values=[0.0], echoes=5, minerals=MINERALS)


@pytest.mark.parametrize("changes, message", [
    ({"diffusion_time_ms": 0.0}, "diffusion time must be a positive number"),
    ({"diffusion_time_ms": 1e-4}, "shorter than one step"),
    ({"q_max": 0.0}, "q-max must be above 0"),
    ({"q_points": 1}, "q_points must be from 2"),
    ({"direction": "w"}, "direction must be"),
    ({"pulse_duration_ms": 2.0}, "longer than the diffusion time"),
    ({"field": np.zeros((10, 32, 22))}, "field acts only during finite pulses"),
])
def test_pfg_refuses_bad_input(changes, message):
    arguments = {"diffusion_time_ms": 1.0, **changes}
    with pytest.raises(ValueError, match=message):
        nmrwalk.pfg(rock(), 2.5, settings(numberOfWalkers=50), minerals=MINERALS, **arguments)
