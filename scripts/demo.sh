#!/usr/bin/env bash
# Installs what is needed, builds, converts the shipped example net into a
# quantized model and runs that model beside the float net.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install_deps.sh
scripts/build.sh
OUT=build/small_cnn_int8
mkdir -p "$OUT"
echo "== Converting examples/small_cnn with its generated calibration set (entropy method)"
./build/tools/qzdl_NewConverter -j examples/small_cnn/net.json -m examples/small_cnn/net.bin \
  -o "$OUT/small_cnn.bin" -s examples/small_cnn/calibration/list.txt -c 2 -d 1
echo "== Written: $OUT/small_cnn.bin (quantized weights) and $OUT/net_hybrid.json"
echo "== The float net on one calibration picture"
./build/tools/qzdl_run examples/small_cnn/net.json examples/small_cnn/net.bin \
  --input data=examples/small_cnn/sample.npy --out-dir "$OUT/float"
echo "== The quantized model on the same picture, compared with the float net"
./build/tools/qzdl_run "$OUT/net_hybrid.json" "$OUT/small_cnn.bin" \
  --input data=examples/small_cnn/sample.npy --compare-dir "$OUT/float"
