// One sample's source: shape, the memory and random samples, the generators,
// and the image and NPY samples with their transform chains.
#include "dataloader/loader.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "dataloader/cnpy.h"
#include "dataloader/sample_files.h"
#include "dataloader/transform.h"
#include "runtime/image/qz_session.h"
#include "support/net_builder.h"

namespace dataLoader {
namespace {

using qzdl::test::CaptureStdout;
using qzdl::test::TempDir;
using qzdl::test::WriteNpy;
using qzdl::test::WritePpm;

// A loader of the given format and shape, as DataLoader::AddLoader makes it.
Loader* MakeLoader(DataFormat format, const std::vector<int>& dims, const std::string& path = "",
                   void* shared = nullptr) {
  Loader* loader = new Loader("", nullptr);
  loader->SetDataFormat(format);
  loader->SetFilePath(path);
  loader->SetSharedPtr(shared);
  loader->Reshape("data", dims);
  return loader;
}

// Runs `fn` with standard output sent to standard error, so that a death
// test can match what the process printed before it ended.
#define STDOUT_TO_STDERR(fn) \
  {                          \
    fflush(stdout);          \
    dup2(2, 1);              \
    fn;                      \
  }

TEST(LoaderTest, ShapeToString) {
  EXPECT_EQ(Loader::vector_int_to_string({}), "[]");
  EXPECT_EQ(Loader::vector_int_to_string({7}), "[7]");
  EXPECT_EQ(Loader::vector_int_to_string({1, 3, 224, 224}), "[1, 3, 224, 224]");
  EXPECT_EQ(Loader::vector_int_to_string({-1, 0}), "[-1, 0]");
}

TEST(LoaderTest, ReshapeNamesAndShapesWithoutMemory) {
  Loader loader("", nullptr);
  EXPECT_EQ(loader.data, nullptr);
  EXPECT_TRUE(loader.empty());
  loader.Reshape("x", {2, 3});
  ASSERT_NE(loader.data, nullptr);
  EXPECT_EQ(loader.data->GetName(), "x");
  EXPECT_EQ(loader.data->GetDims(), (std::vector<int>{2, 3}));
  EXPECT_EQ(loader.data->GetDataType(), "float");
  EXPECT_EQ(loader.data->GetCpuData(), nullptr);
  // A second Reshape keeps the same tensor.
  qzdl::Data<float>* first = loader.data;
  loader.Reshape("y", {4});
  EXPECT_EQ(loader.data, first);
  EXPECT_EQ(loader.data->GetName(), "y");
}

TEST(LoaderTest, LoadBeforeReshapeFails) {
  Loader loader("", nullptr);
  loader.SetDataFormat(Random);
  float out[4] = {};
  std::string log =
      CaptureStdout([&] { EXPECT_THROW(loader.Load(out, nullptr), std::exception*); });
  EXPECT_NE(log.find(" ]: please reshape loader first\n"), std::string::npos) << log;

  // An empty shape is refused the same way.
  loader.Reshape("x", {});
  log = CaptureStdout([&] { EXPECT_THROW(loader.Load(out, nullptr), std::exception*); });
  EXPECT_NE(log.find(" ]: please reshape loader first\n"), std::string::npos) << log;
}

TEST(LoaderTest, RandnFollowsTheMinimalStandardGenerator) {
  Loader* loader = MakeLoader(Random, {1, 6});
  std::vector<float> out(6, 99.0f);
  TransformHandle handle;
  loader->Load(out.data(), &handle);
  const float expected[6] = {-0.2591, 1.6016, -1.4990, 0.1748, 0.1193, -0.3020};
  for (int i = 0; i < 6; ++i) EXPECT_NEAR(out[i], expected[i], 5e-5) << i;
  // Load shared the caller's array into the sample.
  EXPECT_EQ(loader->data->GetCpuData(), out.data());
  EXPECT_FALSE(loader->empty());
}

TEST(LoaderTest, RandnIsTheSameAtEveryCall) {
  Loader* loader = MakeLoader(Random, {1, 3, 5, 5});
  std::vector<float> first(75), second(75);
  loader->Load(first.data(), nullptr);
  loader->Load(second.data(), nullptr);
  EXPECT_EQ(first, second);
  // Another sample and another item of the same size give the same tensor.
  Loader* other = MakeLoader(Random, {75});
  std::vector<float> third(75);
  other->Load(third.data(), nullptr);
  EXPECT_EQ(first, third);
  // A tensor of a different size starts with the same stream.
  Loader* small = MakeLoader(Random, {3});
  std::vector<float> fourth(3);
  small->Load(fourth.data(), nullptr);
  EXPECT_EQ(fourth[0], first[0]);
  EXPECT_EQ(fourth[2], first[2]);
}

TEST(LoaderTest, RandnOddLengthDropsTheLeftOver) {
  // The third value is the first of the second pair; the fourth is dropped,
  // so the fourth element of a longer tensor is not written here.
  Loader* loader = MakeLoader(Random, {3});
  std::vector<float> out(4, 42.0f);
  loader->Load(out.data(), nullptr);
  EXPECT_NEAR(out[2], -1.4990, 5e-5);
  EXPECT_EQ(out[3], 42.0f);
}

TEST(LoaderTest, RandnScalesAndShifts) {
  Loader* loader = MakeLoader(Random, {4});
  std::vector<float> out(4);
  loader->data->ShareData(out.data());
  loader->Randn(10.0f, 2.0f);
  EXPECT_NEAR(out[0], 10.0f + 2.0f * -0.2591f, 2e-4);
  EXPECT_NEAR(out[1], 10.0f + 2.0f * 1.6016f, 2e-4);
  EXPECT_NEAR(out[3], 10.0f + 2.0f * 0.1748f, 2e-4);
}

TEST(LoaderTest, RandomUsesTheStandardRand) {
  Loader* loader = MakeLoader(Binary, {5});
  std::vector<float> out(5);
  loader->data->ShareData(out.data());

  srand(7);
  loader->Random(0.0f, 1.0f);
  srand(7);
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(out[i], static_cast<float>(rand()) * 4.656613e-10f) << i;
    EXPECT_GE(out[i], 0.0f);
    EXPECT_LT(out[i], 1.0f);
  }

