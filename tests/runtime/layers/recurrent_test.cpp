// LSTM, BiLSTM and Gru against the ONNX node data (test_lstm_defaults,
// test_lstm_with_initial_bias, test_lstm_with_peepholes, test_gru_defaults,
// test_gru_with_initial_bias, test_gru_seq_length: W, R, B and P as
// weights, the initial states as inputs), a plain reference on longer
// sequences in both directions, params and errors.
#include "runtime/layers/recurrent.h"

#include <gtest/gtest.h>

#include <cmath>

#include "elementwise_test_support.h"

namespace qzdl {
namespace {

using json11::Json;
using test::Tensor;
using test::WeightInit;

constexpr double kAtol = 1e-6, kRtol = 1e-5;

WeightInit W(const std::string& blob, const test::OnnxTensor& t) {
  return {blob, t.IntDims(), t.values};
}

TEST(LSTMLayer, MatchesOnnxCases) {
  auto in = [](const std::string& name, int i) {
    return test::OnnxData("node", name, "input_" + std::to_string(i));
  };
  {
    const std::string name = "test_lstm_defaults";
    const Tensor y = test::RunLayer("LSTM", {{"hidden_size", 3}, {"bias_term", false}},
                                    {test::ToTensor(in(name, 0))},
                                    {W("W", in(name, 1)), W("R", in(name, 2))});
    // The stored output is Y_h; with one step it is Y without its first axis.
    const test::OnnxTensor want = test::OnnxData("node", name, "output_0");
    EXPECT_LE(test::ToleranceRatio(y.values, want.values, kAtol, kRtol), 1.0);
  }
  {
    const std::string name = "test_lstm_with_initial_bias";
    const Tensor y = test::RunLayer("LSTM", {{"hidden_size", 4}}, {test::ToTensor(in(name, 0))},
                                    {W("W", in(name, 1)), W("R", in(name, 2)), W("B", in(name, 3))});
    EXPECT_LE(test::ToleranceRatio(y.values, test::OnnxData("node", name, "output_0").values,
                                   kAtol, kRtol),
              1.0);
  }
  {
    // Inputs X, W, R, B, sequence_lens, initial_h, initial_c, P.
    const std::string name = "test_lstm_with_peepholes";
    const Tensor y = test::RunLayer(
        "LSTM", {{"hidden_size", 3}, {"has_peepholes", true}},
        {test::ToTensor(in(name, 0)), test::ToTensor(in(name, 5)), test::ToTensor(in(name, 6))},
        {W("W", in(name, 1)), W("R", in(name, 2)), W("B", in(name, 3)), W("P", in(name, 7))});
    EXPECT_LE(test::ToleranceRatio(y.values, test::OnnxData("node", name, "output_0").values,
                                   kAtol, kRtol),
              1.0);
  }
}

TEST(GruLayer, MatchesOnnxCases) {
  struct Case {
    std::string name;
    int hidden;
    bool bias;
  };
  for (const Case& c : {Case{"test_gru_defaults", 5, false}, Case{"test_gru_with_initial_bias", 3, true},
                        Case{"test_gru_seq_length", 5, true}}) {
    SCOPED_TRACE(c.name);
    auto in = [&](int i) { return test::OnnxData("node", c.name, "input_" + std::to_string(i)); };
    std::vector<WeightInit> w = {W("W", in(1)), W("R", in(2))};
    if (c.bias) w.push_back(W("B", in(3)));
    test::NetBuilder nb;
    const Tensor x = test::ToTensor(in(0));
    nb.Input("x", x.dims)
        .Layer("l", "Gru", {"x"}, {"y", "yh"}, {{"hidden_size", c.hidden}, {"bias_term", c.bias}});
    for (const WeightInit& wi : w) nb.Weight("l", wi.blob, wi.dims, wi.values);
    auto net = nb.Build();
    std::vector<float> xv = x.values;
    net->SetFloatInputData(xv.data(), 0);
    net->ForwardAll();
    const Data<float>* yh = net->GetOutputData(1);
    const test::OnnxTensor want = test::OnnxData("node", c.name, "output_0");
    EXPECT_EQ(yh->GetDims(), want.IntDims());
    EXPECT_LE(test::ToleranceRatio(std::vector<float>(yh->GetCpuData(), yh->GetCpuData() + want.Count()),
                                   want.values, kAtol, kRtol),
              1.0);
  }
}

TEST(GruLayer, ParamsAndErrors) {
  const std::vector<WeightInit> w = {{"W", {2, 6, 3}, std::vector<float>(36, 0.1f)},
                                     {"R", {2, 6, 2}, std::vector<float>(24, 0.1f)},
                                     {"B", {2, 12}, std::vector<float>(24, 0.0f)}};
  auto net = test::OneLayerNet("Gru", {{"hidden_size", 2}, {"direction", "bidirectional"}},
                               {{4, 1, 3}}, w)
                 .Build();
  EXPECT_EQ(net->GetLayer("l")->GetTypeDetail(), "Gru(bidirectional)");
  const std::string prefix = "net description: layer \"l\" (Gru): ";
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Gru", {{"hidden_size", 2}, {"direction", "up"}},
                                               {{4, 1, 3}})),
            prefix +
                "param \"direction\" is \"up\", expected one of \"forward\", \"reverse\", "
                "\"bidirectional\"");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Gru", {{"hidden_size", 70000}}, {{4, 1, 3}})),
            prefix + "param \"hidden_size\" must be in [1, 65536], got 70000");
  test::ExpectBadParamsHandled("Gru", {{"hidden_size", 2}, {"direction", "bidirectional"}},
                               {{4, 1, 3}}, w);
}

