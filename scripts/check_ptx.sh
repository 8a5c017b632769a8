#!/usr/bin/env bash
# Finds multiply-adds the GPU would round once where the host twin rounds twice. Each kernel
# source is compiled to PTX as the build compiles it, and again with contraction off:
#  - a function with more fma instructions in the first has a multiply-add fused by nvcc;
#  - a multiply without a rounding mode whose result feeds an add or subtract without one
#    may still be fused by the assembler (PTX allows that for unrounded mul/add pairs).
# Write such steps with the explicit round-to-nearest intrinsics (__fmul_rn/__fadd_rn, or
# a half product and sum through them), or make the fused step explicit (__fmaf_rn) in the
# kernel and its twin alike. Needs nvcc (NVCC or /usr/local/cuda/bin/nvcc), else skipped.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
nvcc=${NVCC:-/usr/local/cuda/bin/nvcc}
if ! [ -x "$nvcc" ]; then
  echo "check_ptx: no nvcc, skipped"
  exit 0
fi
arch=${ORVA_PTX_ARCH:-compute_75}  # native half arithmetic, in every toolkit the project supports
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
# Functions whose unrounded pairs all come from a device math-library call (its expansion
# is inlined), which no host twin reproduces to the bit anyway: name and library call.
allowed_pairs=("variance_delta_kernel powf" "xentropy_kernel powf")
flags=(-ptx "-arch=$arch" -std=c++17 -O3 -DNDEBUG --expt-relaxed-constexpr -I"$root/include" -I"$root/src")

# One line per function: name, fma count, unrounded multiply-to-add pairs.
scan() {
  awk '
    function operands(line, out,   body) {
      body = line; sub(/^[ \t{]*[a-z0-9.]+[ \t]+/, "", body); sub(/;.*/, "", body); gsub(/[ \t]/, "", body)
      return split(body, out, ",")
    }
    /^[.a-z ]*\.(entry|func)[ \t(]/ {
      l = $0; gsub(/\([^()]*\)/, "", l); sub(/\(.*/, "", l); n = split(l, w, /[ \t]+/)
      name = w[n]; fma[name] += 0; pairs[name] += 0; delete prod; next
    }
    /^[ \t{]*fma\./ { fma[name]++; next }
    /^[ \t{]*mul(\.ftz)?\.(f16|f16x2|bf16|bf16x2|f32|f64)[ \t]/ { operands($0, o); prod[o[1]] = 1; next }
    /^[ \t{]*mov\.[bf](16|32|64)[ \t]/ { operands($0, o); if (o[2] in prod) prod[o[1]] = 1; next }
    /^[ \t{]*(add|sub)(\.ftz)?\.(f16|f16x2|bf16|bf16x2|f32|f64)[ \t]/ {
      operands($0, o); if ((o[2] in prod) || (o[3] in prod)) pairs[name]++; next
    }
    END { for (f in fma) print f, fma[f], pairs[f] }' "$1" | sort
}

sources=$(ls "$root"/src/*/*.cu 2>/dev/null || true)
found=0
for cu in $sources; do
  base=$(basename "$cu" .cu)
  "$nvcc" "${flags[@]}" -fmad=true "$cu" -o "$tmp/$base.fused.ptx"
  "$nvcc" "${flags[@]}" -fmad=false "$cu" -o "$tmp/$base.plain.ptx"
  scan "$tmp/$base.fused.ptx" > "$tmp/$base.fused"
  scan "$tmp/$base.plain.ptx" > "$tmp/$base.plain"
  while read -r fn fused pairs plain _; do
    name=$(echo "$fn" | c++filt 2>/dev/null || echo "$fn")
    for a in "${allowed_pairs[@]}"; do
      case "$name" in *"${a%% *}("*) pairs=0 ;; esac
    done
    if [ "$fused" -gt "$plain" ] || [ "$pairs" -gt 0 ]; then
      echo "check_ptx: ${cu#"$root"/}: $name: $((fused - plain)) multiply-add(s) fused by nvcc, $pairs unrounded multiply-add pair(s)"
      found=1
    fi
  done < <(join "$tmp/$base.fused" "$tmp/$base.plain")
done
if [ "$found" -ne 0 ]; then
  echo "check_ptx: FAILED (write those steps with the _rn intrinsics, or __fmaf_rn in kernel and twin)"
  exit 1
fi
echo "check_ptx: no multiply-add fused beyond the explicit ones in $(echo $sources | wc -w) kernel sources"
