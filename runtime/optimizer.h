// The concrete class of every net made by net creation: a net plus the nine
// rewrite switches read from the top level of the net description.
#pragma once

#include <string>

#include "runtime/net.h"

namespace qzdl {

template <typename T>
class Optimizer : public Net<T> {
 public:
  Optimizer(const json11::Json& net, std::string dataType);

  // Graph rewrites. Net creation reaches this only when asked to optimize,
  // which the converter never does; the net keeps the structure of its JSON.
  void Optimize(bool, bool, bool, bool, bool, bool) {}

  bool doAlignment = true;
  bool mergeConvBnScRelu = true;
  bool mergeEltwiseRelu = true;
  bool mergeSwish = true;
  bool mergeAllActivation = true;
  bool replaceBroadcastEltwise = true;
  bool replaceConvFC = true;
  bool removeInplaceLayer = true;
  bool removeUselessLayer = true;
};

extern template class Optimizer<float>;

}  // namespace qzdl
