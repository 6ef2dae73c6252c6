#!/usr/bin/env bash
# Side by side with ONNX Runtime: imports ONNX models, runs each on our float
# runtime (qzdl_run, inference mode) and on ONNX Runtime (Node package,
# sequential execution, THREADS intra-op threads) on the same random input,
# and prints per model and batch size: the largest absolute difference and
# the cosine similarity of the outputs, images per second of each and the
# ratio ours / ORT, in one table headed by the CPU and its instruction sets.
#
#   bench/compare_ort.sh MODEL.onnx... [--batches "1 8"] [--repeat N] [--rounds R]
#                        [--threads 2] [--input-shape NAME=D0,D1,...] [--unfused]
#   bench/compare_ort.sh --suite [MODEL.onnx...] [options as above]
#
# --suite first exports (once, into SUITE_DIR, default BUILD_DIR/bench_models)
# torchvision's ResNet-18, MobileNetV2, ShuffleNet-V2 1.0, SqueezeNet 1.1,
# the SSDlite 320 detector's backbone and head, and a YOLO-style detector
# with random weights (scripts/export_torchvision.py, python3-torch and
# python3-torchvision), and runs them before the models named.
#
# Each measurement is the mean of N passes (default 40 at batch 1, N / batch
# for larger batches, at least 10) after 3 warm-up passes. The two runtimes
# take turns R times per model and batch (default 5, ORT first in odd
# rounds, ours first in even ones); the table gives the median images/s of
# each and the median of the R ratios taken within a round, with the
# smallest and largest of them, so that a burst of load from elsewhere moves
# one round rather than the result. The load average is printed before and
# after. BUILD_DIR (default build); ORT_NODE_MODULES as for
# scripts/ort_run.js.
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD_DIR=${BUILD_DIR:-build}
[[ "$BUILD_DIR" = /* ]] || BUILD_DIR="$ROOT/$BUILD_DIR"
SUITE_DIR=${SUITE_DIR:-$BUILD_DIR/bench_models}
MODELS=()
BATCHES="1 8"
REPEAT=40
ROUNDS=5
THREADS=2
SUITE=0
IMPORT_ARGS=()
RUN_ARGS=()
usage() {
  echo "usage: $0 [--suite] [MODEL.onnx...] [--batches \"1 8\"] [--repeat N] [--rounds R]" \
       "[--threads N]" \
       "[--input-shape NAME=D0,D1,...] [--unfused]" >&2
  exit 2
}
while (($#)); do
  case "$1" in
    --batches) BATCHES=$2; shift 2 ;;
    --repeat) REPEAT=$2; shift 2 ;;
    --rounds) ROUNDS=$2; shift 2 ;;
    --threads) THREADS=$2; shift 2 ;;
    --input-shape) IMPORT_ARGS+=(--input-shape "$2"); shift 2 ;;
    --unfused) RUN_ARGS+=(--unfused); shift ;;
    --suite) SUITE=1; shift ;;
    -*) usage ;;
    *) MODELS+=("$1"); shift ;;
  esac
done

if ((SUITE)); then
  suite=(resnet18 mobilenet_v2 shufflenet_v2_x1_0 squeezenet1_1 ssdlite320 yolo_style)
  missing=()
  for m in "${suite[@]}"; do
    [[ -f "$SUITE_DIR/${m}_op13.onnx" ]] || missing+=("$m")
  done
  if ((${#missing[@]})); then
    mkdir -p "$SUITE_DIR"
    models=$(IFS=,; echo "${missing[*]}")
    /usr/bin/python3 "$ROOT/scripts/export_torchvision.py" "$SUITE_DIR" --models "$models" >&2
  fi
  listed=("${MODELS[@]}")
  MODELS=()
  for m in "${suite[@]}"; do MODELS+=("$SUITE_DIR/${m}_op13.onnx"); done
  MODELS+=("${listed[@]}")
fi
((${#MODELS[@]})) || usage
cmake --build "$BUILD_DIR" --target qzdl_onnx2net qzdl_run >/dev/null
WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT

isa=$(grep -m1 -E '^(flags|Features)' /proc/cpuinfo | cut -d: -f2 | tr ' ' '\n' |
      grep -x -E 'sse4_2|avx|avx2|fma|avx512f|avx512bw|avx512_vnni|avx512vbmi|avx_vnni|asimd|asimddp' |
      tr '\n' ' ')
cpu=$(grep -m1 -E '^model name' /proc/cpuinfo | cut -d: -f2 | xargs || true)
echo "CPU: ${cpu:-unknown} ($(nproc) cores); instruction sets: ${isa:-unknown}"
echo "$THREADS threads; ours: qzdl_run${RUN_ARGS[*]:+ ${RUN_ARGS[*]}}; load before: $(cut -d' ' -f1-3 /proc/loadavg)"
echo "$ROUNDS rounds per row: median images/s of each, median ratio of a round (smallest-largest)"
printf '%-24s %6s %10s %11s %11s %11s %7s %11s\n' model batch max_abs cosine ours_img/s ort_img/s \
  ratio range

# One model: imports it and prints a row per batch size.
compare_one() {
  local model=$1 name dir
  name=$(basename "$model" .onnx)
  dir="$WORK/$name"
  mkdir -p "$dir"
  if ! "$BUILD_DIR/tools/qzdl_onnx2net" "$model" "$dir/net.json" "$dir/net.bin" \
      "${IMPORT_ARGS[@]}" >"$dir/import.log" 2>&1; then
    printf '%-24s %s\n' "$name" "import failed: $(tail -n1 "$dir/import.log")"
    return
  fi
  local batch repeat round ort_json ort_ips ours ours_ips max_abs cosine ratio
  for batch in $BATCHES; do
    repeat=$(( REPEAT / batch > 10 ? REPEAT / batch : 10 ))
    : >"$dir/rounds$batch"
    for ((round = 1; round <= ROUNDS; ++round)); do
      if ((round % 2)); then
        run_ort "$model" "$dir" "$batch" "$repeat" || break
        run_ours "$dir" "$batch" "$repeat" || break
      else
        run_ours "$dir" "$batch" "$repeat" || break
        run_ort "$model" "$dir" "$batch" "$repeat" || break
      fi
      echo "$ours_ips $ort_ips" >>"$dir/rounds$batch"
    done
    if ((round <= ROUNDS)); then
      printf '%-24s %6d %s\n' "$name" "$batch" "$failure"
      continue
    fi
    # Over all outputs: the largest difference and the smallest cosine.
    max_abs=$(awk '/^compare:/ { for (i = 1; i < NF; ++i) if ($i == "max_abs" && $(i+1) + 0 > m + 0) m = $(i+1) + 0 }
                   END { printf "%.3g", m }' <<<"$ours")
    cosine=$(awk 'BEGIN { c = 2 } /^compare:/ { if ($NF < c) c = $NF } END { printf "%.7f", c }' <<<"$ours")
    read -r ours_ips ort_ips ratio range < <(awk '
      function median(v, n,   i, j, t) {
        for (i = 2; i <= n; ++i) for (j = i; j > 1 && v[j-1] > v[j]; --j) { t = v[j]; v[j] = v[j-1]; v[j-1] = t }
        return n % 2 ? v[(n+1)/2] : (v[n/2] + v[n/2+1]) / 2
      }
      { ++n; a[n] = $1; b[n] = $2; r[n] = $1 / $2; lo = (n == 1 || r[n] < lo) ? r[n] : lo; hi = r[n] > hi ? r[n] : hi }
      END { printf "%.2f %.2f %.2f %.2f-%.2f\n", median(a, n), median(b, n), median(r, n), lo, hi }' \
      "$dir/rounds$batch")
    printf '%-24s %6d %10s %11s %11s %11s %7s %11s\n' "$name" "$batch" "$max_abs" "$cosine" \
      "$ours_ips" "$ort_ips" "$ratio" "$range"
  done
}

# One timed ONNX Runtime run into ort_ips (it also writes the reference
# outputs and the inputs both runtimes read); failure names the error.
run_ort() {
  local model=$1 dir=$2 batch=$3 repeat=$4
  if ! ort_json=$(node "$ROOT/scripts/ort_run.js" --model "$model" --net-json "$dir/net.json" \
      --batch "$batch" --inputs-dir "$dir/in$batch" --outputs-dir "$dir/ort$batch" \
      --threads "$THREADS" --warmup 3 --repeat "$repeat" 2>"$dir/ort.log"); then
    failure="ONNX Runtime failed: $(tail -n1 "$dir/ort.log")"
    return 1
  fi
  ort_ips=$(node -e "console.log(JSON.parse(process.argv[1]).images_per_s.toFixed(2))" "$ort_json")
}

# One timed run of ours into ours_ips, compared with ORT's outputs.
run_ours() {
  local dir=$1 batch=$2 repeat=$3
  if [[ ! -d "$dir/ort$batch" ]]; then
    run_ort "$model" "$dir" "$batch" "$repeat" || return 1
  fi
  if ! ours=$(OMP_NUM_THREADS=$THREADS "$BUILD_DIR/tools/qzdl_run" "$dir/net.json" \
      "$dir/net.bin" --batch "$batch" --warmup 3 --repeat "$repeat" \
      --inputs-dir "$dir/in$batch" --compare-dir "$dir/ort$batch" "${RUN_ARGS[@]}" 2>&1); then
    failure="qzdl_run failed: $(tail -n1 <<<"$ours")"
    return 1
  fi
  ours_ips=$(sed -n 's/^forward: .* ms per pass, \([0-9.]*\) images\/s$/\1/p' <<<"$ours")
}

for model in "${MODELS[@]}"; do compare_one "$model"; done
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
