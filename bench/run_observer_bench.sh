#!/usr/bin/env bash
# Speed of our range observers and of PyTorch's MinMaxObserver and
# HistogramObserver, in one run, on the same 4 Mi-element tensors
# ([1, 64, 256, 256], post-ReLU and signed).
#
#   bench/run_observer_bench.sh [BUILD_DIR]      (default: build-bench)
#
# Each case runs REPETITIONS times (default 3) for at least MIN_TIME seconds
# (default 1) on both sides and the median is reported. Our observers run on
# one thread (the converter runs them on one); torch runs with each thread
# count of TORCH_THREADS (default "1 2"). Run it on a quiet machine.
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${1:-$ROOT/build-bench}
MIN_TIME=${MIN_TIME:-1}
REPETITIONS=${REPETITIONS:-3}
TORCH_THREADS=${TORCH_THREADS:-1 2}
PYTHON=/usr/bin/python3  # Debian's, which has python3-torch

if [ ! -f "$BUILD/build.ninja" ]; then
  cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release
fi
ninja -C "$BUILD" observer_bench

WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT

echo "== machine"
lscpu | grep -E '^(Model name|CPU\(s\)|Thread|Core)' || true
echo "load average before the run: $(uptime | sed 's/.*load average: //')"
if awk '{ exit !($1 > 0.5) }' /proc/loadavg; then
  echo "WARNING: the machine is busy (1-minute load above 0.5); figures will be low and noisy"
fi

echo "== data"
"$BUILD/bench/observer_bench" --write_data="$WORK"

echo "== ours (observer_bench)"
"$BUILD/bench/observer_bench" --benchmark_min_time="$MIN_TIME" \
  --benchmark_repetitions="$REPETITIONS" --benchmark_report_aggregates_only=true \
  --benchmark_out="$WORK/ours.json" --benchmark_out_format=json

echo "== torch"
"$PYTHON" "$ROOT/bench/torch_observers.py" --dir "$WORK" --threads $TORCH_THREADS \
  --min-time "$MIN_TIME" --repetitions "$REPETITIONS" --ours "$WORK/ours.json"
echo "load average after the run: $(uptime | sed 's/.*load average: //')"
