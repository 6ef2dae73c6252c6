// Checked products and sums of shape values: exact results inside the int64
// range, and the messages beyond it.
#include "runtime/checked_math.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <vector>

namespace qzdl {
namespace {

constexpr int64_t kMax = std::numeric_limits<int64_t>::max();

std::string Message(const std::function<void()>& fn) {
  try {
    fn();
  } catch (const ShapeOverflow& e) {
    return e.what();
  }
  return "";
}

TEST(CheckedMath, MulAndAdd) {
  EXPECT_EQ(CheckedMul(3037000499, 3037000499), 9223372030926249001);
  EXPECT_EQ(CheckedMul(-4, 5), -20);
  EXPECT_EQ(CheckedAdd(kMax - 1, 1), kMax);
  EXPECT_EQ(Message([] { CheckedMul(27487790694400, kMax); }),
            "27487790694400 * 9223372036854775807 is beyond the int64 range");
  EXPECT_EQ(Message([] { CheckedAdd(kMax, 1); }),
            "9223372036854775807 + 1 is beyond the int64 range");
}

TEST(CheckedMath, Product) {
  EXPECT_EQ(CheckedProduct(std::vector<int64_t>{}), 1);
  EXPECT_EQ(CheckedProduct(std::vector<int64_t>{2, 3, 4}), 24);
  EXPECT_EQ(CheckedProduct(std::vector<int64_t>{2, 3, 4}, 1), 12);
  EXPECT_EQ(CheckedProduct(std::vector<int64_t>{2, 3, 4}, 1, 2), 3);
  EXPECT_EQ(CheckedProduct(std::vector<int64_t>{2, 3, 4}, 5, 9), 1);
  // An empty tensor: a 0 wins over dims whose product would overflow.
  EXPECT_EQ(CheckedProduct(std::vector<int64_t>{kMax, kMax, 0}), 0);
  EXPECT_EQ(CheckedProduct(std::vector<int>{46341, 46341}), int64_t{46341} * 46341);
  EXPECT_EQ(Message([] { CheckedProduct(std::vector<int64_t>{4294967296, 4294967296}); }),
            "the product of dims [4294967296, 4294967296] is beyond the int64 range");
}

TEST(CheckedMath, Strides) {
  EXPECT_EQ(CheckedStrides({2, 3, 4}), (std::vector<int64_t>{12, 4, 1}));
  EXPECT_EQ(CheckedStrides({}), (std::vector<int64_t>{}));
  // The fuzzing finding's shape: dims of an empty tensor that would overflow.
  EXPECT_EQ(CheckedStrides({kMax, 0, 27487790694400}),
            (std::vector<int64_t>{0, 27487790694400, 1}));
  // The 0 left of dims whose product overflows: still an empty tensor.
  EXPECT_EQ(CheckedStrides({0, kMax, 27487790694400}),
            (std::vector<int64_t>{0, 27487790694400, 1}));
  EXPECT_EQ(Message([] { CheckedStrides({kMax, 2, 2}); }),
            "the strides of dims [9223372036854775807, 2, 2] are beyond the int64 range");
}

}  // namespace
}  // namespace qzdl
