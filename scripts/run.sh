#!/usr/bin/env bash
# One command on a fresh machine: install, build, then the main job: faces found in the
# face-api demo pictures with the converted tiny face detector. Prints one JSON line and one
# summary line per picture; annotated pictures go to out/ (or $ORVA_OUT). Extra arguments go
# to `orva detect` (e.g. --gpu -1 for the host, --track, a video file or a camera index).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${ORVA_BUILD_DIR:-$root/build}
"$root/scripts/setup.sh"
"$root/scripts/build.sh" >/dev/null
orva="$build/tools/orva"
face="$root/models/face-api"
model="$root/models/face.orva"
if [ ! -f "$face/model/tiny_face_detector_model.bin" ]; then
  echo "run: the face model was not fetched (see scripts/setup.sh); nothing to detect" >&2
  exit 1
fi
if [ ! -f "$model" ] || [ "$face/model/tiny_face_detector_model.bin" -nt "$model" ]; then
  "$orva" convert --faceapi "$face/model/tiny_face_detector_model-weights_manifest.json" -o "$model"
fi
inputs=("$face/demo")
for a in "$@"; do
  # a source among the arguments replaces the demo pictures
  case "$a" in -*) ;; *) inputs=(); break ;; esac
done
cd "$root"
exec "$orva" detect -m "${model#$root/}" -o "${ORVA_OUT:-out}" "${inputs[@]/#$root\//}" "$@"
