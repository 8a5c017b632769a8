#!/usr/bin/env bash
# N copies of one video through `orva detect` at once (the multi-source runner), for each
# batch size: frames/s per stream and in total, read-to-event latency (p50/p99 of the
# slowest stream), frames dropped; beside it the network's own frames/s at that batch from
# `orva bench` (the floor the runner should reach when the network is the bottleneck).
#   bench/streams_bench.sh [BUILD_DIR] [MODEL] [GPU] [FRAMES] ["N..."] ["BATCH..."] [--realtime]
# The video is made from the face demo pictures: MJPEG in Matroska, 960x640 at 25 frames/s.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
model=${2:-$root/models/face.orva}
gpu=${3:--1}
frames=${4:-100}
streams=${5:-"1 2 4"}
batches=${6:-"1 2 4"}
extra=${7:-}
orva=$build/tools/orva
demo=$(cd "$(dirname "$model")" && pwd)/face-api/demo
[ -f "$model" ] || { echo "streams_bench: $model: no such file (scripts/run.sh makes the face model)" >&2; exit 1; }
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
video=$tmp/faces.mkv
pictures=("$demo"/*.jpg)
[ -f "${pictures[0]}" ] || { echo "streams_bench: no pictures in $demo (scripts/setup.sh fetches them)" >&2; exit 1; }
for k in $(seq 0 $((frames - 1))); do ln -s "${pictures[$((k % ${#pictures[@]}))]}" "$tmp/frame$k.jpg"; done
gst-launch-1.0 -q multifilesrc location="$tmp/frame%d.jpg" stop-index=$((frames - 1)) caps=image/jpeg,framerate=25/1 ! \
  jpegdec ! videoconvert ! videoscale ! video/x-raw,width=960,height=640,pixel-aspect-ratio=1/1,format=I420 ! jpegenc ! \
  matroskamux ! filesink location="$video"

echo "model $model, gpu $gpu, $frames frames of 960x640 per stream $extra; load average $(cut -d' ' -f1-3 /proc/loadavg)"
printf "%6s %3s %12s %12s %10s %10s %8s %12s %7s\n" batch N "frames/s/str" "frames/s" "p50 ms" "p99 ms" dropped "net frames/s" "ratio"
for b in $batches; do
  net=$("$orva" bench --gpu "$gpu" -m "$model" --batches "$b" -n 5 | sed -n 's/^batch [0-9]*: \([0-9.]*\) frames\/s.*/\1/p')
  for n in $streams; do
    srcs=()
    for k in $(seq "$n"); do ln -sf "$video" "$tmp/s$k.mkv"; srcs+=("$tmp/s$k.mkv"); done
    # One source runs through the runner too when --realtime (or --mqtt) is given; without
    # it a single source takes the one-thread path, which is what users of one file get.
    "$orva" detect --gpu "$gpu" -m "$model" -b "$b" --json /dev/null $extra "${srcs[@]}" 2>"$tmp/err"
    awk -v b="$b" -v n="$n" -v net="$net" '
      / frames, / { fps = $6 + 0; sum += fps; if (min == "" || fps < min) min = fps
                    if (match($0, /p50 [0-9]+/)) { v = substr($0, RSTART + 4, RLENGTH - 4) + 0; if (v > p50) p50 = v }
                    if (match($0, /p99 [0-9]+/)) { v = substr($0, RSTART + 4, RLENGTH - 4) + 0; if (v > p99) p99 = v }
                    if (match($0, /[0-9]+ dropped/)) drop += substr($0, RSTART, RLENGTH) + 0 }
      END { total = sum
            ratio = net > 0 ? 100 * total / net : 0
            printf("%6d %3d %12.1f %12.1f %10s %10s %8d %12.1f %6.0f%%\n", b, n, min, total, (p50 == "" ? "-" : p50),
                   (p99 == "" ? "-" : p99), drop, net, ratio) }' "$tmp/err"
  done
done
