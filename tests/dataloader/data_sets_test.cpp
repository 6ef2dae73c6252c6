// The data set sources: list files, folders, binary and text sets, shared
// objects and random samples, with their limits and the dealing of samples
// over several inputs.
#include "dataloader/data_sets.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "dataloader/data_loader.h"
#include "dataloader/sample_files.h"
#include "support/net_builder.h"

namespace dataLoader {
namespace {

using qzdl::test::CaptureStdout;
using qzdl::test::NetBuilder;
using qzdl::test::Ramp;
using qzdl::test::TempDir;
using qzdl::test::WriteFloats;
using qzdl::test::WritePpm;
using qzdl::test::WriteText;

std::unique_ptr<qzdl::Net<float>> OneInputNet(const std::vector<int>& dims) {
  NetBuilder b;
  b.Input("data", dims).Layer("relu", "ReLU", {"data"}, {"out"});
  return b.Build();
}

// Inputs "zeta" [1, 2] then "alpha" [1, 3]: input order and key order differ.
std::unique_ptr<qzdl::Net<float>> TwoInputNet() {
  NetBuilder b;
  b.Input("zeta", {1, 2})
      .Input("alpha", {1, 3})
      .Layer("relu_z", "ReLU", {"zeta"}, {"z_out"})
      .Layer("relu_a", "ReLU", {"alpha"}, {"a_out"});
  return b.Build();
}

std::vector<std::string> Paths(DataLoader& loader, const std::string& name) {
  std::vector<std::string> paths;
  for (Loader* l : loader.loaders[name]) paths.push_back(l->file_path);
  return paths;
}

std::vector<float> Floats(const float* data, size_t n) {
  return std::vector<float>(data, data + n);
}

class DataSetsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = TempDir(std::string("sets_") +
                   ::testing::UnitTest::GetInstance()->current_test_info()->name());
  }
  std::string dir_;
};

TEST_F(DataSetsTest, ListLinesAreTakenAsWritten) {
  auto net = OneInputNet({1, 3, 2, 2});
  DataLoader loader(net.get(), Image);
  // Carriage returns, a blank line, blanks kept, and no final newline.
  WriteText(dir_ + "/list.txt", "a.png\r\nb c.png \r\n\r\nsub/d.png\ne.png");
  loader.LoadFromList("data", dir_ + "/list.txt");
  EXPECT_EQ(Paths(loader, "data"),
            (std::vector<std::string>{"a.png", "b c.png ", "", "sub/d.png", "e.png"}));
  EXPECT_EQ(loader.data_format, Image);
  for (Loader* l : loader.loaders["data"]) EXPECT_EQ(l->data_format, Image);
}

TEST_F(DataSetsTest, OnlyOneLineEndIsDropped) {
  auto net = OneInputNet({1, 3, 2, 2});
  DataLoader loader(net.get(), Image);
  WriteText(dir_ + "/list.txt", "a.png\r\r\nb.png\n");
  loader.LoadFromList("data", dir_ + "/list.txt");
  EXPECT_EQ(Paths(loader, "data"), (std::vector<std::string>{"a.png\r", "b.png"}));
}

TEST_F(DataSetsTest, ListStopsAtTheMaximum) {
  auto net = OneInputNet({1, 3, 2, 2});
  DataLoader loader(net.get(), Image);
  loader.SetMaximum(2);
  WriteText(dir_ + "/list.txt", "a\nb\nc\nd\n");
  loader.LoadFromList("data", dir_ + "/list.txt");
  EXPECT_EQ(Paths(loader, "data"), (std::vector<std::string>{"a", "b"}));
}

TEST_F(DataSetsTest, MissingListGivesNothingSilently) {
  auto net = OneInputNet({1, 3, 2, 2});
  DataLoader loader(net.get(), Image);
  const std::string out = CaptureStdout([&] {
    loader.LoadFromList("data", dir_ + "/absent.txt");
    loader.LoadFromListAnonymous(dir_ + "/absent.txt");
  });
  EXPECT_EQ(out, "");
  EXPECT_EQ(loader.GetSize(), 0);
}

