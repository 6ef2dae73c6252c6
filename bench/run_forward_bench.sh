#!/usr/bin/env bash
# Forward-pass speed of our runtime and of PyTorch, in one run, on the same
# nets and weights (ResNet-18 and MobileNetV2 shapes, batch 1 and 8, 2 threads).
#
#   bench/run_forward_bench.sh [BUILD_DIR]      (default: build-bench)
#
# Each case runs REPETITIONS times (default 3) for at least MIN_TIME seconds
# (default 2) on both sides and the median is reported; with the defaults the
# whole run takes about two minutes. Run it on a quiet machine.
#
# TORCH_MALLOC=kept (the default) runs PyTorch with glibc malloc told to keep
# freed memory in the process; TORCH_MALLOC=default leaves glibc as it is.
# PyTorch allocates every activation anew at each layer, and by default glibc
# maps buffers this large fresh from the system and unmaps them on free, so
# each forward pays page faults for all its activations (on MobileNetV2 at
# batch 8 this cuts PyTorch's speed to less than half). Our runtime allocates
# at reshape time, so the kept mode is the like-for-like comparison.
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${1:-$ROOT/build-bench}
MIN_TIME=${MIN_TIME:-2}
REPETITIONS=${REPETITIONS:-3}
TORCH_MALLOC=${TORCH_MALLOC:-kept}
PYTHON=/usr/bin/python3  # Debian's, which has python3-torch

if [ ! -f "$BUILD/build.ninja" ]; then
  cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release
fi
ninja -C "$BUILD" forward_bench dump_bench_models

export OMP_NUM_THREADS=2 OPENBLAS_NUM_THREADS=2
WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT

echo "== machine"
lscpu | grep -E '^(Model name|CPU\(s\)|Thread|Core)' || true
echo "load average before the run: $(uptime | sed 's/.*load average: //')"
# Both sides spin OpenMP threads on the 2 cores; anything else running makes
# the figures meaningless, and unevenly so.
if awk '{ exit !($1 > 0.5) }' /proc/loadavg; then
  echo "WARNING: the machine is busy (1-minute load above 0.5); figures will be low and noisy"
fi

echo "== nets, weights and our reference outputs"
status=0
"$BUILD/bench/dump_bench_models" "$WORK" || status=$?
if [ "$status" -ne 0 ] && [ "$status" -ne 3 ]; then exit "$status"; fi

echo "== ours (forward_bench)"
"$BUILD/bench/forward_bench" --benchmark_min_time="$MIN_TIME" \
  --benchmark_repetitions="$REPETITIONS" --benchmark_report_aggregates_only=true \
  --benchmark_out="$WORK/ours.json" --benchmark_out_format=json

echo "== torch peer (malloc: $TORCH_MALLOC)"
TORCH_ENV=()
if [ "$TORCH_MALLOC" = kept ]; then
  TORCH_ENV=(MALLOC_MMAP_MAX_=0 MALLOC_TRIM_THRESHOLD_=17179869184)
fi
env "${TORCH_ENV[@]}" "$PYTHON" "$ROOT/bench/torch_peer.py" --dir "$WORK" --threads 2 --min-time "$MIN_TIME" \
  --repetitions "$REPETITIONS" --ours "$WORK/ours.json"
echo "load average after the run: $(uptime | sed 's/.*load average: //')"
