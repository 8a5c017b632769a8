#!/usr/bin/env bash
# The shared library's exported symbols: none of the backends' internals (cpu::, gpu::), none
# of the CUDA emulator (orva_emu::, and the toolkit's C entry points it stands in for), while
# the application interface stays exported under its names. Usage: check_exports.sh LIBRARY
set -euo pipefail
lib=$1
syms=$(nm -D --defined-only -C "$lib" | awk '{ $1 = ""; $2 = ""; sub(/^  /, ""); print }')
leaked=$(grep -E '^(cpu|gpu|orva_emu)::|^(cuda[A-Z]|cublas|cudnn|curand)[A-Za-z]*\(' <<<"$syms" || true)
if [ -n "$leaked" ]; then
  echo "check_exports: $lib exports internals:" >&2
  head -20 <<<"$leaked" >&2
  exit 1
fi
missing=0
for want in 'ORVA::Network::Network(int, int, int)' 'ORVA::DetectNetwork::detect(' 'ORVA::ClassifyNetwork::classify(' \
            'ORVA::HeatmapNetwork::getHeatmap(' 'ORVA::DetectTask::process(' 'ORVA::Tracker::process(' \
            'solveAssignment(' 'ORVA::MedianBGS::update(' 'ORVA::computeHash(' 'ORVA::classifyColor(' \
            'ORVA::setMsgLevel(int)' 'ORVA::setFatalThrows(bool)' 'cvt_cv2data(' 'blas_gemm(' \
            'typeinfo for LeakyActivation' 'ORVA::LayerType::create(' 'ConfigReader::load('; do
  grep -qF "$want" <<<"$syms" || { echo "check_exports: $lib does not export $want" >&2; missing=1; }
done
[ "$missing" = 0 ] || exit 1
echo "check_exports: $(wc -l <<<"$syms") symbols exported, no internals"
