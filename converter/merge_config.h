// Which layers must share a range or a data type: a graph of the net's
// layers by name, three tables of layer types, and two walks over the graph.
// The walks decide nothing about values: the merge of ranges uses one, the
// data-type marking of the saved model the other.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

namespace qzdl {
namespace mergeConfig {

struct graph_node {
  // Position in the float net's GetLayers.
  int index = 0;
  std::string type;
  // Layers feeding this one (nearest first) and fed by it (in layer order),
  // one entry per matching pair of a producer's output and a reader's input.
  std::vector<std::string> inputs;
  std::vector<std::string> outputs;
};

class MergeConfigIndicator {
 public:
  // Fills the three tables.
  MergeConfigIndicator();

  // Types that keep a range of their own (kept up to date, read by nothing).
  std::set<std::string> independent;
  // Types whose output takes over the range of their first input.
  std::set<std::string> follow;
  // Types that must have one range on all their tensors.
  std::set<std::string> merge;
};

// Adds to `found` the indices of the layers that must share a range with
// `layerName`: the connected region of merge and follow layers around it.
// A start layer of another type adds nothing.
void FindAllShareConfigLayer(MergeConfigIndicator* indicator,
                             std::map<std::string, graph_node> graph, std::string const& layerName,
                             std::set<int>& found);

// Adds to `found` the indices of the layers that must have the data type of
// `layerName`: the layer itself and the connected follow layers touching it.
void FindAllShareDataTypeLayer(MergeConfigIndicator* indicator,
                               std::map<std::string, graph_node> graph,
                               std::string const& layerName, std::set<int>& found);

}  // namespace mergeConfig
}  // namespace qzdl
