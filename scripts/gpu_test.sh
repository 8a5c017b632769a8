#!/usr/bin/env bash
# For a machine with an NVIDIA GPU: builds with the CUDA backend forced on and runs the
# whole suite in one process, so every backend test compares CUDA against the host and the
# run fails when nothing was compared on CUDA. Packages come from scripts/setup.sh.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
export ORVA_BUILD_DIR=${ORVA_BUILD_DIR:-$root/build-gpu}
export ORVA_JOBS=${ORVA_JOBS:-$(nproc)}
nvidia-smi -L
"$root/scripts/build.sh" -DORVA_CUDA=ON -DORVA_BUILD_BENCH=ON "$@"
"$ORVA_BUILD_DIR/tools/orva_demo"
ORVA_REQUIRE_CUDA=1 "$ORVA_BUILD_DIR/tests/orva_tests" "${GTEST_ARGS:---gtest_brief=1}"
