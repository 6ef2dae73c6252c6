#include "importer/fold_elementwise.h"

#include <algorithm>
#include <cmath>
#include <map>

namespace qzdl::onnx_import {

OffsetWalk::OffsetWalk(const std::vector<int64_t>& dims, const std::vector<int64_t>& steps,
                       int64_t start) {
  Init(dims, steps, start);
}

void OffsetWalk::Init(const std::vector<int64_t>& dims, const std::vector<int64_t>& steps,
                      int64_t start) {
  // Axes of size 1 never advance: leaving them out keeps each step short for
  // shapes with many of them.
  for (size_t ax = 0; ax < dims.size(); ++ax) {
    if (dims[ax] != 1) dims_.push_back(dims[ax]), steps_.push_back(steps[ax]);
  }
  idx_.assign(dims_.size(), 0);
  offset_ = start;
}

void OffsetWalk::Next() {
  for (size_t ax = dims_.size(); ax-- > 0;) {
    ++idx_[ax];
    offset_ += steps_[ax];
    if (idx_[ax] < dims_[ax]) return;
    offset_ -= steps_[ax] * idx_[ax];
    idx_[ax] = 0;
  }
}

BroadcastWalk::BroadcastWalk(const std::vector<int64_t>& out, const std::vector<int64_t>& in) {
  const size_t rank = out.size();
  // Checked once here: the offsets walked then stay within `in`, so Next()
  // needs no checks. An empty `in` (whose other dims may be huge) broadcasts
  // only to an empty `out`, which is not walked at all.
  const std::vector<int64_t> in_stride = WalkStrides(in);
  std::vector<int64_t> stride(rank, 0);
  for (size_t k = 0; k < in.size(); ++k) {
    const size_t ax = in.size() - 1 - k;
    stride[rank - 1 - k] = in[ax] == 1 ? 0 : in_stride[ax];
  }
  Init(out, stride, 0);
}

namespace {

// The element-wise operators, looked up once per node rather than once per
// element (a constant may hold 2^26 elements).
enum class BinOp {
  kAdd,
  kSub,
  kMul,
  kDiv,
  kPow,
  kMax,
  kMin,
  kMod,
  kEqual,
  kLess,
  kGreater,
  kLessOrEqual,
  kGreaterOrEqual,
  kAnd,
  kOr,
  kXor
};

const std::map<std::string, BinOp>& BinaryOpTable() {
  static const std::map<std::string, BinOp> ops = {{"Add", BinOp::kAdd},
                                                   {"Sum", BinOp::kAdd},
                                                   {"Sub", BinOp::kSub},
                                                   {"Mul", BinOp::kMul},
                                                   {"Div", BinOp::kDiv},
                                                   {"Pow", BinOp::kPow},
                                                   {"Max", BinOp::kMax},
                                                   {"Min", BinOp::kMin},
                                                   {"Mod", BinOp::kMod},
                                                   {"Equal", BinOp::kEqual},
                                                   {"Less", BinOp::kLess},
                                                   {"Greater", BinOp::kGreater},
                                                   {"LessOrEqual", BinOp::kLessOrEqual},
                                                   {"GreaterOrEqual", BinOp::kGreaterOrEqual},
                                                   {"And", BinOp::kAnd},
                                                   {"Or", BinOp::kOr},
                                                   {"Xor", BinOp::kXor}};
  return ops;
}

// Integer tensors wrap around, as two's complement machines do; the unsigned
// arithmetic keeps that defined.
int64_t IntBinary(BinOp op, int64_t x, int64_t y, bool fmod) {
  const uint64_t ux = static_cast<uint64_t>(x), uy = static_cast<uint64_t>(y);
  switch (op) {
    case BinOp::kAdd:
      return static_cast<int64_t>(ux + uy);
    case BinOp::kSub:
      return static_cast<int64_t>(ux - uy);
    case BinOp::kMul:
      return static_cast<int64_t>(ux * uy);
    case BinOp::kMax:
      return std::max(x, y);
    case BinOp::kMin:
      return std::min(x, y);
    case BinOp::kDiv:
    case BinOp::kMod: {
      if (y == 0) throw FoldError("integer division by zero");
      if (y == -1) {  // INT64_MIN / -1 wraps to itself; the remainder is 0
        return op == BinOp::kDiv ? static_cast<int64_t>(0 - ux) : 0;
      }
      if (op == BinOp::kDiv) return x / y;
      int64_t r = x % y;
      if (!fmod && r != 0 && ((r < 0) != (y < 0))) r += y;
      return r;
    }
    case BinOp::kPow:
      return SaturatingInt(std::pow(static_cast<double>(x), static_cast<double>(y)));
    default:
      return 0;
  }
}

double FloatBinary(BinOp op, double x, double y, bool fmod) {
  switch (op) {
    case BinOp::kAdd:
      return x + y;
    case BinOp::kSub:
      return x - y;
    case BinOp::kMul:
      return x * y;
    case BinOp::kDiv:
      return x / y;
    case BinOp::kPow:
      return std::pow(x, y);
    case BinOp::kMax:
      return std::max(x, y);
    case BinOp::kMin:
      return std::min(x, y);
    case BinOp::kMod:
      return fmod ? std::fmod(x, y) : x - std::floor(x / y) * y;
    case BinOp::kEqual:
      return x == y;
    case BinOp::kLess:
      return x < y;
    case BinOp::kGreater:
      return x > y;
    case BinOp::kLessOrEqual:
      return x <= y;
    case BinOp::kGreaterOrEqual:
      return x >= y;
    case BinOp::kAnd:
      return (x != 0) && (y != 0);
    case BinOp::kOr:
      return (x != 0) || (y != 0);
    case BinOp::kXor:
      return (x != 0) != (y != 0);
  }
  return 0;
}

}  // namespace

ConstTensor Elementwise(const std::string& name, const ConstTensor& a, const ConstTensor& b,
                        bool fmod) {
  const BinOp op = BinaryOpTable().at(name);
  const std::vector<int64_t> dims = BroadcastShapes(a.dims, b.dims);
  const bool is_compare = op >= BinOp::kEqual;
  ConstTensor out = ConstTensor::Make(is_compare ? kBool : a.type, dims);
  BroadcastWalk wa(dims, a.dims), wb(dims, b.dims);
  const bool fp = a.IsFloat() || b.IsFloat();
  const int64_t total = out.Count();
  if (!fp && !is_compare) {
    for (int64_t k = 0; k < total; ++k, wa.Next(), wb.Next()) {
      out.SetInt(k, IntBinary(op, a.i[wa.offset()], b.i[wb.offset()], fmod));
    }
  } else {
    for (int64_t k = 0; k < total; ++k, wa.Next(), wb.Next()) {
      out.Set(k, FloatBinary(op, a.Get(wa.offset()), b.Get(wb.offset()), fmod));
    }
  }
  return out;
}

namespace {

template <typename T>
std::set<std::string> KeysOf(const std::map<std::string, T>& table) {
  std::set<std::string> keys;
  for (const auto& kv : table) keys.insert(kv.first);
  return keys;
}

enum class UnOp {
  kNeg,
  kAbs,
  kSqrt,
  kFloor,
  kCeil,
  kRound,
  kExp,
  kLog,
  kReciprocal,
  kRelu,
  kSigmoid,
  kTanh,
  kErf,
  kSign,
  kNot
};

const std::map<std::string, UnOp>& UnaryOpTable() {
  static const std::map<std::string, UnOp> ops = {
      {"Neg", UnOp::kNeg},     {"Abs", UnOp::kAbs},         {"Sqrt", UnOp::kSqrt},
      {"Floor", UnOp::kFloor}, {"Ceil", UnOp::kCeil},       {"Round", UnOp::kRound},
      {"Exp", UnOp::kExp},     {"Log", UnOp::kLog},         {"Reciprocal", UnOp::kReciprocal},
      {"Relu", UnOp::kRelu},   {"Sigmoid", UnOp::kSigmoid}, {"Tanh", UnOp::kTanh},
      {"Erf", UnOp::kErf},     {"Sign", UnOp::kSign},       {"Not", UnOp::kNot}};
  return ops;
}

double FloatUnary(UnOp op, double v) {
  switch (op) {
    case UnOp::kNeg:
      return -v;
    case UnOp::kAbs:
      return std::fabs(v);
    case UnOp::kSqrt:
      return std::sqrt(v);
    case UnOp::kFloor:
      return std::floor(v);
    case UnOp::kCeil:
      return std::ceil(v);
    case UnOp::kRound:
      return std::nearbyint(v);
    case UnOp::kExp:
      return std::exp(v);
    case UnOp::kLog:
      return std::log(v);
    case UnOp::kReciprocal:
      return 1.0 / v;
    case UnOp::kRelu:
      return std::max(v, 0.0);
    case UnOp::kSigmoid:
      return 1.0 / (1.0 + std::exp(-v));
    case UnOp::kTanh:
      return std::tanh(v);
    case UnOp::kErf:
      return std::erf(v);
    case UnOp::kSign:
      return (v > 0) - (v < 0);
    case UnOp::kNot:
      return v == 0;
  }
  return v;
}

}  // namespace

ConstTensor Unary(const std::string& name, const ConstTensor& x) {
  const UnOp op = UnaryOpTable().at(name);
  ConstTensor out = x;
  const int64_t total = x.Count();
  if (op == UnOp::kNot) {
    out.type = kBool, out.i.resize(total), out.f.clear();
  } else if (!x.IsFloat()) {
    // Rounding keeps integers as they are; of the rest, only these have
    // integer results.
    if (op == UnOp::kFloor || op == UnOp::kCeil || op == UnOp::kRound) return out;
    if (op != UnOp::kNeg && op != UnOp::kAbs && op != UnOp::kSign && op != UnOp::kRelu) {
      throw FoldError("operator " + name + " on " + TypeName(x.type) + " is not supported");
    }
    for (int64_t k = 0; k < total; ++k) {
      out.SetInt(k, SaturatingInt(FloatUnary(op, static_cast<double>(x.i[k]))));
    }
    return out;
  }
  for (int64_t k = 0; k < total; ++k) out.Set(k, FloatUnary(op, x.Get(k)));
  return out;
}

const std::set<std::string>& UnaryOps() {
  static const std::set<std::string> ops = KeysOf(UnaryOpTable());
  return ops;
}

const std::set<std::string>& BinaryOps() {
  static const std::set<std::string> ops = KeysOf(BinaryOpTable());
  return ops;
}

}  // namespace qzdl::onnx_import