TEST_F(DataSetsTest, AnonymousListDealsLinesOverTheInputs) {
  auto net = TwoInputNet();
  DataLoader loader(net.get(), Npy);
  std::string text;
  for (int i = 0; i < 5; ++i) {
    const std::string path = dir_ + "/s" + std::to_string(i) + ".npy";
    WriteText(path, "x");
    text += path + "\n";
  }
  WriteText(dir_ + "/list.txt", text);
  const std::string out = CaptureStdout([&] { loader.LoadFromListAnonymous(dir_ + "/list.txt"); });
  EXPECT_EQ(out, "");
  EXPECT_EQ(Paths(loader, "zeta"),
            (std::vector<std::string>{dir_ + "/s0.npy", dir_ + "/s2.npy", dir_ + "/s4.npy"}));
  EXPECT_EQ(Paths(loader, "alpha"), (std::vector<std::string>{dir_ + "/s1.npy", dir_ + "/s3.npy"}));
  // The size is that of the first key, "alpha", not of the first input.
  EXPECT_EQ(loader.GetSize(), 2);
}

TEST_F(DataSetsTest, AnonymousListWarnsAndKeepsMissingFiles) {
  auto net = OneInputNet({1, 3, 2, 2});
  DataLoader loader(net.get(), Image);
  const std::string present = dir_ + "/here.ppm";
  WritePpm(present, 2, 2, 1, 2, 3);
  WriteText(dir_ + "/list.txt", present + "\r\nnowhere.ppm\r\n");
  const std::string out = CaptureStdout([&] { loader.LoadFromListAnonymous(dir_ + "/list.txt"); });
  EXPECT_EQ(out, "[WARNING] file not exist nowhere.ppm in " + dir_ + "/list.txt\n");
  EXPECT_EQ(Paths(loader, "data"), (std::vector<std::string>{present, "nowhere.ppm"}));
  // The failure comes when the sample is loaded.
  EXPECT_NE(loader.Get("data", 0), nullptr);
  // Loading the missing file ends the run (status 255, the name logged).
  EXPECT_EXIT(loader.Get("data", 1), ::testing::ExitedWithCode(255), "");
}

TEST_F(DataSetsTest, AnonymousListLimitCountsAllInputs) {
  auto net = TwoInputNet();
  DataLoader loader(net.get(), Npy);
  loader.SetMaximum(4);
  std::string text;
  for (int i = 0; i < 12; ++i) text += "l" + std::to_string(i) + "\n";
  WriteText(dir_ + "/list.txt", text);
  CaptureStdout([&] { loader.LoadFromListAnonymous(dir_ + "/list.txt"); });
  EXPECT_EQ(Paths(loader, "zeta"), (std::vector<std::string>{"l0", "l2", "l4", "l6"}));
  EXPECT_EQ(Paths(loader, "alpha"), (std::vector<std::string>{"l1", "l3", "l5", "l7"}));
}

TEST_F(DataSetsTest, FolderEntriesWithAndWithoutTheFinalSlash) {
  auto net = OneInputNet({1, 3, 2, 2});
  const std::string folder = dir_ + "/images";
  ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
  ASSERT_EQ(mkdir((folder + "/sub").c_str(), 0755), 0);
  WritePpm(folder + "/a.ppm", 3, 3, 9, 8, 7);
  WriteText(folder + "/notes.txt", "not an image");

  DataLoader with_slash(net.get(), Image);
  with_slash.LoadFolder("data", folder + "/");
  std::vector<std::string> got = Paths(with_slash, "data");
  std::sort(got.begin(), got.end());
  // Every entry, whatever its type, except "." and "..".
  EXPECT_EQ(got,
            (std::vector<std::string>{folder + "/a.ppm", folder + "/notes.txt", folder + "/sub"}));

  DataLoader without(net.get(), Image);
  without.LoadFolder("data", folder);
  got = Paths(without, "data");
  std::sort(got.begin(), got.end());
  EXPECT_EQ(got,
            (std::vector<std::string>{folder + "a.ppm", folder + "notes.txt", folder + "sub"}));
  // Such a path names no file: its load fails.
  for (size_t i = 0; i < got.size(); ++i) {
    if (without.loaders["data"][i]->file_path == folder + "a.ppm") {
      EXPECT_EXIT(without.Get("data", static_cast<int>(i)), ::testing::ExitedWithCode(255), "");
    }
  }
}

