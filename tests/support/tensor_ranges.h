// The range of every tensor of a float net over every layer that writes it
// (in-place writers too) and every item it is shown: what the 8-bit tests
// build their configurations from.
#pragma once

#include <algorithm>
#include <map>
#include <string>
#include <utility>

#include "runtime/data.h"
#include "runtime/net.h"

namespace qzdl::test {

class TensorRanges {
 public:
  // Widens the range of `t` by its present values.
  void See(const Data<float>* t) {
    auto it = ranges_.find(t->GetName());
    const float lo = t->GetMinValue(), hi = t->GetMaxValue();
    if (it == ranges_.end()) {
      ranges_[t->GetName()] = {lo, hi};
    } else {
      it->second = {std::min(it->second.first, lo), std::max(it->second.second, hi)};
    }
  }
  // Sees the inputs as they are, then runs the net layer by layer and sees
  // each output right after its layer.
  void Run(Net<float>& net) {
    for (int i = 0; i < net.GetInputCount(); ++i) See(net.GetInputData(i));
    for (Layer<float>* layer : net.GetLayers()) {
      layer->Forward();
      for (Data<float>* out : layer->GetOutputs()) See(out);
    }
  }
  const std::map<std::string, std::pair<float, float>>& Ranges() const { return ranges_; }

 private:
  std::map<std::string, std::pair<float, float>> ranges_;
};

}  // namespace qzdl::test
