// The items of the accuracy report: its own item lists and folders, the
// converter's lists with labels, and the converter's data sources delivered
// as the converter's data loader delivers them.
#include "dataloader/report_items.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "dataloader/data_loader.h"
#include "dataloader/data_source.h"
#include "dataloader/sample_files.h"
#include "runtime/run_support.h"
#include "support/net_builder.h"

namespace qzdl {
namespace {

// The message of the AccuracyError that `fn` throws.
template <typename Fn>
std::string ErrorOf(Fn fn) {
  try {
    fn();
  } catch (const AccuracyError& e) {
    return e.what();
  }
  return "(no error)";
}

std::unique_ptr<Net<float>> OneInputNet(const std::vector<int>& dims) {
  test::NetBuilder b;
  b.Input("data", dims).Layer("relu", "ReLU", {"data"}, {"out"});
  return b.Build();
}

std::unique_ptr<Net<float>> TwoInputNet() {
  test::NetBuilder b;
  b.Input("zeta", {1, 2})
      .Input("alpha", {1, 3})
      .Layer("relu_z", "ReLU", {"zeta"}, {"z_out"})
      .Layer("relu_a", "ReLU", {"alpha"}, {"a_out"});
  return b.Build();
}

// Every item's values (input by input) and labels.
struct ReadAll {
  std::vector<std::vector<std::vector<float>>> values;
  std::vector<int> labels;
};

ReadAll Read(ReportItems& items) {
  ReadAll all;
  for (int k = 0; k < items.Count(); ++k) {
    all.values.emplace_back();
    all.labels.push_back(-2);
    items.Read(k, &all.values.back(), &all.labels.back());
  }
  return all;
}

class ReportItemsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = test::TempDir(std::string("report_items_") +
                         ::testing::UnitTest::GetInstance()->current_test_info()->name());
  }

  std::unique_ptr<ReportItems> Open(Net<float>* net, const ReportSource& source) {
    return OpenReportItems(net, source, &description_);
  }

  std::string dir_, description_;
};

TEST(AccuracyItemList, PathsAndLabels) {
  // Tabs or blanks between fields, a carriage return dropped, blank lines
  // skipped.
  const std::vector<ReportItem> items =
      ParseItemList("a.npy\t3\r\n\n  \t\nb.npy   12\nd.npy 0", "l.txt", 1);
  ASSERT_EQ(items.size(), 3u);
  EXPECT_EQ(items[0].paths, (std::vector<std::string>{"a.npy"}));
  EXPECT_EQ(items[0].label, 3);
  EXPECT_EQ(items[0].where, "l.txt line 1");
  EXPECT_EQ(items[1].paths, (std::vector<std::string>{"b.npy"}));
  EXPECT_EQ(items[1].label, 12);
  EXPECT_EQ(items[1].where, "l.txt line 4");
  EXPECT_EQ(items[2].label, 0);
}

TEST(AccuracyItemList, WithoutLabelsAndSeveralInputs) {
  std::vector<ReportItem> items = ParseItemList("a.npy\nb.npy\n", "l.txt", 1);
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(items[1].label, -1);
  items = ParseItemList("a.npy x.npy 7\nb.npy y.npy 1\n", "l.txt", 2);
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(items[0].paths, (std::vector<std::string>{"a.npy", "x.npy"}));
  EXPECT_EQ(items[0].label, 7);
  items = ParseItemList("a.npy x.npy\n", "l.txt", 2);
  EXPECT_EQ(items[0].label, -1);
}

