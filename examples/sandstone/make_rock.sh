#!/usr/bin/env bash
# Makes sandstone.binc, the rock of this example: 100^3 voxels of 2 um (a 200 um cube)
# of overlapping Quartz grains of radius 14-26 um, 20 % pore space after a 2 um Clay
# coat on 30 % of the grains. The same seed gives the same rock on every machine.
#
# Usage: ./make_rock.sh [BUILD_DIR [OUTPUT]]
# nmrwalk-grid is taken from BUILD_DIR, else from $PATH, else from ../../build; the rock
# goes to OUTPUT, by default sandstone.binc beside this script.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

output="${2:-$here/sandstone.binc}"
if [[ $# -ge 1 ]]; then
    grid_tool="$1/nmrwalk-grid"
elif command -v nmrwalk-grid >/dev/null 2>&1; then
    grid_tool=$(command -v nmrwalk-grid)
else
    grid_tool="$here/../../build/nmrwalk-grid"
fi
if [[ ! -x "$grid_tool" ]]; then
    echo "make_rock.sh: nmrwalk-grid not found (give the build directory as argument)" >&2
    exit 1
fi

"$grid_tool" pack --size 100 --cell-size 2 \
    --radius 10 --radius-spread 0.3 --porosity 0.2 \
    --mineral Quartz --clay-thickness 1 --clay-fraction 0.3 \
    --seed 2024 -o "$output"
