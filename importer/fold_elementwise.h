// Element-wise arithmetic for constant folding: the unary and binary
// operators on constant tensors, with broadcasting.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "importer/const_tensor.h"

namespace qzdl::onnx_import {

// Walks the elements of a tensor of dims `dims` in order and gives, for the
// element at index idx, the offset start + sum over k of idx[k] * steps[k]
// into another tensor (a transposed, sliced, tiled or broadcast view of it).
// Keeps no table, and a step costs O(1) on average whatever the rank, so
// folding a large constant needs neither memory beyond its inputs and result
// nor time per element and axis. The caller makes sure that every offset
// walked lies within the other tensor.
class OffsetWalk {
 public:
  OffsetWalk(const std::vector<int64_t>& dims, const std::vector<int64_t>& steps,
             int64_t start = 0);
  int64_t offset() const { return offset_; }
  // On to the next element.
  void Next();

 protected:
  OffsetWalk() = default;
  void Init(const std::vector<int64_t>& dims, const std::vector<int64_t>& steps, int64_t start);

 private:
  std::vector<int64_t> dims_, steps_, idx_;
  int64_t offset_ = 0;
};

// For each element of a tensor of dims `out`, the offset of the element of a
// tensor of dims `in` that it reads under broadcasting (`in` broadcasts to
// `out`).
class BroadcastWalk : public OffsetWalk {
 public:
  BroadcastWalk(const std::vector<int64_t>& out, const std::vector<int64_t>& in);
};

// The operators that Unary and Elementwise evaluate (domain "").
const std::set<std::string>& UnaryOps();
const std::set<std::string>& BinaryOps();

// `op` of x. Integer tensors take only the operators with integer results;
// others throw FoldError.
ConstTensor Unary(const std::string& op, const ConstTensor& x);

// `op` of a and b, broadcast. Integer arithmetic wraps around; comparisons
// give bool. `fmod` is Mod's attribute. Throws FoldError on integer division
// by zero.
ConstTensor Elementwise(const std::string& op, const ConstTensor& a, const ConstTensor& b,
                        bool fmod);

}  // namespace qzdl::onnx_import