TEST(AccuracyItemList, Errors) {
  EXPECT_EQ(ErrorOf([] { ParseItemList("a.npy 1\nb.npy cat\n", "l.txt", 1); }),
            "l.txt line 2: the label \"cat\" is not a whole number from 0");
  EXPECT_EQ(ErrorOf([] { ParseItemList("a.npy -1\n", "l.txt", 1); }),
            "l.txt line 1: the label \"-1\" is not a whole number from 0");
  EXPECT_EQ(ErrorOf([] { ParseItemList("a.npy 2.5\n", "l.txt", 1); }),
            "l.txt line 1: the label \"2.5\" is not a whole number from 0");
  EXPECT_EQ(ErrorOf([] { ParseItemList("a.npy 99999999999\n", "l.txt", 1); }),
            "l.txt line 1: the label \"99999999999\" is not a whole number from 0");
  EXPECT_EQ(ErrorOf([] { ParseItemList("\na.npy 1\nb.npy\n", "l.txt", 1); }),
            "l.txt line 3: no label, though line 2 has one");
  EXPECT_EQ(ErrorOf([] { ParseItemList("a.npy\nb.npy 4\n", "l.txt", 1); }),
            "l.txt line 2: a label, though line 1 has none");
  EXPECT_EQ(ErrorOf([] { ParseItemList("a.npy b.npy 1\n", "l.txt", 1); }),
            "l.txt line 1: 3 fields, where a line holds one file per net input (1) and an "
            "optional label");
  EXPECT_EQ(ErrorOf([] { ParseItemList("a.npy\n", "l.txt", 2); }),
            "l.txt line 1: 1 field, where a line holds one file per net input (2) and an "
            "optional label");
  EXPECT_EQ(ErrorOf([] { ParseItemList("\n \n", "l.txt", 1); }), "l.txt: no items");
}

TEST(AccuracyItemList, FilesMustExist) {
  const std::string dir = test::TempDir("accuracy_list_files");
  test::WriteFile(dir + "/a.npy", "");
  test::WriteFile(dir + "/list.txt", dir + "/a.npy 1\n" + dir + "/nope.npy 2\n");
  EXPECT_EQ(
      ErrorOf([&] { ReadItemList(dir + "/list.txt", 1); }),
      dir + "/list.txt line 2: cannot read \"" + dir + "/nope.npy\": No such file or directory");
  EXPECT_EQ(ErrorOf([&] { ReadItemList(dir + "/none.txt", 1); }),
            "cannot read the list \"" + dir + "/none.txt\": No such file or directory");
}

TEST(AccuracyItemList, Folder) {
  const std::string dir = test::TempDir("accuracy_folder");
  for (const char* name : {"b.npy", "a.npy", "c.txt", "c.npy"})
    test::WriteFile(dir + "/" + name, "");
  const std::vector<ReportItem> items = FolderItems(dir);
  ASSERT_EQ(items.size(), 3u);
  EXPECT_EQ(items[0].paths[0], dir + "/a.npy");
  EXPECT_EQ(items[2].paths[0], dir + "/c.npy");
  EXPECT_EQ(items[2].where, dir + "/c.npy");
  EXPECT_EQ(items[2].label, -1);
  const std::string empty = test::TempDir("accuracy_folder_empty");
  EXPECT_EQ(ErrorOf([&] { FolderItems(empty); }),
            "the folder \"" + empty + "\" holds no .npy files");
  EXPECT_EQ(ErrorOf([&] { FolderItems(empty + "/none"); }),
            "cannot read the folder \"" + empty + "/none\": No such file or directory");
}

TEST_F(ReportItemsTest, ItemListFilesOfTheWrongKind) {
  const float four[4] = {1, 2, 3, 4};
  test::WriteFile(dir_ + "/short.npy", NpyFloatBytes(four, {1, 4}));
  test::WriteFile(dir_ + "/text.npy", "hello");
  test::WriteFile(dir_ + "/l.txt", dir_ + "/short.npy 1\n" + dir_ + "/text.npy 2\n");
  auto net = OneInputNet({1, 6});
  ReportSource source;
  source.list = dir_ + "/l.txt";
  auto items = Open(net.get(), source);
  EXPECT_EQ(description_, dir_ + "/l.txt");
  std::vector<std::vector<float>> values;
  int label = 0;
  EXPECT_EQ(ErrorOf([&] { items->Read(0, &values, &label); }),
            dir_ + "/l.txt line 1: \"" + dir_ +
                "/short.npy\" holds 4 floats; input \"data\" [1, 6] takes 6");
  EXPECT_EQ(ErrorOf([&] { items->Read(1, &values, &label); }),
            dir_ + "/l.txt line 2: cannot read \"" + dir_ + "/text.npy\": not an .npy file");
}

