#include "runtime/layers/conv_integer.h"

#include <algorithm>
#include <climits>
#include <cmath>

#include "runtime/kernels/gemm.h"
#include "runtime/kernels/im2col.h"
#include "runtime/kernels/parallel.h"

namespace qzdl {

namespace {

// Output positions per work item: the patches of a tile stay in cache.
constexpr int64_t kTileValues = 1 << 16;

float MaxAbs(const float* v, int64_t n) {
  float m = 0.0f;
  for (int64_t i = 0; i < n; ++i) m = std::max(m, std::fabs(v[i]));
  return m;
}

}  // namespace

template <>
int ConvIntegerLayer<float>::ChunkFor(int k, double max_x, double max_w) {
  const double bound = max_x * max_w;
  if (!(bound > 0.0)) return std::max(k, 1);
  const double chunk = std::floor(16777216.0 / bound);
  return static_cast<int>(std::clamp(chunk, 1.0, static_cast<double>(std::max(k, 1))));
}

template <>
void ConvIntegerLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  params_ = ReadConvParams(param, false);
  if (params_.bias_term) param.Fail("param \"bias_term\" must be false (the sums have no bias)");
}

template <>
void ConvIntegerLayer<float>::Reshape() {
  this->ExpectRank(0, 4);
  const std::vector<int> dims = this->in()->GetDims();
  const ConvParams& p = params_;
  if (dims[1] % p.group != 0)
    this->Fail("input \"" + this->in()->GetName() + "\" has " + std::to_string(dims[1]) +
               " channels, not divisible by group " + std::to_string(p.group));
  ConvGeometry g = InputGeometry(dims, p);
  if (!g.ConvFits())
    this->Fail("input \"" + this->in()->GetName() + "\" of shape " + DimsToString(dims) +
               " is smaller than the dilated kernel");
  g.out_h = g.ConvOutH();
  g.out_w = g.ConvOutW();
  const int64_t k = int64_t(g.InPerGroup()) * g.KernelArea();
  if (k > INT_MAX || g.OutPlane() > INT_MAX)
    this->Fail("a patch of " + std::to_string(k) + " values or an output plane of " +
               std::to_string(g.OutPlane()) + " is more than 2147483647");
  g_ = g;
  k_ = static_cast<int>(k);
  tile_ = static_cast<int>(std::clamp<int64_t>(kTileValues / std::max<int64_t>(k, 1), 16, 1024));
  tile_ = static_cast<int>(std::min<int64_t>(tile_, g.OutPlane()));
  slots_.resize(static_cast<size_t>(std::max(1, ParallelThreads())));
  for (Slot& s : slots_) {
    s.col.resize(size_t(k_) * tile_);
    s.product.resize(size_t(g.OutPerGroup()) * tile_);
    s.acc.resize(size_t(g.OutPerGroup()) * tile_);
  }
  this->out()->Resize({g.batch, g.out_c, g.out_h, g.out_w});
}

template <>
std::vector<WeightSpec> ConvIntegerLayer<float>::WeightSpecs() {
  const int in_c = this->in()->GetDim(1);
  return {
      {"weight", {params_.num_output, in_c / params_.group, params_.kernel_h, params_.kernel_w}}};
}

template <>
void ConvIntegerLayer<float>::Run() {
  const ConvGeometry& g = g_;
  const float* x = this->in()->GetCpuData();
  const float* w = this->weight(0)->GetCpuData();
  float* y = this->out()->GetCpuData();
  const int k = k_, cin_g = g.InPerGroup(), cout_g = g.OutPerGroup(), tile = tile_;
  const int chunk = ChunkFor(k, MaxAbs(x, this->in()->Count(0)), MaxAbs(w, int64_t(g.out_c) * k));
  const int64_t plane = g.OutPlane(), in_plane = g.InPlane();
  const int64_t tiles = (plane + tile - 1) / tile;
  const int64_t items = int64_t(g.batch) * g.group * tiles;
  ParallelItems(items, static_cast<int>(slots_.size()), [&](int64_t item, int slot) {
    Slot& s = slots_[slot];
    const int64_t t = item % tiles, ng = item / tiles;
    const int grp = static_cast<int>(ng % g.group), n = static_cast<int>(ng / g.group);
    const int64_t p0 = t * tile;
    const int np = static_cast<int>(std::min<int64_t>(tile, plane - p0));
    const float* xg = x + (int64_t(n) * g.in_c + int64_t(grp) * cin_g) * in_plane;
    Im2colTile(g, xg, p0, np, s.col.data());
    const float* wg = w + int64_t(grp) * cout_g * k;
    std::fill(s.acc.begin(), s.acc.begin() + int64_t(cout_g) * np, 0);
    for (int k0 = 0; k0 < k; k0 += chunk) {
      const int kc = std::min(chunk, k - k0);
      SgemmTile(false, false, cout_g, np, kc, 1.0f, wg + k0, k, s.col.data() + int64_t(k0) * np, np,
                0.0f, s.product.data(), np);
      for (int64_t i = 0; i < int64_t(cout_g) * np; ++i)
        s.acc[i] += static_cast<int64_t>(s.product[i]);
    }
    for (int m = 0; m < cout_g; ++m) {
      float* dst = y + (int64_t(n) * g.out_c + int64_t(grp) * cout_g + m) * plane + p0;
      const int64_t* a = s.acc.data() + int64_t(m) * np;
      for (int p = 0; p < np; ++p) dst[p] = static_cast<float>(a[p]);
    }
  });
}

}  // namespace qzdl
