#!/usr/bin/env bash
# Builds the fuzz targets with clang's libFuzzer, AddressSanitizer and
# UndefinedBehaviorSanitizer into build-fuzz, and runs each for a given time.
#
#   scripts/fuzz.sh [seconds per target (600)] [target ...]
#
# Targets: net_json weights serial_model onnx_import onnx_graph npy npz image
# list_set text_set quantized_weights (all by default). JOBS=n runs n targets at a time (default 1).
# Each run starts from the committed seeds (tests/fuzz/corpus/<target>) plus
# what earlier runs found (fuzz-out/<target>/corpus); crash inputs are saved
# as fuzz-out/<target>/crashes/{crash,timeout,oom}-*, the log as
# fuzz-out/<target>/log, and a line per target is added to fuzz-out/summary.
# Exit status 1 when any target found something in this run.
# See docs/robustness.md.
set -euo pipefail
cd "$(dirname "$0")/.."
SECONDS_PER_TARGET=${1:-600}
shift || true
TARGETS=("$@")
if [ ${#TARGETS[@]} -eq 0 ]; then
  TARGETS=(net_json weights serial_model onnx_import onnx_graph npy npz image list_set text_set
    quantized_weights)
fi
JOBS=${JOBS:-1}
BUILD_DIR=${FUZZ_BUILD_DIR:-build-fuzz}
OUT=${FUZZ_OUT:-fuzz-out}

if ! command -v clang++ >/dev/null || [ ! -e /usr/lib/llvm-14/lib/clang/14.0.6/lib/linux/libclang_rt.fuzzer-x86_64.a ] &&
  [ ! -e /usr/lib/llvm-14/lib/clang/14.0.6/lib/linux/libclang_rt.fuzzer-aarch64.a ]; then
  apt-get update
  DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends clang libclang-rt-14-dev libomp-14-dev
fi

CC=clang CXX=clang++ cmake -S . -B "$BUILD_DIR" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DQZDL_FUZZ=ON -DQZDL_BUILD_BENCH=OFF >/dev/null
cmake --build "$BUILD_DIR" -j "$(nproc)" --target $(printf 'qzdl_fuzz_%s ' "${TARGETS[@]}")

# Huge allocations asked for by damaged files must fail as bad_alloc (the
# loaders turn that into a message) instead of counting as out-of-memory.
export ASAN_OPTIONS=detect_leaks=0:allocator_may_return_null=1:max_allocation_size_mb=1024
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
export OMP_NUM_THREADS=1

run_target() {
  local t=$1 dir=$OUT/$1
  mkdir -p "$dir/corpus" "$dir/crashes"
  touch "$dir/.started"  # crash inputs newer than this are this run's
  local extra=() start
  start=$(date +%s)
  [ -f "tests/fuzz/dict/$t.dict" ] && extra+=("-dict=tests/fuzz/dict/$t.dict")
  # A data loader keeps every sample it was given for the life of the
  # process (by design: the tool loads once), so the data-set targets grow by
  # a few hundred bytes a run and get more room.
  local rss=2560
  case $t in list_set | text_set) rss=8192 ;; esac
  "$BUILD_DIR/tests/fuzz/qzdl_fuzz_$t" "$dir/corpus" "tests/fuzz/corpus/$t" \
    -max_total_time="$SECONDS_PER_TARGET" -timeout=30 -rss_limit_mb="$rss" -malloc_limit_mb=2048 \
    -artifact_prefix="$dir/crashes/" -print_final_stats=1 "${extra[@]}" >"$dir/log" 2>&1 || true
  local execs cov crashes took
  took=$(($(date +%s) - start))
  execs=$(grep -oE 'stat::number_of_executed_units: *[0-9]+' "$dir/log" | grep -oE '[0-9]+$' || echo 0)
  cov=$(grep -oE 'cov: [0-9]+' "$dir/log" | tail -1 | grep -oE '[0-9]+' || echo 0)
  crashes=$(find "$dir/crashes" -type f -newer "$dir/.started" \( -name 'crash-*' -o -name 'timeout-*' -o -name 'oom-*' \) | wc -l)
  printf '%-13s %6ss  %10s execs  cov %6s  crash inputs %s\n' "$t" "$took" \
    "${execs:-0}" "${cov:-0}" "$crashes" | tee -a "$OUT/summary"
}

mkdir -p "$OUT"
echo "== fuzzing $(date -u +%FT%TZ), ${SECONDS_PER_TARGET}s per target, $JOBS at a time" | tee -a "$OUT/summary"
running=0
for t in "${TARGETS[@]}"; do
  run_target "$t" &
  running=$((running + 1))
  if [ "$running" -ge "$JOBS" ]; then
    wait -n
    running=$((running - 1))
  fi
done
wait
found=0
for t in "${TARGETS[@]}"; do
  if [ -n "$(find "$OUT/$t/crashes" -type f -newer "$OUT/$t/.started" \( -name 'crash-*' -o -name 'timeout-*' -o -name 'oom-*' \))" ]; then
    found=1
  fi
done
exit $found