TEST_F(DataSetsTest, FolderStopsAtTheMaximum) {
  auto net = OneInputNet({1, 3, 2, 2});
  const std::string folder = dir_ + "/many/";
  ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
  for (int i = 0; i < 6; ++i) WriteText(folder + std::to_string(i), "");
  DataLoader loader(net.get(), Image);
  loader.SetMaximum(4);
  loader.LoadFolder("data", folder);
  EXPECT_EQ(loader.GetSize(), 4);
}

TEST_F(DataSetsTest, FolderThatIsNoDirectory) {
  auto net = OneInputNet({1, 3, 2, 2});
  DataLoader loader(net.get(), Image);
  const std::string file = dir_ + "/plain";
  WriteText(file, "");
  const std::string real = dir_ + "/real/";
  ASSERT_EQ(mkdir(real.c_str(), 0755), 0);
  WriteText(real + "x.ppm", "");
  const std::string link = dir_ + "/link";
  ASSERT_EQ(symlink(real.c_str(), link.c_str()), 0);

  const std::string out = CaptureStdout([&] {
    loader.LoadFolder("data", file);
    loader.LoadFolder("data", dir_ + "/absent/");
    // A symbolic link to a directory is not taken as one.
    loader.LoadFolder("data", link);
  });
  EXPECT_EQ(out, "not a valid directory: " + file + "\nnot a valid directory: " + dir_ +
                     "/absent/\nnot a valid directory: " + link + "\n");
  EXPECT_EQ(loader.GetSize(), 0);
}

TEST_F(DataSetsTest, ChunkArithmetic) {
  // (file bytes / floats per record) / 4, truncating in each step.
  EXPECT_EQ(BinaryChunkCount(4004, 10), 100u);
  EXPECT_EQ(BinaryChunkCount(39, 3), 3u);
  EXPECT_EQ(BinaryChunkCount(11, 3), 0u);
  EXPECT_EQ(BinaryChunkCount(12, 3), 1u);
  EXPECT_EQ(BinaryChunkCount(100, 0), 0u);
  EXPECT_EQ(BinaryChunkCount(0, 5), 0u);
}

TEST_F(DataSetsTest, BinarySetWithSpareBytes) {
  auto net = OneInputNet({1, 10});
  DataLoader loader(net.get(), Image);
  WriteFloats(dir_ + "/set.bin", Ramp(1000), 4);
  loader.LoadFromBinary("data", dir_ + "/set.bin");
  EXPECT_EQ(loader.data_format, Binary);
  ASSERT_EQ(loader.GetSize(), 100);
  EXPECT_EQ(loader.loaders["data"][0]->data_format, Binary);
  EXPECT_EQ(Floats(loader.Get("data", 0), 10), Ramp(10));
  EXPECT_EQ(Floats(loader.Get("data", 99), 10), Ramp(10, 990));
  float* all = loader.GetAll("data");
  EXPECT_EQ(Floats(all, 1000), Ramp(1000));
  // The samples keep their storage: a second pass sees the same numbers.
  EXPECT_EQ(Floats(loader.GetBatch("data", 100), 1000), Ramp(1000));
}

TEST_F(DataSetsTest, BinarySetOfThirtyNineBytes) {
  auto net = OneInputNet({1, 3});
  DataLoader loader(net.get(), Image);
  WriteFloats(dir_ + "/set.bin", Ramp(9), 3);
  loader.LoadFromBinary("data", dir_ + "/set.bin");
  ASSERT_EQ(loader.GetSize(), 3);
  EXPECT_EQ(Floats(loader.Get("data", 2), 3), Ramp(3, 6));
}

