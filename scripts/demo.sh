#!/usr/bin/env bash
# Installs what is needed, builds, converts the trained digits example into a
# quantized model and reports how close it is to the float net on 300
# held-out pictures: top-1 accuracy of both, their agreement and the five
# tensors that lost the most (docs/accuracy-report.md).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install_deps.sh
scripts/build.sh
EX=examples/digits
OUT=build/digits_int8
mkdir -p "$OUT"
echo "== Converting $EX (a small CNN trained on handwritten digits) with the entropy method"
./build/tools/qzdl_NewConverter -j $EX/net.json -m $EX/net.bin -o "$OUT/digits.bin" \
  -s $EX/calibration/list.txt -t npy -c 2
echo "== Written: $OUT/digits.bin (quantized weights) and $OUT/net_hybrid.json"
echo "== The float net and the quantized model on the 300 held-out pictures"
./build/tools/qzdl_run --compare $EX/net.json $EX/net.bin "$OUT/net_hybrid.json" \
  "$OUT/digits.bin" --list $EX/eval/list.txt --worst 5 --json "$OUT/report.json"
echo "== The same report as JSON: $OUT/report.json"
