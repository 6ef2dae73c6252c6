#include "importer/onnx_test_util.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cmath>
#include <fstream>
#include <sstream>

#include "runtime/create_net.h"
#include "support/net_builder.h"

namespace qzdl::test {

bool FileExists(const std::string& path) { return std::ifstream(path).good(); }

onnx::ModelProto EmptyModel(int opset) {
  onnx::ModelProto m;
  m.set_ir_version(7);
  auto* op = m.add_opset_import();
  op->set_domain("");
  op->set_version(opset);
  m.mutable_graph()->set_name("g");
  return m;
}

void AddFloatInput(onnx::GraphProto* g, const std::string& name, const std::vector<int64_t>& dims) {
  auto* in = g->add_input();
  in->set_name(name);
  auto* tt = in->mutable_type()->mutable_tensor_type();
  tt->set_elem_type(onnx::TensorProto::FLOAT);
  for (int64_t d : dims) tt->mutable_shape()->add_dim()->set_dim_value(d);
}

void AddFloatInit(onnx::GraphProto* g, const std::string& name, const std::vector<int64_t>& dims,
                  const std::vector<float>& values) {
  auto* t = g->add_initializer();
  t->set_name(name);
  t->set_data_type(onnx::TensorProto::FLOAT);
  for (int64_t d : dims) t->add_dims(d);
  for (float x : values) t->add_float_data(x);
}

std::string ImportErrorOf(const onnx::ModelProto& m, const OnnxImportOptions& options) {
  try {
    ImportOnnxBytes(m.SerializeAsString(), "m.onnx", ".", options);
  } catch (const OnnxImportError& e) {
    return e.what();
  }
  return "no error";
}

void AddOutput(onnx::ModelProto* m, const std::string& name) {
  auto* out = m->mutable_graph()->add_output();
  out->set_name(name);
  out->mutable_type()->mutable_tensor_type()->set_elem_type(onnx::TensorProto::FLOAT);
}

onnx::NodeProto* AddNode(onnx::ModelProto* m, const std::string& op, const std::string& name,
                         const std::vector<std::string>& inputs,
                         const std::vector<std::string>& outputs) {
  auto* n = m->mutable_graph()->add_node();
  n->set_op_type(op);
  n->set_name(name);
  for (const auto& in : inputs) n->add_input(in);
  for (const auto& out : outputs) n->add_output(out);
  return n;
}

std::string Fixture(const std::string& name) {
  return std::string(QZDL_TEST_DATA_DIR) + "/onnx/" + name;
}

json11::Json Layers(const OnnxImportResult& r) {
  std::string err;
  const json11::Json net = json11::Json::parse(r.net_json, err);
  EXPECT_EQ(err, "");
  return net["layers"];
}

std::string Types(const OnnxImportResult& r) {
  std::string types;
  const json11::Json layers = Layers(r);
  for (const auto& l : layers.array_items()) types += l["type"].string_value() + " ";
  return types;
}

std::unique_ptr<Net<float>> BuildNet(const OnnxImportResult& result) {
  std::string weights = SerializeWeights(result.blobs);
  return std::unique_ptr<Net<float>>(CreateNetFromContent<float>(
      result.net_json, weights.data(), static_cast<int>(weights.size()), false, false, 0, 1));
}

std::vector<std::vector<float>> RunNet(Net<float>* net,
                                       const std::vector<std::vector<float>>& inputs) {
  EXPECT_EQ(net->GetInputCount(), static_cast<int>(inputs.size()));
  for (int k = 0; k < net->GetInputCount() && k < static_cast<int>(inputs.size()); ++k) {
    std::vector<float> v = inputs[k];
    EXPECT_EQ(static_cast<int64_t>(v.size()), net->GetInputData(k)->Count(0)) << "input " << k;
    v.resize(net->GetInputData(k)->Count(0));
    net->SetFloatInputData(v.data(), k);
  }
  net->ForwardAll();
  std::vector<std::vector<float>> outs;
  for (int k = 0; k < net->GetOutCount(); ++k) {
    const Data<float>* d = net->GetOutputData(k);
    const float* p = net->GetFloatOutputData(k);
    outs.emplace_back(p, p + d->Count(0));
  }
  return outs;
}

ToolRun RunOnnx2Net(const std::string& args) {
  const std::string dir = TempDir("tool_io");
  const std::string out = dir + "/stdout", err = dir + "/stderr";
  const std::string cmd =
      std::string("'") + QZDL_ONNX2NET + "' " + args + " >'" + out + "' 2>'" + err + "'";
  const int raw = system(cmd.c_str());
  ToolRun run;
  run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  run.out = ReadFile(out);
  run.err = ReadFile(err);
  return run;
}

double Cosine(const std::vector<float>& a, const std::vector<float>& b) {
  double ab = 0, aa = 0, bb = 0;
  for (size_t k = 0; k < a.size() && k < b.size(); ++k) {
    ab += static_cast<double>(a[k]) * b[k];
    aa += static_cast<double>(a[k]) * a[k];
    bb += static_cast<double>(b[k]) * b[k];
  }
  return ab / std::sqrt(aa * bb);
}

double MaxRelError(const std::vector<float>& got, const std::vector<float>& want) {
  double scale = 0, worst = 0;
  for (float w : want) scale = std::max(scale, std::fabs(static_cast<double>(w)));
  for (size_t k = 0; k < got.size() && k < want.size(); ++k) {
    worst = std::max(worst, std::fabs(static_cast<double>(got[k]) - want[k]));
  }
  return scale > 0 ? worst / scale : worst;
}

}  // namespace qzdl::test
