// Graphs whose nodes are not in dependency order: sorted at import, and a
// real cycle refused naming a node on it.
#include <gtest/gtest.h>
#include <onnx/onnx_pb.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "importer/onnx_test_util.h"
#include "runtime/json11.h"

namespace qzdl::test {
namespace {

std::vector<std::string> LayerNames(const OnnxImportResult& r) {
  std::vector<std::string> names;
  const json11::Json layers = Layers(r);
  for (const auto& l : layers.array_items()) names.push_back(l["name"].string_value());
  return names;
}

TEST(OnnxGraphOrder, NodesAfterTheirReadersAreSorted) {
  // y = sigmoid(relu(x) + x), listed as [add, sig, relu]: relu moves first,
  // the others keep their order.
  onnx::ModelProto m = EmptyModel();
  AddFloatInput(m.mutable_graph(), "x", {1, 4});
  AddNode(&m, "Add", "add", {"r", "x"}, {"s"});
  AddNode(&m, "Sigmoid", "sig", {"s"}, {"y"});
  AddNode(&m, "Relu", "relu", {"x"}, {"r"});
  AddOutput(&m, "y");
  const OnnxImportResult r = ImportOnnxBytes(m.SerializeAsString(), "m.onnx", ".");
  EXPECT_EQ(LayerNames(r), (std::vector<std::string>{"relu", "add", "sig"})) << r.net_json;
  auto net = BuildNet(r);
  const std::vector<float> x = {-2.0f, -0.5f, 0.0f, 1.5f};
  const auto out = RunNet(net.get(), {x});
  ASSERT_EQ(out[0].size(), 4u);
  for (size_t i = 0; i < x.size(); ++i) {
    const float s = std::max(x[i], 0.0f) + x[i];
    EXPECT_FLOAT_EQ(out[0][i], 1.0f / (1.0f + std::exp(-s))) << i;
  }
}

TEST(OnnxGraphOrder, OrderedGraphsKeepTheirOrder) {
  // Two independent branches in file order b, a stay b, a.
  onnx::ModelProto m = EmptyModel();
  AddFloatInput(m.mutable_graph(), "x", {1, 4});
  AddNode(&m, "Relu", "b", {"x"}, {"rb"});
  AddNode(&m, "Sigmoid", "a", {"x"}, {"ra"});
  AddNode(&m, "Add", "sum", {"ra", "rb"}, {"y"});
  AddOutput(&m, "y");
  const OnnxImportResult r = ImportOnnxBytes(m.SerializeAsString(), "m.onnx", ".");
  EXPECT_EQ(LayerNames(r), (std::vector<std::string>{"b", "a", "sum"}));
}

TEST(OnnxGraphOrder, ACycleNamesANodeOnIt) {
  // add reads t2, which relu computes from add's own output; "tail" only
  // follows the cycle and is not named.
  onnx::ModelProto m = EmptyModel();
  AddFloatInput(m.mutable_graph(), "x", {1, 4});
  AddNode(&m, "Sigmoid", "tail", {"t2"}, {"y"});
  AddNode(&m, "Add", "add", {"x", "t2"}, {"t1"});
  AddNode(&m, "Relu", "relu", {"t1"}, {"t2"});
  AddOutput(&m, "y");
  EXPECT_EQ(ImportErrorOf(m),
            "node \"add\" (Add): input \"t2\" depends on the node's own output (the graph has a "
            "cycle)");
}

TEST(OnnxGraphOrder, ANodeReadingItsOwnOutputIsACycle) {
  onnx::ModelProto m = EmptyModel();
  AddFloatInput(m.mutable_graph(), "x", {1, 4});
  AddNode(&m, "Add", "self", {"x", "t"}, {"t"});
  AddOutput(&m, "t");
  EXPECT_EQ(ImportErrorOf(m),
            "node \"self\" (Add): input \"t\" depends on the node's own output (the graph has a "
            "cycle)");
}

TEST(OnnxGraphOrder, AMissingNameIsStillReportedAsMissing) {
  // Out of order and reading a name nothing defines: the sort leaves the
  // name alone and the reference check reports it.
  onnx::ModelProto m = EmptyModel();
  AddFloatInput(m.mutable_graph(), "x", {1, 4});
  AddNode(&m, "Add", "add", {"r", "w"}, {"y"});
  AddNode(&m, "Relu", "relu", {"x"}, {"r"});
  AddOutput(&m, "y");
  EXPECT_EQ(ImportErrorOf(m),
            "node \"add\" (Add): input \"w\" is not a graph input, an initializer or an output "
            "of an earlier node");
}

}  // namespace
}  // namespace qzdl::test
