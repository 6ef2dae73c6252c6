#!/usr/bin/env bash
# Runs the README's test command (scripts/test.sh) inside a fresh Debian 12
# (bookworm) root made by mmdebstrap from Debian's packages, so that a package
# installed by hand on this machine cannot hide a missing install step in
# scripts/install_deps.sh.
#
# The root starts as Debian's "minbase" variant: apt, a shell and the essential
# packages, nothing more. The work tree (tracked files and untracked ones git
# does not ignore) is copied in; ../shared, when present, is bound read-only
# beside it at the same relative place. Needs root (mount, chroot) and the
# network to Debian's archive. The root is removed at the end, whatever
# happens.
#
#   scripts/check_fresh_machine.sh            build and run every test
#   scripts/check_fresh_machine.sh CMD...     run CMD in the copy instead
#
# FRESH_MIRROR: the Debian archive to use (default: http://deb.debian.org/debian).
# FRESH_KEEP=1: keep the root for a look afterwards (its path is printed).
set -euo pipefail
cd "$(dirname "$0")/.."
SRC=$(pwd)
SHARED=$(cd .. && pwd)/shared
MIRROR=${FRESH_MIRROR:-http://deb.debian.org/debian}
SECURITY=${FRESH_SECURITY_MIRROR:-http://deb.debian.org/debian-security}

if [ "$(id -u)" != "0" ]; then
  echo "check_fresh_machine.sh: run as root (it mounts and chroots): sudo $0" >&2
  exit 1
fi
if ! command -v mmdebstrap >/dev/null; then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update
  apt-get install -y --no-install-recommends mmdebstrap
fi

ROOT=$(mktemp -d /tmp/qzdl-fresh-root.XXXXXX)
MOUNTS=()
cleanup() {
  local status=$?
  # Unmount in reverse order; a lazy unmount frees what a stray process holds.
  for ((i = ${#MOUNTS[@]} - 1; i >= 0; i--)); do
    umount -R "${MOUNTS[$i]}" 2>/dev/null || umount -l "${MOUNTS[$i]}" 2>/dev/null || true
  done
  if [ "${FRESH_KEEP:-0}" = "1" ]; then
    echo "== fresh root kept at $ROOT"
  elif grep -q " $ROOT/" /proc/mounts; then
    echo "== $ROOT is still mounted in part; left in place" >&2
  else
    rm -rf --one-file-system "$ROOT"
  fi
  exit $status
}
trap cleanup EXIT
trap 'exit 130' INT TERM HUP

SECONDS=0
echo "== making a fresh Debian bookworm root in $ROOT (mmdebstrap, minbase)"
mmdebstrap --quiet --variant=minbase --include=ca-certificates bookworm "$ROOT" \
  "deb $MIRROR bookworm main" "deb $MIRROR bookworm-updates main" \
  "deb $SECURITY bookworm-security main"
echo "== root made in ${SECONDS} s"

bind() { # bind SOURCE TARGET [ro]
  mkdir -p "$2"
  mount --rbind "$1" "$2"
  MOUNTS+=("$2")
  if [ "${3:-}" = "ro" ]; then mount -o remount,bind,ro "$2"; fi
}
bind /dev "$ROOT/dev"
mount -t proc proc "$ROOT/proc" && MOUNTS+=("$ROOT/proc")
mount -t sysfs sysfs "$ROOT/sys" && MOUNTS+=("$ROOT/sys")
cp /etc/resolv.conf "$ROOT/etc/resolv.conf" 2>/dev/null || true

mkdir -p "$ROOT/work/main"
git ls-files -z --cached --others --exclude-standard |
  tar --null --no-recursion -T - -cf - | tar -C "$ROOT/work/main" -xf -
if [ -d "$SHARED" ]; then bind "$SHARED" "$ROOT/work/shared" ro; fi

if [ $# -eq 0 ]; then set -- scripts/test.sh; fi
echo "== running in the fresh root: $*"
SECONDS=0
status=0
chroot "$ROOT" /usr/bin/env -i HOME=/root PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
  LANG=C.UTF-8 CI="${CI:-}" /bin/bash -c 'cd /work/main && "$@"' bash "$@" || status=$?
echo "== fresh root run ended with status $status after ${SECONDS} s"
exit $status
