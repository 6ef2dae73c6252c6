// The layers with weights in the 8-bit net, computed in integers
// (docs/int8.md): codes of the input minus its zero point times weight codes
// minus each output channel's zero point, summed with the int32 bias and
// requantized once per output channel. Weights are quantized per output
// channel on the configuration's weight records for the layer where present,
// else on each channel's own range. A "float" input or output falls back on
// the float kernel.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "runtime/int8/float_island_layer.h"
#include "runtime/int8/gemm_int8.h"
#include "runtime/int8/quantized_weights.h"
#include "runtime/int8/reference.h"

namespace qzdl {

class WeightedInt8Layer : public FloatIslandLayer {
 public:
  // Whether the layer computes in integers: its input and output are
  // "int8". Otherwise it runs its float kernel.
  bool ComputesInIntegers();
  // Builds the attribute tensors unless they are present.
  void EnsurePrepared();
  // The grid of each output channel's weights, as the last build made them.
  const std::vector<ChannelGrid>& WeightGrids() const { return grids_; }
  virtual int OutputChannels() const = 0;
  // Takes weights that were saved quantized (codes with one grid per output
  // channel, and int32 biases): the float weights become the codes'
  // dequantized values and the grids the configuration's weight records,
  // so that a later rebuild quantizes back to the same codes; the saved
  // codes and biases themselves become the attribute tensors, so the net
  // computes exactly what was saved. The caller has checked the shapes.
  void AdoptSaved(const QuantizedBlob& weight, const QuantizedBlob* bias);

 protected:
  void Run() override;
  // The integer kernel on codes; attributes and q_ are ready.
  virtual void RunCodes(const uint8_t* x, const uint8_t* weight, uint8_t* y) = 0;
  // Weight k of output channel o in the float weight blob (its layout).
  virtual int64_t ChannelWeightAt(int o, int64_t k) const = 0;
  // Whether channel o's weights are the run [o * K, (o + 1) * K) of the
  // blob, so that the loops over every weight need no call per weight.
  virtual bool ContiguousChannels() const { return true; }
  // ChannelWeightAt, or the direct index where channels are contiguous.
  int64_t WeightAt(int o, int64_t k, int64_t per) const {
    return ContiguousChannels() ? int64_t(o) * per + k : ChannelWeightAt(o, k);
  }
  // Builds what the fast kernel needs from the codes, once they are final
  // (after every build of the attributes).
  virtual void PrepareKernel() {}
  // The weights of the fast kernels (gemm_int8.h), [out][K]: centred floats
  // (code - zero point; the float attribute "weight_centered"); or, for the
  // u8 x s8 GEMM, the codes' row sums (the int32 attribute "weight_sum") of
  // a convolution, whose codes are read as they are, or the shifted codes
  // (code - 128 as int8; "weight_shifted") and their row sums
  // ("weight_shifted_sum") of an inner product; or, for the pair GEMM, the
  // centred codes packed in pairs, panels per group (the int32 attribute
  // "weight_pairs", pair_gemm.h); or, for the quad GEMM, the shifted codes
  // packed in quads, panels per group ("weight_quads", quad_gemm.h), and
  // the codes' row sums ("weight_sum").
  void BuildKernelWeights(WeightForm form);
  // Groups of output channels whose weights the pair GEMM packs apart.
  virtual int WeightGroups() const { return 1; }
  // Whether the u8 x s8 GEMM takes the weights as shifted codes (inner
  // product) rather than as the codes themselves (convolution).
  virtual bool ShiftsWeights() const { return true; }
  // Those weights, built first if a caller removed them alone.
  CodeWeights KernelWeights(WeightForm form);

  ChannelQuantization q_;
  int32_t input_zero_ = 0;
  std::vector<ChannelGrid> grids_;

 private:
  // Builds the attribute tensors from the float weights and the grids of
  // the configuration: "weight" (codes, the float blob's layout),
  // "weight_zero", "bias", "multiplier", "shift" (int32 per output channel),
  // "weight_scale" (float per output channel).
  void Prepare();
};

// "Convolution", on the exact GEMM kernel (gemm_int8.h).
class ConvolutionInt8Layer : public WeightedInt8Layer {
 public:
  void Reshape() override;

 protected:
  void RunCodes(const uint8_t* x, const uint8_t* weight, uint8_t* y) override;
  int64_t ChannelWeightAt(int o, int64_t k) const override;
  void PrepareKernel() override { BuildKernelWeights(kernel_.Form()); }
  bool ShiftsWeights() const override { return false; }
  int WeightGroups() const override;

 private:
  ConvCodesKernel kernel_;

 public:
  int OutputChannels() const override;
};

// "Deconvolution" (weights [num_output, C / group, kernel_h, kernel_w], per
// output channel grids like "Convolution").
class DeconvolutionInt8Layer : public WeightedInt8Layer {
 protected:
  void RunCodes(const uint8_t* x, const uint8_t* weight, uint8_t* y) override;
  int64_t ChannelWeightAt(int o, int64_t k) const override;

 public:
  int OutputChannels() const override;
};

// "InnerProduct" (weights [num_output, K], or [K, num_output] with
// transpose), on the exact GEMM kernel (gemm_int8.h).
class InnerProductInt8Layer : public WeightedInt8Layer {
 public:
  void Reshape() override;

 protected:
  void RunCodes(const uint8_t* x, const uint8_t* weight, uint8_t* y) override;
  int64_t ChannelWeightAt(int o, int64_t k) const override;
  bool ContiguousChannels() const override;
  void PrepareKernel() override {
    BuildKernelWeights(kernel_.Shifted() ? WeightForm::kU8S8 : WeightForm::kCentred);
  }

 private:
  InnerProductCodesKernel kernel_;

 public:
  int OutputChannels() const override;
};

}  // namespace qzdl
