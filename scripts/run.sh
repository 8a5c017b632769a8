#!/usr/bin/env bash
# One command on a fresh machine: install, build, run the demo program.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"
"$root/scripts/build.sh"
"${ORVA_BUILD_DIR:-$root/build}/tools/orva_demo" "$@"
