#!/usr/bin/env bash
# Installs what is needed, builds, and runs every test through CTest.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install_deps.sh
scripts/build.sh
cd "${BUILD_DIR:-build}"
OMP_NUM_THREADS=2 ctest --output-on-failure -j 2 --timeout 600
