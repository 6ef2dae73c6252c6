// Helpers shared by the tests of the pooling, activation, softmax, eltwise,
// concat and normalization layers: one-layer nets built through the normal
// creation path, fixtures, and thread-count control.
#pragma once

#include <gtest/gtest.h>
#include <omp.h>

#include <cstdint>
#include <cstring>
#include <exception>
#include <functional>
#include <string>
#include <vector>

#include "support/net_builder.h"
#include "support/onnx_tensor.h"

namespace qzdl::test {

struct Tensor {
  std::vector<int> dims;
  std::vector<float> values;
};

struct WeightInit {
  std::string blob;
  std::vector<int> dims;
  std::vector<float> values;
};

inline Tensor ToTensor(const OnnxTensor& t) { return {t.IntDims(), t.values}; }

// A tensor file of the ONNX test data: OnnxData("node", "test_relu", "input_0").
inline OnnxTensor OnnxData(const std::string& group, const std::string& name,
                           const std::string& file) {
  return ReadOnnxTensor(OnnxCase(group, name) + "/test_data_set_0/" + file + ".pb");
}

// A tensor of tests/fixtures/<family>/<name>.pb.
inline OnnxTensor Fixture(const std::string& family, const std::string& name) {
  return ReadOnnxTensor(std::string(QZDL_TEST_DATA_DIR) + "/" + family + "/" + name + ".pb");
}

// A net with inputs "x0", "x1", ... and one layer "l" of `type` writing "y"
// (or, with `in_place`, writing back into "x0").
inline NetBuilder OneLayerNet(const std::string& type, const json11::Json::object& param,
                              const std::vector<std::vector<int>>& input_dims,
                              const std::vector<WeightInit>& weights = {}, bool in_place = false) {
  NetBuilder b;
  std::vector<std::string> names;
  for (size_t i = 0; i < input_dims.size(); ++i) {
    names.push_back("x" + std::to_string(i));
    b.Input(names.back(), input_dims[i]);
  }
  b.Layer("l", type, names, {in_place ? "x0" : "y"}, param);
  for (const WeightInit& w : weights) b.Weight("l", w.blob, w.dims, w.values);
  return b;
}

// Builds the one-layer net, feeds `inputs`, runs it and returns its output.
inline Tensor RunLayer(const std::string& type, const json11::Json::object& param,
                       const std::vector<Tensor>& inputs,
                       const std::vector<WeightInit>& weights = {}, bool in_place = false) {
  std::vector<std::vector<int>> dims;
  for (const Tensor& t : inputs) dims.push_back(t.dims);
  std::unique_ptr<Net<float>> net;
  try {
    net = OneLayerNet(type, param, dims, weights, in_place).Build();
  } catch (std::exception* e) {
    delete e;
    ADD_FAILURE() << "building a " << type << " net failed";
    return {};
  }
  for (size_t i = 0; i < inputs.size(); ++i) {
    std::vector<float> copy = inputs[i].values;
    net->SetFloatInputData(copy.data(), static_cast<int>(i));
  }
  net->ForwardAll();
  Tensor out;
  out.dims = net->GetOutputData(0)->GetDims();
  const float* y = net->GetFloatOutputData(0);
  out.values.assign(y, y + net->GetOutputCount(0));
  return out;
}


// Runs `fn` with OpenMP limited to `threads` threads.
inline void WithThreads(int threads, const std::function<void()>& fn) {
  const int before = omp_get_max_threads();
  omp_set_num_threads(threads);
  fn();
  omp_set_num_threads(before);
}

inline std::vector<uint32_t> Bits(const std::vector<float>& v) {
  std::vector<uint32_t> bits(v.size());
  if (!v.empty()) std::memcpy(bits.data(), v.data(), v.size() * sizeof(float));
  return bits;
}

// The same layer run with one and with two threads gives the same bits.
inline void ExpectThreadIndependent(const std::string& type, const json11::Json::object& param,
                                    const std::vector<Tensor>& inputs,
                                    const std::vector<WeightInit>& weights = {}) {
  Tensor one, two;
  WithThreads(1, [&] { one = RunLayer(type, param, inputs, weights); });
  WithThreads(2, [&] { two = RunLayer(type, param, inputs, weights); });
  ASSERT_FALSE(one.values.empty());
  EXPECT_EQ(one.dims, two.dims);
  EXPECT_TRUE(Bits(one.values) == Bits(two.values)) << type << " differs between 1 and 2 threads";
}

// In place (output written into input 0) gives the same bits as out of place.
inline void ExpectInPlaceSame(const std::string& type, const json11::Json::object& param,
                              const std::vector<Tensor>& inputs,
                              const std::vector<WeightInit>& weights = {}) {
  const Tensor apart = RunLayer(type, param, inputs, weights, false);
  const Tensor same = RunLayer(type, param, inputs, weights, true);
  ASSERT_FALSE(apart.values.empty());
  EXPECT_EQ(apart.dims, same.dims);
  EXPECT_TRUE(Bits(apart.values) == Bits(same.values)) << type << " differs when run in place";
}

// Each param replaced in turn by each of a set of bad values: the net either
// fails to build with the creation error or builds and runs. Nothing may
// crash or throw anything else.
inline void ExpectBadParamsHandled(const std::string& type, const json11::Json::object& param,
                                   const std::vector<std::vector<int>>& input_dims,
                                   const std::vector<WeightInit>& weights = {}) {
  const std::vector<json11::Json> bad = {-1,
                                         0,
                                         1000000000,
                                         -1000000000,
                                         2.5,
                                         "x",
                                         json11::Json::array{},
                                         json11::Json::array{-3, 0},
                                         nullptr,
                                         true};
  for (const auto& kv : param) {
    for (const json11::Json& value : bad) {
      json11::Json::object changed = param;
      changed[kv.first] = value;
      SCOPED_TRACE(type + " " + json11::Json(changed).dump());
      const NetBuilder b = OneLayerNet(type, changed, input_dims, weights);
      std::exception* thrown = nullptr;
      CaptureStdout([&] {
        try {
          std::unique_ptr<Net<float>> net = b.Build();
          for (int i = 0; i < net->GetInputCount(); ++i) {
            std::vector<float> x(net->GetInputData(i)->Count(0), 0.5f);
            net->SetFloatInputData(x.data(), i);
          }
          net->ForwardAll();
        } catch (std::exception* e) {
          thrown = e;
        }
      });
      if (thrown != nullptr) {
        EXPECT_STREQ(thrown->what(), "CreatNet Error");
        delete thrown;
      }
    }
  }
}

inline int64_t Count(const std::vector<int>& dims) {
  int64_t n = 1;
  for (int d : dims) n *= d;
  return n;
}

inline Tensor RandomTensor(const std::vector<int>& dims, uint32_t seed, float lo = -1.0f,
                           float hi = 1.0f) {
  return {dims, RandomVector(static_cast<size_t>(Count(dims)), seed, lo, hi)};
}

}  // namespace qzdl::test
