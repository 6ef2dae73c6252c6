// ShuffleChannel. References: fixtures under fixtures/shuffle_channel from
// scripts/fixtures/make_shape_fixtures.py (torch reshape/transpose, checked
// there against nn.ChannelShuffle). Exact comparisons.
#include "runtime/layers/shuffle_channel.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "shape_test_support.h"

namespace qzdl {
namespace {

using test::shape::ExpectSame;
using test::shape::LayerError;
using test::shape::RunLayer;
using test::shape::Tensor;

TEST(ShuffleChannelLayer, MatchesTorch) {
  struct Case {
    const char* fixture;
    int group;
  };
  for (const Case& c : {Case{"g3", 3}, Case{"g2_rank3", 2}}) {
    SCOPED_TRACE(c.fixture);
    const std::string f = c.fixture;
    ExpectSame(RunLayer("ShuffleChannel", {{"group", c.group}},
                        test::shape::Fixture("shuffle_channel", f + "_in"))[0],
               test::shape::Fixture("shuffle_channel", f + "_out"));
  }
}

TEST(ShuffleChannelLayer, HandCase) {
  // 6 channels of one value each, group 2: [0 1 2 | 3 4 5] -> 0 3 1 4 2 5.
  const Tensor x{{1, 6, 1, 1}, {0, 1, 2, 3, 4, 5}};
  ExpectSame(RunLayer("ShuffleChannel", {{"group", 2}}, x)[0],
             Tensor{{1, 6, 1, 1}, {0, 3, 1, 4, 2, 5}});
  ExpectSame(RunLayer("ShuffleChannel", {{"group", 1}}, x)[0], x);
  ExpectSame(RunLayer("ShuffleChannel", {{"group", 6}}, x)[0], x);
}

// Shuffling with group g and then with group C / g restores the order.
TEST(ShuffleChannelLayer, InverseGroupRestoresTheInputAtAnyBatch) {
  test::NetBuilder b;
  b.Input("x", {1, 12, 5, 7})
      .Layer("s", "ShuffleChannel", {"x"}, {"t"}, {{"group", 3}})
      .Layer("u", "ShuffleChannel", {"t"}, {"y"}, {{"group", 4}});
  auto net = b.Build();
  net->ReshapeBatchNum(3, 0);
  const Tensor x{{3, 12, 5, 7}, test::RandomVector(3 * 12 * 35, 51)};
  test::shape::Feed(net.get(), x);
  ExpectSame(test::shape::Read(net.get(), "y"), x);
}

TEST(ShuffleChannelLayer, Errors) {
  const std::string head = "net description: layer \"l\" (ShuffleChannel): ";
  EXPECT_EQ(LayerError("ShuffleChannel", {{"group", 4}}, {1, 6, 2, 2}),
            head +
                "channels of input \"x\" of shape [1, 6, 2, 2] (6) are not divisible by "
                "group 4");
  EXPECT_EQ(LayerError("ShuffleChannel", {}, {1, 6, 2, 2}), head + "missing param \"group\"");
  EXPECT_EQ(LayerError("ShuffleChannel", {{"group", 0}}, {1, 6, 2, 2}),
            head + "param \"group\" must be >= 1, got 0");
  EXPECT_EQ(LayerError("ShuffleChannel", {{"group", 1}}, {6}),
            head + "input \"x\" of shape [6] has no channel axis");
}

}  // namespace
}  // namespace qzdl