// One direction of a plain LSTM, step by step, in double.
void ReferenceDirection(const Tensor& x, const std::vector<float>& w, const std::vector<float>& r,
                        const std::vector<float>& b, int hidden, int d, int dirs, bool backward,
                        std::vector<float>* y, std::vector<float>* yh) {
  const int seq = x.dims[0], batch = x.dims[1], in = x.dims[2], H = hidden;
  for (int n = 0; n < batch; ++n) {
    std::vector<double> h(H, 0.0), c(H, 0.0);
    for (int s = 0; s < seq; ++s) {
      const int t = backward ? seq - 1 - s : s;
      std::vector<double> a(4 * H);
      for (int g = 0; g < 4 * H; ++g) {
        double acc = b[d * 8 * H + g] + b[d * 8 * H + 4 * H + g];
        for (int k = 0; k < in; ++k)
          acc += double(w[(d * 4 * H + g) * in + k]) * x.values[(t * batch + n) * in + k];
        for (int j = 0; j < H; ++j) acc += double(r[(d * 4 * H + g) * H + j]) * h[j];
        a[g] = acc;
      }
      for (int j = 0; j < H; ++j) {
        const double i = 1 / (1 + std::exp(-a[j])), o = 1 / (1 + std::exp(-a[H + j]));
        const double f = 1 / (1 + std::exp(-a[2 * H + j])), g = std::tanh(a[3 * H + j]);
        c[j] = f * c[j] + i * g;
        h[j] = o * std::tanh(c[j]);
        (*y)[((t * dirs + d) * batch + n) * H + j] = static_cast<float>(h[j]);
      }
    }
    for (int j = 0; j < H; ++j) (*yh)[(d * batch + n) * H + j] = static_cast<float>(h[j]);
  }
}

