// Channel reversal, grey conversion, bilinear resizing and the chain handle.
#include "dataloader/transform.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <vector>

namespace {

using dataLoader::BasicTransform;
using dataLoader::ReverseChannel;
using dataLoader::RGB2GRAY;
using dataLoader::TransformHandle;
using qzdl::Data;

// A tensor of the given shape holding `values` (or 0, 1, 2, ... if empty).
std::unique_ptr<Data<float>> Tensor(const std::vector<int>& dims, std::vector<float> values = {}) {
  auto t = std::make_unique<Data<float>>("t");
  t->Resize(dims);
  t->Reallocate(0.0f);
  for (int64_t i = 0; i < t->Count(0); ++i) {
    t->GetCpuData()[i] = values.empty() ? static_cast<float>(i) : values[static_cast<size_t>(i)];
  }
  return t;
}

std::vector<float> Values(const Data<float>* t) {
  return std::vector<float>(t->GetCpuData(), t->GetCpuData() + t->Count(0));
}

// The grey value as the conversion states it: double, fused, capped.
float Grey(float r, float g, float b) {
  double v = static_cast<double>(g) * 0.589;
  v = std::fma(static_cast<double>(b), 0.114, v);
  v = std::fma(static_cast<double>(r), 0.299, v);
  return v < 255.0 ? static_cast<float>(v) : 255.0f;
}

// Reference bilinear sampling of one plane, written from the formulas.
std::vector<float> ResizePlane(const std::vector<float>& in, int in_h, int in_w, int h, int w) {
  std::vector<float> out;
  const float scale_h = static_cast<float>(in_h) / static_cast<float>(h);
  const float scale_w = static_cast<float>(in_w) / static_cast<float>(w);
  for (int oy = 0; oy < h; ++oy) {
    const float sy = std::fma(scale_h, static_cast<float>(oy) + 0.5f, -0.5f);
    const int y0 = sy < 0 ? 0 : static_cast<int>(sy);
    const float fy = sy < 0 ? 0.0f : sy - static_cast<float>(y0);
    const float gy = 1.0f - fy;
    const int dy = y0 < in_h - 1 ? in_w : 0;
    for (int ox = 0; ox < w; ++ox) {
      const float sx = std::fma(scale_w, static_cast<float>(ox) + 0.5f, -0.5f);
      const int x0 = sx < 0 ? 0 : static_cast<int>(sx);
      const float fx = sx < 0 ? 0.0f : sx - static_cast<float>(x0);
      const float gx = 1.0f - fx;
      const int dx = x0 < in_w - 1 ? 1 : 0;
      const int p = y0 * in_w + x0;
      const float a = in[p], b = in[p + dx], c = in[p + dy], d = in[p + dy + dx];
      const float bottom = std::fma(c, gx, fx * d) * fy;
      out.push_back(std::fma(std::fma(a, gx, fx * b), gy, bottom));
    }
  }
  return out;
}

TEST(Transform, TypeCodes) {
  BasicTransform base;
  ReverseChannel reverse;
  RGB2GRAY grey(true, 1);
  dataLoader::Resize resize(2, 2, 3);
  EXPECT_EQ(base.type, 0);
  EXPECT_EQ(reverse.type, 11);
  EXPECT_EQ(grey.type, 12);
  EXPECT_EQ(resize.type, 2);
  EXPECT_EQ(base.output, nullptr);
  EXPECT_EQ(grey.bgr_input, true);
  EXPECT_EQ(grey.channels, 1);
  EXPECT_EQ(resize.height, 2);
  EXPECT_EQ(resize.width, 2);
  EXPECT_EQ(resize.channels, 3);
}

TEST(Transform, OutputDims) {
  BasicTransform base;
  ReverseChannel reverse;
  RGB2GRAY grey(false, 1);
  dataLoader::Resize resize(5, 7, 3);
  const std::vector<int> dims = {2, 3, 10, 12};
  EXPECT_EQ(base.get_output_dims(dims), dims);
  EXPECT_EQ(reverse.get_output_dims(dims), dims);
  EXPECT_EQ(grey.get_output_dims(dims), (std::vector<int>{2, 1, 10, 12}));
  EXPECT_EQ(resize.get_output_dims(dims), (std::vector<int>{2, 3, 5, 7}));
  // Through the base class's slot.
  BasicTransform* t = &resize;
  EXPECT_EQ(t->get_output_dims({1, 1, 4, 4}), (std::vector<int>{1, 3, 5, 7}));
}

TEST(Transform, BaseCopiesAndReusesItsOutput) {
  BasicTransform base;
  auto in = Tensor({1, 2, 2, 2});
  Data<float>* out = base(in.get());
  EXPECT_EQ(out, base.output);
  EXPECT_EQ(Values(out), Values(in.get()));
  const float* first_storage = out->GetCpuData();
  auto in2 = Tensor({1, 2, 2, 2}, std::vector<float>(8, 4.0f));
  EXPECT_EQ(base(in2.get()), out);
  EXPECT_EQ(out->GetCpuData(), first_storage);
  EXPECT_EQ(Values(out), std::vector<float>(8, 4.0f));
  // Another shape reallocates, zero-filled before the copy.
  auto in3 = Tensor({1, 1, 3, 1});
  EXPECT_EQ(base(in3.get()), out);
  EXPECT_EQ(out->GetDims(), (std::vector<int>{1, 1, 3, 1}));
  EXPECT_EQ(Values(out), (std::vector<float>{0, 1, 2}));
}

TEST(ReverseChannelTest, SwapsPlanesZeroAndTwo) {
  ReverseChannel reverse;
  auto in = Tensor({1, 3, 1, 2}, {1, 2, 3, 4, 5, 6});
  Data<float>* out = reverse(in.get());
  EXPECT_EQ(out->GetDims(), (std::vector<int>{1, 3, 1, 2}));
  EXPECT_EQ(Values(out), (std::vector<float>{5, 6, 3, 4, 1, 2}));
  EXPECT_EQ(Values(in.get()), (std::vector<float>{1, 2, 3, 4, 5, 6}));
}

TEST(ReverseChannelTest, InPlaceWhenGivenItsOwnOutput) {
  ReverseChannel reverse;
  auto in = Tensor({1, 3, 1, 2}, {1, 2, 3, 4, 5, 6});
  Data<float>* out = reverse(in.get());
  EXPECT_EQ(reverse(out), out);
  EXPECT_EQ(Values(out), (std::vector<float>{1, 2, 3, 4, 5, 6}));
}

TEST(ReverseChannelTest, OneChannelIsAPlainCopy) {
  ReverseChannel reverse;
  auto in = Tensor({1, 1, 2, 3});
  EXPECT_EQ(Values(reverse(in.get())), Values(in.get()));
}

TEST(Rgb2GrayTest, WhiteIsCutAt255AndGreyHundredGives100Point2) {
  RGB2GRAY grey(true, 1);
  auto in = Tensor({1, 3, 1, 2}, {255, 100, 255, 100, 255, 100});
  Data<float>* out = grey(in.get());
  ASSERT_EQ(out->GetDims(), (std::vector<int>{1, 1, 1, 2}));
  // 255 * 1.002 = 255.51 is capped.
  EXPECT_EQ(out->GetCpuData()[0], 255.0f);
  EXPECT_EQ(out->GetCpuData()[1], Grey(100, 100, 100));
  EXPECT_NEAR(out->GetCpuData()[1], 100.2f, 1e-4f);
}

TEST(Rgb2GrayTest, ChannelOrderFollowsTheFlag) {
  // Planes 0, 1, 2 hold 10, 20, 30.
  auto in = Tensor({1, 3, 1, 1}, {10, 20, 30});
  RGB2GRAY from_bgr(true, 1);
  RGB2GRAY from_rgb(false, 1);
  EXPECT_EQ(from_bgr(in.get())->GetCpuData()[0], Grey(30, 20, 10));
  EXPECT_EQ(from_rgb(in.get())->GetCpuData()[0], Grey(10, 20, 30));
  EXPECT_NE(Grey(30, 20, 10), Grey(10, 20, 30));
}

TEST(Rgb2GrayTest, SeveralOutputChannelsAndBatch) {
  RGB2GRAY grey(false, 2);
  auto in = Tensor({2, 3, 1, 1}, {1, 2, 3, 40, 50, 60});
  Data<float>* out = grey(in.get());
  ASSERT_EQ(out->GetDims(), (std::vector<int>{2, 2, 1, 1}));
  EXPECT_EQ(Values(out),
            (std::vector<float>{Grey(1, 2, 3), Grey(1, 2, 3), Grey(40, 50, 60), Grey(40, 50, 60)}));
}

TEST(Rgb2GrayTest, OneChannelInputIsCopied) {
  RGB2GRAY grey(true, 1);
  auto in = Tensor({1, 1, 2, 2}, {300, 1, 2, 3});  // no cap on the copy
  EXPECT_EQ(Values(grey(in.get())), Values(in.get()));
  RGB2GRAY three(true, 3);
  EXPECT_EQ(Values(three(in.get())),
            (std::vector<float>{300, 1, 2, 3, 300, 1, 2, 3, 300, 1, 2, 3}));
}

TEST(ResizeTest, SameSizeReturnsTheInput) {
  dataLoader::Resize resize(3, 4, 2);
  auto in = Tensor({1, 2, 3, 4});
  for (int i = 0; i < 24; ++i) in->GetCpuData()[i] = std::sin(static_cast<float>(i)) * 100.0f;
  EXPECT_EQ(Values(resize(in.get())), Values(in.get()));
}

TEST(ResizeTest, MatchesTheFormulaUpAndDown) {
  const int in_h = 3, in_w = 5;
  std::vector<float> plane;
  for (int i = 0; i < in_h * in_w; ++i) plane.push_back(static_cast<float>((i * 37) % 11) * 1.7f);
  for (auto size : std::vector<std::pair<int, int>>{{7, 9}, {2, 2}, {1, 1}, {6, 3}, {3, 5}}) {
    dataLoader::Resize resize(size.first, size.second, 1);
    auto in = Tensor({1, 1, in_h, in_w}, plane);
    Data<float>* out = resize(in.get());
    ASSERT_EQ(out->GetDims(), (std::vector<int>{1, 1, size.first, size.second}));
    EXPECT_EQ(Values(out), ResizePlane(plane, in_h, in_w, size.first, size.second))
        << size.first << " x " << size.second;
  }
}

TEST(ResizeTest, EdgesReadNoPixelOutside) {
  // 2 x 2 to 4 x 4: the last row and column take the edge pixels, with the
  // steps to the next row and column at 0.
  dataLoader::Resize resize(4, 4, 1);
  auto in = Tensor({1, 1, 2, 2}, {0, 10, 20, 30});
  const std::vector<float> out = Values(resize(in.get()));
  EXPECT_EQ(out[0], 0.0f);
  EXPECT_EQ(out[3], 10.0f);
  EXPECT_EQ(out[12], 20.0f);
  EXPECT_EQ(out[15], 30.0f);
  EXPECT_EQ(out[1], 2.5f);    // x = 0.25
  EXPECT_EQ(out[2], 7.5f);    // x = 0.75
  EXPECT_EQ(out[5], 7.5f);    // x = 0.25, y = 0.25
  EXPECT_EQ(out[7], 15.0f);   // last column, y = 0.25
  EXPECT_EQ(out[13], 22.5f);  // last row, x = 0.25
}

TEST(ResizeTest, OneChannelToThreeGivesIdenticalPlanes) {
  dataLoader::Resize resize(3, 3, 3);
  auto in = Tensor({2, 1, 2, 2}, {0, 10, 20, 30, 5, 5, 5, 5});
  const std::vector<float> out = Values(resize(in.get()));
  ASSERT_EQ(out.size(), 2u * 3 * 9);
  const std::vector<float> first = ResizePlane({0, 10, 20, 30}, 2, 2, 3, 3);
  for (int c = 0; c < 3; ++c) {
    EXPECT_EQ(std::vector<float>(out.begin() + c * 9, out.begin() + (c + 1) * 9), first);
    EXPECT_EQ(std::vector<float>(out.begin() + 27 + c * 9, out.begin() + 27 + (c + 1) * 9),
              std::vector<float>(9, 5.0f));
  }
}

TEST(ResizeTest, PlaneByPlaneOverTheBatch) {
  dataLoader::Resize resize(1, 3, 3);
  std::vector<float> values;
  for (int i = 0; i < 2 * 3 * 2; ++i) values.push_back(static_cast<float>(i * i));
  auto in = Tensor({2, 3, 1, 2}, values);
  const std::vector<float> out = Values(resize(in.get()));
  ASSERT_EQ(out.size(), 18u);
  for (int k = 0; k < 6; ++k) {
    const std::vector<float> plane(values.begin() + 2 * k, values.begin() + 2 * k + 2);
    EXPECT_EQ(std::vector<float>(out.begin() + 3 * k, out.begin() + 3 * k + 3),
              ResizePlane(plane, 1, 2, 1, 3));
  }
}

TEST(TransformHandleTest, SkipsTypeZeroAndRunsInOrder) {
  BasicTransform skipped;
  RGB2GRAY grey(true, 1);
  dataLoader::Resize resize(1, 1, 1);
  TransformHandle handle;
  EXPECT_TRUE(handle.empty());
  handle.AddUnlessSkipped(&skipped);
  handle.AddUnlessSkipped(nullptr);
  EXPECT_TRUE(handle.empty());
  handle.AddUnlessSkipped(&grey);
  handle.Add(&resize);
  ASSERT_EQ(handle.transforms.size(), 2u);
  EXPECT_EQ(handle.transforms[0], &grey);
  EXPECT_EQ(handle.GetOutputDims({1, 3, 4, 4}), (std::vector<int>{1, 1, 1, 1}));
  auto in = Tensor({1, 3, 2, 2}, std::vector<float>(12, 50.0f));
  Data<float>* out = handle.Apply(in.get());
  EXPECT_EQ(out, resize.output);
  EXPECT_EQ(Values(out), std::vector<float>{Grey(50, 50, 50)});
  TransformHandle none;
  EXPECT_EQ(none.Apply(in.get()), in.get());
}

}  // namespace
