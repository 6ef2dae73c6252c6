# Cross build for 64-bit Arm Linux with Debian's cross compilers
# (g++-aarch64-linux-gnu), the arm64 libraries unpacked into a sysroot by
# scripts/install_cross_deps.sh, and qemu-aarch64 running the tests
# (docs/arm64.md).
#
#   cmake -S . -B build-aarch64 -G Ninja \
#     -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake -DQZDL_BUILD_BENCH=OFF
#
# The sysroot defaults to <build dir>/sysroot; QZDL_AARCH64_SYSROOT (a CMake
# variable or environment variable) names another one.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
# GCC notes on aarch64 that passing some structs of floats changed in GCC 9
# and 10; it concerns only linking with code built by those older compilers.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

if(NOT QZDL_AARCH64_SYSROOT)
  if(DEFINED ENV{QZDL_AARCH64_SYSROOT})
    set(QZDL_AARCH64_SYSROOT "$ENV{QZDL_AARCH64_SYSROOT}")
  else()
    set(QZDL_AARCH64_SYSROOT "${CMAKE_BINARY_DIR}/sysroot")
  endif()
endif()
set(QZDL_AARCH64_SYSROOT "${QZDL_AARCH64_SYSROOT}" CACHE PATH "arm64 sysroot")
# try_compile projects read this file again from their own binary directory.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES QZDL_AARCH64_SYSROOT)
if(NOT EXISTS "${QZDL_AARCH64_SYSROOT}/usr/lib/aarch64-linux-gnu")
  message(FATAL_ERROR "No arm64 sysroot at ${QZDL_AARCH64_SYSROOT}; "
                      "run scripts/install_cross_deps.sh ${QZDL_AARCH64_SYSROOT}")
endif()

# The compilers take headers and libraries from the sysroot (its multiarch
# directories usr/include/aarch64-linux-gnu and usr/lib/aarch64-linux-gnu
# included) and the C and C++ runtime from their own /usr/aarch64-linux-gnu;
# the host's /usr/include and /usr/lib stay out of the search.
set(CMAKE_SYSROOT "${QZDL_AARCH64_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${QZDL_AARCH64_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# Programs run during the build are the host's: flatc, protoc.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)

# ctest and gtest_discover_tests run the arm64 executables through
# qemu-aarch64, which loads the dynamic linker and every shared library from
# the sysroot (qemu-aarch64-run.sh: qemu-aarch64 -L <sysroot>).
find_program(QZDL_QEMU_AARCH64 qemu-aarch64 REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR
    "/bin/sh;${CMAKE_CURRENT_LIST_DIR}/qemu-aarch64-run.sh;${QZDL_QEMU_AARCH64};${QZDL_AARCH64_SYSROOT}")
