#!/usr/bin/env bash
# 8-bit forward speed beside our float runtime, in one run, on the bench nets
# (ResNet-18 and MobileNetV2 shapes, batch 1 and 8, 2 threads), with the
# CPU's instruction sets, and the rebuild cost of ResNet-18's convolution
# attributes.
#
#   bench/run_int8_bench.sh [BUILD_DIR]      (default: build-bench)
#
# Each case runs REPETITIONS times (default 3) for at least MIN_TIME seconds
# (default 1); the medians are compared. Run it on a quiet machine.
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${1:-$ROOT/build-bench}
MIN_TIME=${MIN_TIME:-1}
REPETITIONS=${REPETITIONS:-3}

if [ ! -f "$BUILD/build.ninja" ]; then
  cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release -DQZDL_BUILD_BENCH=ON
fi
ninja -C "$BUILD" int8_forward_bench

export OMP_NUM_THREADS=2 OPENBLAS_NUM_THREADS=2
WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT

echo "== machine"
lscpu | grep -E '^(Model name|Architecture|CPU\(s\))' || true
flags=$(grep -m1 -E '^(flags|Features)' /proc/cpuinfo | cut -d: -f2)
isa=""
for f in sse4_2 avx2 fma avx512f avx512bw avx512_vnni avx_vnni amx_int8 asimd asimddp i8mm sve; do
  case " $flags " in *" $f "*) isa="$isa $f" ;; esac
done
echo "instruction sets:${isa:- none of the listed}"
echo "load average before the run: $(uptime | sed 's/.*load average: //')"
if awk '{ exit !($1 > 0.5) }' /proc/loadavg; then
  echo "WARNING: the machine is busy (1-minute load above 0.5); figures will be low and noisy"
fi

# Repetitions of all cases in random order, so that a change of the load
# during the run falls on float and 8-bit alike.
"$BUILD/bench/int8_forward_bench" --benchmark_min_time="$MIN_TIME" \
  --benchmark_repetitions="$REPETITIONS" --benchmark_report_aggregates_only=true \
  --benchmark_enable_random_interleaving=true \
  --benchmark_out="$WORK/int8.json" --benchmark_out_format=json >/dev/null

echo "== median ms per forward (and the 8-bit speed-up over float)"
/usr/bin/python3 - "$WORK/int8.json" <<'PY'
import json, sys
runs = {}
for b in json.load(open(sys.argv[1]))["benchmarks"]:
    # The median of the repetitions, or the one run when there is one.
    if b.get("aggregate_name") == "median" or (b.get("run_type") == "iteration" and
                                               b["run_name"] not in runs):
        runs[b["run_name"]] = b["real_time"]
print("%-12s %5s %10s %10s %8s" % ("net", "batch", "float ms", "int8 ms", "speed-up"))
for net in ("resnet18", "mobilenetv2"):
    for batch in (1, 8):
        f = runs.get("BM_Float/%s/batch:%d/real_time" % (net, batch))
        q = runs.get("BM_Int8/%s/batch:%d/real_time" % (net, batch))
        if f and q:
            print("%-12s %5d %10.2f %10.2f %7.2fx" % (net, batch, f, q, f / q))
rebuild = runs.get("BM_Int8ConvRebuild/real_time")
if rebuild:
    print("rebuilding the attributes of ResNet-18's 20 convolutions: %.2f ms" % rebuild)
PY
