"""What a new user meets first: settings that would give a wrong answer without a word, and
arguments that would fail with a message that does not say what to fix."""

import time
import warnings

import numpy as np
import pytest

import nmrwalk

SETTINGS = {"diffusionConstantWater": 2.3e-9, "subsampleCalculation": False,
            "magneticFieldGradient": 0.0, "randomSeed": 5}


def sphere(radius=10, side=22):
    """True in a spherical pore of `radius` cells, indexed [z, y, x]."""
    z, y, x = np.indices((side,) * 3) - (side - 1) / 2.0
    return np.sqrt(x * x + y * y + z * z) < radius


def quartz_sphere(relaxivities, walkers=2000, **options):
    labels = np.where(sphere(), 0, 3).astype(np.uint8)
    params = dict(SETTINGS, numberOfWalkers=walkers, surfaceRelaxationStrengthWater=relaxivities)
    return nmrwalk.simulate(labels, 2.0, params, **options)


def test_a_map_without_clay_keeps_the_switch_and_clay_at_zero_is_warned_about():
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        filled = quartz_sphere({"Quartz": 1.6e-5})
    assert filled.warnings == []
    with pytest.warns(RuntimeWarning, match="never switches from the fine step") as shown:
        unswitched = quartz_sphere({"Quartz": 1.6e-5, "Clay": 0})
    assert "it is 0" in str(shown[0].message) and shown[0].filename == __file__
    assert unswitched.warnings == [str(shown[0].message)]
    # Walked coarse on times made for the fine step, the decay comes out about 4 times too
    # fast (3.6 on this pore, bulk relaxation included); 2000 walkers keep each T2LM
    # within a few per cent.
    assert filled.summary["logMeanT2Ms"] > 2.5 * unswitched.summary["logMeanT2Ms"]


def test_nothing_absorbing_is_warned_about_with_the_time_before_the_walk():
    started = time.monotonic()
    with warnings.catch_warnings():
        warnings.simplefilter("error")  # the warning then stops the call before it walks
        with pytest.raises(RuntimeWarning, match=r"no mineral of the rock absorbs walkers "
                           r"\(Quartz has 0 m/s.* steps for 300000 walkers, about .* at the "
                           r".* steps per second measured on 1 process"):
            quartz_sphere({"Quartz": 0.0}, walkers=300000)
    assert time.monotonic() - started < 30.0


def test_negative_relaxivity_is_refused():
    with pytest.raises(ValueError, match="surfaceRelaxationStrengthWater of Quartz is -1e-05 m/s: "
                                         "a relaxivity cannot be negative"):
        quartz_sphere({"Quartz": -1e-5})


def test_fit_warns_before_its_walk():
    labels = np.where(sphere(5, 12), 0, 3).astype(np.uint8)
    times = np.geomspace(1.0, 1000.0, 30)
    params = dict(SETTINGS, numberOfWalkers=500,
                  surfaceRelaxationStrengthWater={"Quartz": 1.6e-5, "Clay": 0})
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        with pytest.raises(RuntimeWarning, match="never switches"):
            nmrwalk.fit(labels, 2.0, params, times, np.exp(-times / 100.0))


def test_labels_are_checked_before_the_walk():
    pore = sphere(5, 12)
    params = dict(SETTINGS, numberOfWalkers=300, surfaceRelaxationStrengthWater={"Quartz": 1e-4})
    # 0/1 labels without minerals are pore and clay, which a pore/grain image is not.
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        with pytest.raises(RuntimeWarning, match="labels hold only 0 and 1 .* minerals="):
            nmrwalk.simulate((~pore).astype(np.uint8), 2.0, params)

    with pytest.raises(TypeError) as raised:
        nmrwalk.simulate(pore.astype(int).tolist(), 2.0, params)
    assert "numpy.asarray" in str(raised.value) and len(str(raised.value)) < 200

    # A boolean mask with its two minerals is the same rock as the 0/3 codes.
    coded = nmrwalk.simulate(np.where(pore, 0, 3), 2.0, params)
    masked = nmrwalk.simulate(pore, 2.0, params, minerals={True: "Pore", False: "Quartz"})
    assert np.array_equal(coded.amplitude, masked.amplitude)
    with pytest.raises(ValueError, match="boolean mask needs minerals"):
        nmrwalk.simulate(pore, 2.0, params)
