// Flip and Repeat. References: fixtures under fixtures/flip_repeat from
// scripts/fixtures/make_more_layer_fixtures.py (torch.flip,
// torch.repeat_interleave), hand cases, errors. Only data movement: exact.
#include "runtime/layers/flip_repeat.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "elementwise_test_support.h"
#include "shape_test_support.h"

namespace qzdl {
namespace {

using json11::Json;
using test::shape::ExpectSame;
using test::shape::LayerError;
using test::shape::RunLayer;
using test::shape::Tensor;

Tensor FlipRepeatFixture(const std::string& name) {
  return test::shape::Fixture("flip_repeat", name);
}

TEST(FlipLayer, MatchesTorch) {
  struct Case {
    const char* fixture;
    Json::array axes;
  };
  for (const Case& c :
       {Case{"flip_a13", {1, 3}}, Case{"flip_rank3_neg", {-1, 0}}, Case{"flip_rank5", {2, 3}}}) {
    SCOPED_TRACE(c.fixture);
    const std::string f = c.fixture;
    ExpectSame(RunLayer("Flip", {{"axes", c.axes}}, FlipRepeatFixture(f + "_in"))[0],
               FlipRepeatFixture(f + "_out"));
  }
}

TEST(FlipLayer, HandCases) {
  const Tensor x{{2, 3}, {1, 2, 3, 4, 5, 6}};
  ExpectSame(RunLayer("Flip", {{"axes", Json::array{1}}}, x)[0],
             Tensor{{2, 3}, {3, 2, 1, 6, 5, 4}});
  ExpectSame(RunLayer("Flip", {{"axes", Json::array{0}}}, x)[0],
             Tensor{{2, 3}, {4, 5, 6, 1, 2, 3}});
  ExpectSame(RunLayer("Flip", {{"axes", Json::array{-2, -1}}}, x)[0],
             Tensor{{2, 3}, {6, 5, 4, 3, 2, 1}});
  ExpectSame(RunLayer("Flip", {{"axes", Json::array{}}}, x)[0], x);
  ExpectSame(RunLayer("Flip", {{"axes", Json::array{0}}}, Tensor{{4}, {1, 2, 3, 4}})[0],
             Tensor{{4}, {4, 3, 2, 1}});
}

// Flipping twice restores the input, at any batch.
TEST(FlipLayer, TwiceRestoresTheInputAtAnyBatch) {
  test::NetBuilder b;
  b.Input("x", {1, 6, 5, 7})
      .Layer("f", "Flip", {"x"}, {"t"}, {{"axes", Json::array{0, 2, 3}}})
      .Layer("g", "Flip", {"t"}, {"y"}, {{"axes", Json::array{-1, -2, -4}}});
  auto net = b.Build();
  net->ReshapeBatchNum(3, 0);
  const Tensor x{{3, 6, 5, 7}, test::RandomVector(3 * 6 * 35, 61)};
  test::shape::Feed(net.get(), x);
  EXPECT_EQ(test::shape::Read(net.get(), "t").dims, (std::vector<int>{3, 6, 5, 7}));
  ExpectSame(test::shape::Read(net.get(), "y"), x);
  auto* f = dynamic_cast<FlipLayer<float>*>(net->GetLayer("f"));
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(f->Axes(), (std::vector<int>{0, 2, 3}));
  EXPECT_EQ(f->GetTypeDetail(), "Flip");
}

TEST(FlipLayer, Errors) {
  const std::string head = "net description: layer \"l\" (Flip): ";
  EXPECT_EQ(LayerError("Flip", {}, {1, 2, 3}), head + "missing param \"axes\"");
  EXPECT_EQ(LayerError("Flip", {{"axes", Json::array{3}}}, {1, 2, 3}),
            head + "param \"axes\" [3]: axis 3 is out of range for input \"x\" of shape [1, 2, 3]");
  EXPECT_EQ(LayerError("Flip", {{"axes", Json::array{0, -4}}}, {1, 2, 3}),
            head +
                "param \"axes\" [0, -4]: axis -4 is out of range for input \"x\" of shape "
                "[1, 2, 3]");
  EXPECT_EQ(LayerError("Flip", {{"axes", Json::array{2, -1}}}, {1, 2, 3}),
            head + "param \"axes\" [2, -1] names axis 2 twice");
}

TEST(RepeatLayer, MatchesTorch) {
  struct Case {
    const char* fixture;
    int axis;
    int repeats;
  };
  for (const Case& c :
       {Case{"repeat_a1", 1, 3}, Case{"repeat_last", -1, 2}, Case{"repeat_a0", 0, 4}}) {
    SCOPED_TRACE(c.fixture);
    const std::string f = c.fixture;
    ExpectSame(RunLayer("Repeat", {{"axis", c.axis}, {"repeats", c.repeats}},
                        FlipRepeatFixture(f + "_in"))[0],
               FlipRepeatFixture(f + "_out"));
  }
}

TEST(RepeatLayer, HandCasesAndShapes) {
  const Tensor x{{2, 2}, {1, 2, 3, 4}};
  ExpectSame(RunLayer("Repeat", {{"axis", 1}, {"repeats", 3}}, x)[0],
             Tensor{{2, 6}, {1, 1, 1, 2, 2, 2, 3, 3, 3, 4, 4, 4}});
  ExpectSame(RunLayer("Repeat", {{"axis", 0}, {"repeats", 2}}, x)[0],
             Tensor{{4, 2}, {1, 2, 1, 2, 3, 4, 3, 4}});
  ExpectSame(RunLayer("Repeat", {{"axis", -2}, {"repeats", 1}}, x)[0], x);
  // The batch axis follows the net's batch; the repeated axis grows.
  test::NetBuilder b;
  b.Input("x", {1, 3, 4, 5}).Layer("r", "Repeat", {"x"}, {"y"}, {{"axis", 2}, {"repeats", 2}});
  auto net = b.Build();
  EXPECT_EQ(net->GetData("y")->GetDims(), (std::vector<int>{1, 3, 8, 5}));
  net->ReshapeBatchNum(4, 0);
  EXPECT_EQ(net->GetData("y")->GetDims(), (std::vector<int>{4, 3, 8, 5}));
  auto* r = dynamic_cast<RepeatLayer<float>*>(net->GetLayer("r"));
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->Axis(), 2);
  EXPECT_EQ(r->Repeats(), 2);
}

TEST(RepeatLayer, Errors) {
  const std::string head = "net description: layer \"l\" (Repeat): ";
  EXPECT_EQ(LayerError("Repeat", {{"repeats", 2}}, {1, 2, 3}), head + "missing param \"axis\"");
  EXPECT_EQ(LayerError("Repeat", {{"axis", 1}}, {1, 2, 3}), head + "missing param \"repeats\"");
  EXPECT_EQ(LayerError("Repeat", {{"axis", 1}, {"repeats", 0}}, {1, 2, 3}),
            head + "param \"repeats\" must be at least 1, got 0");
  EXPECT_EQ(LayerError("Repeat", {{"axis", -4}, {"repeats", 2}}, {1, 2, 3}),
            head + "param \"axis\" is -4, out of range for input \"x\" of shape [1, 2, 3]");
  EXPECT_EQ(LayerError("Repeat", {{"axis", 1}, {"repeats", 1 << 30}}, {1, 2, 3}),
            head +
                "param \"repeats\" 1073741824 makes axis 1 of input \"x\" of shape [1, 2, 3] "
                "too large");
}

// Numbers, strings, arrays and null in place of each param: refused with a
// message or run, never a crash.
TEST(FlipRepeatLayers, SurviveBadParamValues) {
  test::ExpectBadParamsHandled("Flip", {{"axes", Json::array{1, -1}}}, {{2, 3, 4}});
  test::ExpectBadParamsHandled("Repeat", {{"axis", 1}, {"repeats", 2}}, {{2, 3, 4}});
}

TEST(FlipRepeatLayers, SameBitsWithOneOrTwoThreads) {
  const test::Tensor x = test::RandomTensor({3, 8, 50, 40}, 63);
  test::ExpectThreadIndependent("Flip", {{"axes", Json::array{0, 2}}}, {x});
  test::ExpectThreadIndependent("Flip", {{"axes", Json::array{1, 3}}}, {x});
  test::ExpectThreadIndependent("Repeat", {{"axis", 2}, {"repeats", 3}}, {x});
  test::ExpectThreadIndependent("Repeat", {{"axis", 3}, {"repeats", 2}}, {x});
}

}  // namespace
}  // namespace qzdl
