#!/usr/bin/env bash
# Builds the test suite with ThreadSanitizer on the host backend (build-tsan/, or
# $ORVA_TSAN_DIR) and runs the task tests under it. Any report fails the run.
# Extra arguments replace the test filter.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${ORVA_TSAN_DIR:-$root/build-tsan}
jobs=${ORVA_JOBS:-2}
filter=${1:-'NetworkTask*:DetectTask*'}
flags="-fsanitize=thread -g -O1"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORVA_CUDA=OFF -DORVA_BUILD_BENCH=OFF \
  -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" \
  -DCMAKE_EXE_LINKER_FLAGS=-fsanitize=thread -DCMAKE_SHARED_LINKER_FLAGS=-fsanitize=thread >/dev/null
cmake --build "$build" -j "$jobs" --target orva_tests
# halt_on_error: the first report ends the run with a failing status.
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 ${TSAN_OPTIONS:-}" \
  "$build/tests/orva_tests" --gtest_filter="$filter"
