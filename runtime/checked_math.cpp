#include "runtime/checked_math.h"

#include <algorithm>

namespace qzdl {

namespace {

template <typename D>
std::string DimsText(const std::vector<D>& dims) {
  std::string s = "[";
  for (size_t k = 0; k < dims.size(); ++k) s += (k ? ", " : "") + std::to_string(dims[k]);
  return s + "]";
}

template <typename D>
int64_t Product(const std::vector<D>& dims, size_t from, size_t to) {
  to = std::min(to, dims.size());
  from = std::min(from, to);
  for (size_t k = from; k < to; ++k) {
    if (dims[k] == 0) return 0;
  }
  int64_t n = 1;
  for (size_t k = from; k < to; ++k) {
    if (__builtin_mul_overflow(n, static_cast<int64_t>(dims[k]), &n)) {
      throw ShapeOverflow("the product of dims " + DimsText(dims) +
                          " is beyond the int64 range");
    }
  }
  return n;
}

}  // namespace

int64_t CheckedMul(int64_t a, int64_t b) {
  int64_t r = 0;
  if (__builtin_mul_overflow(a, b, &r)) {
    throw ShapeOverflow(std::to_string(a) + " * " + std::to_string(b) +
                        " is beyond the int64 range");
  }
  return r;
}

int64_t CheckedAdd(int64_t a, int64_t b) {
  int64_t r = 0;
  if (__builtin_add_overflow(a, b, &r)) {
    throw ShapeOverflow(std::to_string(a) + " + " + std::to_string(b) +
                        " is beyond the int64 range");
  }
  return r;
}

int64_t CheckedProduct(const std::vector<int64_t>& dims, size_t from, size_t to) {
  return Product(dims, from, to);
}

int64_t CheckedProduct(const std::vector<int>& dims, size_t from, size_t to) {
  return Product(dims, from, to);
}

std::vector<int64_t> CheckedStrides(const std::vector<int64_t>& dims) {
  std::vector<int64_t> strides(dims.size(), 0);
  int64_t s = 1;
  for (size_t k = dims.size(); k-- > 0;) {
    strides[k] = s;
    if (dims[k] == 0) {
      // Nothing is walked in an empty tensor: the outer strides stay 0.
      break;
    }
    if (__builtin_mul_overflow(s, dims[k], &s)) {
      // An empty tensor (a 0 further left) walks no element with the outer
      // strides, so they stay 0 rather than overflow.
      if (std::find(dims.begin(), dims.begin() + k, 0) != dims.begin() + k) break;
      throw ShapeOverflow("the strides of dims " + DimsText(dims) + " are beyond the int64 range");
    }
  }
  return strides;
}

}  // namespace qzdl