TEST_F(ReportItemsTest, TheLimitKeepsTheFirstItemsOfAList) {
  test::WriteNpy(dir_ + "/a.npy", {2}, {1, 2});
  test::WriteNpy(dir_ + "/b.npy", {2}, {3, 4});
  test::WriteFile(dir_ + "/l.txt", dir_ + "/a.npy 1\n" + dir_ + "/b.npy 0\n");
  auto net = OneInputNet({1, 2});
  ReportSource source;
  source.list = dir_ + "/l.txt";
  source.data.max_data_num = 1;
  auto items = Open(net.get(), source);
  ASSERT_EQ(items->Count(), 1);
  EXPECT_TRUE(items->Labelled());
  const ReadAll all = Read(*items);
  EXPECT_EQ(all.values[0][0], (std::vector<float>{1, 2}));
  EXPECT_EQ(all.labels[0], 1);
}

TEST_F(ReportItemsTest, ConverterListLabels) {
  for (const char* name : {"a.ppm", "b.ppm", "c\t7.ppm"})
    test::WritePpm(dir_ + "/" + name, 2, 2, 1, 2, 3);
  const std::string d = dir_ + "/";
  // A label behind a tab; a carriage return dropped; a path holding a tab
  // that names a file stays a path.
  test::WriteFile(d + "l.txt", d + "a.ppm\t3\r\n" + d + "b.ppm\t0\n" + d + "c\t7.ppm\t12");
  std::vector<ReportItem> items = ReadConverterList(d + "l.txt", 1, -1);
  ASSERT_EQ(items.size(), 3u);
  EXPECT_EQ(items[0].paths, (std::vector<std::string>{d + "a.ppm"}));
  EXPECT_EQ(items[0].label, 3);
  EXPECT_EQ(items[0].where, d + "l.txt line 1");
  EXPECT_EQ(items[1].label, 0);
  EXPECT_EQ(items[2].paths, (std::vector<std::string>{d + "c\t7.ppm"}));
  EXPECT_EQ(items[2].label, 12);
  // Without labels, and with the converter's limit of lines per input.
  test::WriteFile(d + "n.txt", d + "a.ppm\n" + d + "c\t7.ppm\n" + d + "b.ppm\n");
  items = ReadConverterList(d + "n.txt", 1, 2);
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(items[1].paths, (std::vector<std::string>{d + "c\t7.ppm"}));
  EXPECT_EQ(items[1].label, -1);
  // Two inputs: the lines are dealt out, the label on the first input's line.
  test::WriteFile(d + "two.txt",
                  d + "a.ppm\t5\n" + d + "b.ppm\n" + d + "b.ppm\t6\n" + d + "a.ppm\n");
  items = ReadConverterList(d + "two.txt", 2, -1);
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(items[1].paths, (std::vector<std::string>{d + "b.ppm", d + "a.ppm"}));
  EXPECT_EQ(items[1].label, 6);
  EXPECT_EQ(items[1].where, d + "two.txt line 3");
}

