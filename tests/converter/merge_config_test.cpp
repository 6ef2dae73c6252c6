// The share-config graph's two walks on hand-made graphs.
#include "converter/merge_config.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

namespace qzdl::mergeConfig {
namespace {

using Graph = std::map<std::string, graph_node>;

// A chain of layers, each feeding the next: (name, type) in order.
Graph Chain(const std::vector<std::pair<std::string, std::string>>& layers) {
  Graph g;
  for (size_t i = 0; i < layers.size(); ++i) {
    graph_node& n = g[layers[i].first];
    n.index = static_cast<int>(i);
    n.type = layers[i].second;
    if (i > 0) n.inputs.push_back(layers[i - 1].first);
    if (i + 1 < layers.size()) n.outputs.push_back(layers[i + 1].first);
  }
  return g;
}

TEST(MergeConfigIndicator, Tables) {
  MergeConfigIndicator indicator;
  EXPECT_EQ(indicator.independent.size(), 44u);
  EXPECT_EQ(indicator.follow.size(), 29u);
  EXPECT_EQ(indicator.merge, std::set<std::string>{"Concat"});
  EXPECT_TRUE(indicator.independent.count("Eltwise"));
  EXPECT_TRUE(indicator.independent.count("LogSoftmax"));
  EXPECT_TRUE(indicator.follow.count("ReLU"));
  EXPECT_TRUE(indicator.follow.count("Gather"));
  EXPECT_FALSE(indicator.follow.count("Concat"));
}

TEST(FindAllShareConfigLayer, AConvolutionFindsNothing) {
  MergeConfigIndicator indicator;
  const Graph g = Chain({{"conv", "Convolution"}, {"relu", "ReLU"}, {"cat", "Concat"}});
  std::set<int> found;
  FindAllShareConfigLayer(&indicator, g, "conv", found);
  EXPECT_TRUE(found.empty());
}

TEST(FindAllShareConfigLayer, StopsBeforeTheFirstOtherLayer) {
  MergeConfigIndicator indicator;
  const Graph g =
      Chain({{"cat", "Concat"}, {"relu", "ReLU"}, {"pool", "Pooling"}, {"conv", "Convolution"}});
  std::set<int> found;
  FindAllShareConfigLayer(&indicator, g, "cat", found);
  EXPECT_EQ(found, (std::set<int>{0, 1, 2}));
}

TEST(FindAllShareConfigLayer, AFollowLayerJoinsTwoConcats) {
  // conv0 -> relu -> cat1, relu -> cat2; cat1 and cat2 also read conv1.
  MergeConfigIndicator indicator;
  Graph g;
  g["conv0"] = {0, "Convolution", {}, {"relu"}};
  g["conv1"] = {1, "Convolution", {}, {"cat1", "cat2"}};
  g["relu"] = {2, "ReLU", {"conv0"}, {"cat1", "cat2"}};
  g["cat1"] = {3, "Concat", {"relu", "conv1"}, {}};
  g["cat2"] = {4, "Concat", {"relu", "conv1"}, {}};
  for (const char* start : {"cat1", "cat2", "relu"}) {
    std::set<int> found;
    FindAllShareConfigLayer(&indicator, g, start, found);
    EXPECT_EQ(found, (std::set<int>{2, 3, 4})) << start;
  }
  // Every name a node lists is a node: the walk made no new node.
  EXPECT_EQ(g.size(), 5u);
}

TEST(FindAllShareDataTypeLayer, TheStartLayerAndTheFollowLayersTouchingIt) {
  MergeConfigIndicator indicator;
  const Graph g = Chain({{"conv", "Convolution"}, {"relu", "ReLU"}, {"cat", "Concat"}});
  std::set<int> found;
  FindAllShareDataTypeLayer(&indicator, g, "conv", found);
  EXPECT_EQ(found, (std::set<int>{0, 1}));
  // A Concat stops the walk unless it is the start.
  found.clear();
  FindAllShareDataTypeLayer(&indicator, g, "cat", found);
  EXPECT_EQ(found, (std::set<int>{1, 2}));
  // Through a chain of follow layers, both ways.
  const Graph h = Chain({{"a", "Convolution"},
                         {"p", "Pooling"},
                         {"r", "Reshape"},
                         {"b", "InnerProduct"},
                         {"f", "Flatten"},
                         {"c", "Softmax"}});
  found.clear();
  FindAllShareDataTypeLayer(&indicator, h, "b", found);
  EXPECT_EQ(found, (std::set<int>{1, 2, 3, 4}));
}

}  // namespace
}  // namespace qzdl::mergeConfig
