#!/usr/bin/env bash
# Converts the digits example (examples/digits) with each calibration method
# and prints the quality table of docs/quantization.md: top-1 accuracy of the
# float net and of the 8-bit model on the 300 held-out pictures, their
# agreement, the output cosine and SQNR, the worst tensor (leaving out those
# read by ReLU alone) and the conversion
# time. Each run's report is kept as $OUT/<name>/report.json and .txt.
#
#   scripts/quality_table.sh [OUT]      (default build/quality_table)
#
# Needs a build (scripts/build.sh): qzdl_NewConverter and qzdl_run in
# ${BUILD_DIR:-build}/tools.
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD_DIR=${BUILD_DIR:-build}
OUT=${1:-build/quality_table}
EX=examples/digits
CONVERTER=$BUILD_DIR/tools/qzdl_NewConverter
RUN=$BUILD_DIR/tools/qzdl_run

# name|converter options
CONFIGS=(
  "c0|-c 0"
  "c1|-c 1"
  "c2|-c 2"
  "c3|-c 3"
  "c4|-c 4"
  "c5|-c 5"
  "c6|-c 6"
  "c7|-c 7"
  "c8|-c 8"
  "c0_n1|-c 0 -n 1"
  "c8_e0999|-c 8 -e 0.999"
)

echo "| Options | Float top-1 | 8-bit top-1 | Agreement | Output cosine | Output SQNR dB | Worst tensor (SQNR dB, clipped) | Conversion s |"
echo "|---|---|---|---|---|---|---|---|"
for config in "${CONFIGS[@]}"; do
  name=${config%%|*}
  options=${config#*|}
  dir=$OUT/$name
  mkdir -p "$dir"
  start=$(date +%s.%N)
  # shellcheck disable=SC2086  # the options are words
  "$CONVERTER" -j $EX/net.json -m $EX/net.bin -o "$dir/digits.bin" -s $EX/calibration/list.txt \
    -t npy $options >"$dir/convert.log" 2>&1 || {
    echo "| \`$options\` | conversion failed, see $dir/convert.log |||||||"
    continue
  }
  end=$(date +%s.%N)
  "$RUN" --compare $EX/net.json $EX/net.bin "$dir/net_hybrid.json" "$dir/digits.bin" \
    --list $EX/eval/list.txt --worst 5 --json "$dir/report.json" >"$dir/report.txt"
  /usr/bin/python3 - "$dir/report.json" "$options" "$start" "$end" <<'EOF'
import json, sys
r = json.load(open(sys.argv[1]))
t, o = r["top1"], r["outputs"][0]
# The worst tensor that is not read by ReLU alone (those may be clipped below
# 0 on purpose).
w = next(x for x in r["tensors"] if not x["relu_readers_only"])
clipped = 100.0 * w["clipped"] / w["values"] if w["clipped"] is not None else 0.0
print(f"| `{sys.argv[2]}` | {100 * t['float_accuracy']:.2f} % | {100 * t['quantized_accuracy']:.2f} % "
      f"| {100 * t['agreement']:.2f} % | {o['cosine']:.5f} | {o['sqnr_db']:.2f} "
      f"| {w['name']} ({w['sqnr_db']:.2f}, {clipped:.3f} %) "
      f"| {float(sys.argv[4]) - float(sys.argv[3]):.2f} |")
EOF
done
