#include "importer/graph_order.h"

#include <onnx/onnx_pb.h>

#include <algorithm>
#include <functional>
#include <map>
#include <queue>
#include <set>
#include <string>
#include <vector>

#include "importer/mapping_context.h"

namespace qzdl::onnx_import {

namespace {

// The names a subgraph reads from the graphs around it: inputs of its nodes
// that neither its own nodes, inputs nor initializers define.
void OuterNames(const onnx::GraphProto& g, std::set<std::string>* names) {
  std::set<std::string> own;
  for (const auto& in : g.input()) own.insert(in.name());
  for (const auto& init : g.initializer()) own.insert(init.name());
  for (const auto& node : g.node())
    for (const auto& out : node.output()) own.insert(out);
  for (const auto& node : g.node()) {
    for (const auto& in : node.input())
      if (!in.empty() && !own.count(in)) names->insert(in);
    for (const auto& attr : node.attribute()) {
      std::set<std::string> inner;
      if (attr.has_g()) OuterNames(attr.g(), &inner);
      for (const auto& sub : attr.graphs()) OuterNames(sub, &inner);
      for (const auto& n : inner)
        if (!own.count(n)) names->insert(n);
    }
  }
}

// Every name node `node` reads: its inputs and what its subgraphs read from
// outside.
std::vector<std::string> ReadNames(const onnx::NodeProto& node) {
  std::vector<std::string> names;
  for (const auto& in : node.input())
    if (!in.empty()) names.push_back(in);
  std::set<std::string> outer;
  for (const auto& attr : node.attribute()) {
    if (attr.has_g()) OuterNames(attr.g(), &outer);
    for (const auto& sub : attr.graphs()) OuterNames(sub, &outer);
  }
  names.insert(names.end(), outer.begin(), outer.end());
  return names;
}

}  // namespace

void SortNodes(onnx::GraphProto* graph) {
  const int n = graph->node_size();
  std::map<std::string, int> producer;
  for (int k = 0; k < n; ++k)
    for (const auto& out : graph->node(k).output())
      if (!out.empty()) producer.emplace(out, k);
  // For each node, the nodes it waits for (by the name read).
  std::vector<std::vector<std::pair<int, std::string>>> waits(n);
  bool ordered = true;
  for (int k = 0; k < n; ++k) {
    for (const std::string& name : ReadNames(graph->node(k))) {
      auto it = producer.find(name);
      if (it == producer.end()) continue;
      waits[k].push_back({it->second, name});
      if (it->second >= k) ordered = false;
    }
  }
  if (ordered) return;

  std::vector<int> pending(n, 0);
  std::vector<std::vector<int>> readers(n);
  for (int k = 0; k < n; ++k) {
    std::set<int> from;
    for (const auto& w : waits[k]) from.insert(w.first);
    pending[k] = static_cast<int>(from.size());
    for (int p : from) readers[p].push_back(k);
  }
  std::priority_queue<int, std::vector<int>, std::greater<int>> ready;
  for (int k = 0; k < n; ++k)
    if (pending[k] == 0) ready.push(k);
  std::vector<int> order;
  order.reserve(static_cast<size_t>(n));
  while (!ready.empty()) {
    const int k = ready.top();
    ready.pop();
    order.push_back(k);
    for (int r : readers[k])
      if (--pending[r] == 0) ready.push(r);
  }
  if (static_cast<int>(order.size()) < n) {
    // Every node left waits for another node left: walking back from one
    // of them must come round to a node twice, which lies on a cycle; the
    // cycle's earliest node in the file is named, with the input it reads
    // from the cycle.
    auto back = [&](int at) -> const std::pair<int, std::string>& {
      for (const auto& w : waits[at])
        if (pending[w.first] > 0) return w;
      return waits[at].front();  // not reached: a node left waits for one
    };
    std::vector<bool> seen(static_cast<size_t>(n), false);
    int k = 0;
    while (pending[k] == 0) ++k;
    while (!seen[k]) {
      seen[k] = true;
      k = back(k).first;
    }
    int first = k;
    for (int at = back(k).first; at != k; at = back(at).first) first = std::min(first, at);
    k = first;
    const std::string name = back(k).second;
    throw OnnxImportError(NodeTitle(graph->node(k), k) + ": input " + Quote(name) +
                          " depends on the node's own output (the graph has a cycle)");
  }
  google::protobuf::RepeatedPtrField<onnx::NodeProto> sorted;
  sorted.Reserve(n);
  for (int k : order) sorted.Add()->Swap(graph->mutable_node(k));
  graph->mutable_node()->Swap(&sorted);
}

}  // namespace qzdl::onnx_import
