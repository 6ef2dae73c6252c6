// Products of two computed tensors: MatMul whose second operand is not a
// constant imports as BatchMatrixMul, Gemm as the layer Gemm with B (and C)
// as inputs. A PyTorch self-attention block
// against PyTorch's output, Gemm's alpha, beta, transposes and C, and the
// refusals with their exact messages.
#include <gtest/gtest.h>
#include <onnx/onnx_pb.h>

#include <map>
#include <string>
#include <vector>

#include "importer/onnx_test_util.h"
#include "runtime/json11.h"
#include "support/net_builder.h"
#include "support/onnx_tensor.h"

namespace qzdl::test {
namespace {

// Q, K, V projections, softmax(Q K^T / sqrt(6)) V over 2 heads and the output
// projection (scripts/fixtures/make_attention_fixtures.py), exported with a
// dynamic batch and run at batch 2.
TEST(OnnxAttention, SelfAttentionBlockMatchesPyTorch) {
  const OnnxImportResult r = ImportOnnxFile(Fixture("attention.onnx"));
  std::map<std::string, int> count;
  const json11::Json layers = Layers(r);
  for (const auto& l : layers.array_items()) {
    ++count[l["type"].string_value()];
    if (l["type"].string_value() == "Reshape") {
      const int batch = l["param"]["shapes"][0].int_value();
      EXPECT_TRUE(batch == 0 || batch == -1) << l.dump();
    }
  }
  EXPECT_EQ(count["BatchMatrixMul"], 2) << r.net_json;  // scores and their use on V
  EXPECT_EQ(count["InnerProduct"], 4);                  // the projections, biases joined
  EXPECT_EQ(count["Softmax"], 1);
  EXPECT_EQ(count["Constant"], 0);
  const OnnxTensor x = ReadOnnxTensor(Fixture("attention_input.pb"));
  const OnnxTensor y = ReadOnnxTensor(Fixture("attention_output.pb"));
  ASSERT_EQ(x.dims, (std::vector<int64_t>{2, 6, 12}));
  auto net = BuildNet(r);
  net->ReshapeBatchNum(2, 0);
  const auto out = RunNet(net.get(), {x.values});
  ASSERT_EQ(out[0].size(), y.values.size());
  EXPECT_GE(Cosine(out[0], y.values), 0.99999);
  EXPECT_LE(MaxRelError(out[0], y.values), 1e-4);
  EXPECT_LE(ToleranceRatio(out[0], y.values, 1e-5, 0.0), 1.0);
}

// ---------------------------------------------------------------------------
// Models built here

void AddInit(onnx::ModelProto* m, const std::string& name, const std::vector<int64_t>& dims,
             const std::vector<float>& values) {
  auto* t = m->mutable_graph()->add_initializer();
  t->set_name(name);
  t->set_data_type(onnx::TensorProto::FLOAT);
  for (int64_t d : dims) t->add_dims(d);
  for (float v : values) t->add_float_data(v);
}

void SetAttr(onnx::NodeProto* n, const std::string& name, float v) {
  auto* a = n->add_attribute();
  a->set_name(name);
  a->set_type(onnx::AttributeProto::FLOAT);
  a->set_f(v);
}

void SetAttr(onnx::NodeProto* n, const std::string& name, int64_t v) {
  auto* a = n->add_attribute();
  a->set_name(name);
  a->set_type(onnx::AttributeProto::INT);
  a->set_i(v);
}

OnnxImportResult Import(const onnx::ModelProto& m) {
  return ImportOnnxBytes(m.SerializeAsString(), "m.onnx", ".");
}

std::string ImportMessage(const onnx::ModelProto& m) {
  try {
    Import(m);
  } catch (const OnnxImportError& e) {
    return e.what();
  }
  return "(imported)";
}

// y = alpha * A' B' + beta * C in double, A' = A^T with trans_a (A stored
// [K, M]), B' = B^T with trans_b (B stored [N, K]); C of [M, N], [N] or
// empty.
std::vector<float> GemmOracle(const std::vector<float>& a, const std::vector<float>& b,
                              const std::vector<float>& c, int m, int n, int k, bool trans_a,
                              bool trans_b, double alpha, double beta) {
  std::vector<float> y(size_t(m) * n);
  for (int i = 0; i < m; ++i) {
    for (int j = 0; j < n; ++j) {
      double sum = 0.0;
      for (int p = 0; p < k; ++p) {
        const double av = trans_a ? a[size_t(p) * m + i] : a[size_t(i) * k + p];
        const double bv = trans_b ? b[size_t(j) * k + p] : b[size_t(p) * n + j];
        sum += av * bv;
      }
      double cv = 0.0;
      if (c.size() == size_t(m) * n) cv = c[size_t(i) * n + j];
      if (c.size() == size_t(n)) cv = c[j];
      y[size_t(i) * n + j] = static_cast<float>(alpha * sum + beta * cv);
    }
  }
  return y;
}

TEST(OnnxAttention, GemmWithComputedB) {
  const int m = 3, n = 5, k = 4;
  const std::vector<float> a = RandomVector(m * k, 1), b = RandomVector(k * n, 2);
  const std::vector<float> c_full = RandomVector(m * n, 3), c_row = RandomVector(n, 4);
  struct Case {
    std::string what;
    bool trans_a, trans_b;
    float alpha, beta;
    int c;  // 0: no C, 1: computed [M, N], 2: constant [N]
    std::string types;
  };
  const std::vector<Case> cases = {
      {"plain", false, false, 1.0f, 1.0f, 0, "Gemm "},
      {"transposes", true, true, 1.0f, 1.0f, 0, "Gemm "},
      {"alpha", false, true, 0.25f, 1.0f, 0, "Gemm "},
      {"computed C", true, false, 1.0f, 1.0f, 1, "Gemm "},
      {"alpha, beta, computed C", false, false, 0.5f, 0.35f, 1, "Gemm "},
      {"constant C", false, true, 1.0f, 2.0f, 2, "Constant Gemm "},
      {"beta 0 drops C", false, false, 1.0f, 0.0f, 1, "Gemm "},
  };
  for (const Case& tc : cases) {
    SCOPED_TRACE(tc.what);
    onnx::ModelProto model = EmptyModel(13);
    AddFloatInput(model.mutable_graph(), "a",
                  tc.trans_a ? std::vector<int64_t>{k, m} : std::vector<int64_t>{m, k});
    AddFloatInput(model.mutable_graph(), "b",
                  tc.trans_b ? std::vector<int64_t>{n, k} : std::vector<int64_t>{k, n});
    std::vector<std::string> inputs = {"a", "b"};
    if (tc.c == 1) AddFloatInput(model.mutable_graph(), "c", {m, n});
    if (tc.c == 2) AddInit(&model, "c", {n}, c_row);
    if (tc.c != 0) inputs.push_back("c");
    onnx::NodeProto* node = AddNode(&model, "Gemm", "gemm", inputs, {"y"});
    SetAttr(node, "alpha", tc.alpha);
    SetAttr(node, "beta", tc.beta);
    SetAttr(node, "transA", int64_t(tc.trans_a));
    SetAttr(node, "transB", int64_t(tc.trans_b));
    AddOutput(&model, "y");
    const OnnxImportResult r = Import(model);
    EXPECT_EQ(Types(r), tc.types) << r.net_json;
    const std::vector<float>& c = tc.c == 1 ? c_full : c_row;
    const std::vector<float> want = GemmOracle(a, b, tc.c == 0 ? std::vector<float>{} : c, m, n, k,
                                               tc.trans_a, tc.trans_b, tc.alpha, tc.beta);
    auto net = BuildNet(r);
    std::vector<std::vector<float>> feeds = {a, b};
    if (tc.c == 1) feeds.push_back(c_full);
    const auto out = RunNet(net.get(), feeds);
    ASSERT_EQ(out[0].size(), want.size());
    EXPECT_LE(ToleranceRatio(out[0], want, 1e-6, 1e-6), 1.0);
  }
}

TEST(OnnxAttention, MatMulWithConstantAAndComputedB) {
  // A constant first operand enters through a Constant layer.
  onnx::ModelProto model = EmptyModel(13);
  AddInit(&model, "a", {2, 3}, {1, 2, 3, 4, 5, 6});
  AddFloatInput(model.mutable_graph(), "b", {3, 2});
  AddNode(&model, "MatMul", "matmul", {"a", "b"}, {"y"});
  AddOutput(&model, "y");
  const OnnxImportResult r = Import(model);
  EXPECT_EQ(Types(r), "Constant BatchMatrixMul ");
  auto net = BuildNet(r);
  const auto out = RunNet(net.get(), {{1, 0, 0, 1, 1, 1}});
  EXPECT_EQ(out[0], (std::vector<float>{4, 5, 10, 11}));
}

TEST(OnnxAttention, Refusals) {
  {
    // Both operands 1-d: a scalar.
    onnx::ModelProto model = EmptyModel(13);
    AddFloatInput(model.mutable_graph(), "a", {4});
    AddFloatInput(model.mutable_graph(), "b", {4});
    AddNode(&model, "MatMul", "matmul", {"a", "b"}, {"y"});
    AddOutput(&model, "y");
    EXPECT_EQ(ImportMessage(model),
              "node \"matmul\" (MatMul): the output would be a scalar, which the runtime does not "
              "hold");
  }
  {
    // Gemm of computed operands that do not fit (shape inference lets it by).
    onnx::ModelProto model = EmptyModel(13);
    AddFloatInput(model.mutable_graph(), "a", {3, 4});
    AddFloatInput(model.mutable_graph(), "b", {5, 6});
    AddNode(&model, "Gemm", "gemm", {"a", "b"}, {"y"});
    AddOutput(&model, "y");
    EXPECT_EQ(ImportMessage(model),
              "node \"gemm\" (Gemm): input A of shape [3, 4] does not fit B of shape [5, 6]");
  }
}

}  // namespace
}  // namespace qzdl::test
