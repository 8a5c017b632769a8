#!/usr/bin/env bash
# One command on a fresh machine: install, build, run the whole test suite.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"
"$root/scripts/build.sh" -DORVA_BUILD_BENCH=ON
cd "${ORVA_BUILD_DIR:-$root/build}"
ctest --output-on-failure -j "${ORVA_JOBS:-2}" --timeout 900

# --- Hardening: the suite again under AddressSanitizer and UndefinedBehaviorSanitizer, then
# each fuzz target for a bounded time (ORVA_CI_FUZZ_SECONDS each, 60 by default) on its corpus.
# ORVA_SKIP_HARDENING=1 leaves this block out.
if [ "${ORVA_SKIP_HARDENING:-0}" != 1 ]; then
  "$root/scripts/sanitize.sh"
  for target in description network model weights; do
    "$root/scripts/fuzz.sh" "$target" "${ORVA_CI_FUZZ_SECONDS:-60}"
  done
fi
