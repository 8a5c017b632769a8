#!/usr/bin/env bash
# Configures and builds into build/ (or $ORVA_BUILD_DIR). Extra arguments go to cmake.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${ORVA_BUILD_DIR:-$root/build}
jobs=${ORVA_JOBS:-2}
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=${ORVA_BUILD_TYPE:-Release} "$@" >/dev/null
cmake --build "$build" -j "$jobs"
