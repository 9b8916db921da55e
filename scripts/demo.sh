#!/usr/bin/env bash
# The main job on the simulated bench: find every chassis, then open, switch
# and show the matrix of the first RK420 of the built-in bench.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
scripts/build.sh build
tool=build/tools/qbvisa
export LD_LIBRARY_PATH="$PWD/build/sim${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"
exec scripts/demo-steps.sh "$tool"
