#!/usr/bin/env bash
# Writes tests/fuzz/dict/net_json.dict, the libFuzzer dictionary of the net
# description target: JSON structure words, every registered layer type and
# every parameter name the layers read.
set -euo pipefail
cd "$(dirname "$0")/.."
out=tests/fuzz/dict/net_json.dict
{
  echo '# Written by scripts/fuzz_dict.sh.'
  for w in inputs layers name type dims param outputs; do echo "\"\\\"$w\\\"\""; done
  for w in '{' '}' '[' ']' ':' ',' 'true' 'false' 'null' '-1' '0' '1' '2' '1e30' '-0' '2147483647' '4294967296'; do
    echo "\"$w\""
  done
  grep -oE '^\s*\{"[A-Za-z0-9_]+",' runtime/layer_registry.cpp | grep -oE '"[A-Za-z0-9_]+"' |
    sed 's/"//g' | sort -u | sed 's/.*/"\\"&\\""/'
  grep -rhoE '(Get[A-Za-z]*|Read[A-Za-z]*|Has|Int|Float|Bool|String|Ints|Floats)\("[a-z_0-9]+"' \
    runtime/layers/*.cpp runtime/*.cpp | grep -oE '"[a-z_0-9]+"' | sed 's/"//g' | sort -u |
    sed 's/.*/"\\"&\\""/'
} >"$out"
echo "$(grep -vc '^#' "$out") entries in $out"
