#!/usr/bin/env bash
# Finds multiply-adds the device compiler fused on its own. Each kernel source is compiled
# to PTX twice: as the build compiles it (contraction allowed) and with contraction off. A
# function with more fma instructions in the first has a multiply and an add that its host
# twin rounds twice but the GPU would round once. Write such steps with the explicit
# round-to-nearest intrinsics (__fmul_rn/__fadd_rn, or __hmul_rn/__hadd_rn for half), or
# make the fused step explicit (__fmaf_rn) in the kernel and its twin alike.
# Needs nvcc (NVCC or /usr/local/cuda/bin/nvcc); without it the check is skipped.
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
flags=(-ptx "-arch=$arch" -std=c++17 -O3 -DNDEBUG --expt-relaxed-constexpr -I"$root/include" -I"$root/src")

# "function count" per function of a PTX file, for the fma instructions in it.
count_fma() {
  awk '/^[.a-z ]*\.(entry|func)[ \t]/ { name = $0; sub(/\(.*/, "", name); n = split(name, w, /[ \t]+/); name = w[n]; fma[name] += 0 }
       /^[ \t]*fma\./ { fma[name]++ }
       END { for (f in fma) print f, fma[f] }' "$1" | sort
}

sources=$(ls "$root"/src/*.cu "$root"/src/*/*.cu 2>/dev/null || true)
found=0
for cu in $sources; do
  base=$(basename "$cu" .cu)
  "$nvcc" "${flags[@]}" -fmad=true "$cu" -o "$tmp/$base.fused.ptx"
  "$nvcc" "${flags[@]}" -fmad=false "$cu" -o "$tmp/$base.plain.ptx"
  count_fma "$tmp/$base.fused.ptx" > "$tmp/$base.fused"
  count_fma "$tmp/$base.plain.ptx" > "$tmp/$base.plain"
  while read -r fn fused plain; do
    if [ "$fused" -gt "$plain" ]; then
      name=$(echo "$fn" | c++filt 2>/dev/null || echo "$fn")
      echo "check_ptx: ${cu#"$root"/}: $name: $((fused - plain)) multiply-add(s) fused by the compiler"
      found=1
    fi
  done < <(join "$tmp/$base.fused" "$tmp/$base.plain")
done
if [ "$found" -ne 0 ]; then
  echo "check_ptx: FAILED (write those steps with __fmul_rn/__fadd_rn or __hmul_rn/__hadd_rn)"
  exit 1
fi
echo "check_ptx: no fused multiply-add beyond the explicit ones in $(echo $sources | wc -w) kernel sources"
