#!/bin/sh
# Runs a 64-bit Arm program under qemu-user, with the dynamic linker and the
# shared libraries of an arm64 sysroot (cmake/aarch64-linux-gnu.cmake makes
# this the emulator of the cross build; docs/arm64.md):
#
#   sh qemu-aarch64-run.sh <qemu-aarch64> <sysroot> <program> [arguments...]
#
# GoogleTest's "threadsafe" death tests start the test program again through
# its argv[0], and the host cannot execute an Arm program by itself. When a
# script <program>-emulated.sh sits beside the program (tests/CMakeLists.txt
# writes one for every test executable), the program gets that script as its
# argv[0], so that the second start comes back here through qemu as well.
# Other programs keep their own path as argv[0].
qemu=$1
sysroot=$2
program=$3
shift 3
if [ -x "$program-emulated.sh" ]; then
  exec "$qemu" -L "$sysroot" -0 "$program-emulated.sh" "$program" "$@"
fi
exec "$qemu" -L "$sysroot" "$program" "$@"
