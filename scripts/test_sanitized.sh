#!/usr/bin/env bash
# Builds the runtime and data-file tests with AddressSanitizer and
# UndefinedBehaviorSanitizer and runs them: the net/weights loaders, the NPY
# and NPZ reader, the image decoder path, and the list/binary/text set readers.
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD_DIR=${ASAN_BUILD_DIR:-build-asan}
cmake -S . -B "$BUILD_DIR" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQZDL_SANITIZE=ON \
  -DQZDL_BUILD_BENCH=OFF >/dev/null
cmake --build "$BUILD_DIR" -j "$(nproc)" --target qzdl_runtime_tests qzdl_dataloader_tests
# Nothing long-lived is freed by design, so leak reports are off; huge
# allocations asked for by damaged files must fail as bad_alloc, not abort.
export ASAN_OPTIONS=detect_leaks=0:allocator_may_return_null=1:abort_on_error=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
export OMP_NUM_THREADS=2
status=0
for t in qzdl_runtime_tests qzdl_dataloader_tests; do
  echo "== $t (AddressSanitizer + UndefinedBehaviorSanitizer)"
  "$BUILD_DIR/tests/$t" --gtest_brief=1 || status=1
done
exit $status
