#!/usr/bin/env bash
# Installs every Debian package that the build, the tests and the benchmarks need.
# Safe to run again: apt-get skips what is already there.
set -euo pipefail
SUDO=""
if [ "$(id -u)" != "0" ]; then SUDO="sudo"; fi
PACKAGES=(
  build-essential cmake ninja-build pkg-config
  libgtest-dev libgmock-dev libbenchmark-dev
  libflatbuffers-dev flatbuffers-compiler
  libopenblas-dev
  libnlopt-dev zlib1g-dev
  libstb-dev
  libonnx-dev libprotobuf-dev protobuf-compiler
)
# oneDNN: convolution and GEMM on x86-64 (docs/gemm-backend.md). Its CMake
# package looks for OpenCL, whose development files oneDNN only recommends.
if [ "$(dpkg --print-architecture)" = "amd64" ]; then PACKAGES+=(libdnnl-dev ocl-icd-opencl-dev); fi
missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ "${#missing[@]}" -gt 0 ]; then
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update
  $SUDO apt-get install -y --no-install-recommends "${missing[@]}"
fi
