#!/usr/bin/env bash
# Configures and builds the project into ${BUILD_DIR:-build} (Release).
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD_DIR=${BUILD_DIR:-build}
cmake -S . -B "$BUILD_DIR" -G Ninja -DCMAKE_BUILD_TYPE=${BUILD_TYPE:-Release} "$@" >/dev/null
cmake --build "$BUILD_DIR" -j "$(nproc)"