  srand(11);
  loader->Random(-3.0f, 5.0f);
  srand(11);
  for (int i = 0; i < 5; ++i) {
    const float r = static_cast<float>(rand());
    EXPECT_EQ(out[i], static_cast<float>(r / (2147483648.0 / 8.0) + -3.0)) << i;
    EXPECT_GE(out[i], -3.0f);
    EXPECT_LT(out[i], 5.0f);
  }
}

TEST(LoaderTest, ZerosFillsTheSample) {
  Loader* loader = MakeLoader(Binary, {2, 2});
  std::vector<float> out(4, 3.0f);
  loader->data->ShareData(out.data());
  loader->Zeros();
  EXPECT_EQ(out, std::vector<float>(4, 0.0f));
}

TEST(LoaderTest, BinaryFirstLoadTakesTheArrayLaterLoadsCopy) {
  Loader* loader = MakeLoader(Binary, {3});
  EXPECT_TRUE(loader->empty());
  std::vector<float> storage = {1.5f, 2.5f, 3.5f};
  loader->Load(storage.data(), nullptr);
  // Nothing copied: the array became the sample's storage.
  EXPECT_EQ(loader->data->GetCpuData(), storage.data());
  EXPECT_FALSE(loader->empty());

  std::vector<float> out(3, 0.0f);
  loader->Load(out.data(), nullptr);
  EXPECT_EQ(out, storage);
  EXPECT_EQ(loader->data->GetCpuData(), storage.data());
}

TEST(LoaderTest, OtherFormatsDeliverNothing) {
  Loader* loader = MakeLoader(Text, {2});
  std::vector<float> out = {7.0f, 8.0f};
  loader->Load(out.data(), nullptr);
  EXPECT_EQ(out, (std::vector<float>{7.0f, 8.0f}));
  EXPECT_TRUE(loader->empty());
}

class LoaderFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = TempDir(std::string("loader_") +
                   ::testing::UnitTest::GetInstance()->current_test_info()->name());
  }
  std::string dir_;
};

// BGR24 pixels split with order 0: planes blue, green, red.
void ExpectPlanes(const std::vector<float>& out, size_t plane, float p0, float p1, float p2) {
  ASSERT_EQ(out.size(), 3 * plane);
  for (size_t i = 0; i < plane; ++i) {
    ASSERT_NEAR(out[i], p0, 1e-4) << i;
    ASSERT_NEAR(out[plane + i], p1, 1e-4) << i;
    ASSERT_NEAR(out[2 * plane + i], p2, 1e-4) << i;
  }
}

