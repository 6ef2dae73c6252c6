#!/usr/bin/env bash
# Forward time on a quiet and on a loaded machine, ours against ONNX Runtime
# in the same rounds.
#
#   bench/run_load_bench.sh [--model M.onnx]... [--rounds 5] [--repeat 200]
#                           [--warmup 20] [--threads 2] [--batch 1]
#                           [--phases "quiet busy build"]
#
# Phases: "quiet" (nothing started), "busy" (one busy-looping process per
# core, started and stopped by this script) and "build" (a parallel build of
# this project into a scratch directory, -j one per core; started, and
# killed after the rounds). In each phase every round runs, one after the
# other: ours at THREADS threads (tools/qzdl_run, OMP_NUM_THREADS=THREADS),
# ours at 1 thread, and ONNX Runtime at THREADS intra-op threads (the Node
# package through scripts/ort_run.js, sequential execution), each the mean of
# REPEAT passes after WARMUP passes on the same seeded input. Per phase it
# prints the median over rounds (and the range) of each, the ratio
# ours / ORT (ORT's ms over ours: above 1 is faster than ORT) and, for the
# loaded phases, the quotient quiet ratio / loaded ratio: how much more our
# runtime loses to the load than ONNX Runtime does (1.0: the same).
#
# Without --model the BlazeFace-like detector of scripts/export_blazeface.py
# (many small layers at 128x128; needs python3-torch) is exported and used.
# BUILD_DIR (default build) holds our tools, built first; TOOLS_DIR, when
# set, names a directory with qzdl_run and qzdl_onnx2net to use as they are
# (another build, e.g. to compare two versions). ORT_NODE_MODULES as for
# scripts/ort_run.js. Not part of the test suite. Start it on a quiet
# machine: the quiet phase is the reference.
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD_DIR=${BUILD_DIR:-build}
[[ "$BUILD_DIR" = /* ]] || BUILD_DIR="$ROOT/$BUILD_DIR"
MODELS=()
ROUNDS=5
REPEAT=200
WARMUP=20
THREADS=2
BATCH=1
PHASES="quiet busy build"
usage() {
  echo "usage: $0 [--model M.onnx]... [--rounds N] [--repeat N] [--warmup N] [--threads N]" \
    "[--batch N] [--phases \"quiet busy build\"]" >&2
  exit 2
}
while (($#)); do
  case "$1" in
    --model) MODELS+=("$2"); shift 2 ;;
    --rounds) ROUNDS=$2; shift 2 ;;
    --repeat) REPEAT=$2; shift 2 ;;
    --warmup) WARMUP=$2; shift 2 ;;
    --threads) THREADS=$2; shift 2 ;;
    --batch) BATCH=$2; shift 2 ;;
    --phases) PHASES=$2; shift 2 ;;
    *) usage ;;
  esac
done
for p in $PHASES; do [[ "$p" =~ ^(quiet|busy|build)$ ]] || usage; done
CORES=$(nproc)

if [ -n "${TOOLS_DIR:-}" ]; then
  TOOLS=$TOOLS_DIR
else
  cmake --build "$BUILD_DIR" --target qzdl_onnx2net qzdl_run >/dev/null
  TOOLS=$BUILD_DIR/tools
fi
WORK=$(mktemp -d)
LOAD_PIDS=()
stop_load() {
  local pid
  for pid in "${LOAD_PIDS[@]}"; do
    # The build runs in a process group of its own (setsid): end all of it.
    kill -- "-$pid" 2>/dev/null || kill "$pid" 2>/dev/null || true
  done
  for pid in "${LOAD_PIDS[@]}"; do wait "$pid" 2>/dev/null || true; done
  LOAD_PIDS=()
}
cleanup() {
  stop_load
  rm -rf "$WORK"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

start_load() {
  local k
  case "$1" in
    busy)
      for ((k = 0; k < CORES; ++k)); do
        bash -c 'while :; do :; done' &
        LOAD_PIDS+=($!)
      done
      ;;
    build)
      setsid bash -c "cmake -S '$ROOT' -B '$WORK/load-build' -G Ninja -DCMAKE_BUILD_TYPE=Release \
        >/dev/null 2>&1 && exec cmake --build '$WORK/load-build' -j $CORES >/dev/null 2>&1" &
      LOAD_PIDS+=($!)
      # Past the configure step, into the compilers.
      for ((k = 0; k < 60; ++k)); do
        [ -f "$WORK/load-build/build.ninja" ] && break
        sleep 1
      done
      sleep 3
      ;;
  esac
}

if ((${#MODELS[@]} == 0)); then
  /usr/bin/python3 "$ROOT/scripts/export_blazeface.py" "$WORK/blazeface.onnx" >/dev/null
  MODELS=("$WORK/blazeface.onnx")
fi

echo "== machine"
lscpu | grep -E '^(Model name|CPU\(s\)|Thread|Core)' || true
if [ -r /proc/cpuinfo ]; then
  isa=$(grep -m1 -E '^(flags|Features)' /proc/cpuinfo | cut -d: -f2 | tr ' ' '\n' |
    grep -E '^(sse4_2|avx|avx2|fma|avx512f|avx512bw|avx512_vnni|avx_vnni|amx_tile|asimd|asimddp|sve|sve2|i8mm)$' |
    tr '\n' ' ' || true)
  echo "instruction sets: ${isa:-unknown}"
fi
echo "threads $THREADS, batch $BATCH, $ROUNDS rounds of $REPEAT passes (after $WARMUP) per phase"
echo "load average at the start: $(cut -d' ' -f1-3 /proc/loadavg)"
if awk '{ exit !($1 > 0.5) }' /proc/loadavg; then
  echo "WARNING: the machine is busy (1-minute load above 0.5): the quiet phase is not quiet"
fi

# median and range of the numbers on stdin
stats() { sort -g | awk '{ v[NR] = $1 } END { m = NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2;
                                             printf "%.3f %.3f %.3f\n", m, v[1], v[NR] }'; }

for model in "${MODELS[@]}"; do
  name=$(basename "$model" .onnx)
  net="$WORK/$name"
  "$TOOLS/qzdl_onnx2net" "$model" "$net.json" "$net.bin" >/dev/null
  # Inputs (seeded) and ORT's outputs, to check that both compute the same.
  node "$ROOT/scripts/ort_run.js" --model "$model" --net-json "$net.json" --batch "$BATCH" \
    --inputs-dir "$net.in" --outputs-dir "$net.ort" --threads "$THREADS" >/dev/null 2>&1
  max_abs=$(OMP_NUM_THREADS=$THREADS "$TOOLS/qzdl_run" "$net.json" "$net.bin" \
    --batch "$BATCH" --inputs-dir "$net.in" --compare-dir "$net.ort" |
    awk '/^compare:/ { for (i = 1; i < NF; ++i) if ($i == "max_abs" && $(i+1) + 0 > m + 0) m = $(i+1) + 0 }
         END { printf "%.3g", m }')
  echo
  echo "== $name (largest difference from ORT's outputs: $max_abs)"
  printf '%-6s %22s %22s %22s %6s %9s\n' phase "ours ${THREADS}t ms" "ours 1t ms" "ORT ${THREADS}t ms" ratio quotient
  quiet_ratio=""
  for phase in $PHASES; do
    start_load "$phase"
    : >"$WORK/ours" && : >"$WORK/ours1" && : >"$WORK/ort"
    for ((r = 0; r < ROUNDS; ++r)); do
      OMP_NUM_THREADS=$THREADS "$TOOLS/qzdl_run" "$net.json" "$net.bin" --batch "$BATCH" \
        --inputs-dir "$net.in" --warmup "$WARMUP" --repeat "$REPEAT" |
        sed -n 's/^forward: .*, \([0-9.]*\) ms per pass.*/\1/p' >>"$WORK/ours"
      OMP_NUM_THREADS=1 "$TOOLS/qzdl_run" "$net.json" "$net.bin" --batch "$BATCH" \
        --inputs-dir "$net.in" --warmup "$WARMUP" --repeat "$REPEAT" |
        sed -n 's/^forward: .*, \([0-9.]*\) ms per pass.*/\1/p' >>"$WORK/ours1"
      node "$ROOT/scripts/ort_run.js" --model "$model" --net-json "$net.json" --batch "$BATCH" \
        --inputs-dir "$net.in" --outputs-dir "$net.ort" --threads "$THREADS" \
        --warmup "$WARMUP" --repeat "$REPEAT" 2>/dev/null |
        node -e 'let s = ""; process.stdin.on("data", d => s += d).on("end",
                 () => console.log(JSON.parse(s).ms_per_run.toFixed(3)))' >>"$WORK/ort"
    done
    stop_load
    read -r ours ours_lo ours_hi < <(stats <"$WORK/ours")
    read -r one one_lo one_hi < <(stats <"$WORK/ours1")
    read -r ort ort_lo ort_hi < <(stats <"$WORK/ort")
    ratio=$(awk -v a="$ours" -v b="$ort" 'BEGIN { printf "%.2f", b / a }')
    quotient="-"
    if [ "$phase" = quiet ]; then
      quiet_ratio=$ratio
    elif [ -n "$quiet_ratio" ]; then
      quotient=$(awk -v q="$quiet_ratio" -v l="$ratio" 'BEGIN { printf "%.2f", q / l }')
    fi
    printf '%-6s %22s %22s %22s %6s %9s\n' "$phase" \
      "$ours ($ours_lo-$ours_hi)" "$one ($one_lo-$one_hi)" "$ort ($ort_lo-$ort_hi)" "$ratio" "$quotient"
  done
done
echo
echo "ratio: ORT ms / ours ms at $THREADS threads (ours / ORT in speed); quotient: quiet ratio /" \
  "phase ratio (at most 1.5: we lose no more than 1.5 times what ORT loses to the load)"
echo "load average at the end: $(cut -d' ' -f1-3 /proc/loadavg)"