TEST_F(DataSetsTest, BinarySetLimitAndEmptyFile) {
  auto net = OneInputNet({1, 2});
  DataLoader limited(net.get(), Binary);
  limited.SetMaximum(3);
  WriteFloats(dir_ + "/set.bin", Ramp(20));
  limited.LoadFromBinary("data", dir_ + "/set.bin");
  EXPECT_EQ(limited.GetSize(), 3);

  DataLoader empty(net.get(), Binary);
  WriteFloats(dir_ + "/empty.bin", {});
  const std::string out = CaptureStdout([&] { empty.LoadFromBinary("data", dir_ + "/empty.bin"); });
  EXPECT_EQ(out, "");
  EXPECT_EQ(empty.GetSize(), 0);
  EXPECT_EQ(empty.data_format, Binary);

  DataLoader short_file(net.get(), Binary);
  WriteFloats(dir_ + "/short.bin", {1.0f});
  short_file.LoadFromBinary("data", dir_ + "/short.bin");
  EXPECT_EQ(short_file.GetSize(), 0);
}

TEST_F(DataSetsTest, UnreadableBinarySetFails) {
  auto net = OneInputNet({1, 2});
  for (const std::string& path : {dir_ + "/absent.bin", dir_}) {
    SCOPED_TRACE(path);
    DataLoader loader(net.get(), Binary);
    const std::string out = CaptureStdout([&] {
      EXPECT_THROW(loader.LoadFromBinary("data", path), std::exception*);
      EXPECT_THROW(loader.LoadFromBinaryAnonymous(path), std::exception*);
    });
    EXPECT_NE(out.find(" ]: read bin file error\n"), std::string::npos) << out;
    EXPECT_EQ(loader.GetSize(), 0);
  }
}

TEST_F(DataSetsTest, AnonymousBinaryDealsChunksInInputOrder) {
  auto net = TwoInputNet();
  // Records of 2 + 3 floats; 5 records plus 2 spare floats: N = 5 chunks.
  WriteFloats(dir_ + "/set.bin", Ramp(27));
  DataLoader loader(net.get(), Npy);
  loader.LoadFromBinaryAnonymous(dir_ + "/set.bin");
  EXPECT_EQ(loader.data_format, Binary);
  // Five chunks, not five records: zeta, alpha, zeta, alpha, zeta.
  ASSERT_EQ(loader.loaders["zeta"].size(), 3u);
  ASSERT_EQ(loader.loaders["alpha"].size(), 2u);
  EXPECT_EQ(Floats(loader.GetAll("zeta"), 6), (std::vector<float>{0, 1, 5, 6, 10, 11}));
  EXPECT_EQ(Floats(loader.GetAll("alpha"), 6), (std::vector<float>{2, 3, 4, 7, 8, 9}));
}

TEST_F(DataSetsTest, AnonymousBinaryLimitCountsChunks) {
  auto net = TwoInputNet();
  WriteFloats(dir_ + "/set.bin", Ramp(50));
  DataLoader loader(net.get(), Binary);
  loader.SetMaximum(3);
  loader.LoadFromBinaryAnonymous(dir_ + "/set.bin");
  EXPECT_EQ(loader.loaders["zeta"].size(), 2u);
  EXPECT_EQ(loader.loaders["alpha"].size(), 1u);
}

TEST_F(DataSetsTest, AnonymousBinaryOnOneInputUsesTheWholeFile) {
  auto net = OneInputNet({1, 4});
  WriteFloats(dir_ + "/set.bin", Ramp(40), 7);
  DataLoader loader(net.get(), Binary);
  loader.LoadFromBinaryAnonymous(dir_ + "/set.bin");
  ASSERT_EQ(loader.GetSize(), 10);
  EXPECT_EQ(Floats(loader.GetAll("data"), 40), Ramp(40));
}

