#!/usr/bin/env bash
# For a machine with an NVIDIA GPU: builds with the CUDA backend forced on and runs the
# whole suite, so every backend test compares CUDA against the host. Fails when no GPU
# took part. Packages are expected to be installed already (scripts/setup.sh).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
export ORVA_BUILD_DIR=${ORVA_BUILD_DIR:-$root/build-gpu}
export ORVA_JOBS=${ORVA_JOBS:-$(nproc)}
nvidia-smi -L
"$root/scripts/build.sh" -DORVA_CUDA=ON -DORVA_BUILD_BENCH=ON "$@"
"$ORVA_BUILD_DIR/tools/orva_demo"
cd "$ORVA_BUILD_DIR"
ORVA_REQUIRE_CUDA=1 ctest --output-on-failure -j 4 --timeout 900
