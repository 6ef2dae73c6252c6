#!/usr/bin/env bash
# Runs every ONNX test case of ../shared/onnx-tests (node, pytorch-converted,
# pytorch-operator) through the importer and the float runtime, prints the
# failures with their reasons and the pass counts, and rewrites
# tests/importer/conformance_pass.txt, the list CTest runs.
#
#   scripts/onnx_conformance.sh [--no-write] [extra qzdl_onnx_conformance options]
#
# BUILD_DIR (default build) is the build to use; it is built first.
# ONNX_TESTS_DIR overrides the test data folder.
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD_DIR=${BUILD_DIR:-build}
ONNX_TESTS_DIR=${ONNX_TESTS_DIR:-$(cd .. && pwd)/shared/onnx-tests}
PASS_LIST=tests/importer/conformance_pass.txt

write=(--write-pass "$PASS_LIST")
if [[ "${1:-}" == "--no-write" ]]; then
  write=()
  shift
fi

if [[ ! -f "$BUILD_DIR/build.ninja" && ! -f "$BUILD_DIR/Makefile" ]]; then
  cmake -S . -B "$BUILD_DIR" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
fi
cmake --build "$BUILD_DIR" --target qzdl_onnx_conformance >/dev/null

status=0
"$BUILD_DIR/tools/qzdl_onnx_conformance" --root "$ONNX_TESTS_DIR" \
  --folder node --folder pytorch-converted --folder pytorch-operator \
  --jobs "$(nproc)" "${write[@]}" "$@" || status=$?
# Status 1 only says that some case failed; 2 and above are real errors.
if ((status > 1)); then exit "$status"; fi
if ((${#write[@]})); then echo "passing cases written to $PASS_LIST"; fi
