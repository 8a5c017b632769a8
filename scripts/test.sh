#!/usr/bin/env bash
# One command on a fresh machine: install, build, run the whole test suite.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"
"$root/scripts/build.sh" -DORVA_BUILD_BENCH=ON
cd "${ORVA_BUILD_DIR:-$root/build}"
ctest --output-on-failure -j "${ORVA_JOBS:-2}" --timeout 900