TEST_F(DataSetsTest, TextSetHoldsOneSamplePerInput) {
  auto net = TwoInputNet();
  WriteText(dir_ + "/set.txt", "1.5 -2\n3e1\t4 5.25 99 100\n");
  DataLoader loader(net.get(), Text);
  loader.LoadFromTxtAnonymous(dir_ + "/set.txt");
  EXPECT_EQ(loader.data_format, Binary);
  ASSERT_EQ(loader.loaders["zeta"].size(), 1u);
  ASSERT_EQ(loader.loaders["alpha"].size(), 1u);
  EXPECT_EQ(loader.loaders["zeta"][0]->data_format, Binary);
  EXPECT_EQ(Floats(loader.Get("zeta", 0), 2), (std::vector<float>{1.5f, -2.0f}));
  EXPECT_EQ(Floats(loader.Get("alpha", 0), 3), (std::vector<float>{30.0f, 4.0f, 5.25f}));
  // The numbers stay the samples' storage for later fetches.
  std::vector<float*> junk;
  for (int i = 0; i < 50; ++i) junk.push_back(new float[2]{-1.0f, -1.0f});
  EXPECT_EQ(Floats(loader.GetBatch("zeta", 1), 2), (std::vector<float>{1.5f, -2.0f}));
  for (float* p : junk) delete[] p;
}

TEST_F(DataSetsTest, TextSetStopsAtABadNumber) {
  auto net = TwoInputNet();
  WriteText(dir_ + "/set.txt", "7 8 9 oops 11");
  DataLoader loader(net.get(), Text);
  loader.LoadFromTxtAnonymous(dir_ + "/set.txt");
  EXPECT_EQ(Floats(loader.Get("zeta", 0), 2), (std::vector<float>{7.0f, 8.0f}));
  EXPECT_EQ(Floats(loader.Get("alpha", 0), 3), (std::vector<float>{9.0f, 0.0f, 0.0f}));
}

TEST_F(DataSetsTest, MissingTextSetGivesNoSamples) {
  auto net = TwoInputNet();
  DataLoader loader(net.get(), Text);
  const std::string out = CaptureStdout([&] { loader.LoadFromTxtAnonymous(dir_ + "/absent.txt"); });
  EXPECT_EQ(out, "");
  EXPECT_EQ(loader.GetSize(), 0);
  EXPECT_EQ(loader.data_format, Binary);
}

TEST_F(DataSetsTest, SharedPointersWithALimit) {
  auto net = OneInputNet({1, 3, 2, 2});
  int objects[6];
  std::vector<void*> pointers;
  for (int& o : objects) pointers.push_back(&o);

  DataLoader all(net.get(), Image);
  all.LoadFromSharedPtr("data", pointers);
  ASSERT_EQ(all.GetSize(), 6);
  EXPECT_EQ(all.loaders["data"][5]->shared_ptr, &objects[5]);
  EXPECT_EQ(all.loaders["data"][5]->file_path, "");

  DataLoader limited(net.get(), Image);
  limited.SetMaximum(4);
  limited.LoadFromSharedPtr("data", pointers);
  EXPECT_EQ(limited.GetSize(), 4);
}

TEST_F(DataSetsTest, SharedMemoryLimitLooksAtTheItemJustFilled) {
  auto net = TwoInputNet();
  int objects[7];
  std::vector<void*> pointers;
  for (int& o : objects) pointers.push_back(&o);
  DataLoader loader(net.get(), Image);
  loader.SetMaximum(3);
  loader.LoadFromSharedMemoryAnonymous(pointers);
  // zeta, alpha, zeta, alpha, zeta: the first input reaches 3 and ends it.
  ASSERT_EQ(loader.loaders["zeta"].size(), 3u);
  ASSERT_EQ(loader.loaders["alpha"].size(), 2u);
  EXPECT_EQ(loader.loaders["alpha"][1]->shared_ptr, &objects[3]);
  EXPECT_EQ(loader.loaders["zeta"][2]->shared_ptr, &objects[4]);
}

