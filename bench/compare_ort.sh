#!/usr/bin/env bash
# Side by side with ONNX Runtime: imports an ONNX model, runs it on our float
# runtime (qzdl_run) and on ONNX Runtime (Node package, sequential
# execution, THREADS intra-op threads) on the same random input, and prints
# per batch size: the largest absolute difference and the cosine similarity
# of the outputs, images per second of each, and the ratio ours / ORT.
#
#   bench/compare_ort.sh MODEL.onnx [--batches "1 8"] [--repeat N] [--threads 2]
#                        [--input-shape NAME=D0,D1,...]
#
# Our runtime runs with OMP_NUM_THREADS=THREADS. Each measurement is the mean
# of N passes (default 40 at batch 1, N / batch for larger batches, at least
# 10) after 3 warm-up passes. The load average is printed before and after:
# the machine should be quiet (load < 2 on 2 cores) for the figures to mean
# anything. BUILD_DIR (default build); ORT_NODE_MODULES as for
# scripts/ort_run.js.
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD_DIR=${BUILD_DIR:-build}
[[ "$BUILD_DIR" = /* ]] || BUILD_DIR="$ROOT/$BUILD_DIR"
MODEL=""
BATCHES="1 8"
REPEAT=40
THREADS=2
IMPORT_ARGS=()
while (($#)); do
  case "$1" in
    --batches) BATCHES=$2; shift 2 ;;
    --repeat) REPEAT=$2; shift 2 ;;
    --threads) THREADS=$2; shift 2 ;;
    --input-shape) IMPORT_ARGS+=(--input-shape "$2"); shift 2 ;;
    -*) echo "usage: $0 MODEL.onnx [--batches \"1 8\"] [--repeat N] [--threads N]" >&2; exit 2 ;;
    *) MODEL=$1; shift ;;
  esac
done
[[ -n "$MODEL" ]] || { echo "usage: $0 MODEL.onnx [--batches \"1 8\"] [--repeat N]" >&2; exit 2; }
cmake --build "$BUILD_DIR" --target qzdl_onnx2net qzdl_run >/dev/null
WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT

"$BUILD_DIR/tools/qzdl_onnx2net" "$MODEL" "$WORK/net.json" "$WORK/net.bin" "${IMPORT_ARGS[@]}" >/dev/null
echo "model $(basename "$MODEL"), $THREADS threads; load before: $(cut -d' ' -f1-3 /proc/loadavg)"
printf '%6s %12s %12s %12s %12s %8s\n' batch max_abs cosine ours_img/s ort_img/s ratio
for batch in $BATCHES; do
  repeat=$(( REPEAT / batch > 10 ? REPEAT / batch : 10 ))
  ort_json=$(node "$ROOT/scripts/ort_run.js" --model "$MODEL" --net-json "$WORK/net.json" \
    --batch "$batch" --inputs-dir "$WORK/in$batch" --outputs-dir "$WORK/ort$batch" \
    --threads "$THREADS" --warmup 3 --repeat "$repeat" 2>/dev/null)
  ort_ips=$(node -e "console.log(JSON.parse(process.argv[1]).images_per_s.toFixed(2))" "$ort_json")
  ours=$(OMP_NUM_THREADS=$THREADS "$BUILD_DIR/tools/qzdl_run" "$WORK/net.json" "$WORK/net.bin" \
    --batch "$batch" --warmup 3 --repeat "$repeat" --inputs-dir "$WORK/in$batch" \
    --compare-dir "$WORK/ort$batch")
  ours_ips=$(sed -n 's/^forward: .* ms per pass, \([0-9.]*\) images\/s$/\1/p' <<<"$ours")
  # Over all outputs: the largest difference and the smallest cosine.
  max_abs=$(awk '/^compare:/ { for (i = 1; i < NF; ++i) if ($i == "max_abs" && $(i+1) + 0 > m + 0) m = $(i+1) + 0 }
                 END { printf "%.3g", m }' <<<"$ours")
  cosine=$(awk 'BEGIN { c = 2 } /^compare:/ { if ($NF < c) c = $NF } END { printf "%.7f", c }' <<<"$ours")
  ratio=$(awk -v a="$ours_ips" -v b="$ort_ips" 'BEGIN { printf "%.2f", a / b }')
  printf '%6d %12s %12s %12s %12s %8s\n' "$batch" "$max_abs" "$cosine" "$ours_ips" "$ort_ips" "$ratio"
done
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
