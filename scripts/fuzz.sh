#!/usr/bin/env bash
# Runs one libFuzzer target for a bounded time:
#   scripts/fuzz.sh TARGET SECONDS [libFuzzer flags...]
# TARGET: description (the description reader), network (the builder from a description),
# model (the model-file loader), weights (the weights-only loader), tfjs (the TF.js
# graph-model importer of the orva program) or onnx (its ONNX importer and .npy reader). The targets are built
# with clang, AddressSanitizer and UndefinedBehaviorSanitizer in build-asan/ (shared with
# scripts/sanitize.sh). The corpus is build-asan/fuzz/corpus/TARGET, seeded by the target itself
# on first use; findings land in build-asan/fuzz/findings/TARGET and fail the run.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
target=${1:?usage: scripts/fuzz.sh TARGET SECONDS [libFuzzer flags]}
seconds=${2:-60}
shift $(( $# < 2 ? $# : 2 ))
case $target in description|network|model|weights|tfjs|onnx) ;; *) echo "fuzz: unknown target $target" >&2; exit 2 ;; esac
dir=${ORVA_ASAN_BUILD_DIR:-$root/build-asan}
[ -f "$dir/CMakeCache.txt" ] || ORVA_SANITIZE_BACKENDS=host "$root/scripts/sanitize.sh" --configure-only
cmake --build "$dir" -j "${ORVA_JOBS:-2}" --target "fuzz_$target" >/dev/null
bin=$dir/tests/fuzz/fuzz_$target
corpus=$dir/fuzz/corpus/$target
findings=$dir/fuzz/findings/$target
mkdir -p "$corpus" "$findings"
[ -n "$(ls -A "$corpus")" ] || "$bin" --seeds="$corpus"
# Leaks are checked per input; the library's outputs are closed so only libFuzzer speaks.
log=$dir/fuzz/$target.log
status=0
ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:allocator_may_return_null=1} \
UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1} \
  "$bin" "$corpus" -max_total_time="$seconds" -close_fd_mask=3 -rss_limit_mb=3072 -timeout=30 \
  -artifact_prefix="$findings/" -print_final_stats=1 "$@" >"$log" 2>&1 || status=$?
grep -E '^(Done|stat::number_of_executed_units|SUMMARY)|ERROR' "$log" || true
if [ "$status" -ne 0 ] || [ -n "$(ls -A "$findings")" ]; then
  echo "fuzz: $target found a fault (status $status), see $findings and $log" >&2
  exit 1
fi
echo "fuzz: $target clean for $seconds s"