TEST_F(ReportItemsTest, ConverterListErrors) {
  const std::string d = dir_ + "/";
  test::WritePpm(d + "a.ppm", 2, 2, 1, 2, 3);
  auto error = [&](const std::string& text, int inputs) {
    test::WriteFile(d + "l.txt", text);
    return ErrorOf([&] { ReadConverterList(d + "l.txt", inputs, -1); });
  };
  EXPECT_EQ(error(d + "a.ppm\t1\n" + d + "a.ppm\tseven\n", 1),
            d + "l.txt line 2: the label \"seven\" is not a whole number from 0");
  EXPECT_EQ(error(d + "a.ppm\t1\n" + d + "none.ppm\t2\n", 1),
            d + "l.txt line 2: cannot read \"" + d + "none.ppm\": No such file or directory");
  EXPECT_EQ(error(d + "a.ppm\t1\n" + d + "a.ppm\n", 1),
            d + "l.txt line 2: no label, though line 1 has one");
  EXPECT_EQ(error(d + "a.ppm\n\n", 1), d + "l.txt line 2: a blank line, where a file is named");
  EXPECT_EQ(error(d + "a.ppm\n" + d + "a.ppm\t1\n", 2),
            d + "l.txt line 2: a label on the line of input 2; an item's label goes on the line "
                "of its first input");
  EXPECT_EQ(error(d + "a.ppm\n" + d + "a.ppm\n" + d + "a.ppm\n", 2),
            d + "l.txt: 3 lines for 2 net inputs; the lines are dealt out over the inputs, so "
                "their number must be a multiple of 2");
  EXPECT_EQ(error("", 1), d + "l.txt: no items");
  EXPECT_EQ(ErrorOf([&] { ReadConverterList(d + "none.txt", 1, -1); }),
            "cannot read the list \"" + d + "none.txt\": No such file or directory");
}

// The images of a converter list arrive as the converter's loader delivers
// them: scaled to the input, planes in file order (blue first) or reversed
// by -r 1, and labels kept aside.
TEST_F(ReportItemsTest, ConverterListImagesAsTheConverterTakesThem) {
  const std::string d = dir_ + "/";
  test::WritePpm(d + "a.ppm", 4, 4, 10, 20, 30);
  test::WritePpm(d + "b.ppm", 3, 5, 40, 50, 60);
  test::WriteFile(d + "plain.txt", d + "a.ppm\n" + d + "b.ppm\n");
  test::WriteFile(d + "labelled.txt", d + "a.ppm\t4\n" + d + "b.ppm\t1\n");
  auto net = OneInputNet({1, 3, 2, 2});
  for (bool rgb : {false, true}) {
    SCOPED_TRACE(rgb);
    dataLoader::DataSourceOptions options;
    options.calibration_set = d + "plain.txt";
    options.rgb = rgb;
    std::unique_ptr<dataLoader::DataLoader> loader(
        dataLoader::CreateDataLoader(net.get(), options));
    ReportSource source;
    source.data = options;
    source.data.calibration_set = d + "labelled.txt";
    auto items = Open(net.get(), source);
    EXPECT_EQ(description_, d + "labelled.txt");
    ASSERT_EQ(items->Count(), 2);
    EXPECT_TRUE(items->Labelled());
    const ReadAll all = Read(*items);
    EXPECT_EQ(all.labels, (std::vector<int>{4, 1}));
    for (int k = 0; k < 2; ++k) {
      const float* want = loader->Get("data", k);
      EXPECT_EQ(all.values[k][0], std::vector<float>(want, want + 12));
    }
    EXPECT_EQ(all.values[0][0][0], rgb ? 10.0f : 30.0f);
  }
}

TEST_F(ReportItemsTest, ConverterListFilesThatTheLoaderCannotTake) {
  const std::string d = dir_ + "/";
  test::WriteFile(d + "bad.png", "not a picture");
  test::WriteNpy(d + "five.npy", {5}, test::Ramp(5));
  test::WriteFile(d + "l.txt", d + "bad.png\t1\n" + d + "five.npy\t2\n");
  auto net = OneInputNet({1, 3, 2, 2});
  ReportSource source;
  source.data.calibration_set = d + "l.txt";
  auto images = Open(net.get(), source);
  std::vector<std::vector<float>> values;
  int label = 0;
  EXPECT_EQ(ErrorOf([&] { images->Read(0, &values, &label); }),
            d + "l.txt line 1: ReadImg: cannot decode image file \"" + d +
                "bad.png\": unknown image type");
  source.data.calibration_type = "npy";
  auto arrays = Open(net.get(), source);
  EXPECT_EQ(ErrorOf([&] { arrays->Read(1, &values, &label); }),
            d + "l.txt line 2: \"" + d +
                "five.npy\" holds 5 values; input \"data\" [1, 3, 2, 2] takes 12");
  EXPECT_EQ(ErrorOf([&] { arrays->Read(0, &values, &label); }),
            d + "l.txt line 1: cannot read \"" + d +
                "bad.png\": parse_npy_header: failed to find header keyword: 'fortran_order'");
  source.data.calibration_type = "jpg";
  EXPECT_EQ(ErrorOf([&] { Open(net.get(), source); }), "-t \"jpg\" is neither img nor npy");
}

