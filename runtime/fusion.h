// Fused execution of a float net (Net::SetInferenceMode): an activation whose
// input only it reads is computed by the layer that writes that input, on
// each output tile while it is in cache, and the activation layer does not
// run. The fused-away tensor then holds nothing meaningful, so this is for
// callers that read only the net's outputs; calibration, which observes every
// tensor, runs unfused.
#pragma once

#include <vector>

#include "runtime/layer.h"

namespace qzdl {

// Whether `layer` is an activation that an epilogue computes with the same
// bits (ReLU, LeakyRelu, ReLUX, Swish, Sigmoid); `e` gets it.
bool EpilogueOf(Layer<float>* layer, Epilogue* e);

// Undoes every fusion of `layers`, then with `on` fuses into each producer
// (a layer with one output whose FuseEpilogue accepts) the chain that
// follows it: at most one "Scale" or "BatchNormal" (a ChannelAffine), then
// at most one activation of EpilogueOf. Each link is the first reader of the
// tensor before it, that tensor is none named in `keep` (the net's inputs and
// outputs), every layer that writes it is in the chain, and no layer outside
// the chain reads it before the link has rewritten it (in place) or at all
// (out of place). Returns the number of chains fused.
int PlanFusion(const std::vector<Layer<float>*>& layers, const std::vector<std::string>& keep,
               bool on);

// Concat views (inference mode, with storage): an input of a "Concat" whose
// inputs are each one block of its output (ConcatLayer::Contiguous) is given
// that block as storage, so its writers write there and the concat has
// nothing to copy. The tensors in `*viewed` (those of the last call) first
// get storage of their own back (when they had storage); with `on`,
// `*viewed` then lists the new views. An input gets a view when it is none
// of `keep` (the net's inputs and outputs), appears once among the concat's
// inputs and in no later concat's views, every layer writing it runs before
// the concat, and every layer reading it runs before any layer that rewrites
// the block (in place, after the concat: also through a concat that views
// the output in turn). Where each input is one block per image instead
// (concats on the channel axis at any batch), an input that the concat
// alone reads and whose one running writer can space its images
// (Layer::SetOutputImageStride, e.g. a convolution) is written image by
// image into its place; its own storage then holds no tensor of its own.
// Every layer's image stride is reset first. Returns the number of views.
int PlanConcatViews(const std::vector<Layer<float>*>& layers, const std::vector<std::string>& keep,
                    bool on, std::vector<Data<float>*>* viewed);

// Channel-blocked hand-off (inference mode, after PlanFusion): a tensor
// that one running layer writes stays in the channel-blocked layout of the
// convolutions that write and read it (Layer::OutputBlock / InputBlock)
// when they all use the same one, it is none of `keep`, and every other
// layer that touches it is layout-agnostic (Layer::LayoutAgnostic, e.g. an
// element-wise sum), whose inputs and output then form one group that takes
// one layout. Any other reader or writer keeps its group in NCHW. Two
// reorders fewer per hand-off, the same values. Every layer's blocking is
// reset first. Returns the number of tensors handed over blocked.
int PlanBlockedLayouts(const std::vector<Layer<float>*>& layers,
                       const std::vector<std::string>& keep, bool on);

}  // namespace qzdl
