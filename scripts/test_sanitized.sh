#!/usr/bin/env bash
# Builds the whole test suite, and the tools the tests start as child
# processes (qzdl_NewConverter, qzdl_onnx2net, qzdl_onnx_conformance, ...), with
# AddressSanitizer and UndefinedBehaviorSanitizer into ${ASAN_BUILD_DIR:-build-asan}
# and runs it through CTest: every unit test, the ONNX conformance shards and
# the fuzz corpus replays (fuzz_corpus_<target>). Tests labelled "slow" in
# tests/CMakeLists.txt are left to the normal build (scripts/test.sh); the
# label says there why. A sanitizer report fails the test that hit it.
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD_DIR=${ASAN_BUILD_DIR:-build-asan}
JOBS=${JOBS:-2}
# Nothing long-lived is freed by design, so leak reports are off; huge
# allocations asked for by damaged files must fail as bad_alloc, not abort.
# Set before the build too: test discovery runs the sanitized executables.
export ASAN_OPTIONS=detect_leaks=0:allocator_may_return_null=1:abort_on_error=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
export OMP_NUM_THREADS=2
scripts/install_deps.sh
SECONDS=0
cmake -S . -B "$BUILD_DIR" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQZDL_SANITIZE=ON \
  -DQZDL_BUILD_BENCH=OFF >/dev/null
cmake --build "$BUILD_DIR" -j "$JOBS"
build_seconds=$SECONDS
echo "== ctest -LE slow (AddressSanitizer + UndefinedBehaviorSanitizer)"
SECONDS=0
status=0
# The two runs on a real 8.6 GB tensor are left to the normal build: under
# the sanitizers they take minutes and gigabytes of shadow memory.
BIG='UpsampleAndReluRunBeyondTheIntRange|TensorBeyondTheIntRangeIsCalibrated'
(cd "$BUILD_DIR" && ctest --output-on-failure -j "$JOBS" --timeout 600 -LE slow -E "$BIG") ||
  status=$?
echo "== sanitized build: configure and build ${build_seconds} s, tests ${SECONDS} s"
exit $status
