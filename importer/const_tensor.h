// Constant tensors of an ONNX graph: initializers, Constant values and the
// results of constant folding.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "importer/onnx_importer.h"
#include "runtime/checked_math.h"

namespace onnx {
class TensorProto;
}  // namespace onnx

namespace qzdl::onnx_import {

// ONNX element type codes used here (onnx::TensorProto_DataType).
enum OnnxType : int32_t {
  kFloat = 1,
  kUint8 = 2,
  kInt8 = 3,
  kUint16 = 4,
  kInt16 = 5,
  kInt32 = 6,
  kInt64 = 7,
  kString = 8,
  kBool = 9,
  kFloat16 = 10,
  kDouble = 11,
  kUint32 = 12,
  kUint64 = 13,
  kBfloat16 = 16,
};

bool IsFloatType(int32_t type);
// "float", "int64", ... for messages.
std::string TypeName(int32_t type);

// The bytes of one element of `type` as ONNX stores it (1 for bool and
// strings, which are never computed here).
int64_t ElementBytes(int32_t type);

// The most bytes (of its ONNX element type) that a constant computed while
// importing may hold, for the import running on this thread: the import's
// OnnxImportOptions::max_constant_bytes (ConstantLimitScope).
int64_t MaxConstantBytes();
// "the limit of N bytes for a constant computed while importing".
std::string ConstantLimitText();

// Sets the limit for the life of the scope.
class ConstantLimitScope {
 public:
  explicit ConstantLimitScope(int64_t max_bytes);
  ~ConstantLimitScope();
  ConstantLimitScope(const ConstantLimitScope&) = delete;
  ConstantLimitScope& operator=(const ConstantLimitScope&) = delete;

 private:
  int64_t previous_;
};

// The most elements of `type` that a computed constant may hold.
int64_t MaxConstantElements(int32_t type);

// `v` as an int64, truncated toward zero. Values beyond the int64 range
// saturate and NaN becomes 0 (a plain cast of those is undefined behaviour).
inline int64_t SaturatingInt(double v) {
  if (std::isnan(v)) return 0;
  if (v >= 9223372036854775808.0) return std::numeric_limits<int64_t>::max();
  if (v <= -9223372036854775808.0) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(v);
}

// True when `perm` holds each of 0 .. rank - 1 once.
bool IsPermutation(const std::vector<int64_t>& perm, size_t rank);

// The number of elements of `dims`, or -1 when it exceeds `limit` (also for
// products that would overflow). Negative dims count as 0.
int64_t CountUpTo(const std::vector<int64_t>& dims, int64_t limit);

// Row-major strides for walking the elements of a tensor of `dims`
// (CheckedStrides). An empty tensor has no element to walk, so its strides
// are all 0 whatever the sizes of its other axes. Throws ShapeOverflow.
std::vector<int64_t> WalkStrides(const std::vector<int64_t>& dims);

// A constant tensor. Values of floating types live in `f` (float32 values
// rounded to float32), integer and bool values in `i`.
struct ConstTensor {
  int32_t type = kFloat;
  std::vector<int64_t> dims;
  std::vector<double> f;
  std::vector<int64_t> i;

  bool IsFloat() const { return IsFloatType(type); }
  int64_t Count() const;
  double Get(int64_t k) const { return IsFloat() ? f[k] : static_cast<double>(i[k]); }
  int64_t GetInt(int64_t k) const { return IsFloat() ? SaturatingInt(f[k]) : i[k]; }
  std::vector<int64_t> Ints() const;
  std::vector<float> Floats() const;
  // Stores `v` at k, converted to this tensor's type.
  void Set(int64_t k, double v);
  void SetInt(int64_t k, int64_t v);
  // An empty tensor of `type` and `dims` (zeros). Throws FoldError for
  // negative dims or more than MaxConstantBytes() bytes.
  static ConstTensor Make(int32_t type, const std::vector<int64_t>& dims);
  // The same without the limit, for values read from the model (whose data
  // was counted first).
  static ConstTensor Sized(int32_t type, const std::vector<int64_t>& dims);
  static ConstTensor Int64s(const std::vector<int64_t>& values);
};

// Errors of this file; the caller adds the node or initializer name.
struct FoldError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Reads an initializer or a Constant value. `base_dir` resolves external
// data. Throws FoldError.
ConstTensor TensorFromProto(const onnx::TensorProto& proto, const std::string& base_dir);

// Numpy broadcasting of two shapes; throws FoldError when they do not fit.
std::vector<int64_t> BroadcastShapes(const std::vector<int64_t>& a, const std::vector<int64_t>& b);

// "[1, 3, 224, 224]".
std::string DimsString(const std::vector<int64_t>& dims);

// The product of dims[from, to): 0 when one is 0, saturating at the int64
// maximum (callers compare it with a limit). Where a product past the int64
// range is an error, CheckedProduct says so instead.
int64_t DimsProduct(const std::vector<int64_t>& dims, size_t from = 0, size_t to = SIZE_MAX);

}  // namespace qzdl::onnx_import
