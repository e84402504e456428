#!/usr/bin/env python3
"""A grain pack built with numpy and scipy, walked at two quartz relaxivities; both T2
distributions go into one plot.

    PYTHONPATH=build/python python3 examples/python/grain_pack.py [grain_pack.png]
"""

import sys

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402
import numpy as np  # noqa: E402
from scipy import ndimage  # noqa: E402

import nmrwalk  # noqa: E402

PORE, QUARTZ, CLAY = 0, 1, 2
MINERALS = {PORE: "Pore", QUARTZ: "Quartz", CLAY: "Clay"}


def grain_pack(n=80, grains=120, radii=(6.0, 12.0), rim=1.5, seed=7):
    """Overlapping quartz spheres with patches of clay `rim` cells thick, [z, y, x]."""
    rng = np.random.default_rng(seed)
    z, y, x = np.ogrid[:n, :n, :n]
    solid = np.zeros((n, n, n), dtype=bool)
    for centre, radius in zip(rng.uniform(0, n, (grains, 3)), rng.uniform(*radii, grains)):
        solid |= (z - centre[0]) ** 2 + (y - centre[1]) ** 2 + (x - centre[2]) ** 2 <= radius ** 2
    # Pore cells within `rim` of a grain are clay where a smooth random field is high,
    # so that about half of the grain surface is coated and the rest is bare quartz.
    patches = ndimage.gaussian_filter(rng.standard_normal((n, n, n)), 3.0) > 0.0
    labels = np.where(solid, QUARTZ, PORE).astype(np.uint8)
    labels[~solid & patches & (ndimage.distance_transform_edt(~solid) <= rim)] = CLAY
    return labels


def main():
    output = sys.argv[1] if len(sys.argv) > 1 else "grain_pack.png"
    labels = grain_pack()
    print("porosity %.3f, clay %.3f" % ((labels == PORE).mean(), (labels == CLAY).mean()))
    fig, ax = plt.subplots(figsize=(7, 4))
    for quartz in (1e-5, 5e-5):
        params = {
            "diffusionConstantWater": 2.3e-9,
            "numberOfWalkers": 10000,
            "subsampleCalculation": False,
            "surfaceRelaxationStrengthWater": {"Quartz": quartz, "Clay": 2e-6},
        }
        result = nmrwalk.simulate(labels, 3.0, params, minerals=MINERALS, seed=1)
        t2lm = result.summary["logMeanT2Ms"]
        print("quartz relaxivity %g m/s: T2LM %.1f ms, walk %.1f s"
              % (quartz, t2lm, result.walk_seconds))
        ax.semilogx(result.t2_ms, result.distribution,
                    label="quartz %g m/s (T2LM %.0f ms)" % (quartz, t2lm))
    ax.set_xlabel("T2 (ms)")
    ax.set_ylabel("amplitude")
    ax.set_title("Grain pack, 80^3 cells of 3 um")
    ax.legend()
    fig.tight_layout()
    fig.savefig(output, dpi=120)
    print("wrote", output)


if __name__ == "__main__":
    main()