TEST_F(LoaderFileTest, ImageWithoutTransformsArrivesAtTheItemSize) {
  const std::string path = dir_ + "/wide.ppm";
  WritePpm(path, 9, 5, 10, 20, 30);
  Loader* loader = MakeLoader(Image, {1, 3, 4, 6}, path);
  TransformHandle handle;
  std::vector<float> out(72, -1.0f);
  loader->Load(out.data(), &handle);
  ExpectPlanes(out, 24, 30.0f, 20.0f, 10.0f);
  // One step, in the image library: no Resize was added.
  EXPECT_TRUE(handle.transforms.empty());
}

TEST_F(LoaderFileTest, ImageWithTransformsThatFitAddsNoResize) {
  const std::string path = dir_ + "/fit.ppm";
  WritePpm(path, 4, 3, 10, 20, 30);
  Loader* loader = MakeLoader(Image, {1, 3, 3, 4}, path);
  TransformHandle handle;
  ReverseChannel reverse;
  handle.transforms.push_back(&reverse);
  std::vector<float> out(36);
  loader->Load(out.data(), &handle);
  ExpectPlanes(out, 12, 10.0f, 20.0f, 30.0f);
  EXPECT_EQ(handle.transforms.size(), 1u);
}

TEST_F(LoaderFileTest, ImageOfAnotherSizeAppendsOneResizeForGood) {
  const std::string big = dir_ + "/big.ppm";
  const std::string other = dir_ + "/other.ppm";
  WritePpm(big, 8, 6, 10, 20, 30);
  WritePpm(other, 5, 7, 40, 50, 60);
  TransformHandle handle;
  ReverseChannel reverse;
  handle.transforms.push_back(&reverse);

  Loader* first = MakeLoader(Image, {1, 3, 3, 4}, big);
  std::vector<float> out(36);
  first->Load(out.data(), &handle);
  ExpectPlanes(out, 12, 10.0f, 20.0f, 30.0f);
  ASSERT_EQ(handle.transforms.size(), 2u);
  EXPECT_EQ(handle.transforms[1]->type, 2);
  auto* resize = dynamic_cast<Resize*>(handle.transforms[1]);
  ASSERT_NE(resize, nullptr);
  EXPECT_EQ(resize->height, 3);
  EXPECT_EQ(resize->width, 4);
  EXPECT_EQ(resize->channels, 3);

  // The next sample of the item is resized by the same chain; none is added.
  Loader* second = MakeLoader(Image, {1, 3, 3, 4}, other);
  second->Load(out.data(), &handle);
  ExpectPlanes(out, 12, 40.0f, 50.0f, 60.0f);
  EXPECT_EQ(handle.transforms.size(), 2u);
}

TEST_F(LoaderFileTest, GreyItemThroughTheGreyConversion) {
  const std::string path = dir_ + "/grey.ppm";
  WritePpm(path, 4, 4, 100, 100, 100);
  Loader* loader = MakeLoader(Image, {1, 1, 4, 4}, path);
  TransformHandle handle;
  RGB2GRAY grey(true, 1);
  handle.transforms.push_back(&grey);
  std::vector<float> out(16);
  loader->Load(out.data(), &handle);
  for (float v : out) EXPECT_NEAR(v, 100.2f, 1e-4);
  EXPECT_EQ(handle.transforms.size(), 1u);
}

TEST_F(LoaderFileTest, SharedSessionDeliversAgain) {
  // The default set hands sessions to its samples; they stay usable.
  std::vector<unsigned char> pixels(2 * 2 * 3);
  for (size_t i = 0; i < pixels.size(); i += 3) {
    pixels[i] = 1;
    pixels[i + 1] = 2;
    pixels[i + 2] = 3;
  }
  qzg::QZSession* session = qzg::QZSession::CreateSession();
  session->ReadXGX24(pixels.data(), 2, 2, static_cast<qzg::QZSAMP>(2));
  Loader* loader = MakeLoader(Image, {1, 3, 2, 2}, "", session);
  TransformHandle handle;
  std::vector<float> out(12);
  loader->Load(out.data(), &handle);
  ExpectPlanes(out, 4, 1.0f, 2.0f, 3.0f);
  std::fill(out.begin(), out.end(), 0.0f);
  loader->Load(out.data(), &handle);
  ExpectPlanes(out, 4, 1.0f, 2.0f, 3.0f);
  session->Destroy();
}

