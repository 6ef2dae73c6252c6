#!/usr/bin/env bash
# Installs what is needed, builds, and runs the shipped example net on the
# float runtime.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install_deps.sh
scripts/build.sh
echo "== Calibrating examples/small_cnn on its generated calibration set (entropy method)"
./build/tools/qzdl_NewConverter -j examples/small_cnn/net.json -m examples/small_cnn/net.bin \
  -o build/small_cnn_int8.bin -s examples/small_cnn/calibration/list.txt -c 2
echo "== Running examples/small_cnn on the float runtime (batch 1, then batch 4)"
./build/tools/qzdl_run examples/small_cnn/net.json examples/small_cnn/net.bin
./build/tools/qzdl_run examples/small_cnn/net.json examples/small_cnn/net.bin --batch 4 --repeat 10
