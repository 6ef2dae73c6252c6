// "InnerProduct" in the 8-bit net, in integers: within one code of the float
// layer on the dequantized input and weights, for both weight layouts.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include "runtime/int8/grid.h"
#include "runtime/kernels/conv_reference.h"
#include "runtime/net.h"
#include "support/net_builder.h"

namespace qzdl {
namespace {

TEST(InnerProductInt8, WithinOneCodeOfFloatOnDequantizedValues) {
  const int batch = 3, k = 12, out = 5;
  for (bool transpose : {false, true}) {
    SCOPED_TRACE(transpose ? "transposed" : "plain");
    const std::vector<float> w = test::RandomVector(k * out, 21, -0.6f, 0.5f);
    const std::vector<float> b = test::RandomVector(out, 22, -0.2f, 0.2f);
    const std::vector<float> x = test::RandomVector(batch * k, 23, -1.0f, 2.0f);
    test::NetBuilder nb;
    nb.Input("data", {batch, k})
        .Layer("fc", "InnerProduct", {"data"}, {"y"},
               {{"num_output", out}, {"transpose", transpose}})
        .Weight("fc", "weight", transpose ? std::vector<int>{k, out} : std::vector<int>{out, k}, w)
        .Weight("fc", "bias", {out}, b);
    const std::string dir = test::TempDir(transpose ? "ip_int8_t" : "ip_int8");
    const auto files = nb.WriteFiles(dir);

    INT8Config config;
    config.addDataConfig("data", -1.0f, 2.0f);
    config.addDataConfig("y", -5.0f, 5.0f);
    std::string error;
    const json11::Json desc = json11::Json::parse(test::ReadFile(files.first), error);
    Net<unsigned char> net(desc, "int8", nullptr);
    net.SetInt8Config(&config);
    net.LoadWeights(files.second);
    net.Reshape(true, 0);
    std::vector<float> input = x;
    net.SetFloatInputData(input.data(), 0);
    net.ForwardAll();
    Layer<unsigned char>* fc = net.GetLayers()[0];
    ASSERT_EQ(fc->GetUint8AttrDatas().count("weight"), 1u);

    // The float layer's arithmetic on the dequantized values.
    const QuantizationConfig* xg = config.GetDataConfig("data");
    const QuantizationConfig* yg = config.GetDataConfig("y");
    std::vector<float> xr, wr(w.size()), br;
    for (int i = 0; i < batch * k; ++i)
      xr.push_back(RealOf(net.GetInputData(0)->GetCpuData()[i], xg->getScale(), xg->getZeroPoint()));
    const unsigned char* codes = fc->GetUint8AttrDatas()["weight"]->GetCpuData();
    for (int o = 0; o < out; ++o) {
      const float s = fc->GetFloatAttrDatas()["weight_scale"]->GetCpuData()[o];
      const int z = fc->GetInt32AttrDatas()["weight_zero"]->GetCpuData()[o];
      for (int i = 0; i < k; ++i) {
        const size_t at = transpose ? size_t(i) * out + o : size_t(o) * k + i;
        wr[at] = RealOf(codes[at], s, z);
      }
      br.push_back(static_cast<float>(fc->GetInt32AttrDatas()["bias"]->GetCpuData()[o] *
                                      double(xg->getScale()) * s));
    }
    std::vector<float> want(batch * out);
    ReferenceInnerProduct(batch, k, out, transpose, xr.data(), wr.data(), br.data(), want.data());
    const unsigned char* got = net.GetOutputData(0)->GetCpuData();
    for (int i = 0; i < batch * out; ++i) {
      const int want_code = CodeOf(want[i], yg->getScale(), yg->getZeroPoint());
      EXPECT_LE(std::abs(int(got[i]) - want_code), 1) << i;
    }
    // And close to the float layer on the original values.
    std::vector<float> exact(batch * out);
    ReferenceInnerProduct(batch, k, out, transpose, x.data(), w.data(), b.data(), exact.data());
    for (int i = 0; i < batch * out; ++i) {
      EXPECT_NEAR(RealOf(got[i], yg->getScale(), yg->getZeroPoint()), exact[i], 0.1) << i;
    }
  }
}

}  // namespace
}  // namespace qzdl