TEST_F(LoaderFileTest, MissingImageIsAClearError) {
  Loader* loader = MakeLoader(Image, {1, 3, 2, 2}, dir_ + "/absent.png");
  TransformHandle handle;
  std::vector<float> out(12);
  // The run ends with status 255 after a log line on standard output that
  // names the file; the child's standard output is checked through a pipe.
  EXPECT_EXIT(
      {
        fflush(stdout);
        dup2(2, 1);  // make the log line visible to the death-test matcher
        loader->Load(out.data(), &handle);
      },
      ::testing::ExitedWithCode(255), "ReadImg: cannot decode image file \".*absent\\.png\"");
}

TEST_F(LoaderFileTest, ThreePlanesIntoAGreyItemWithoutTransformsEndTheProcess) {
  const std::string path = dir_ + "/colour.ppm";
  WritePpm(path, 2, 2, 1, 2, 3);
  Loader* loader = MakeLoader(Image, {1, 1, 2, 2}, path);
  TransformHandle handle;
  std::vector<float> out(4);
  EXPECT_EXIT(
      STDOUT_TO_STDERR(loader->Load(out.data(), &handle)), ::testing::ExitedWithCode(255),
      "Expect Count\\(\\)=4 shape=\\[1, 1, 2, 2\\] for input \"data\", bug got Count\\(\\)=12 "
      "shape=\\[1, 3, 2, 2\\] instead\\.");
}

TEST_F(LoaderFileTest, NpyOfTheSameCountIsTakenFlat) {
  const std::string path = dir_ + "/a.npy";
  WriteNpy(path, {4, 3}, qzdl::test::Ramp(12, 1.0f));
  Loader* loader = MakeLoader(Npy, {1, 3, 2, 2}, path);
  TransformHandle handle;
  std::vector<float> out(12);
  loader->Load(out.data(), &handle);
  EXPECT_EQ(out, qzdl::test::Ramp(12, 1.0f));
  EXPECT_EQ(loader->data->GetCpuData(), out.data());
}

TEST_F(LoaderFileTest, SharedNpyArray) {
  cnpy::NpyArray array({2, 2}, 4, false);
  const std::vector<float> values = {0.5f, -1.0f, 2.0f, 8.0f};
  std::memcpy(array.data<float>(), values.data(), 16);
  Loader* loader = MakeLoader(Npy, {4}, "", &array);
  std::vector<float> out(4);
  loader->Load(out.data(), nullptr);
  EXPECT_EQ(out, values);
}

TEST_F(LoaderFileTest, NpyOfAnotherCountEndsTheProcess) {
  const std::string path = dir_ + "/five.npy";
  WriteNpy(path, {5}, qzdl::test::Ramp(5));
  Loader* loader = MakeLoader(Npy, {1, 3, 2, 2}, path);
  TransformHandle handle;
  std::vector<float> out(12);
  EXPECT_EXIT(STDOUT_TO_STDERR(loader->Load(out.data(), &handle)), ::testing::ExitedWithCode(255),
              "Expect Count\\(\\)=12 shape=\\[1, 3, 2, 2\\] for input \"data\", bug got "
              "Count\\(\\)=5 shape=\\[1, 5\\] instead\\.");
}

TEST_F(LoaderFileTest, NpyOfWiderElementsIsCutToTheTensor) {
  // Eight-byte elements are not converted: only the first 4 * count bytes
  // are taken, and nothing is written past the tensor.
  const std::string path = dir_ + "/wide.npy";
  std::vector<float> raw = qzdl::test::Ramp(8, 1.0f);
  WriteNpy(path, {4}, raw, "<f8");
  Loader* loader = MakeLoader(Npy, {4}, path);
  std::vector<float> out(5, -7.0f);
  loader->Load(out.data(), nullptr);
  EXPECT_EQ(out, (std::vector<float>{1, 2, 3, 4, -7}));
}

TEST_F(LoaderFileTest, MissingNpyRaisesTheReadersError) {
  Loader* loader = MakeLoader(Npy, {4}, dir_ + "/absent.npy");
  std::vector<float> out(4);
  try {
    loader->Load(out.data(), nullptr);
    FAIL() << "no error";
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(std::string(e.what()), "npy_load: Unable to open file " + dir_ + "/absent.npy");
  }
}

}  // namespace
}  // namespace dataLoader
