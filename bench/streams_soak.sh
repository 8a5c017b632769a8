#!/usr/bin/env bash
# Memory over a long run of the multi-source runner: N copies of a looped street video,
# paced at their own frame rate (--realtime), tracked, events to a local MQTT broker.
# Samples the program's resident memory every 10 s and prints the table, then the growth
# after the first minute (a runner that holds on to nothing grows by ~0).
#   bench/streams_soak.sh [BUILD_DIR] [MODEL] [N] [COPIES] [-- extra detect options]
# COPIES x 79.5 s of models/vtest.avi (15 copies: about 20 minutes), at half size.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
model=${2:-$root/models/face.orva}
n=${3:-4}
copies=${4:-15}
shift $(( $# < 4 ? $# : 4 ))
[ "${1:-}" = "--" ] && shift
orva=$build/tools/orva
[ -x "$build/bench/loop_video" ] || cmake --build "$build" --target loop_video >/dev/null
tmp=$(mktemp -d)
broker=
trap '[ -n "$broker" ] && kill "$broker" 2>/dev/null; rm -rf "$tmp"' EXIT
"$build/bench/loop_video" "$root/models/vtest.avi" "$tmp/street.avi" "$copies" 0.5
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
printf 'listener %s 127.0.0.1\nallow_anonymous true\n' "$port" >"$tmp/mosquitto.conf"
mosquitto -c "$tmp/mosquitto.conf" >/dev/null 2>&1 &
broker=$!
srcs=()
for k in $(seq "$n"); do ln -s "$tmp/street.avi" "$tmp/cam$k.avi"; srcs+=("$tmp/cam$k.avi"); done
sleep 1
"$orva" detect --gpu -1 -m "$model" --realtime --track --mqtt "127.0.0.1:$port" --json /dev/null "$@" "${srcs[@]}" \
  2>"$tmp/err" &
pid=$!
echo "soak: $n streams x $copies copies, model $model, pid $pid; load average $(cut -d' ' -f1-3 /proc/loadavg)"
printf "%8s %10s\n" "seconds" "RSS MiB"
t=0
rss_at() { awk '/^VmRSS/ { printf "%.1f", $2 / 1024 }' "/proc/$1/status" 2>/dev/null; }
first= last= max=0
while kill -0 "$pid" 2>/dev/null; do
  r=$(rss_at "$pid") || true
  [ -n "$r" ] || break
  printf "%8d %10s\n" "$t" "$r"
  [ "$t" -ge 60 ] && [ -z "$first" ] && first=$r
  last=$r
  max=$(awk -v a="$max" -v b="$r" 'BEGIN { print (b > a ? b : a) }')
  sleep 10
  t=$((t + 10))
done
wait "$pid" || echo "soak: orva detect ended with status $?"
tail -n "$((n + 1))" "$tmp/err"
echo "soak: RSS after the first minute ${first:-?} MiB, at the end ${last:-?} MiB, max $max MiB over $t s"
