#!/usr/bin/env bash
# Frames/s of decode -> orvadetect -> fakesink against `orva detect` on the same video and
# model, and their ratio (the element's cost: conversion, the task's thread hop, the metas).
# Each side runs `rounds` times, alternating; the best run of each counts.
#   bench/gst_bench.sh [BUILD_DIR] [MODEL] [GPU] [FRAMES] [ROUNDS]
# The video is made from the face demo pictures: MJPEG in Matroska, 960x640, read by jpegdec in the
# pipeline and by OpenCV in `orva detect`.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
model=${2:-$root/models/face.orva}
gpu=${3:-0}
frames=${4:-60}
rounds=${5:-3}
demo=$(dirname "$model")/face-api/demo
[ -f "$model" ] || { echo "gst_bench: $model: no such file (scripts/run.sh makes the face model)" >&2; exit 1; }
export GST_PLUGIN_PATH=$build/gst
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
video=$tmp/faces.mkv
for k in $(seq 0 $((frames - 1))); do ln -s "$demo/sample$((k % 6 + 1)).jpg" "$tmp/frame$k.jpg"; done
gst-launch-1.0 -q multifilesrc location="$tmp/frame%d.jpg" stop-index=$((frames - 1)) caps=image/jpeg,framerate=25/1 ! \
  jpegdec ! videoconvert ! videoscale ! video/x-raw,width=960,height=640,pixel-aspect-ratio=1/1,format=I420 ! jpegenc ! matroskamux ! \
  filesink location="$video"

now() { date +%s.%N; }
best_gst=0 best_cli=0
for r in $(seq "$rounds"); do
  t0=$(now)
  gst-launch-1.0 -q filesrc location="$video" ! matroskademux ! jpegdec ! \
    orvadetect model="$model" gpu="$gpu" ! fakesink sync=false >/dev/null 2>"$tmp/gst.err" ||
    { cat "$tmp/gst.err" >&2; exit 1; }
  t1=$(now)
  "$build/tools/orva" detect -m "$model" --gpu "$gpu" --json /dev/null "$video" 2>/dev/null
  t2=$(now)
  g=$(echo "$frames / ($t1 - $t0)" | bc -l)
  c=$(echo "$frames / ($t2 - $t1)" | bc -l)
  printf 'round %d: orvadetect %.2f frames/s, orva detect %.2f frames/s\n' "$r" "$g" "$c"
  best_gst=$(echo "if ($g > $best_gst) $g else $best_gst" | bc -l)
  best_cli=$(echo "if ($c > $best_cli) $c else $best_cli" | bc -l)
done
printf 'best: orvadetect %.2f frames/s, orva detect %.2f frames/s, ratio %.3f (%d frames, gpu %s, model %s)\n' \
  "$best_gst" "$best_cli" "$(echo "$best_gst / $best_cli" | bc -l)" "$frames" "$gpu" "$(basename "$model")"
