#!/usr/bin/env bash
# Builds the test suite with clang, AddressSanitizer and UndefinedBehaviorSanitizer and runs it,
# once per backend in ORVA_SANITIZE_BACKENDS (default "host"):
#   host     - the host backend only, in build-asan/ (shared with scripts/fuzz.sh)
#   emulate  - the CUDA backend on the host-side emulator (ORVA_CUDA=EMULATE), in
#              build-asan-emu/: one more full build; skipped where the build has no such mode
# Any sanitizer report fails the run. Extra arguments go to the test binary.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
jobs=${ORVA_JOBS:-2}
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:allocator_may_return_null=1:strict_string_checks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

# Configures a clang build with both sanitizers in $1, CUDA mode $2; the coverage hooks let
# the fuzz targets share the build (they cost the suite little).
configure() {
  local dir=$1 cuda=$2
  local san="-fsanitize=address,undefined -fno-sanitize-recover=undefined -fsanitize=fuzzer-no-link -fno-omit-frame-pointer"
  CC=clang CXX=clang++ cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORVA_CUDA="$cuda" \
    -DORVA_BUILD_FUZZ=ON -DORVA_BUILD_BENCH=OFF \
    -DCMAKE_C_FLAGS="$san" -DCMAKE_CXX_FLAGS="$san" \
    -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=address,undefined" \
    -DCMAKE_SHARED_LINKER_FLAGS="-fsanitize=address,undefined" >/dev/null
}

for backend in ${ORVA_SANITIZE_BACKENDS:-host}; do
  case $backend in
    host) dir=${ORVA_ASAN_BUILD_DIR:-$root/build-asan}; cuda=OFF ;;
    emulate)
      if ! grep -q '"EMULATE"' "$root/CMakeLists.txt"; then
        echo "sanitize: no emulated CUDA backend in this build, skipped"
        continue
      fi
      dir=$root/build-asan-emu; cuda=EMULATE ;;
    *) echo "sanitize: unknown backend $backend" >&2; exit 2 ;;
  esac
  [ "${1:-}" = "--configure-only" ] && { configure "$dir" "$cuda"; continue; }
  configure "$dir" "$cuda"
  cmake --build "$dir" -j "$jobs" --target orva_tests
  echo "sanitize: running the suite ($backend)"
  start=$(date +%s)
  "$dir/tests/orva_tests" --gtest_brief=1 "$@"
  echo "sanitize: $backend clean in $(( $(date +%s) - start )) s"
done
