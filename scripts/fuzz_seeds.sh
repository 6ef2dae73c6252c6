#!/usr/bin/env bash
# Rewrites the seed files of tests/fuzz/corpus/ from the example net, the test
# fixtures and the ONNX test data beside the checkout (../shared/onnx-tests).
# Crash inputs kept in the corpus folders are left alone.
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD_DIR=${BUILD_DIR:-build}
cmake --build "$BUILD_DIR" --target qzdl_fuzz_make_seeds
"$BUILD_DIR/tests/fuzz/qzdl_fuzz_make_seeds" . ../shared/onnx-tests tests/fuzz/corpus