TEST_F(DataSetsTest, DefaultSetSizeUnderALimit) {
  // 100 sessions read, a maximum of 10 on a one-input net: 10 samples.
  auto net = OneInputNet({1, 3, 224, 224});
  std::vector<int> sessions(100);
  std::vector<void*> pointers;
  for (int& s : sessions) pointers.push_back(&s);
  DataLoader loader(net.get(), Image);
  loader.SetMaximum(10);
  loader.LoadFromSharedMemoryAnonymous(pointers);
  EXPECT_EQ(loader.GetSize(), 10);

  DataLoader unlimited(net.get(), Image);
  unlimited.LoadFromSharedMemoryAnonymous(pointers);
  EXPECT_EQ(unlimited.GetSize(), 100);
}

TEST_F(DataSetsTest, GenerateRandom) {
  auto net = TwoInputNet();
  DataLoader loader(net.get(), Image);
  loader.SetMaximum(1);
  loader.GenerateRandom(3);
  EXPECT_EQ(loader.data_format, Random);
  // The maximum does not apply.
  EXPECT_EQ(loader.loaders["zeta"].size(), 3u);
  EXPECT_EQ(loader.loaders["alpha"].size(), 3u);
  float* batch = loader.GetBatch("alpha", 3);
  ASSERT_NE(batch, nullptr);
  EXPECT_NEAR(batch[0], -0.2591f, 5e-5);
  EXPECT_EQ(batch[0], batch[3]);
  EXPECT_EQ(batch[2], batch[8]);

  DataLoader none(net.get(), Image);
  none.GenerateRandom(0);
  none.GenerateRandom(-4);
  EXPECT_EQ(none.GetSize(), 0);
  EXPECT_EQ(none.data_format, Random);
}

TEST_F(DataSetsTest, ImageListThroughTheFetch) {
  auto net = OneInputNet({1, 3, 2, 2});
  WritePpm(dir_ + "/a.ppm", 4, 4, 10, 20, 30);
  WritePpm(dir_ + "/b.ppm", 2, 2, 40, 50, 60);
  WriteText(dir_ + "/list.txt", dir_ + "/a.ppm\n" + dir_ + "/b.ppm\n");
  DataLoader loader(net.get(), Image);
  loader.LoadFromListAnonymous(dir_ + "/list.txt");
  float* batch = loader.GetBatch("data", 2);
  ASSERT_NE(batch, nullptr);
  // Planes blue, green, red of each image, one image behind the other.
  const std::vector<float> expected = {30, 30, 30, 30, 20, 20, 20, 20, 10, 10, 10, 10,
                                       60, 60, 60, 60, 50, 50, 50, 50, 40, 40, 40, 40};
  EXPECT_EQ(Floats(batch, 24), expected);
}

TEST_F(DataSetsTest, DemoSetOfTheExampleNet) {
  // examples/small_cnn/calibration, as scripts/make_demo_calibration.py
  // writes it; the list names the pictures from the repository root.
  char saved[4096];
  ASSERT_NE(getcwd(saved, sizeof(saved)), nullptr);
  ASSERT_EQ(chdir(QZDL_SOURCE_DIR), 0);
  auto net = OneInputNet({1, 3, 32, 32});
  DataLoader loader(net.get(), Image);
  const std::string out = CaptureStdout(
      [&] { loader.LoadFromListAnonymous("examples/small_cnn/calibration/list.txt"); });
  EXPECT_EQ(out, "");
  ASSERT_EQ(loader.GetSize(), 8);
  float* all = loader.GetAll("data");
  ASSERT_EQ(chdir(saved), 0);
  // Picture 0 is (r, g, b) = (8 x, 8 y, 128): planes blue, green, red.
  const int plane = 32 * 32;
  EXPECT_EQ(all[0], 128.0f);
  EXPECT_EQ(all[plane + 5 * 32 + 3], 40.0f);
  EXPECT_EQ(all[2 * plane + 5 * 32 + 3], 24.0f);
  // Picture 5 is a checkerboard of 10 and 240 in 8-pixel squares.
  const float* fifth = all + 5 * 3 * plane;
  EXPECT_EQ(fifth[0], 10.0f);
  EXPECT_EQ(fifth[8], 240.0f);
  EXPECT_EQ(fifth[2 * plane + 8 * 32 + 8], 10.0f);
}

}  // namespace
}  // namespace dataLoader
