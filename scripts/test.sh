#!/usr/bin/env bash
# One command on a fresh machine: install, build, run the whole test suite on the host
# backend; then build the emulated CUDA backend (build-emu/, the kernels run on the host)
# and run the suite again there, comparing every kernel with its host twin; then check the
# kernels' PTX for multiply-adds the device compiler fused on its own; then cross-build for
# aarch64 and run the suite again under qemu.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
jobs=${ORVA_JOBS:-2}
"$root/scripts/setup.sh"
"$root/scripts/build.sh" -DORVA_BUILD_BENCH=ON
(cd "${ORVA_BUILD_DIR:-$root/build}" && ctest --output-on-failure -j "$jobs" --timeout 900)
# A handful of the ONNX project's test cases through convert --onnx and run (the whole set:
# scripts/onnx_conformance.sh on its own).
"$root/scripts/onnx_conformance.sh" --quick --orva "${ORVA_BUILD_DIR:-$root/build}/tools/orva"
# The installed tree: examples/ built against it with find_package and with pkg-config.
"$root/scripts/install_test.sh"

# Emulated CUDA: threads and blocks in a shuffled order (the seed is printed) so that a
# result depending on the order shows up as a difference from the host twin.
emu=${ORVA_EMU_BUILD_DIR:-$root/build-emu}
# The Python module and its tests run once, on the host build.
cmake -S "$root" -B "$emu" -DCMAKE_BUILD_TYPE=${ORVA_BUILD_TYPE:-Release} -DORVA_CUDA=EMULATE -DORVA_BUILD_PYTHON=OFF >/dev/null
cmake --build "$emu" -j "$jobs" --target orva_tests
(cd "$emu" && ORVA_EMU_ORDER=${ORVA_EMU_ORDER:-shuffle} ctest --output-on-failure -j "$jobs" --timeout 900)

"$root/scripts/check_ptx.sh"

# 64-bit Arm boards: the library, the program and the suite cross-built (build-aarch64/) and
# the suite run under qemu-aarch64. Each test pays qemu's start of the program, so the whole
# suite costs little more than a subset (ORVA_AARCH64_MODE=--quick). ORVA_SKIP_AARCH64=1
# leaves this out.
if [ "${ORVA_SKIP_AARCH64:-0}" != 1 ]; then
  "$root/scripts/test_aarch64.sh" ${ORVA_AARCH64_MODE:-}
fi

# --- Hardening: the suite again under AddressSanitizer and UndefinedBehaviorSanitizer (clang),
# then each fuzz target for a bounded time on its corpus (ORVA_CI_FUZZ_SECONDS each, 30 by
# default). The suite's fuzz pass uses a fixed seed and a fixed count of inputs, so that it
# replays the same inputs on every run: a fault it meets fails every run, not one in ten;
# open-ended hunting is scripts/fuzz.sh on its own. The sanitizer pass covers the host backend; ORVA_SANITIZE_BACKENDS="host emulate"
# adds the emulated CUDA backend at the cost of one more full build. ORVA_SKIP_HARDENING=1
# leaves this block out.
if [ "${ORVA_SKIP_HARDENING:-0}" != 1 ]; then
  "$root/scripts/sanitize.sh"
  for target in description network model weights tfjs onnx; do
    "$root/scripts/fuzz.sh" "$target" "${ORVA_CI_FUZZ_SECONDS:-30}" -seed=1 -runs="${ORVA_CI_FUZZ_RUNS:-20000}"
  done
fi
