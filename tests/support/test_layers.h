// Layer types that exist only in the tests, for exercising the net
// machinery independently of the real layer families:
//  "TestAffine"  : y = x * weight[c] (+ bias[c] with has_bias); counts Reshape calls;
//                  not in-place safe, so an in-place use is staged.
//  "TestSettle"  : copies its input; AdjustInt8Config answers true for its
//                  first `settle_after` calls.
#pragma once

#include "runtime/layer.h"

namespace qzdl::test {

struct TestLayerCounters {
  static int reshape_calls;
  static long adjust_calls;
};

// Registers the test types; safe to call repeatedly.
void RegisterTestLayers();

}  // namespace qzdl::test
