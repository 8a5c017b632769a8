#!/usr/bin/env bash
# The library, the orva program and the test suite for 64-bit Arm boards, cross-built on an
# x86-64 Debian machine (host backend) and the suite run under qemu-aarch64.
#   scripts/test_aarch64.sh            everything: packages, sysroot, build, the whole suite
#   scripts/test_aarch64.sh --quick    the same build, then only the tests in ORVA_AARCH64_QUICK
#   scripts/test_aarch64.sh --build    build only
# Extra arguments after these go to ctest (e.g. -R Float16).
#
# The arm64 builds of the dependencies come from Debian through multiarch (the arm64
# architecture is added to apt), but they are unpacked into a private root
# (build-aarch64/sysroot) rather than installed: OpenCV's arm64 development packages cannot
# be installed beside the x86-64 ones the host build needs (apt would remove those). The
# same root serves the cross compiler's searches and qemu's library prefix.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${ORVA_AARCH64_BUILD_DIR:-$root/build-aarch64}
sysroot=$build/sysroot
jobs=${ORVA_JOBS:-2}
mode=all
case "${1:-}" in
  --quick) mode=quick; shift ;;
  --build) mode=build; shift ;;
esac
# The short subset: the half conversions and every eight-lane path
# beside its scalar twin, the convolutions on both precisions, and the program end to end.
quick=${ORVA_AARCH64_QUICK:-'Half|ActivationKernels|Blas|Resample|Twins|Convolution|Quantization|NetworkPredict|OrvaProgram'}

sudo_cmd=""
[ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
apt_get() { DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get -o DPkg::Lock::Timeout=900 "$@"; }

# 1. Cross compilers, qemu and the host tools.
need=()
for p in crossbuild-essential-arm64 qemu-user cmake make ccache dpkg-dev; do
  dpkg -s "$p" >/dev/null 2>&1 || need+=("$p")
done
if ! dpkg --print-foreign-architectures | grep -qx arm64; then
  $sudo_cmd dpkg --add-architecture arm64
  apt_get update -qq
fi
if [ ${#need[@]} -gt 0 ]; then
  apt_get update -qq
  apt_get install -y -qq --no-install-recommends "${need[@]}"
fi

# 2. The arm64 dependencies and everything they load, unpacked into the private root.
roots=(libopencv-dev:arm64 libtbb-dev:arm64 libopenblas-dev:arm64 libgtest-dev:arm64
       libgmock-dev:arm64 libmosquitto-dev:arm64)
headers=(libcli11-dev nlohmann-json3-dev)  # architecture-independent, needed in the root too
stamp=$sysroot/.orva-packages
want="${roots[*]} ${headers[*]}"
if [ ! -f "$stamp" ] || [ "$(cat "$stamp")" != "$want" ]; then
  debs=$build/debs
  rm -rf "$sysroot"
  mkdir -p "$debs" "$sysroot"
  list=$(apt-cache depends --recurse --no-recommends --no-suggests --no-conflicts --no-breaks \
           --no-replaces --no-enhances "${roots[@]}" 2>/dev/null |
         grep -v '^ ' | grep ':arm64$' | grep -v -E 'openblas.*(openmp|serial)' | sort -u)
  # apt-get download runs as _apt where it can: the folder must be writable for it
  chmod 777 "$debs" 2>/dev/null || true
  (cd "$debs" && apt-get download -qq $list "${headers[@]}")
  for deb in "$debs"/*.deb; do dpkg-deb -x "$deb" "$sysroot"; done
  # Alternatives that dpkg would have made (the pthread OpenBLAS as the BLAS and LAPACK), and
  # the few libraries packaged outside the multiarch folder, all where the linker looks.
  lib=$sysroot/usr/lib/aarch64-linux-gnu
  for f in "$lib"/openblas-pthread/*.so* "$sysroot"/usr/lib/lib*.so*; do
    [ -e "$lib/$(basename "$f")" ] || ln -s "$(realpath --relative-to="$lib" "$f")" "$lib/$(basename "$f")"
  done
  # Absolute links inside the packages point into the root, not at this machine.
  find "$sysroot" -type l -lname '/*' | while read -r l; do
    ln -sfn "$sysroot$(readlink "$l")" "$l"
  done
  rm -rf "$debs"
  echo "$want" >"$stamp"
fi

# 3. Cross build: the library, the program and the suite.
cmake -S "$root" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/aarch64-linux-gnu.cmake" \
  -DORVA_AARCH64_SYSROOT="$sysroot" -DCMAKE_BUILD_TYPE=${ORVA_BUILD_TYPE:-Release} \
  -DORVA_CUDA=OFF -DORVA_BUILD_PYTHON=OFF >/dev/null
cmake --build "$build" -j "$jobs" --target orva_tests
[ "$mode" = build ] && exit 0

# 4. The suite under qemu (the toolchain file makes ctest start each test through it).
filter=()
[ "$mode" = quick ] && filter=(-R "$quick")
# Two tests start the program themselves with fork and exec, without a shell, so they can't
# go through the emulator the other program tests are started with (the program's path there
# is "qemu-aarch64 ... orva"): they send it signals and time its answers, which the host runs
# cover. A death test in the thread-safe style runs the test program again from itself, which
# the kernel can do for an arm64 program only where qemu is registered with binfmt_misc.
skip='OrvaStreams.InterruptedRun|OrvaStreams.BrokerRestart'
if [ ! -e /proc/sys/fs/binfmt_misc/qemu-aarch64 ]; then
  skip="$skip|NetworkBuildDeathTest"
fi
filter+=(-E "$skip")
(cd "$build" && ctest --output-on-failure -j "$jobs" --timeout 1800 "${filter[@]}" "$@")