TEST_F(ReportItemsTest, RandomData) {
  auto net = OneInputNet({1, 4});
  ReportSource source;
  source.data.random_input = 3;
  auto items = Open(net.get(), source);
  EXPECT_EQ(description_, "random data");
  ASSERT_EQ(items->Count(), 3);
  EXPECT_FALSE(items->Labelled());
  EXPECT_EQ(items->Where(1), "random data item 2");
  std::unique_ptr<dataLoader::DataLoader> loader(
      dataLoader::CreateDataLoader(net.get(), source.data));
  const float* want = loader->Get("data", 0);
  const ReadAll all = Read(*items);
  EXPECT_EQ(all.values[2][0], std::vector<float>(want, want + 4));
  EXPECT_EQ(all.labels[2], -1);
}

TEST_F(ReportItemsTest, BinaryAndTextSets) {
  auto net = TwoInputNet();  // "zeta" [1, 2], then "alpha" [1, 3]
  test::WriteFloats(dir_ + "/set.bin", test::Ramp(10));
  ReportSource source;
  source.data.binary_set = dir_ + "/set.bin";
  // 10 floats: two chunks, one per input.
  auto items = Open(net.get(), source);
  EXPECT_EQ(description_, dir_ + "/set.bin");
  ASSERT_EQ(items->Count(), 1);
  ReadAll all = Read(*items);
  EXPECT_EQ(all.values[0][0], (std::vector<float>{0, 1}));
  EXPECT_EQ(all.values[0][1], (std::vector<float>{2, 3, 4}));
  test::WriteFloats(dir_ + "/odd.bin", test::Ramp(15));
  source.data.binary_set = dir_ + "/odd.bin";
  EXPECT_EQ(ErrorOf([&] { Open(net.get(), source); }),
            "the binary set \"" + dir_ +
                "/odd.bin\" gives the net inputs different numbers of "
                "items: \"zeta\" 2, \"alpha\" 1");
  source.data.max_data_num = 2;  // two chunks
  EXPECT_EQ(Open(net.get(), source)->Count(), 1);
  test::WriteFloats(dir_ + "/short.bin", test::Ramp(4));
  source.data.binary_set = dir_ + "/short.bin";
  EXPECT_EQ(ErrorOf([&] { Open(net.get(), source); }),
            "the binary set \"" + dir_ +
                "/short.bin\" holds no whole item: an item takes 20 "
                "bytes (5 floats)");
  source.data.binary_set = dir_ + "/none.bin";
  EXPECT_EQ(ErrorOf([&] { Open(net.get(), source); }),
            "cannot read the binary set \"" + dir_ + "/none.bin\": No such file or directory");
  source.data.binary_set = dir_;
  EXPECT_EQ(ErrorOf([&] { Open(net.get(), source); }),
            "cannot read the binary set \"" + dir_ + "\": not a file");

  source.data.binary_set.clear();
  test::WriteText(dir_ + "/set.txt", "1 2\n3 4 5 6");
  source.data.txt_file = dir_ + "/set.txt";
  items = Open(net.get(), source);
  ASSERT_EQ(items->Count(), 1);
  all = Read(*items);
  EXPECT_EQ(all.values[0][0], (std::vector<float>{1, 2}));
  EXPECT_EQ(all.values[0][1], (std::vector<float>{3, 4, 5}));
  source.data.txt_file = dir_ + "/none.txt";
  EXPECT_EQ(ErrorOf([&] { Open(net.get(), source); }),
            "cannot read the text set \"" + dir_ + "/none.txt\": No such file or directory");
}

}  // namespace
}  // namespace qzdl
