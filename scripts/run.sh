#!/usr/bin/env bash
# One command on a fresh machine: install, build, then the main job: people and vehicles
# found and followed through OpenCV's street video with the converted CenterNet COCO
# detector. Writes an annotated MP4 to out/ (or $ORVA_OUT), one JSON line per frame, a
# progress bar on a terminal and a closing summary.
#   scripts/run.sh [orva detect arguments]   sources, thresholds, --gpu -1 ... as given
#   scripts/run.sh --faces [arguments]       faces in the face-api demo pictures instead
# Arguments pass to `orva detect` untouched; paths are taken from the caller's folder. The
# model, the default source, the output folder, --track and -t 0.3 are added only where the
# arguments do not give their own.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${ORVA_BUILD_DIR:-$root/build}
faces=0
if [ "${1:-}" = "--faces" ]; then
  faces=1
  shift
fi
"$root/scripts/setup.sh"
"$root/scripts/build.sh" >/dev/null
orva="$build/tools/orva"

# Which of the arguments are sources: the options that take a value are read from the
# program's own help (an option name followed by a value type), so new options need no
# change here.
mapfile -t valued < <("$orva" detect --help 2>/dev/null |
  awk '/^ *-/ && $2 ~ /^[A-Z][A-Z0-9_]*([=:]|$)/ { n = split($1, a, ","); for (i = 1; i <= n; ++i) print a[i] }')
takes_value() {
  local o
  for o in "${valued[@]}"; do [ "$o" = "$1" ] && return 0; done
  return 1
}
has_source=0 has_model=0 has_out=0 has_thresh=0 has_track=0
skip=0
for a in "$@"; do
  if [ $skip -eq 1 ]; then skip=0; continue; fi
  case "$a" in
    -m|--model|--model=*) has_model=1 ;;
    -o|--output|--output=*) has_out=1 ;;
    -t|--thresh|--thresh=*) has_thresh=1 ;;
    --track) has_track=1 ;;
  esac
  case "$a" in
    --*=*) ;;
    -*) takes_value "$a" && skip=1 ;;
    *) has_source=1 ;;
  esac
done

defaults=()
if [ $faces -eq 1 ]; then
  face="$root/models/face-api"
  model="$root/models/face.orva"
  if [ ! -f "$face/model/tiny_face_detector_model.bin" ]; then
    echo "run: the face model was not fetched (see scripts/setup.sh); nothing to detect" >&2
    exit 1
  fi
  if [ ! -f "$model" ] || [ "$face/model/tiny_face_detector_model.bin" -nt "$model" ]; then
    "$orva" convert --faceapi "$face/model/tiny_face_detector_model-weights_manifest.json" -o "$model"
  fi
  source="$face/demo"
else
  graph="$root/models/human-models/centernet.json"
  model="$root/models/centernet.orva"
  source="$root/models/vtest.avi"
  if [ $has_model -eq 0 ]; then
    if [ ! -f "$graph" ]; then
      echo "run: the COCO model was not fetched (see scripts/setup.sh); nothing to detect" >&2
      exit 1
    fi
    if [ ! -f "$model" ] || [ "$graph" -nt "$model" ] || [ "$root/scripts/coco.names" -nt "$model" ]; then
      "$orva" convert --tfjs "$graph" --names "$root/scripts/coco.names" -o "$model"
    fi
  fi
  if [ $has_source -eq 0 ] && [ ! -f "$source" ]; then
    echo "run: the street video was not fetched (see scripts/setup.sh); give a source" >&2
    exit 1
  fi
  [ $has_thresh -eq 1 ] || defaults+=(-t 0.3)
  [ $has_track -eq 1 ] || defaults+=(--track)
fi
# Paths under the caller's folder are shown relative to it in the output.
rel() { case "$1" in "$PWD"/*) echo "${1#"$PWD"/}" ;; *) echo "$1" ;; esac; }
[ $has_model -eq 1 ] || defaults+=(-m "$(rel "$model")")
[ $has_out -eq 1 ] || defaults+=(-o "${ORVA_OUT:-out}")
[ $has_source -eq 1 ] || set -- "$@" "$(rel "$source")"
exec "$orva" detect "${defaults[@]}" "$@"