TEST(LSTMLayer, MatchesAReferenceInEveryDirection) {
  const int seq = 5, batch = 2, in = 3, H = 4;
  const Tensor x = test::RandomTensor({seq, batch, in}, 101, -1.0f, 1.0f);
  for (const std::string form : {"forward", "reverse", "both"}) {
    SCOPED_TRACE(form);
    const int dirs = form == "both" ? 2 : 1;
    const std::vector<float> w = test::RandomVector(size_t(dirs) * 4 * H * in, 102);
    const std::vector<float> r = test::RandomVector(size_t(dirs) * 4 * H * H, 103);
    const std::vector<float> b = test::RandomVector(size_t(dirs) * 8 * H, 104);
    std::vector<float> y(size_t(seq) * dirs * batch * H), yh(size_t(dirs) * batch * H);
    for (int d = 0; d < dirs; ++d)
      ReferenceDirection(x, w, r, b, H, d, dirs, d == 1 || form == "reverse", &y, &yh);
    Json::object param = {{"hidden_size", H}};
    if (dirs == 1) param["direction"] = form;
    const std::vector<WeightInit> weights = {
        {"W", {dirs, 4 * H, in}, w}, {"R", {dirs, 4 * H, H}, r}, {"B", {dirs, 8 * H}, b}};
    test::NetBuilder nb;
    nb.Input("x", x.dims).Layer("l", dirs == 2 ? "BiLSTM" : "LSTM", {"x"}, {"y", "yh"}, param);
    for (const WeightInit& wi : weights) nb.Weight("l", wi.blob, wi.dims, wi.values);
    auto net = nb.Build();
    std::vector<float> xv = x.values;
    net->SetFloatInputData(xv.data(), 0);
    net->ForwardAll();
    const Data<float>* got_y = net->GetOutputData(0);
    const Data<float>* got_h = net->GetOutputData(1);
    EXPECT_EQ(got_y->GetDims(), (std::vector<int>{seq, dirs, batch, H}));
    EXPECT_LE(test::ToleranceRatio(std::vector<float>(got_y->GetCpuData(), got_y->GetCpuData() + y.size()), y,
                                   kAtol, kRtol),
              1.0);
    EXPECT_LE(test::ToleranceRatio(std::vector<float>(got_h->GetCpuData(), got_h->GetCpuData() + yh.size()),
                                   yh, kAtol, kRtol),
              1.0);
  }
}

TEST(LSTMLayer, ParamsAndErrors) {
  const std::vector<WeightInit> w = {{"W", {1, 8, 3}, std::vector<float>(24, 0.1f)},
                                     {"R", {1, 8, 2}, std::vector<float>(16, 0.1f)},
                                     {"B", {1, 16}, std::vector<float>(16, 0.0f)}};
  auto net = test::OneLayerNet("LSTM", {{"hidden_size", 2}, {"direction", "reverse"}}, {{4, 1, 3}}, w)
                 .Build();
  EXPECT_EQ(net->GetLayer("l")->GetTypeDetail(), "LSTM(reverse)");
  const std::string prefix = "net description: layer \"l\" (LSTM): ";
  EXPECT_EQ(test::BuildError(test::OneLayerNet("LSTM", {}, {{4, 1, 3}})),
            prefix + "missing param \"hidden_size\"");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("LSTM", {{"hidden_size", 0}}, {{4, 1, 3}})),
            prefix + "param \"hidden_size\" must be in [1, 65536], got 0");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("LSTM", {{"hidden_size", 2}}, {{4, 3}})),
            prefix + "input \"x0\" has shape [4, 3]; it must be [sequence, batch, input]");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("LSTM", {{"hidden_size", 2}, {"clip", -1}}, {{4, 1, 3}})),
            prefix + "param \"clip\" must be a finite number >= 0 (0: no clipping), got -1.000000");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("BiLSTM", {{"hidden_size", 2}, {"direction", "forward"}},
                                               {{4, 1, 3}})),
            "net description: layer \"l\" (BiLSTM): param \"direction\" does not apply to BiLSTM");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("LSTM", {{"hidden_size", 2}}, {{4, 1, 3}, {1, 2, 2}}, w)),
            prefix +
                "input \"x1\" (the initial hidden state) has shape [1, 2, 2]; it must be [1, 1, 2]");
  test::ExpectBadParamsHandled("LSTM", {{"hidden_size", 2}}, {{4, 1, 3}}, w);
}

}  // namespace
}  // namespace qzdl
