#!/usr/bin/env bash
# Installs what bench_peer needs for its ONNX Runtime column (not part of CI: about 290 MB):
# Debian's python3-onnx for bench/orva_to_onnx.py, and onnxruntime-node from npm under
# bench/node_modules (outside git). --ignore-scripts skips the package's install script,
# which would try to download GPU providers; the CPU provider ships in the package itself.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
version=1.30.0
sudo_cmd=""
[ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
need=()
/usr/bin/python3 -c 'import onnx, numpy' 2>/dev/null || need+=(python3-onnx python3-numpy)
command -v node >/dev/null 2>&1 || need+=(nodejs)
command -v npm >/dev/null 2>&1 || need+=(npm)
if [ ${#need[@]} -gt 0 ]; then
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get -o DPkg::Lock::Timeout=900 install -y -qq "${need[@]}"
fi
if ! (cd "$here" && node -e "process.exit(require('onnxruntime-node/package.json').version === '$version' ? 0 : 1)") 2>/dev/null; then
  (cd "$here" && npm install --ignore-scripts --no-save --no-audit --no-fund "onnxruntime-node@$version")
fi
(cd "$here" && node -e "const ort = require('onnxruntime-node'); console.log('onnxruntime-node', require('onnxruntime-node/package.json').version)")
