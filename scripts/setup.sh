#!/usr/bin/env bash
# Installs every build and test dependency from Debian packages. Safe to run again:
# it only calls apt when something is missing.
set -euo pipefail
pkgs=(cmake g++ make pkg-config ccache libopencv-dev libtbb-dev libopenblas-dev
      libgtest-dev libgmock-dev libbenchmark-dev
      python3-matplotlib)
missing=()
for p in "${pkgs[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo_cmd=""
  [ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq "${missing[@]}"
fi
