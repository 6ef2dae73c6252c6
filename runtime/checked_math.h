// Checked arithmetic on dimensions, strides, offsets and element counts.
//
// Shapes come from files (net descriptions, ONNX models) and from layer
// parameters, so any product or sum of them can leave the int64 range. Every
// such product or sum in the importer and in the runtime's shape code goes
// through these functions: an overflow becomes a ShapeOverflow naming the
// values, and the caller adds the node or layer it was computing for.
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace qzdl {

// A product or sum of shape values beyond the int64 range. The message says
// what was computed ("the product of dims [..]", "a * b"); callers prefix
// the node or layer.
class ShapeOverflow : public std::overflow_error {
 public:
  explicit ShapeOverflow(const std::string& message) : std::overflow_error(message) {}
};

// a * b and a + b; throw ShapeOverflow beyond the int64 range.
int64_t CheckedMul(int64_t a, int64_t b);
int64_t CheckedAdd(int64_t a, int64_t b);

// The product of dims[from, to) (to is clamped to the size). An empty tensor
// may have other dims of any size, so a 0 among them makes the product 0
// before anything is multiplied. Negative dims multiply as they stand;
// callers that refuse them check first. Throws ShapeOverflow naming all dims.
int64_t CheckedProduct(const std::vector<int64_t>& dims, size_t from = 0, size_t to = SIZE_MAX);
int64_t CheckedProduct(const std::vector<int>& dims, size_t from = 0, size_t to = SIZE_MAX);

// Row-major strides of `dims` (the last axis 1). Axes after a 0 dim are
// walked by no element, so a 0 dim ends the multiplication: the strides of
// an empty tensor never overflow. Throws ShapeOverflow otherwise.
std::vector<int64_t> CheckedStrides(const std::vector<int64_t>& dims);

// True when `v` fits an int (the runtime's dims are ints).
inline bool FitsInt(int64_t v) { return v >= INT32_MIN && v <= INT32_MAX; }

}  // namespace qzdl
