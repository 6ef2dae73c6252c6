// Tensors of more than 2^31 - 1 elements. Each dim is an int, but element
// counts, offsets, loops and byte sizes are 64-bit, so such tensors are made,
// shaped and computed like any other; only what must fit an int (one dim, a
// GEMM dimension) is refused, with a message naming the layer.
//
// Memory: one test fills a tensor of 2147488281 floats (8.6 GB), never at the
// same time as another such test, and skips when the machine has less than
// 10 GB available. The others read a large input
// from an anonymous mapping whose untouched pages read as zeros and take no
// memory, and write small outputs.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cmath>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "runtime/create_net.h"
#include "runtime/errors.h"
#include "runtime/kernels/conv_kernels.h"
#include "runtime/kernels/gemm.h"
#include "runtime/optimizer.h"
#include "support/big_memory.h"
#include "support/net_builder.h"

namespace qzdl {
namespace {

using json11::Json;
using test::BuildError;
using test::NetBuilder;

constexpr int kSide = 46341;  // kSide * kSide = 2147488281 > 2^31 - 1
constexpr int64_t kBig = int64_t(kSide) * kSide;
const std::string kAt = "net description: layer ";

// "data" [1, 1, 2, 2] -> nearest Upsample "up" to [1, 1, kSide, kSide] -> "big"
// -> ReLU "relu" with slope 0.5, in place.
NetBuilder UpsampleNet() {
  NetBuilder b;
  b.Input("data", {1, 1, 2, 2})
      .Layer("up", "Upsample", {"data"}, {"big"}, {{"out_h", kSide}, {"out_w", kSide}})
      .Layer("relu", "ReLU", {"big"}, {"big"}, {{"negative_slope", 0.5}});
  return b;
}

TEST(LargeTensor, FrugalNetMakesATensorBeyondTheIntRangeWithoutStorage) {
  auto net = UpsampleNet().Build(true);
  Data<float>* big = net->GetData("big");
  ASSERT_NE(big, nullptr);
  EXPECT_EQ(big->GetDims(), (std::vector<int>{1, 1, kSide, kSide}));
  EXPECT_EQ(big->Count(0), 2147488281);
  EXPECT_EQ(big->Count(2), 2147488281);
  EXPECT_EQ(big->Count(3), kSide);
  EXPECT_EQ(big->GetCpuData(), nullptr);
  EXPECT_EQ(big->GetSize(), 0);
  ASSERT_EQ(net->GetOutCount(), 1);
  EXPECT_EQ(net->GetOutputData(0), big);
}

TEST(LargeTensor, UpsampleAndReluRunBeyondTheIntRange) {
  test::BigMemoryLock lock;
  if (test::AvailableMemory() < test::kBigTestMemory)
    GTEST_SKIP() << "needs 10 GB of available memory for a tensor of 8.6 GB";
  auto net = UpsampleNet().Build(true);
  std::vector<float> x = {1.0f, -2.0f, 3.0f, -4.0f};
  net->SetFloatInputData(x.data(), 0);
  net->ForwardAll();
  const Data<float>* big = net->GetData("big");
  const float* y = big->GetCpuData();
  ASSERT_NE(y, nullptr);
  EXPECT_EQ(big->GetSize(), kBig * 4);

  // The layer's nearest rule on each axis, then the ReLU.
  const float scale = 2.0f / static_cast<float>(kSide);
  auto source = [&](int64_t i) {
    return std::min<int64_t>(static_cast<int64_t>(std::floor(static_cast<float>(i) * scale)), 1);
  };
  const float relu[4] = {1.0f, -1.0f, 3.0f, -2.0f};
  auto expected = [&](int64_t at) { return relu[source(at / kSide) * 2 + source(at % kSide)]; };
  int64_t wrong = 0;
  // Around 2^31, every 1009th element beyond it, and the whole last row.
  for (int64_t at = INT32_MAX - 4096; at < int64_t(INT32_MAX) + 4096; ++at)
    wrong += y[at] != expected(at);
  for (int64_t at = INT32_MAX; at < kBig; at += 1009) wrong += y[at] != expected(at);
  for (int64_t at = kBig - kSide; at < kBig; ++at) wrong += y[at] != expected(at);
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(y[0], 1.0f);
  EXPECT_EQ(y[kBig - 1], -2.0f);
}

// An anonymous private mapping: untouched pages read as zeros and take no
// memory, so a test can hand a layer a large input and write few values.
class SparseFloats {
 public:
  explicit SparseFloats(int64_t count) : bytes_(static_cast<size_t>(count) * sizeof(float)) {
    void* p = mmap(nullptr, bytes_, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    data_ = p == MAP_FAILED ? nullptr : static_cast<float*>(p);
  }
  ~SparseFloats() {
    if (data_ != nullptr) munmap(data_, bytes_);
  }
  SparseFloats(const SparseFloats&) = delete;
  SparseFloats& operator=(const SparseFloats&) = delete;
  float* data() const { return data_; }

 private:
  size_t bytes_;
  float* data_ = nullptr;
};

// Input [1, 4, 24000, 24000]: 2304000000 elements, so channel 3 lies beyond
// 2^31 while every dim is small. Layers that read parts of it (or all of it)
// and write little.
constexpr int kC = 4, kH = 24000, kW = 24000, kStep = 7000;
constexpr int64_t kPlane = int64_t(kH) * kW;

int64_t At(int c, int h, int w) { return (c * int64_t(kH) + h) * kW + w; }

// The value written at (c, h, w); exact in float, and different for other
// channels and for most other rows and columns.
float Value(int c, int h, int w) {
  return static_cast<float>(c * 4096 + (h % 64) * 64 + w % 64 + 1);
}

TEST(LargeTensor, LayersIndexAnInputBeyondTheIntRange) {
  NetBuilder b;
  b.Input("data", {1, kC, kH, kW})
      .Layer("pool", "Pooling", {"data"}, {"pool"},
             {{"pool", "max"}, {"kernel_size", 1}, {"stride", kStep}})
      .Layer("conv", "Convolution", {"data"}, {"conv"},
             {{"num_output", 2}, {"kernel_size", 1}, {"stride", kStep}})
      .Weight("conv", "weight", {2, kC, 1, 1}, {1, 2, 3, 4, 4, 3, 2, 1})
      .Weight("conv", "bias", {2}, {0.5f, -0.5f})
      .Layer("crop", "Crop", {"data"}, {"crop"},
             {{"starts", Json::array{kH - 2}}, {"ends", Json::array{kH}}, {"axes", Json::array{2}}})
      .Layer("gather", "Gather", {"data"}, {"gather"},
             {{"axis", 2}, {"indices", Json::array{kH - 1, kStep}}})
      .Layer("mean", "ReduceMean", {"data"}, {"mean"}, {{"axes", Json::array{2, 3}}});
  auto net = b.Build(true);
  Data<float>* data = net->GetInputData(0);
  ASSERT_EQ(data->Count(0), int64_t(kC) * kPlane);
  ASSERT_GT(data->Count(0), INT32_MAX);
  SparseFloats input(data->Count(0));
  ASSERT_NE(input.data(), nullptr);
  float* x = input.data();
  data->ShareData(x);

  // Written: rows kStep, kH - 2 and kH - 1 of every channel, and the points
  // the strided layers read.
  std::vector<double> sums(kC, 0.0);
  for (int c = 0; c < kC; ++c) {
    for (int h : {kStep, kH - 2, kH - 1})
      for (int w = 0; w < kW; ++w) {
        x[At(c, h, w)] = Value(c, h, w);
        sums[c] += Value(c, h, w);
      }
    for (int h = 0; h < kH; h += kStep)
      for (int w = 0; w < kW; w += kStep) {
        if (h == kStep) continue;  // already in a written row
        x[At(c, h, w)] = Value(c, h, w);
        sums[c] += Value(c, h, w);
      }
  }
  net->ForwardAll();

  const Data<float>* pool = net->GetData("pool");
  ASSERT_EQ(pool->GetDims(), (std::vector<int>{1, kC, 4, 4}));
  const Data<float>* conv = net->GetData("conv");
  ASSERT_EQ(conv->GetDims(), (std::vector<int>{1, 2, 4, 4}));
  for (int i = 0; i < 4; ++i)
    for (int j = 0; j < 4; ++j) {
      float in[kC];
      for (int c = 0; c < kC; ++c) {
        in[c] = Value(c, i * kStep, j * kStep);
        EXPECT_EQ(pool->GetCpuData()[(c * 4 + i) * 4 + j], in[c]) << c << " " << i << " " << j;
      }
      const float want0 = 0.5f + in[0] + 2 * in[1] + 3 * in[2] + 4 * in[3];
      const float want1 = -0.5f + 4 * in[0] + 3 * in[1] + 2 * in[2] + in[3];
      EXPECT_EQ(conv->GetCpuData()[i * 4 + j], want0) << i << " " << j;
      EXPECT_EQ(conv->GetCpuData()[16 + i * 4 + j], want1) << i << " " << j;
    }

  const Data<float>* crop = net->GetData("crop");
  const Data<float>* gather = net->GetData("gather");
  ASSERT_EQ(crop->GetDims(), (std::vector<int>{1, kC, 2, kW}));
  ASSERT_EQ(gather->GetDims(), (std::vector<int>{1, kC, 2, kW}));
  int64_t wrong = 0;
  for (int c = 0; c < kC; ++c)
    for (int w = 0; w < kW; ++w) {
      const int64_t row = (c * 2) * int64_t(kW) + w;
      wrong += crop->GetCpuData()[row] != Value(c, kH - 2, w);
      wrong += crop->GetCpuData()[row + kW] != Value(c, kH - 1, w);
      wrong += gather->GetCpuData()[row] != Value(c, kH - 1, w);
      wrong += gather->GetCpuData()[row + kW] != Value(c, kStep, w);
    }
  EXPECT_EQ(wrong, 0);

  // Sums of integers in double are exact, in any order.
  const Data<float>* mean = net->GetData("mean");
  ASSERT_EQ(mean->GetDims(), (std::vector<int>{1, kC, 1, 1}));
  for (int c = 0; c < kC; ++c)
    EXPECT_EQ(mean->GetCpuData()[c], static_cast<float>(sums[c] * (1.0 / kPlane))) << c;
  data->ShareData(nullptr);
}

TEST(LargeTensor, StorageBytesDoNotWrap) {
  // 2^62 floats: the count fits int64, the bytes do not fit size_t.
  Data<float> d("d");
  d.Resize({1 << 30, 1 << 30, 4});
  EXPECT_EQ(d.Count(0), int64_t(1) << 62);
  EXPECT_THROW(d.Reallocate(), std::bad_alloc);
  EXPECT_EQ(d.GetCpuData(), nullptr);
  AlignedBuffer buffer;
  EXPECT_THROW(buffer.Reserve(SIZE_MAX - 10), std::bad_alloc);
}

TEST(LargeTensor, KernelSizesNearTheIntRange) {
  EXPECT_EQ(NumBlocks(INT32_MAX, 1024), 2097152);
  EXPECT_EQ(NumBlocks(INT32_MAX, 1), INT32_MAX);
  // A plane beyond 2^31 - 1 positions: the depthwise kernel only.
  ConvGeometry g;
  g.in_c = g.out_c = g.group = 2;
  g.in_h = g.in_w = g.out_h = g.out_w = kSide;
  EXPECT_TRUE(ConvKernel::Applies(ConvAlgorithm::kDepthwise, g));
  EXPECT_FALSE(ConvKernel::Applies(ConvAlgorithm::kIm2colGemm, g));
  EXPECT_FALSE(ConvKernel::Applies(ConvAlgorithm::kDnnl, g));
  g.group = 1;
  ConvKernel kernel;
  EXPECT_FALSE(kernel.Configure(g, false));
  g.in_h = g.out_h = 1;
  EXPECT_TRUE(kernel.Configure(g, false));
  EXPECT_TRUE(ConvKernel::Applies(ConvAlgorithm::kIm2colGemm, g));
  // A deconvolution's GEMM columns are its input positions.
  ConvGeometry d;
  d.in_h = d.in_w = kSide;
  d.out_h = d.out_w = kSide;
  DeconvKernel deconv;
  EXPECT_FALSE(deconv.Configure(d, false));
}

// ---------------------------------------------------------------------------
// What stays refused

TEST(LargeTensor, ReshapeRefusesAnInferredDimBeyondTheIntRange) {
  NetBuilder b = UpsampleNet();
  b.Layer("flat", "Reshape", {"big"}, {"flat"}, {{"shapes", Json::array{1, -1}}});
  EXPECT_EQ(BuildError(b),
            kAt +
                "\"flat\" (Reshape): cannot reshape input \"big\" of shape [1, 1, 46341, 46341] "
                "(2147488281 elements) with shapes [1, -1]: entry 1 would be 2147488281, more "
                "than 2147483647 on one axis");
  // Dims that fit are fine however large the count.
  NetBuilder ok = UpsampleNet();
  ok.Layer("flat", "Reshape", {"big"}, {"flat"}, {{"shapes", Json::array{kSide, 1, kSide}}});
  auto net = ok.Build(true);
  EXPECT_EQ(net->GetData("flat")->Count(0), kBig);
}

TEST(LargeTensor, CountsBeyondInt64AreRefused) {
  NetBuilder tile;
  tile.Input("data", {1, 1, 1, 1})
      .Layer("tile", "Tile", {"data"}, {"t"},
             {{"repeats", Json::array{2, 2, INT32_MAX, INT32_MAX}}});
  EXPECT_EQ(BuildError(tile), kAt +
                                  "\"tile\" (Tile): output \"t\" would have invalid shape "
                                  "[2, 2, 2147483647, 2147483647]");

  NetBuilder input;
  input.Input("data", {INT32_MAX, INT32_MAX, INT32_MAX}).Layer("relu", "ReLU", {"data"}, {"y"});
  EXPECT_EQ(BuildError(input),
            "net description: \"dims\" of net input \"data\": the product of dims [2147483647, "
            "2147483647, 2147483647] is beyond the int64 range");

  // A batch that takes an input beyond int64 is refused before anything changes.
  std::string error;
  const Json json = Json::parse(NetBuilder()
                                    .Input("data", {1, INT32_MAX, INT32_MAX})
                                    .Layer("relu", "ReLU", {"data"}, {"y"})
                                    .JsonText(),
                                error);
  ASSERT_EQ(error, "");
  Optimizer<float> net(json, "float");
  try {
    net.Reshape(false, 3);
    ADD_FAILURE() << "the reshape did not fail";
  } catch (const NetFormatError& e) {
    EXPECT_STREQ(e.what(),
                 "net description: batch 3 does not fit net input \"data\": the product of dims "
                 "[3, 2147483647, 2147483647] is beyond the int64 range");
  }
  EXPECT_EQ(net.GetInputData(0)->GetDims(), (std::vector<int>{1, INT32_MAX, INT32_MAX}));
  net.Reshape(false, 2);
  EXPECT_EQ(net.GetData("y")->Count(0), 2 * int64_t(INT32_MAX) * INT32_MAX);
}

TEST(LargeTensor, ConvolutionsRefuseWhatTheGemmCannotTake) {
  NetBuilder conv = UpsampleNet();
  conv.Layer("conv", "Convolution", {"big"}, {"c"},
             {{"num_output", 2}, {"kernel_size", 3}, {"pad", 1}});
  EXPECT_EQ(BuildError(conv),
            kAt +
                "\"conv\" (Convolution): output plane 46341x46341 of 2147488281 positions is "
                "more than 2147483647, the most a GEMM dimension takes; only a depthwise "
                "convolution runs on such planes");

  NetBuilder patch;
  patch.Input("data", {1, 65536, 200, 200})
      .Layer("conv", "Convolution", {"data"}, {"c"}, {{"num_output", 1}, {"kernel_size", 200}});
  EXPECT_EQ(BuildError(patch),
            kAt +
                "\"conv\" (Convolution): a patch of 65536 channels per group x kernel 200x200 "
                "= 2621440000 values is more than 2147483647, the most a GEMM dimension takes");

  NetBuilder deconv = UpsampleNet();
  deconv.Layer("deconv", "Deconvolution", {"big"}, {"d"}, {{"num_output", 1}, {"kernel_size", 2}});
  EXPECT_EQ(BuildError(deconv),
            kAt +
                "\"deconv\" (Deconvolution): input plane 46341x46341 of 2147488281 positions "
                "is more than 2147483647, the most a GEMM dimension takes");

  NetBuilder rows;
  rows.Input("data", {1, 1, 4, 4})
      .Layer("deconv", "Deconvolution", {"data"}, {"d"},
             {{"num_output", 65536}, {"kernel_h", 1}, {"kernel_w", 40000}, {"stride", 1}});
  EXPECT_EQ(BuildError(rows),
            kAt +
                "\"deconv\" (Deconvolution): a column of 65536 channels per group x kernel "
                "1x40000 = 2621440000 values is more than 2147483647, the most a GEMM "
                "dimension takes");
}

}  // namespace
}  // namespace qzdl
