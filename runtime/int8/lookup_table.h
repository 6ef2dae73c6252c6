// Unary activations on 8-bit codes: a table of 256 output codes, one per
// input code, built once from the float function on the real value each
// input code stands for. Applying it is one load per element, and the result
// is what the float activation gives on the dequantized input, quantized to
// the output grid (no other rounding).
#pragma once

#include <array>
#include <cstdint>
#include <functional>

namespace qzdl {

using CodeTable = std::array<uint8_t, 256>;

// table[c] = CodeOf(f(RealOf(c, in)), out) for every code c.
CodeTable BuildCodeTable(const std::function<float(float)>& f, float in_scale, int in_zero,
                         float out_scale, int out_zero);

// y[i] = table[x[i]]; x and y may be the same buffer.
void ApplyCodeTable(const CodeTable& table, const uint8_t* x, uint8_t* y, int64_t count);
// The same with the 256 entries at `table`.
void ApplyCodeTable(const uint8_t* table, const uint8_t* x, uint8_t* y, int64_t count);

// y[i] = table[x[i]] on the calling thread (x and y may be the same
// buffer): 64 codes per step with byte permutes where the CPU has them
// (AVX-512 VBMI, checked at run time), 32 per step with sixteen byte
// shuffles of 16-entry rows where it has AVX2, one load per code elsewhere.
// The same bits every way.
void LookupCodes(const uint8_t* table, const uint8_t* x, uint8_t* y, int64_t count);

}  // namespace qzdl
