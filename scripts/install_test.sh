#!/usr/bin/env bash
# Installs the build into a scratch prefix, then builds examples/ against the installed tree
# twice (CMake package, pkg-config), runs what it built, and imports the installed Python
# module. Usage: scripts/install_test.sh [BUILD_DIR]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-${ORVA_BUILD_DIR:-$root/build}}
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null

cmake -S "$root/examples" -B "$tmp/cmake" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$tmp/cmake" -j "${ORVA_JOBS:-2}" >/dev/null
mkdir -p "$tmp/pc"
PKG_CONFIG_PATH="$prefix/lib/pkgconfig" \
  c++ -std=c++17 -o "$tmp/pc/detect_track" "$root/examples/detect_track.cpp" \
  $(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config --cflags --libs orva) -Wl,-rpath,"$prefix/lib"

# Both programs run from the installed library: a description that is no detector is
# rejected with status 1, not a crash.
for exe in "$tmp/cmake/detect_track" "$tmp/pc/detect_track"; do
  status=0
  "$exe" "$root/tests/data/conv_small.cfg" "$root/tests/data/conv_small.cfg" --gpu -1 >/dev/null 2>&1 || status=$?
  [ "$status" = 1 ] || { echo "install_test: $exe exited $status" >&2; exit 1; }
done
"$prefix/bin/orva" --help >/dev/null
if ls "$prefix"/lib/python3/dist-packages/orva*.so >/dev/null 2>&1; then
  PYTHONPATH="$prefix/lib/python3/dist-packages" python3 -c "import orva; assert orva.__version__ == '4.0'"
fi
echo "install_test: examples built with find_package and pkg-config; installed tree:"
(cd "$prefix" && find . -type f -o -type l | sort | sed 's|^\./|  |' | grep -v '^  include/orva/')
echo "  include/orva/ ($(ls "$prefix/include/orva" | wc -l) headers)"
