#include "runtime/int8/lookup_table.h"

#include "runtime/int8/grid.h"
#include "runtime/kernels/parallel.h"

namespace qzdl {

CodeTable BuildCodeTable(const std::function<float(float)>& f, float in_scale, int in_zero,
                         float out_scale, int out_zero) {
  CodeTable table;
  for (int c = 0; c < 256; ++c) {
    const float x = RealOf(static_cast<uint8_t>(c), in_scale, in_zero);
    table[c] = CodeOf(f(x), out_scale, out_zero);
  }
  return table;
}

void ApplyCodeTable(const CodeTable& table, const uint8_t* x, uint8_t* y, int64_t count) {
  ApplyCodeTable(table.data(), x, y, count);
}

void ApplyCodeTable(const uint8_t* table, const uint8_t* x, uint8_t* y, int64_t count) {
  ParallelFor(count, [&](int64_t begin, int64_t end) {
    for (int64_t i = begin; i < end; ++i) y[i] = table[x[i]];
  });
}

}  // namespace qzdl
