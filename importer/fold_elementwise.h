// Element-wise arithmetic for constant folding: the unary and binary
// operators on constant tensors, with broadcasting.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "importer/const_tensor.h"

namespace qzdl::onnx_import {

// Walks the elements of a tensor of dims `out` in order and gives, for each,
// the offset of the element of a tensor of dims `in` that it reads under
// broadcasting (`in` broadcasts to `out`). Keeps no table, so folding a large
// constant needs no memory beyond its inputs and result.
class BroadcastWalk {
 public:
  BroadcastWalk(const std::vector<int64_t>& out, const std::vector<int64_t>& in);
  int64_t offset() const { return offset_; }
  // On to the next element of `out`.
  void Next();

 private:
  std::vector<int64_t> dims_, steps_, idx_;
  int64_t offset_ = 0;
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
