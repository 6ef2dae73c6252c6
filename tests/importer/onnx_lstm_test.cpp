// LSTM and GRU exported by PyTorch
// (scripts/fixtures/make_recurrent_fixtures.py): bidirectional with the last
// hidden state, and one direction with initial states fed as inputs,
// against PyTorch's outputs; attributes the layers cannot express are
// refused naming the node.
#include <gtest/gtest.h>
#include <onnx/onnx_pb.h>

#include <string>
#include <vector>

#include "importer/onnx_test_util.h"
#include "runtime/json11.h"
#include "support/net_builder.h"
#include "support/onnx_tensor.h"

namespace qzdl::test {
namespace {

std::vector<float> Values(const std::string& name) { return ReadOnnxTensor(Fixture(name)).values; }

TEST(OnnxLSTM, BidirectionalMatchesPyTorch) {
  const OnnxImportResult r = ImportOnnxFile(Fixture("lstm_bi.onnx"));
  std::string types;
  const json11::Json layers = Layers(r);
  for (const auto& l : layers.array_items()) types += l["type"].string_value() + " ";
  EXPECT_NE(types.find("BiLSTM"), std::string::npos) << r.net_json;
  auto net = BuildNet(r);
  const auto out = RunNet(net.get(), {Values("lstm_bi_x.pb")});
  ASSERT_EQ(out.size(), 2u);
  EXPECT_LE(ToleranceRatio(out[0], Values("lstm_bi_y.pb"), 1e-6, 1e-5), 1.0);
  EXPECT_LE(ToleranceRatio(out[1], Values("lstm_bi_h.pb"), 1e-6, 1e-5), 1.0);
}

TEST(OnnxLSTM, BidirectionalGruMatchesPyTorch) {
  const OnnxImportResult r = ImportOnnxFile(Fixture("gru_bi.onnx"));
  EXPECT_NE(r.net_json.find("\"type\": \"Gru\""), std::string::npos) << r.net_json;
  EXPECT_NE(r.net_json.find("\"linear_before_reset\": true"), std::string::npos);
  auto net = BuildNet(r);
  const auto out = RunNet(net.get(), {Values("lstm_bi_x.pb")});
  ASSERT_EQ(out.size(), 2u);
  EXPECT_LE(ToleranceRatio(out[0], Values("gru_bi_y.pb"), 1e-6, 1e-5), 1.0);
  EXPECT_LE(ToleranceRatio(out[1], Values("gru_bi_h.pb"), 1e-6, 1e-5), 1.0);
}

TEST(OnnxLSTM, InitialStatesAsInputs) {
  const OnnxImportResult r = ImportOnnxFile(Fixture("lstm_state.onnx"));
  auto net = BuildNet(r);
  const auto out = RunNet(net.get(), {Values("lstm_state_x.pb"), Values("lstm_state_h0.pb"),
                                      Values("lstm_state_c0.pb")});
  EXPECT_LE(ToleranceRatio(out[0], Values("lstm_state_y.pb"), 1e-6, 1e-5), 1.0);
}

TEST(OnnxLSTM, UnsupportedAttributesAreRefused) {
  onnx::ModelProto base;
  ASSERT_TRUE(base.ParseFromString(ReadFile(Fixture("lstm_state.onnx"))));
  {
    onnx::ModelProto m = base;
    auto* a = m.mutable_graph()->mutable_node(0)->add_attribute();
    a->set_name("activations");
    a->set_type(onnx::AttributeProto::STRINGS);
    for (const char* s : {"Sigmoid", "Relu", "Tanh"}) a->add_strings(s);
    EXPECT_EQ(ImportErrorOf(m),
              "node \"/lstm/LSTM\" (LSTM): attribute \"activations\" value [\"Sigmoid\", \"Relu\", "
              "\"Tanh\"] is not supported (only Sigmoid, Tanh, Tanh per direction)");
  }
  {
    onnx::ModelProto m = base;
    auto* a = m.mutable_graph()->mutable_node(0)->add_attribute();
    a->set_name("layout");
    a->set_type(onnx::AttributeProto::INT);
    a->set_i(1);
    EXPECT_EQ(ImportErrorOf(m),
              "node \"/lstm/LSTM\" (LSTM): attribute \"layout\" value 1 is not supported (only 0, "
              "[sequence, batch, input], is supported)");
  }
}

}  // namespace
}  // namespace qzdl::test
