// Two inputs broadcast against each other, as the element-wise kernels of
// both element types walk them.
#pragma once

#include <cstdint>

namespace qzdl {

// The output seen as `dims` (axes merged), with per-axis element strides of
// a and b (0 along an axis the input repeats).
struct BroadcastShape {
  const int64_t* dims = nullptr;
  const int64_t* stride_a = nullptr;
  const int64_t* stride_b = nullptr;
  int64_t axes = 0;
  int64_t count = 0;  // elements of the output

  // The offsets in a and b of the first element of innermost row `row`.
  void RowOffsets(int64_t row, int64_t* oa, int64_t* ob) const {
    int64_t a = 0, b = 0, rest = row;
    for (int64_t j = axes - 2; j >= 0; --j) {
      const int64_t idx = rest % dims[j];
      rest /= dims[j];
      a += idx * stride_a[j];
      b += idx * stride_b[j];
    }
    *oa = a;
    *ob = b;
  }
};

}  // namespace qzdl
