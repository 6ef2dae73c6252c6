// Which hand-written instruction-set paths the kernels may take. A path runs
// only when the CPU has its instructions (checked by each kernel) and the
// environment does not turn it off: QZDL_CPU_DISABLE="avx512,vbmi" makes the
// kernels take their portable paths, so that the tests can check those on a
// CPU that would never pick them (docs/int8.md).
#pragma once

namespace qzdl {

// False when `path` is named in the comma-separated list QZDL_CPU_DISABLE
// (read once). Names: "avx512" (every AVX-512 loop), "vbmi" (AVX-512 VBMI
// byte permutes), "vnni" (the u8 x s8 GEMM on VNNI), "avx2" (the AVX2 loop of
// the 16-bit pair GEMM).
bool CpuPathAllowed(const char* path);

}  // namespace qzdl
