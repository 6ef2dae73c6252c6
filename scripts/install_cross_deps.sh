#!/usr/bin/env bash
# Installs what the 64-bit Arm (aarch64) cross build needs and prepares its
# sysroot (docs/arm64.md):
#   - on the host: Debian's cross compilers, qemu-user, and the host code
#     generators flatc and protoc;
#   - the arm64 architecture in dpkg, so that apt knows the arm64 packages;
#   - the arm64 builds of every library CMake looks for, unpacked into a
#     sysroot (default: build-aarch64/sysroot; first argument or
#     QZDL_AARCH64_SYSROOT to change it).
#
# The arm64 libraries are unpacked (apt-get download + dpkg -x) instead of
# installed as :arm64 packages. Installing them would tie the host's own
# packages to the arm64 versions: Multi-Arch "same" packages must carry the
# same version for every architecture, so apt would upgrade host packages such
# as linux-libc-dev, libssl3, the Kerberos libraries and e2fsprogs, and every
# other build tree on the machine would rebuild against the new system headers.
# The sysroot leaves the host's packages as they are and lives in the build tree.
#
# Safe to run again: it installs only what is missing and unpacks the sysroot
# again only when its package list changed. Runs as root (or through sudo).
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$(pwd)
SYSROOT=${1:-${QZDL_AARCH64_SYSROOT:-$ROOT/build-aarch64/sysroot}}
mkdir -p "$SYSROOT"
SYSROOT=$(cd "$SYSROOT" && pwd)
DEBS=$SYSROOT.debs
SUDO=""
if [ "$(id -u)" != "0" ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive

HOST_PACKAGES=(
  build-essential cmake ninja-build
  gcc-aarch64-linux-gnu g++-aarch64-linux-gnu qemu-user
  flatbuffers-compiler protobuf-compiler
)
# The arm64 packages of the sysroot. The -dev packages bring headers, CMake
# package files and link libraries; the others are the shared libraries they
# need at link time and under qemu, with the C and C++ runtime that qemu loads
# from the sysroot. The compilers link against their own copy of the C and
# C++ runtime (libc6-dev-arm64-cross, libstdc++-12-dev-arm64-cross,
# libgomp1-arm64-cross, installed with g++-aarch64-linux-gnu).
# flatbuffers-compiler-dev is left out on purpose: it only describes an arm64
# flatc, and the build runs the host's flatc.
ARM64_PACKAGES=(
  libc6 libgcc-s1 libstdc++6 libgomp1 libgfortran5
  libgtest-dev libgmock-dev
  libflatbuffers-dev libflatbuffers2
  libopenblas-dev libopenblas-pthread-dev libopenblas0 libopenblas0-pthread
  libnlopt-dev libnlopt0
  zlib1g-dev zlib1g
  libstb-dev libstb0
  libonnx-dev libonnx1 libonnxifi
  libprotobuf-dev libprotobuf32 libprotobuf-lite32
)
ALL_PACKAGES=()
for p in "${ARM64_PACKAGES[@]}"; do ALL_PACKAGES+=("$p:arm64"); done

# Third-party apt sources are left untouched. apt asks every source without an
# architecture restriction for arm64 indexes once arm64 is known; a source
# that has none only gets a notice, or at worst makes `apt-get update` fail,
# which is tolerated below as long as Debian's arm64 indexes are there.
warn_foreign_sources() {
  local f
  for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list /etc/apt/sources.list.d/*.sources; do
    [ -f "$f" ] || continue
    if grep -Eq '^[^#]*(https?|file)://' "$f" && ! grep -Eq '^[^#]*debian\.org' "$f" &&
      ! grep -Eiq '^[^#]*(arch=|Architectures:)' "$f"; then
      echo "note: $f is not a Debian source and has no architecture restriction;" \
        "apt will look for arm64 indexes there too (restrict it to amd64 if that fails)" >&2
    fi
  done
}

has_arm64_indexes() { apt-cache show libopenblas-dev:arm64 >/dev/null 2>&1; }

apt_update() {
  if ! $SUDO apt-get update; then
    has_arm64_indexes || { echo "error: apt-get update failed and no arm64 indexes" >&2; exit 1; }
    echo "warning: apt-get update reported errors (a third-party source?);" \
      "continuing with Debian's arm64 indexes" >&2
  fi
}

updated=0
if ! dpkg --print-foreign-architectures | grep -qx arm64; then
  warn_foreign_sources
  $SUDO dpkg --add-architecture arm64
fi
missing=()
for p in "${HOST_PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ "${#missing[@]}" -gt 0 ] || ! has_arm64_indexes; then
  apt_update
  updated=1
fi
if [ "${#missing[@]}" -gt 0 ]; then
  $SUDO apt-get install -y --no-install-recommends "${missing[@]}"
fi

# The sysroot is complete when its stamp lists the same packages.
STAMP=$SYSROOT/.qzdl-sysroot-packages
if [ -f "$STAMP" ] && [ "$(cat "$STAMP")" = "${ALL_PACKAGES[*]}" ]; then
  echo "arm64 sysroot up to date: $SYSROOT"
  exit 0
fi
[ "$updated" = 1 ] || apt_update
rm -rf "$DEBS"
mkdir -p "$DEBS"
(cd "$DEBS" && apt-get download -o APT::Sandbox::User=root "${ALL_PACKAGES[@]}")
find "$SYSROOT" -mindepth 1 -delete
for deb in "$DEBS"/*.deb; do dpkg -x "$deb" "$SYSROOT"; done

# Fix-ups that the maintainer scripts would have made on an arm64 system.
cd "$SYSROOT"
# Absolute symbolic links would point into the host; make them relative.
find . -type l -lname '/*' | while read -r link; do
  ln -sfn "$(realpath -m -s --relative-to="$(dirname "$link")" ".$(readlink "$link")")" "$link"
done
# update-alternatives: OpenBLAS's pthread flavour as the BLAS, LAPACK and
# OpenBLAS of the sysroot.
LIB=usr/lib/aarch64-linux-gnu
for so in libopenblas.so libopenblas.so.0 libblas.so libblas.so.3 liblapack.so liblapack.so.3; do
  ln -sfn "openblas-pthread/$so" "$LIB/$so"
done
# OpenBLAS's CMake file names absolute /usr paths; point them into the sysroot
# (${CMAKE_SYSROOT} is for CMake to expand).
mkdir -p "$LIB/cmake/openblas"
for f in OpenBLASConfig.cmake OpenBLASConfigVersion.cmake; do
  # shellcheck disable=SC2016
  sed 's| /usr/| ${CMAKE_SYSROOT}/usr/|g; s|(/usr/|(${CMAKE_SYSROOT}/usr/|g' \
    "$LIB/openblas-pthread/cmake/openblas/$f" >"$LIB/cmake/openblas/$f"
done

# Every shared library of the sysroot must find the libraries it needs.
unresolved=0
while read -r lib; do
  for need in $(aarch64-linux-gnu-readelf -d "$lib" 2>/dev/null |
    sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
    found=0
    for dir in lib/aarch64-linux-gnu "$LIB" lib; do [ -e "$dir/$need" ] && found=1; done
    if [ "$found" = 0 ]; then
      echo "error: $lib needs $need, which the sysroot lacks" >&2
      unresolved=1
    fi
  done
done < <(find . -path '*/gconv' -prune -o -name '*.so*' -type f -print)
[ "$unresolved" = 0 ] || exit 1
echo "${ALL_PACKAGES[*]}" >"$STAMP"
rm -rf "$DEBS"
echo "arm64 sysroot ready: $SYSROOT (${#ALL_PACKAGES[@]} packages)"
