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

}  // namespace qzdl
