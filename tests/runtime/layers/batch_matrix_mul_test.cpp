// BatchMatrixMul: against the ONNX MatMul test data, the reference kernel
// against an independent oracle (numpy's rules spelled out index by index),
// the fast kernel against the reference on random shapes and thread counts,
// the layer in nets (new batch, frugal mode), and the errors with their
// exact messages.
#include "runtime/layers/batch_matrix_mul.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>

#include "runtime/kernels/batch_matmul.h"
#include "support/net_builder.h"
#include "support/onnx_tensor.h"

namespace qzdl {
namespace {

using json11::Json;

struct Tensor {
  std::vector<int> dims;
  std::vector<float> values;
};

Tensor OnnxNode(const std::string& test_case, const std::string& file) {
  const test::OnnxTensor t =
      test::ReadOnnxTensor(test::OnnxCase("node", test_case) + "/test_data_set_0/" + file + ".pb");
  return {t.IntDims(), t.values};
}

int64_t Count(const std::vector<int>& dims) {
  int64_t n = 1;
  for (int d : dims) n *= d;
  return n;
}

Tensor Random(const std::vector<int>& dims, uint32_t seed) {
  return {dims, test::RandomVector(Count(dims), seed)};
}

test::NetBuilder TwoInputs(const std::vector<int>& a, const std::vector<int>& b,
                           const Json::object& param = {}) {
  test::NetBuilder nb;
  nb.Input("a", a).Input("b", b).Layer("mm", "BatchMatrixMul", {"a", "b"}, {"y"}, param);
  return nb;
}

Tensor RunNet(const Tensor& a, const Tensor& b, const Json::object& param = {},
              bool frugal = false) {
  auto net = TwoInputs(a.dims, b.dims, param).Build(frugal);
  std::vector<float> va = a.values, vb = b.values;
  net->SetFloatInputData(va.data(), 0);
  net->SetFloatInputData(vb.data(), 1);
  net->ForwardAll();
  const Data<float>* y = net->GetOutputData(0);
  const float* p = y->GetCpuData();
  return {y->GetDims(), std::vector<float>(p, p + y->Count(0))};
}

// Swaps the last two axes.
Tensor Transposed(const Tensor& t) {
  const int r = static_cast<int>(t.dims.size());
  const int rows = t.dims[r - 2], cols = t.dims[r - 1];
  Tensor out{t.dims, std::vector<float>(t.values.size())};
  std::swap(out.dims[r - 2], out.dims[r - 1]);
  const int64_t slices = Count(t.dims) / (int64_t(rows) * cols);
  for (int64_t s = 0; s < slices; ++s)
    for (int i = 0; i < rows; ++i)
      for (int j = 0; j < cols; ++j)
        out.values[(s * cols + j) * rows + i] = t.values[(s * rows + i) * cols + j];
  return out;
}

// numpy.matmul of a and b, written from its definition and independent of
// the kernels' plan: 1-d operands promoted, the batch index of the output
// mapped back to each operand axis by axis, sums in double.
Tensor Oracle(const Tensor& a_in, const Tensor& b_in) {
  std::vector<int> a = a_in.dims, b = b_in.dims;
  const bool a1 = a.size() == 1, b1 = b.size() == 1;
  if (a1) a.insert(a.begin(), 1);
  if (b1) b.push_back(1);
  const size_t rank = std::max(a.size(), b.size());
  while (a.size() < rank) a.insert(a.begin(), 1);
  while (b.size() < rank) b.insert(b.begin(), 1);
  const int m = a[rank - 2], k = a[rank - 1], n = b[rank - 1];
  std::vector<int> out(rank);
  for (size_t j = 0; j + 2 < rank; ++j) out[j] = std::max(a[j], b[j]);
  out[rank - 2] = m;
  out[rank - 1] = n;
  Tensor y{{}, std::vector<float>(Count(out))};
  std::vector<int> idx(rank, 0);
  for (int64_t e = 0; e < Count(out); ++e) {
    int64_t rest = e;
    for (size_t j = rank; j-- > 0;) {
      idx[j] = static_cast<int>(rest % out[j]);
      rest /= out[j];
    }
    double sum = 0.0;
    for (int p = 0; p < k; ++p) {
      int64_t ia = 0, ib = 0;
      for (size_t j = 0; j < rank; ++j) {
        int xa = a[j] == 1 ? 0 : idx[j], xb = b[j] == 1 ? 0 : idx[j];
        if (j == rank - 1) xa = p;
        if (j == rank - 2) xb = p;
        if (j == rank - 2) xa = idx[j];
        if (j == rank - 1) xb = idx[j];
        ia = ia * a[j] + xa;
        ib = ib * b[j] + xb;
      }
      sum += double(a_in.values[ia]) * b_in.values[ib];
    }
    y.values[e] = static_cast<float>(sum);
  }
  y.dims = out;
  if (b1) y.dims.pop_back();
  if (a1) y.dims.erase(y.dims.end() - 1 - (b1 ? 0 : 1));
  return y;
}

void ExpectClose(const Tensor& got, const Tensor& want, double atol, double rtol) {
  EXPECT_EQ(got.dims, want.dims);
  ASSERT_EQ(got.values.size(), want.values.size());
  EXPECT_LE(test::ToleranceRatio(got.values, want.values, atol, rtol), 1.0);
}

// A sum of K products of values in [-1, 1) in float against double.
double KernelAtol(int k) { return std::max(1e-6, 2e-7 * k); }

// Random operand shapes: 1 to 4 axes, batch axes that broadcast.
struct Shapes {
  std::vector<int> a, b;
  bool trans_a = false, trans_b = false;
};

std::vector<Shapes> RandomShapes(int count, uint32_t seed, bool with_transposes) {
  std::mt19937 rng(seed);
  auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
  std::vector<Shapes> out = {
      {{3, 4}, {4, 5}},          {{7}, {7, 2}},          {{2, 3}, {3}},
      {{2, 1, 3, 4}, {5, 4, 6}}, {{1, 5, 4}, {3, 4, 2}}, {{200, 130}, {130, 300}},
      {{2, 70, 33}, {33, 150}},  {{6}, {2, 3, 6, 4}},    {{2, 3, 5, 6}, {6}}};
  while (static_cast<int>(out.size()) < count) {
    const int m = pick(1, 80), k = pick(1, 80), n = pick(1, 80);
    const int batch_axes = pick(0, 2);
    Shapes s;
    for (int j = 0; j < batch_axes; ++j) {
      const int d = pick(1, 3);
      const int mode = pick(0, 3);  // both d, a 1, b 1, b lacks the axis
      s.a.push_back(mode == 1 ? 1 : d);
      if (mode != 3 || j > 0) s.b.push_back(mode == 2 ? 1 : d);
    }
    s.a.push_back(m);
    s.a.push_back(k);
    s.b.push_back(k);
    s.b.push_back(n);
    out.push_back(s);
  }
  if (with_transposes) {
    for (size_t i = 0; i < out.size(); ++i) {
      Shapes& s = out[i];
      s.trans_a = s.a.size() >= 2 && i % 2 == 1;
      s.trans_b = s.b.size() >= 2 && i % 3 != 0;
      if (s.trans_a) std::swap(s.a[s.a.size() - 2], s.a.back());
      if (s.trans_b) std::swap(s.b[s.b.size() - 2], s.b.back());
    }
  }
  return out;
}

std::string Describe(const Shapes& s) {
  return DimsToString(s.a) + (s.trans_a ? "^T" : "") + " x " + DimsToString(s.b) +
         (s.trans_b ? "^T" : "");
}

// ---------------------------------------------------------------------------
// ONNX test data

TEST(BatchMatrixMulOnnx, MatMulNodeCases) {
  for (const std::string name : {"test_matmul_2d", "test_matmul_3d", "test_matmul_4d",
                                 "test_matmul_bcast", "test_matmul_1d_3d", "test_matmul_4d_1d"}) {
    SCOPED_TRACE(name);
    const Tensor want = OnnxNode(name, "output_0");
    ExpectClose(RunNet(OnnxNode(name, "input_0"), OnnxNode(name, "input_1")), want, 1e-5, 1e-5);
  }
}

// ---------------------------------------------------------------------------
// Kernels

TEST(BatchMatrixMulKernel, ReferenceMatchesTheOracle) {
  for (const Shapes& s : RandomShapes(40, 7, false)) {
    SCOPED_TRACE(Describe(s));
    const Tensor a = Random(s.a, 11), b = Random(s.b, 12);
    BatchMatMulGeometry g;
    ASSERT_EQ(PlanBatchMatMul(a.dims, b.dims, false, false, &g), BatchMatMulMismatch::kFits);
    Tensor got{g.out_dims, std::vector<float>(Count(g.out_dims), NAN)};
    ReferenceBatchMatMul(g, a.values.data(), b.values.data(), got.values.data());
    // Both sum in double and round once: equal.
    ExpectClose(got, Oracle(a, b), 0.0, 0.0);
  }
}

TEST(BatchMatrixMulKernel, TransposesMatchTheOracle) {
  for (const Shapes& s : RandomShapes(30, 8, true)) {
    SCOPED_TRACE(Describe(s));
    const Tensor a = Random(s.a, 21), b = Random(s.b, 22);
    BatchMatMulGeometry g;
    ASSERT_EQ(PlanBatchMatMul(a.dims, b.dims, s.trans_a, s.trans_b, &g),
              BatchMatMulMismatch::kFits);
    Tensor got{g.out_dims, std::vector<float>(Count(g.out_dims), NAN)};
    ReferenceBatchMatMul(g, a.values.data(), b.values.data(), got.values.data());
    ExpectClose(got, Oracle(s.trans_a ? Transposed(a) : a, s.trans_b ? Transposed(b) : b), 0.0,
                0.0);
  }
}

TEST(BatchMatrixMulKernel, FastMatchesReferenceAtAnyThreadCount) {
  for (const Shapes& s : RandomShapes(40, 9, true)) {
    SCOPED_TRACE(Describe(s));
    const Tensor a = Random(s.a, 31), b = Random(s.b, 32);
    BatchMatMulGeometry g;
    ASSERT_EQ(PlanBatchMatMul(a.dims, b.dims, s.trans_a, s.trans_b, &g),
              BatchMatMulMismatch::kFits);
    Tensor want{g.out_dims, std::vector<float>(Count(g.out_dims))};
    ReferenceBatchMatMul(g, a.values.data(), b.values.data(), want.values.data());
    std::vector<float> first;
    for (int threads : {2, 1, 3}) {
      const int saved = omp_get_max_threads();
      omp_set_num_threads(threads);
      Tensor got{g.out_dims, std::vector<float>(want.values.size(), NAN)};
      BatchMatMulForward(g, a.values.data(), b.values.data(), got.values.data());
      omp_set_num_threads(saved);
      if (first.empty()) {
        first = got.values;
        ExpectClose(got, want, KernelAtol(g.k), 0.0);
      } else {
        EXPECT_EQ(0, std::memcmp(got.values.data(), first.data(), first.size() * sizeof(float)))
            << threads << " threads";
      }
    }
  }
}

TEST(BatchMatrixMulKernel, PlanOfBroadcastAndOneDimensionalOperands) {
  BatchMatMulGeometry g;
  ASSERT_EQ(PlanBatchMatMul({3, 1, 4, 5}, {2, 5, 6}, false, false, &g), BatchMatMulMismatch::kFits);
  EXPECT_EQ(g.out_dims, (std::vector<int>{3, 2, 4, 6}));
  EXPECT_EQ(g.batch_dims, (std::vector<int64_t>{3, 2}));
  EXPECT_EQ(g.stride_a, (std::vector<int64_t>{20, 0}));
  EXPECT_EQ(g.stride_b, (std::vector<int64_t>{0, 30}));
  EXPECT_EQ(g.batches, 6);
  ASSERT_EQ(PlanBatchMatMul({5}, {2, 5, 6}, false, false, &g), BatchMatMulMismatch::kFits);
  EXPECT_EQ(g.out_dims, (std::vector<int>{2, 6}));
  EXPECT_EQ(g.m, 1);
  ASSERT_EQ(PlanBatchMatMul({2, 4, 5}, {5}, false, false, &g), BatchMatMulMismatch::kFits);
  EXPECT_EQ(g.out_dims, (std::vector<int>{2, 4}));
  EXPECT_EQ(g.n, 1);
  ASSERT_EQ(PlanBatchMatMul({2, 5, 4}, {6, 5}, true, true, &g), BatchMatMulMismatch::kFits);
  EXPECT_EQ(g.out_dims, (std::vector<int>{2, 4, 6}));
  EXPECT_EQ(PlanBatchMatMul({5}, {5}, false, false, &g), BatchMatMulMismatch::kScalar);
  EXPECT_EQ(PlanBatchMatMul({5}, {5, 2}, true, false, &g), BatchMatMulMismatch::kTransposed1d);
  EXPECT_EQ(PlanBatchMatMul({4, 5}, {4, 5}, false, false, &g), BatchMatMulMismatch::kInner);
  EXPECT_EQ(PlanBatchMatMul({2, 4, 5}, {3, 5, 4}, false, false, &g), BatchMatMulMismatch::kBatch);
}

// ---------------------------------------------------------------------------
// The layer in nets

TEST(BatchMatrixMulLayer, NewBatchFrugalAndTypeDetail) {
  // Attention scores: q [N, S, D] times k [N, S, D] transposed.
  const Tensor q = Random({3, 6, 8}, 41), k = Random({3, 6, 8}, 42);
  const Tensor want = Oracle(q, Transposed(k));
  for (bool frugal : {false, true})
    ExpectClose(RunNet(q, k, {{"transpose_b", true}}, frugal), want, KernelAtol(8), 0.0);

  auto net = TwoInputs(q.dims, k.dims, {{"transpose_b", true}}).Build();
  EXPECT_EQ(net->GetLayer("mm")->GetTypeDetail(), "BatchMatrixMul(transpose_b)");
  // Batch 2: both inputs take the new batch, the output follows.
  net->ReshapeBatchNum(2, 0);
  EXPECT_EQ(net->GetOutputData(0)->GetDims(), (std::vector<int>{2, 6, 6}));
  std::vector<float> q2(q.values.begin(), q.values.begin() + 2 * 48);
  std::vector<float> k2(k.values.begin(), k.values.begin() + 2 * 48);
  net->SetFloatInputData(q2.data(), 0);
  net->SetFloatInputData(k2.data(), 1);
  net->ForwardAll();
  const float* y = net->GetFloatOutputData(0);
  EXPECT_LE(test::ToleranceRatio(std::vector<float>(y, y + 2 * 36),
                                 std::vector<float>(want.values.begin(), want.values.begin() + 72),
                                 KernelAtol(8), 0.0),
            1.0);

  EXPECT_EQ(TwoInputs({2, 3}, {3, 2}).Build()->GetLayer("mm")->GetTypeDetail(), "BatchMatrixMul");
  EXPECT_EQ(
      TwoInputs({3, 2}, {3, 2}, {{"transpose_a", true}}).Build()->GetLayer("mm")->GetTypeDetail(),
      "BatchMatrixMul(transpose_a)");
  EXPECT_EQ(TwoInputs({3, 2}, {2, 3}, {{"transpose_a", true}, {"transpose_b", true}})
                .Build()
                ->GetLayer("mm")
                ->GetTypeDetail(),
            "BatchMatrixMul(transpose_a, transpose_b)");
}

TEST(BatchMatrixMulLayer, SameTensorAsBothOperands) {
  // x x^T: one tensor read twice.
  const Tensor x = Random({2, 5, 4}, 51);
  test::NetBuilder nb;
  nb.Input("x", x.dims).Layer("mm", "BatchMatrixMul", {"x", "x"}, {"y"}, {{"transpose_b", true}});
  auto net = nb.Build();
  std::vector<float> v = x.values;
  net->SetFloatInputData(v.data(), 0);
  net->ForwardAll();
  const Data<float>* y = net->GetOutputData(0);
  ExpectClose({y->GetDims(), std::vector<float>(y->GetCpuData(), y->GetCpuData() + y->Count(0))},
              Oracle(x, Transposed(x)), KernelAtol(4), 0.0);
}

// ---------------------------------------------------------------------------
// Errors

using test::BuildError;

TEST(BatchMatrixMulErrors, ParamsAndShapes) {
  const std::string at = "net description: layer \"mm\" (BatchMatrixMul): ";
  EXPECT_EQ(BuildError(TwoInputs({3, 4}, {4, 5}, {{"transpose_a", "no"}})),
            at + "param \"transpose_a\" must be true or false");
  EXPECT_EQ(BuildError(TwoInputs({3, 4}, {4, 5}, {{"transpose_b", "yes"}})),
            at + "param \"transpose_b\" must be true or false");
  EXPECT_EQ(BuildError(TwoInputs({3, 4}, {5, 6})),
            at + "inputs \"a\" of shape [3, 4] and \"b\" of shape [5, 6] cannot be multiplied: the "
                 "inner dimension is 4 in \"a\" and 5 in \"b\"");
  EXPECT_EQ(
      BuildError(TwoInputs({2, 4, 3}, {4, 5}, {{"transpose_a", true}, {"transpose_b", true}})),
      at + "inputs \"a\" of shape [2, 4, 3] and \"b\" of shape [4, 5] cannot be multiplied: "
           "the inner dimension is 4 in \"a\" and 5 in \"b\"");
  EXPECT_EQ(BuildError(TwoInputs({7}, {2, 6, 3})),
            at + "inputs \"a\" of shape [7] and \"b\" of shape [2, 6, 3] cannot be multiplied: the "
                 "inner dimension is 7 in \"a\" and 6 in \"b\"");
  EXPECT_EQ(BuildError(TwoInputs({2, 3, 4}, {3, 4, 5})),
            at +
                "inputs \"a\" of shape [2, 3, 4] and \"b\" of shape [3, 4, 5] cannot be "
                "multiplied: their batch axes (all but the last two) cannot be broadcast together");
  EXPECT_EQ(BuildError(TwoInputs({4}, {4})),
            at + "inputs \"a\" of shape [4] and \"b\" of shape [4] both have 1 axis: the product "
                 "would be a scalar, which the runtime does not hold");
  EXPECT_EQ(BuildError(TwoInputs({4}, {4, 2}, {{"transpose_a", true}})),
            at + "param \"transpose_a\" needs input \"a\" to have at least 2 axes, has shape [4]");
  EXPECT_EQ(BuildError(TwoInputs({2, 4}, {4}, {{"transpose_b", true}})),
            at + "param \"transpose_b\" needs input \"b\" to have at least 2 axes, has shape [4]");

  test::NetBuilder one;
  one.Input("a", {2, 3}).Layer("mm", "BatchMatrixMul", {"a"}, {"y"});
  EXPECT_EQ(BuildError(one), at + "expects 2 input(s), has 1");
  test::NetBuilder two_out;
  two_out.Input("a", {2, 3})
      .Input("b", {3, 2})
      .Layer("mm", "BatchMatrixMul", {"a", "b"}, {"y", "z"});
  EXPECT_EQ(BuildError(two_out), at + "expects 1 output(s), has 2");
}

}  // namespace
}  // namespace qzdl
