#include "quantization/coverage_observer.h"

#include <algorithm>
#include <cfloat>
#include <cstdio>
#include <cstring>

#include "quantization/functional_search.h"

namespace qzdl {
namespace staticQuantization {

namespace {

// Grows a store to `size` entries, new entries holding `filler`.
void GrowStore(float*& store, unsigned long& store_size, unsigned long size, float filler) {
  if (store_size >= size) return;
  float* grown = new float[size];
  if (store_size > 0) std::memcpy(grown, store, store_size * sizeof(float));
  std::fill(grown + store_size, grown + size, filler);
  delete[] store;
  store = grown;
  store_size = size;
}

}  // namespace

CoverageObserver::~CoverageObserver() {
  delete[] max_store;
  delete[] min_store;
}

void CoverageObserver::SetTotal(int total) { this->total = total; }

void CoverageObserver::SetCoverageRatio(float ratio) {
  if (ratio > 1.0f || ratio < 0.0f) {
    std::printf("Invalid Coverage param. Coverage ration remain unchanged\n");
    return;
  }
  if (static_cast<double>(ratio) < 0.99) {
    std::printf(
        "Warning: coverage value %.3f might be too small, this may leads to abnormal model "
        "performance!\n",
        ratio);
  }
  coverage_ratio = ratio;
}

void CoverageObserver::GetOptMinMax(float const* data, unsigned long count) {
  unsigned long nth_min = 0;
  unsigned long nth_max = 0;
  unsigned long margin = 0;
  ConfigureNth(static_cast<unsigned long>(total) * count, coverage_ratio, nth_min, nth_max, margin);
  const unsigned long min_size = nth_min + margin;
  const unsigned long max_size = nth_max + margin;
  // Made at the first data. A later batch larger than the first asks for more
  // entries than were made: the stores then grow with the same fillers, as if
  // they had been made that large; a smaller batch uses their first entries.
  GrowStore(max_store, max_store_size, max_size, -FLT_MAX);
  GrowStore(min_store, min_store_size, min_size, FLT_MAX);
  CalibrationWithCoverage(data, count, opt_min, opt_max, static_cast<unsigned int>(min_size),
                          static_cast<unsigned int>(max_size), static_cast<unsigned int>(margin),
                          min_store, max_store);
}

}  // namespace staticQuantization
}  // namespace qzdl
