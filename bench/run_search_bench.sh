#!/usr/bin/env bash
# Conversion time and output cosine of the searching methods against the
# plain ones, in one run on this machine: -c 0, -c 2, -c 6, -c 7, -c 8,
# -c 0 -n 1 and -c 8 -e 0.999, on the shipped example net (its calibration
# pictures) and on ResNet-18 exported from torchvision with random weights
# and imported from ONNX (8 calibration inputs). Each result is run by
# qzdl_run on held-out inputs and compared with the float net; times are also
# given as a ratio to -c 0 of the same net in the same run.
#
#   bench/run_search_bench.sh [WORK_DIR] [--only example|resnet18] [--modes "0;8;..."]
#
# Needs /usr/bin/python3 with python3-torchvision and numpy for the ResNet-18
# part. Nothing is written into the repository.
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD_DIR=${BUILD_DIR:-$ROOT/build}
WORK=/tmp/qzdl_search_bench
ONLY=""
MODES="0;2;6;7;8;0 -n 1;8 -e 0.999"
while (($#)); do
  case "$1" in
    --only) ONLY=$2; shift 2 ;;
    --modes) MODES=$2; shift 2 ;;
    *) WORK=$1; shift ;;
  esac
done
mkdir -p "$WORK"
CONVERTER=$BUILD_DIR/tools/qzdl_NewConverter
RUN=$BUILD_DIR/tools/qzdl_run
export OMP_NUM_THREADS=${OMP_NUM_THREADS:-2}

isa=$(grep -o -w -E 'avx2|avx512f|avx512_vnni|avx_vnni|fma|asimd|asimddp' /proc/cpuinfo | sort -u | tr '\n' ' ')
echo "CPU: $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | xargs) ($(nproc) cores); instruction sets: ${isa:-unknown}; OMP_NUM_THREADS=$OMP_NUM_THREADS"

# bench NAME JSON WEIGHTS LIST TYPE INPUT_NAME EVAL_DIR: one row per mode.
bench() {
  local name=$1 json=$2 weights=$3 list=$4 type=$5 input=$6 eval_dir=$7
  local float_dir=$WORK/$name/float base=""
  rm -rf "$float_dir"
  mkdir -p "$float_dir"
  for x in "$eval_dir"/*.npy; do
    "$RUN" "$json" "$weights" --input "$input=$x" --out-dir "$float_dir/$(basename "$x" .npy)" >/dev/null
  done
  printf '%-10s %-16s %10s %8s %12s %12s\n' net mode seconds "/ -c 0" "min cosine" "mean cosine"
  IFS=';' read -r -a modes <<<"$MODES"
  for mode in "${modes[@]}"; do
    local out=$WORK/$name/m${mode// /}
    rm -rf "$out"
    mkdir -p "$out"
    local start end
    start=$(date +%s.%N)
    # shellcheck disable=SC2086
    "$CONVERTER" -j "$json" -m "$weights" -o "$out/m.bin" -s "$list" -t "$type" -c $mode \
      >"$out/log.txt" 2>&1 || { echo "$name -c $mode failed: see $out/log.txt"; continue; }
    end=$(date +%s.%N)
    local secs
    secs=$(echo "$end - $start" | bc -l)
    [[ -z "$base" ]] && base=$secs
    local hybrid
    hybrid=$(ls "$out"/*_hybrid.json)
    local cosines=()
    for x in "$eval_dir"/*.npy; do
      cosines+=("$("$RUN" "$hybrid" "$out/m.bin" --input "$input=$x" \
        --compare-dir "$float_dir/$(basename "$x" .npy)" | sed -n 's/.*cosine \([-0-9.nan]*\).*/\1/p' | sort -g | head -1)")
    done
    local stats
    stats=$(printf '%s\n' "${cosines[@]}" | awk '{s+=$1; if(NR==1||$1<m)m=$1} END{printf "%.6f %.6f", m, s/NR}')
    printf '%-10s %-16s %10.2f %8.2f %12s %12s\n' "$name" "-c $mode" "$secs" \
      "$(echo "$secs / $base" | bc -l)" ${stats}
  done
}

if [[ -z "$ONLY" || "$ONLY" == example ]]; then
  ex=$WORK/example
  mkdir -p "$ex/eval"
  cp "$ROOT/examples/small_cnn/sample.npy" "$ex/eval/sample.npy"
  bench example "$ROOT/examples/small_cnn/net.json" "$ROOT/examples/small_cnn/net.bin" \
    "$ROOT/examples/small_cnn/calibration/list.txt" img data "$ex/eval"
fi

if [[ -z "$ONLY" || "$ONLY" == resnet18 ]]; then
  r=$WORK/resnet18
  mkdir -p "$r/calib" "$r/eval"
  if [[ ! -f "$r/r18.json" ]]; then
    /usr/bin/python3 "$ROOT/scripts/export_torchvision.py" "$r" --models resnet18 >/dev/null
    "$BUILD_DIR/tools/qzdl_onnx2net" "$r/resnet18_op13.onnx" "$r/r18.json" "$r/r18.bin" \
      --input-shape input=1,3,224,224 >/dev/null
  fi
  # Smooth seeded pictures, normalised as ImageNet inputs are: 8 to
  # calibrate on, 2 held out.
  /usr/bin/python3 - "$r" <<'EOF'
import sys, numpy as np
root = sys.argv[1]
rng = np.random.default_rng(7)
lines = []
for i in range(10):
    small = rng.normal(size=(1, 3, 14, 14)).astype(np.float32)
    img = np.kron(small, np.ones((1, 1, 16, 16), np.float32))
    img += 0.3 * rng.normal(size=img.shape).astype(np.float32)
    path = f"{root}/{'calib' if i < 8 else 'eval'}/x{i}.npy"
    np.save(path, img.astype(np.float32))
    if i < 8:
        lines.append(path)
open(f"{root}/calib/list.txt", "w").write("\n".join(lines) + "\n")
EOF
  bench resnet18 "$r/r18.json" "$r/r18.bin" "$r/calib/list.txt" npy input "$r/eval"
fi
