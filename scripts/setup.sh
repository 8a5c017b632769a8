#!/usr/bin/env bash
# Installs every build and test dependency from Debian packages, then fetches the face
# detector the orva program runs out of the box. Safe to run again: it only calls apt when
# something is missing and fetches only what is not there yet.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
pkgs=(cmake g++ make pkg-config ccache libopencv-dev libtbb-dev libopenblas-dev
      libgtest-dev libgmock-dev libbenchmark-dev
      clang libclang-rt-dev llvm  # clang: sanitizer build and libFuzzer targets
      python3-matplotlib)  # training curves
# the orva program: argument parsing and JSON
pkgs+=(libcli11-dev nlohmann-json3-dev)
# the Python module and its tests (cv2 for the README's Python example)
pkgs+=(python3-dev pybind11-dev python3-numpy python3-pytest python3-opencv)
sudo_cmd=""
[ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
apt_install() {
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq "$@"
}
missing=()
for p in "${pkgs[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  apt_install "${missing[@]}"
fi

# The tiny face detector of the npm package @vladmandic/face-api (MIT licence): its model
# files and demo pictures go to models/face-api/ (outside git); scripts/run.sh converts them
# with `orva convert --faceapi`. The tarball is checked against a pinned SHA-256. Without
# the registry the build and tests go on; the program's face test then skips.
fetch_face_model() {
  local version=1.7.15
  local sha256=0d77fffeef362ef9c0939cf6c567f3a2e8e177f114fa257a3270cbd2e509b031
  local models="$root/models"
  local tgz="$models/vladmandic-face-api-$version.tgz"
  local dest="$models/face-api"
  [ -f "$dest/model/tiny_face_detector_model.bin" ] && return 0
  if ! command -v npm >/dev/null 2>&1; then
    apt_install npm || { echo "setup: npm unavailable; face model not fetched" >&2; return 0; }
  fi
  mkdir -p "$models"
  if [ ! -f "$tgz" ]; then
    (cd "$models" && npm pack --silent "@vladmandic/face-api@$version" >/dev/null) ||
      { echo "setup: npm pack @vladmandic/face-api@$version failed; face model not fetched" >&2; return 0; }
  fi
  if ! echo "$sha256  $tgz" | sha256sum -c --quiet; then
    echo "setup: $tgz does not match its pinned SHA-256; removed" >&2
    rm -f "$tgz"
    return 1
  fi
  local tmp
  tmp=$(mktemp -d)
  tar -xzf "$tgz" -C "$tmp" --wildcards package/LICENSE package/model/tiny_face_detector_model.bin \
    package/model/tiny_face_detector_model-weights_manifest.json 'package/demo/sample*.jpg'
  rm -rf "$dest"
  mkdir -p "$dest"
  mv "$tmp/package/LICENSE" "$tmp/package/model" "$tmp/package/demo" "$dest/"
  rm -rf "$tmp"
}
fetch_face_model
