// Data items and the fetch operations: cursors, batches, the end of the
// stream with its lock, array lifetimes, limits and transform chains.
#include "dataloader/data_loader.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/net_builder.h"

namespace dataLoader {
namespace {

using qzdl::test::CaptureStdout;
using qzdl::test::NetBuilder;

// One input "data" of `dims`.
std::unique_ptr<qzdl::Net<float>> OneInputNet(const std::vector<int>& dims) {
  NetBuilder b;
  b.Input("data", dims).Layer("relu", "ReLU", {"data"}, {"out"});
  return b.Build();
}

// Inputs "zeta" [1, 2] then "alpha" [1, 3]: the input order differs from the
// key order.
std::unique_ptr<qzdl::Net<float>> TwoInputNet() {
  NetBuilder b;
  b.Input("zeta", {1, 2})
      .Input("alpha", {1, 3})
      .Layer("relu_z", "ReLU", {"zeta"}, {"z_out"})
      .Layer("relu_a", "ReLU", {"alpha"}, {"a_out"});
  return b.Build();
}

// `n` Binary samples of `name`; sample i holds i * 100 + j at element j.
std::vector<float>* AddSamples(DataLoader& loader, const std::string& name, int n) {
  const long count = loader.counts[name];
  auto* storage = new std::vector<float>(static_cast<size_t>(n * count));
  for (int i = 0; i < n; ++i) {
    for (long j = 0; j < count; ++j) (*storage)[i * count + j] = static_cast<float>(i * 100 + j);
  }
  loader.data_format = Binary;
  for (int i = 0; i < n; ++i) {
    loader.AddLoader(name, "");
    loader.loaders[name].back()->Load(storage->data() + i * count, loader.transforms[name]);
  }
  return storage;
}

// Whether another thread finds the fetch lock taken.
bool LockHeld(DataLoader& loader) {
  bool taken = false;
  std::thread other([&] {
    if (loader.mutex->try_lock()) {
      loader.mutex->unlock();
    } else {
      taken = true;
    }
  });
  other.join();
  return taken;
}

void ExpectSample(const float* array, long count, int sample, int slot = 0) {
  for (long j = 0; j < count; ++j) {
    ASSERT_EQ(array[slot * count + j], static_cast<float>(sample * 100 + j)) << sample << " " << j;
  }
}

TEST(DataLoaderTest, ConstructorMakesOneItemPerInput) {
  auto net = TwoInputNet();
  DataLoader loader(net.get(), Npy);
  EXPECT_EQ(loader.maximum, -1);
  EXPECT_EQ(loader.data_format, Npy);
  ASSERT_NE(loader.mutex, nullptr);
  EXPECT_EQ(loader.names, (std::vector<std::string>{"zeta", "alpha"}));
  EXPECT_EQ(loader.dims["zeta"], (std::vector<int>{1, 2}));
  EXPECT_EQ(loader.dims["alpha"], (std::vector<int>{1, 3}));
  EXPECT_EQ(loader.counts["zeta"], 2);
  EXPECT_EQ(loader.counts["alpha"], 3);
  for (const std::string name : {"zeta", "alpha"}) {
    EXPECT_TRUE(loader.loaders[name].empty());
    EXPECT_EQ(loader.cursors[name], 0);
    EXPECT_EQ(loader.buffers[name], nullptr);
    ASSERT_NE(loader.transforms[name], nullptr);
    EXPECT_TRUE(loader.transforms[name]->transforms.empty());
  }
  EXPECT_NE(loader.transforms["zeta"], loader.transforms["alpha"]);
  EXPECT_EQ(loader.GetSize(), 0);
}

TEST(DataLoaderTest, AddLoaderCopiesFormatAndShape) {
  auto net = OneInputNet({1, 3, 2, 2});
  DataLoader loader(net.get(), Image);
  loader.AddLoader("data", std::string("a.png"));
  int session = 0;
  loader.AddLoader("data", static_cast<void*>(&session));
  ASSERT_EQ(loader.loaders["data"].size(), 2u);
  Loader* by_path = loader.loaders["data"][0];
  Loader* by_pointer = loader.loaders["data"][1];
  EXPECT_EQ(by_path->file_path, "a.png");
  EXPECT_EQ(by_path->shared_ptr, nullptr);
  EXPECT_EQ(by_pointer->file_path, "");
  EXPECT_EQ(by_pointer->shared_ptr, &session);
  for (Loader* l : loader.loaders["data"]) {
    EXPECT_EQ(l->data_format, Image);
    EXPECT_EQ(l->data->GetName(), "data");
    EXPECT_EQ(l->data->GetDims(), (std::vector<int>{1, 3, 2, 2}));
    EXPECT_TRUE(l->empty());
  }
}

TEST(DataLoaderTest, AddLoaderToAnUnknownItemFails) {
  auto net = OneInputNet({1, 2});
  DataLoader loader(net.get(), Image);
  const std::string log = CaptureStdout(
      [&] { EXPECT_THROW(loader.AddLoader("ghost", std::string("x")), std::exception*); });
  EXPECT_NE(log.find(" ]: this data name dose not exist\n"), std::string::npos) << log;
  EXPECT_EQ(loader.loaders.count("ghost"), 0u);
}

TEST(DataLoaderTest, AddDataItemTouchesOnlyShapeListAndCursor) {
  auto net = OneInputNet({1, 2});
  DataLoader loader(net.get(), Binary);
  AddSamples(loader, "data", 3);
  ASSERT_NE(loader.GetBatch("data", 2), nullptr);
  float* buffer = loader.buffers["data"];
  TransformHandle* handle = loader.transforms["data"];

  loader.AddDataItem("data", {1, 4});
  EXPECT_EQ(loader.dims["data"], (std::vector<int>{1, 4}));
  EXPECT_TRUE(loader.loaders["data"].empty());
  EXPECT_EQ(loader.cursors["data"], 0);
  // Not touched: the count, the buffer, the chain and the names.
  EXPECT_EQ(loader.counts["data"], 2);
  EXPECT_EQ(loader.buffers["data"], buffer);
  EXPECT_EQ(loader.transforms["data"], handle);
  EXPECT_EQ(loader.names, std::vector<std::string>{"data"});

  // An item the net does not have gets no element count, but takes samples.
  loader.AddDataItem("extra", {5});
  EXPECT_EQ(loader.counts.count("extra"), 0u);
  loader.AddLoader("extra", std::string(""));
  EXPECT_EQ(loader.loaders["extra"].size(), 1u);
  EXPECT_EQ(loader.names, std::vector<std::string>{"data"});
}

TEST(DataLoaderTest, SetMaximum) {
  auto net = OneInputNet({1, 2});
  DataLoader loader(net.get(), Binary);
  AddSamples(loader, "data", 4);
  for (int bad : {0, -1, -100}) {
    const std::string log =
        CaptureStdout([&] { EXPECT_THROW(loader.SetMaximum(bad), std::exception*); });
    EXPECT_NE(log.find(" ]: Error: maximum limit of data loader must be larger than 0.\n"),
              std::string::npos)
        << log;
    EXPECT_EQ(loader.maximum, -1);
  }
  loader.SetMaximum(2);
  EXPECT_EQ(loader.maximum, 2);
  // Samples already added are not cut back.
  EXPECT_EQ(loader.GetSize(), 4);
}

TEST(DataLoaderTest, GetSizeCountsTheFirstItemInKeyOrder) {
  auto net = TwoInputNet();
  DataLoader loader(net.get(), Binary);
  AddSamples(loader, "zeta", 5);
  AddSamples(loader, "alpha", 2);
  EXPECT_EQ(loader.GetSize(), 2);
}

TEST(DataLoaderTest, TenSamplesInBatchesOfFour) {
  auto net = OneInputNet({1, 3});
  DataLoader loader(net.get(), Binary);
  AddSamples(loader, "data", 10);
  float* first = loader.GetBatch("data", 4);
  ASSERT_NE(first, nullptr);
  for (int i = 0; i < 4; ++i) ExpectSample(first, 3, i, i);
  EXPECT_EQ(loader.cursors["data"], 4);
  EXPECT_FALSE(LockHeld(loader));

  float* second = loader.GetBatch("data", 4);
  ASSERT_NE(second, nullptr);
  for (int i = 0; i < 4; ++i) ExpectSample(second, 3, 4 + i, i);
  EXPECT_EQ(loader.buffers["data"], second);

  EXPECT_EQ(loader.GetBatch("data", 4), nullptr);
  EXPECT_EQ(loader.cursors["data"], 8);
  // The end of the stream keeps the lock.
  EXPECT_TRUE(LockHeld(loader));
}

TEST(DataLoaderTest, TenSamplesInOneBatch) {
  auto net = OneInputNet({1, 3});
  DataLoader loader(net.get(), Binary);
  AddSamples(loader, "data", 10);
  float* all = loader.GetBatch("data", 10);
  ASSERT_NE(all, nullptr);
  for (int i = 0; i < 10; ++i) ExpectSample(all, 3, i, i);
  EXPECT_EQ(loader.GetBatch("data", 10), nullptr);
  EXPECT_EQ(loader.cursors["data"], 10);
}

TEST(DataLoaderTest, GetNextOverThreeSamples) {
  auto net = OneInputNet({1, 2});
  DataLoader loader(net.get(), Binary);
  AddSamples(loader, "data", 3);
  for (int i = 0; i < 3; ++i) {
    float* next = loader.GetNext("data");
    ASSERT_NE(next, nullptr) << i;
    ExpectSample(next, 2, i);
    EXPECT_EQ(loader.cursors["data"], i + 1);
  }
  EXPECT_EQ(loader.GetNext("data"), nullptr);
  EXPECT_EQ(loader.cursors["data"], 3);
  EXPECT_TRUE(LockHeld(loader));
}

TEST(DataLoaderTest, NegativeBatchWithANegativeSumEndsTheStream) {
  auto net = OneInputNet({1, 2});
  DataLoader loader(net.get(), Binary);
  AddSamples(loader, "data", 3);
  EXPECT_EQ(loader.GetBatch("data", -1), nullptr);
  EXPECT_EQ(loader.cursors["data"], 0);
  EXPECT_TRUE(LockHeld(loader));
}

TEST(DataLoaderTest, NegativeBatchWithAPositiveSumIsABadArrayLength) {
  auto net = OneInputNet({1, 2});
  DataLoader loader(net.get(), Binary);
  AddSamples(loader, "data", 10);
  ASSERT_NE(loader.GetBatch("data", 8), nullptr);
  EXPECT_THROW(loader.GetBatch("data", -3), std::bad_array_new_length);
}

TEST(DataLoaderTest, BatchSumWrapsInThirtyTwoBits) {
  auto net = OneInputNet({1, 2});
  DataLoader loader(net.get(), Binary);
  AddSamples(loader, "data", 3);
  loader.cursors["data"] = 1;
  // 1 + 2147483647 wraps to a negative sum: the end, not a huge batch.
  EXPECT_EQ(loader.GetBatch("data", 2147483647), nullptr);
}

TEST(DataLoaderTest, GetAllOnAnEmptyListIsAnEmptyArray) {
  auto net = OneInputNet({1, 2});
  DataLoader loader(net.get(), Binary);
  float* all = loader.GetAll("data");
  EXPECT_NE(all, nullptr);
  EXPECT_EQ(loader.buffers["data"], all);
  EXPECT_FALSE(LockHeld(loader));
}

TEST(DataLoaderTest, RandomAccessLeavesTheCursor) {
  auto net = OneInputNet({1, 2});
  DataLoader loader(net.get(), Binary);
  AddSamples(loader, "data", 5);
  ASSERT_NE(loader.GetNext("data"), nullptr);

  ExpectSample(loader.Get("data", 3), 2, 3);
  float* range = loader.GetFromTo("data", 1, 4);
  for (int i = 0; i < 3; ++i) ExpectSample(range, 2, 1 + i, i);
  float* all = loader.GetAll("data");
  for (int i = 0; i < 5; ++i) ExpectSample(all, 2, i, i);
  EXPECT_EQ(loader.cursors["data"], 1);
  // The stream goes on where it was.
  ExpectSample(loader.GetNext("data"), 2, 1);
  EXPECT_FALSE(LockHeld(loader));
}

TEST(DataLoaderTest, GetFromToBounds) {
  auto net = OneInputNet({1, 2});
  DataLoader loader(net.get(), Binary);
  AddSamples(loader, "data", 5);
  // Equal bounds load nothing.
  EXPECT_NE(loader.GetFromTo("data", 2, 2), nullptr);
  EXPECT_FALSE(LockHeld(loader));
  // A `to` below `from` is a bad array length.
  EXPECT_THROW(loader.GetFromTo("data", 3, 1), std::bad_array_new_length);
}

TEST(DataLoaderTest, IndexOutsideTheListIsAnErrorNotARead) {
  auto net = OneInputNet({1, 2});
  DataLoader loader(net.get(), Binary);
  AddSamples(loader, "data", 2);
  EXPECT_THROW(loader.Get("data", 2), std::out_of_range);
}

TEST(DataLoaderTest, EachFetchReplacesTheItemsArrayOnly) {
  auto net = TwoInputNet();
  DataLoader loader(net.get(), Binary);
  AddSamples(loader, "zeta", 3);
  AddSamples(loader, "alpha", 3);
  float* zeta = loader.Get("zeta", 1);
  float* alpha = loader.Get("alpha", 2);
  EXPECT_NE(zeta, alpha);
  // A fetch of one item leaves the other's array as it was.
  ExpectSample(zeta, 2, 1);
  ExpectSample(alpha, 3, 2);
  float* next_zeta = loader.GetNext("zeta");
  EXPECT_EQ(loader.buffers["zeta"], next_zeta);
  EXPECT_EQ(loader.buffers["alpha"], alpha);
  ExpectSample(alpha, 3, 2);
  ExpectSample(next_zeta, 2, 0);
  // Each item keeps its own cursor.
  EXPECT_EQ(loader.cursors["zeta"], 1);
  EXPECT_EQ(loader.cursors["alpha"], 0);
}

TEST(DataLoaderTest, UnknownNameInAFetchCreatesEmptyEntries) {
  auto net = OneInputNet({1, 2});
  DataLoader loader(net.get(), Binary);
  EXPECT_EQ(loader.GetNext("ghost"), nullptr);
  EXPECT_TRUE(loader.loaders.at("ghost").empty());
  EXPECT_EQ(loader.cursors.at("ghost"), 0);
  // "data" is still the first key.
  EXPECT_EQ(loader.GetSize(), 0);
}

TEST(DataLoaderTest, UnknownNameInABatch) {
  auto net = OneInputNet({1, 2});
  DataLoader loader(net.get(), Binary);
  EXPECT_EQ(loader.GetBatch("ghost", 1), nullptr);
  EXPECT_TRUE(loader.loaders.at("ghost").empty());
  EXPECT_EQ(loader.cursors.at("ghost"), 0);
}

TEST(DataLoaderTest, UnknownNameInARandomAccessFetch) {
  auto net = OneInputNet({1, 2});
  DataLoader loader(net.get(), Binary);
  // Count 0, empty list: an empty array.
  EXPECT_NE(loader.GetAll("ghost"), nullptr);
  EXPECT_EQ(loader.counts.at("ghost"), 0);
  EXPECT_NE(loader.buffers.at("ghost"), nullptr);
  EXPECT_TRUE(loader.loaders.at("ghost").empty());
}

TEST(DataLoaderTest, RandomSamplesOfOneItemAreEqual) {
  auto net = OneInputNet({1, 5});
  DataLoader loader(net.get(), Random);
  loader.AddLoader("data", std::string(""));
  loader.AddLoader("data", std::string(""));
  float* both = loader.GetAll("data");
  for (int j = 0; j < 5; ++j) EXPECT_EQ(both[j], both[5 + j]) << j;
  EXPECT_NEAR(both[0], -0.2591f, 5e-5);
}

TEST(DataLoaderTest, FetchingAfterTheEndIsStoppedWithAMessage) {
  auto net = OneInputNet({1, 2});
  DataLoader loader(net.get(), Binary);
  AddSamples(loader, "data", 1);
  EXPECT_EXIT(
      {
        fflush(stdout);
        dup2(2, 1);
        loader.GetNext("data");
        loader.GetNext("data");  // the end: the lock stays held
        loader.Get("data", 0);   // would wait for itself
      },
      ::testing::ExitedWithCode(255),
      "Error: data fetched from a data loader after the end of its data\\.");
}

TEST(DataLoaderTest, AddTransformAppendsInOrder) {
  auto net = OneInputNet({1, 3, 2, 2});
  DataLoader loader(net.get(), Image);
  ReverseChannel reverse;
  RGB2GRAY grey(true, 1);
  loader.AddTransform("data", &reverse);
  loader.AddTransform("data", &grey);
  EXPECT_EQ(loader.transforms["data"]->transforms, (std::vector<BasicTransform*>{&reverse, &grey}));
}

TEST(DataLoaderTest, ComposeTransformSkipsTypeZeroAndStopsAtNull) {
  auto net = OneInputNet({1, 3, 2, 2});
  DataLoader loader(net.get(), Image);
  BasicTransform skipped;
  ReverseChannel reverse;
  Resize resize(2, 2, 3);
  RGB2GRAY after_the_end(true, 1);
  loader.ComposeTransform("data", &skipped, &reverse, &skipped, &resize,
                          static_cast<BasicTransform*>(nullptr), &after_the_end,
                          static_cast<BasicTransform*>(nullptr));
  EXPECT_EQ(loader.transforms["data"]->transforms,
            (std::vector<BasicTransform*>{&reverse, &resize}));

  loader.ComposeTransform("data", &after_the_end, static_cast<BasicTransform*>(nullptr));
  EXPECT_EQ(loader.transforms["data"]->transforms.size(), 3u);
  EXPECT_EQ(loader.transforms["data"]->transforms.back(), &after_the_end);
}

}  // namespace
}  // namespace dataLoader
