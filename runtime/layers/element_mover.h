// Layers whose outputs hold their inputs' elements moved, without
// arithmetic: reshapes, copies, permutations, gathers, padding. Their
// kernels are templates over the element type, so that the 8-bit net moves
// codes with the float layer's own kernel and shapes (its twin) instead of
// converting through float.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "runtime/kernels/parallel.h"

namespace qzdl {

class ElementMover {
 public:
  virtual ~ElementMover() = default;
  // Whether the layer's params make it a mover (an upsampling is one only
  // when it takes the nearest element).
  virtual bool MovesElements() const { return true; }
  // The real value of elements that come from no input (constant padding).
  virtual float FillValue() const { return 0.0f; }
  // Moves codes as Run moves floats, on the shapes of the last Reshape;
  // `fill` is the code of elements that come from no input.
  virtual void MoveCodes(const std::vector<const uint8_t*>& inputs,
                         const std::vector<uint8_t*>& outputs, uint8_t fill) = 0;
};

// dst = src, n elements, in parallel pieces (copies of less than 1 MiB stay
// on one thread); nothing when they are one.
template <typename E>
void ParallelCopy(E* dst, const E* src, int64_t n) {
  if (dst == src || n <= 0) return;
  ParallelFor(
      n,
      [=](int64_t begin, int64_t end) {
        std::memcpy(dst + begin, src + begin, static_cast<size_t>(end - begin) * sizeof(E));
      },
      std::max<int64_t>(1, (int64_t{1} << 20) / static_cast<int64_t>(sizeof(E))));
}

}  // namespace qzdl
