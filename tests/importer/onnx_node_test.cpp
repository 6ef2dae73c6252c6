// ONNX node test cases imported with the ONNX importer and run on the float
// runtime, compared with the stored outputs.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "importer/onnx_test_util.h"
#include "support/net_builder.h"
#include "support/onnx_tensor.h"

namespace qzdl::test {
namespace {

struct NodeCase {
  const char* name;
  int dynamic;  // the first `dynamic` inputs are fed at run time, the rest become constants
  double atol, rtol;
};

void PrintTo(const NodeCase& c, std::ostream* os) { *os << c.name; }

class OnnxNodeTest : public testing::TestWithParam<NodeCase> {};

TEST_P(OnnxNodeTest, MatchesStoredOutputs) {
  const NodeCase& tc = GetParam();
  const std::string dir = OnnxCase("node", tc.name);
  const std::string data = dir + "/test_data_set_0";
  std::vector<OnnxTensor> inputs;
  for (int k = 0; FileExists(data + "/input_" + std::to_string(k) + ".pb"); ++k) {
    inputs.push_back(ReadOnnxTensor(data + "/input_" + std::to_string(k) + ".pb"));
  }
  OnnxImportOptions options;
  std::vector<std::vector<float>> feeds;
  for (size_t k = 0; k < inputs.size(); ++k) {
    if (static_cast<int>(k) < tc.dynamic) {
      feeds.push_back(inputs[k].values);
    } else {
      options.constant_inputs[inputs[k].name] =
          ReadFile(data + "/input_" + std::to_string(k) + ".pb");
    }
  }
  OnnxImportResult result;
  try {
    result = ImportOnnxFile(dir + "/model.onnx", options);
  } catch (const OnnxImportError& e) {
    FAIL() << e.what();
  }
  auto net = BuildNet(result);
  ASSERT_TRUE(net);
  const auto outs = RunNet(net.get(), feeds);
  for (size_t k = 0; FileExists(data + "/output_" + std::to_string(k) + ".pb"); ++k) {
    const OnnxTensor want = ReadOnnxTensor(data + "/output_" + std::to_string(k) + ".pb");
    ASSERT_LT(k, outs.size());
    ASSERT_EQ(outs[k].size(), want.values.size()) << "output " << k;
    EXPECT_LE(ToleranceRatio(outs[k], want.values, tc.atol, tc.rtol), 1.0) << "output " << k << "\n"
                                                                           << result.net_json;
  }
}

// One or two cases per mapping path of the importer (the runtime's layer
// tests cover the layers themselves).
const NodeCase kCases[] = {
    {"test_conv_with_strides_padding", 1, 1e-5, 1e-5},   // explicit pads
    {"test_conv_with_autopad_same", 1, 1e-5, 1e-5},      // auto_pad to pads
    {"test_convtranspose_output_shape", 1, 1e-5, 1e-5},  // output_shape to output_pad
    {"test_convtranspose_autopad_same", 1, 1e-5, 1e-5},  // weights regrouped
    {"test_maxpool_2d_same_upper", 1, 0, 0},
    {"test_maxpool_1d_default", 1, 0, 0},         // 1-d through [N, C, 1, L]
    {"test_averagepool_2d_pads", 1, 1e-6, 1e-5},  // count_include_pad 0
    {"test_globalaveragepool", 1, 1e-6, 1e-5},
    {"test_relu", 1, 0, 0},
    {"test_clip", 1, 0, 0},  // min and max inputs
    {"test_softmax_axis_1", 1, 1e-6, 1e-5},
    {"test_concat_3d_axis_negative_1", 2, 0, 0},
    {"test_add_bcast", 1, 1e-7, 1e-6},     // Constant + BroadcastOp
    {"test_mul_bcast", 2, 1e-7, 1e-6},     // BroadcastOp
    {"test_sum_example", 3, 1e-7, 1e-6},   // Eltwise
    {"test_mean_example", 3, 1e-7, 1e-6},  // Eltwise with coefficients 1/n
    {"test_min_example", 3, 0, 0},         // -max(-a, -b, -c)
    {"test_gemm_default_vector_bias", 1, 1e-5, 1e-5},
    {"test_gemm_transposeA", 1, 1e-5, 1e-5},  // the type Gemm
    {"test_matmul_2d", 1, 1e-5, 1e-5},
    // Both operands computed: BatchMatrixMul (broadcast batch axes, 1-d
    // operands); Gemm with a computed B: BatchMatrixMul, Power, Eltwise.
    {"test_matmul_3d", 2, 1e-5, 1e-5},
    {"test_matmul_bcast", 2, 1e-5, 1e-5},
    {"test_matmul_1d_3d", 2, 1e-5, 1e-5},
    {"test_matmul_4d_1d", 2, 1e-5, 1e-5},
    {"test_gemm_all_attributes", 3, 1e-5, 1e-5},
    {"test_batchnorm_epsilon", 1, 1e-5, 1e-5},
    {"test_l2normalization_axis_1", 1, 1e-6, 1e-5},   // L2Normalization
    {"test_l2normalization_axis_0", 1, 1e-6, 1e-5},   // between Permutes; a zero vector
    {"test_lpnormalization_default", 1, 1e-6, 1e-5},  // axis -1
    {"test_flatten_axis2", 1, 0, 0},                  // Reshape
    {"test_reshape_reordered_all_dims", 1, 0, 0},
    {"test_unsqueeze_axis_1", 1, 0, 0},  // ExpandDims
    {"test_transpose_all_permutations_3", 1, 0, 0},
    {"test_split_variable_parts_2d_opset18", 1, 0, 0},  // Slice
    {"test_slice_neg_steps", 1, 0, 0},                  // Crop
    {"test_constant_pad_axes", 1, 0, 0},                // opset 18 axes input
    {"test_resize_upsample_scales_linear", 1, 1e-6, 1e-6},
    {"test_upsample_nearest", 1, 0, 0},  // opset 9
    {"test_depthtospace_crd_mode_example", 1, 0, 0},
    {"test_gather_2d_indices", 1, 0, 0},
    {"test_reduce_mean_keepdims_example", 1, 1e-6, 1e-5},  // opset 18 axes input
    {"test_gelu_default_1", 1, 1e-6, 1e-5},                // opset 20
    {"test_dropout_default", 1, 0, 0},                     // a copy for the graph output
};

INSTANTIATE_TEST_SUITE_P(Node, OnnxNodeTest, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<NodeCase>& info) {
                           return std::string(info.param.name).substr(5);
                         });

}  // namespace
}  // namespace qzdl::test
