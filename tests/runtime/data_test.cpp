#include "runtime/data.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace qzdl {
namespace {

TEST(Data, DefaultConstructedHasNoShapeNoStorage) {
  Data<float> d;
  EXPECT_EQ(d.GetName(), "");
  EXPECT_TRUE(d.GetDims().empty());
  EXPECT_EQ(d.GetCpuData(), nullptr);
  EXPECT_EQ(d.GetSize(), 0);
  EXPECT_EQ(d.GetDataType(), "float");
  EXPECT_EQ(Data<unsigned char>().GetDataType(), "int8");
}

TEST(Data, NameShapeAndCounts) {
  Data<float> d;
  d.SetName("conv1");
  d.Resize({2, 3, 4, 5});
  EXPECT_EQ(d.GetName(), "conv1");
  EXPECT_EQ(d.GetDims(), (std::vector<int>{2, 3, 4, 5}));
  EXPECT_EQ(d.GetDim(0), 2);
  EXPECT_EQ(d.GetDim(3), 5);
  EXPECT_EQ(d.GetDim(-1), 5);
  EXPECT_EQ(d.Count(0), 120);
  EXPECT_EQ(d.Count(1), 60);
  EXPECT_EQ(d.Count(3), 5);
  EXPECT_EQ(d.Count(4), 1);
  // Resize does not touch storage.
  EXPECT_EQ(d.GetCpuData(), nullptr);
  EXPECT_EQ(d.GetSize(), 0);
}

TEST(Data, TwoDimensionalDataReadsAsNc11) {
  Data<float> d;
  d.Resize({8, 1000});
  EXPECT_EQ(d.GetDim(2), 1);
  EXPECT_EQ(d.GetDim(3), 1);
  EXPECT_EQ(d.Count(1), 1000);
}

TEST(Data, ReallocateFillsAndSizes) {
  Data<float> d;
  d.Resize({1, 2, 3});
  d.Reallocate(0.0f);
  ASSERT_NE(d.GetCpuData(), nullptr);
  EXPECT_EQ(d.GetSize(), 6 * 4);
  for (int i = 0; i < 6; ++i) EXPECT_EQ(d.GetCpuData()[i], 0.0f);
  d.Reallocate(2.5f);
  for (int i = 0; i < 6; ++i) EXPECT_EQ(d.GetCpuData()[i], 2.5f);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(d.GetCpuData()) % 64, 0u);
}

TEST(Data, ShrinkingKeepsTheBlock) {
  Data<float> d;
  d.Resize({8, 100});
  d.Reallocate();
  float* before = d.GetCpuData();
  d.Resize({1, 100});
  d.Reallocate();
  EXPECT_EQ(d.GetCpuData(), before);
  EXPECT_EQ(d.GetSize(), 400);
}

TEST(Data, ShareAndClear) {
  std::vector<float> mine = {1, -2, 3};
  Data<float> d;
  d.Resize({3});
  d.ShareData(mine.data());
  EXPECT_EQ(d.GetCpuData(), mine.data());
  EXPECT_EQ(d.GetMinValue(), -2.0f);
  EXPECT_EQ(d.GetMaxValue(), 3.0f);
  d.ClearData();
  EXPECT_EQ(d.GetCpuData(), nullptr);
  EXPECT_EQ(mine[1], -2.0f);  // the caller's buffer is untouched
}

TEST(Data, MinMaxOverRanges) {
  std::vector<float> v = {5, 1, 9, -4, 7, 0};
  Data<float> d;
  d.Resize({2, 3});
  d.ShareData(v.data());
  EXPECT_EQ(d.GetMinValue(0, 3), 1.0f);
  EXPECT_EQ(d.GetMaxValue(0, 3), 9.0f);
  EXPECT_EQ(d.GetMinValue(3, 6), -4.0f);
  EXPECT_EQ(d.GetMaxValue(3, 6), 7.0f);
  EXPECT_EQ(d.GetMaxValue(2, 3), 9.0f);
  // Empty and out-of-range windows read as 0.
  EXPECT_EQ(d.GetMinValue(3, 3), 0.0f);
  EXPECT_EQ(d.GetMaxValue(4, 100), 7.0f);
}

TEST(Data, DataTypeWord) {
  Data<unsigned char> d;
  d.Resize({4});
  EXPECT_EQ(d.ElementBytes(), 1u);
  d.ChangeDataType("float");
  EXPECT_EQ(d.GetDataType(), "float");
  EXPECT_EQ(d.ElementBytes(), 4u);
  d.Reallocate();
  EXPECT_EQ(d.GetSize(), 16);
  Data<int> i;
  i.Resize({2});
  i.Reallocate(7);
  EXPECT_EQ(i.GetCpuData()[1], 7);
  i.ClearData();
  EXPECT_EQ(i.GetCpuData(), nullptr);
}

}  // namespace
}  // namespace qzdl
