#include "runtime/int8/gemm_int8.h"

#include <omp.h>

#include <algorithm>
#include <climits>

#include "runtime/int8/requantize.h"
#include "runtime/kernels/gemm.h"
#include "runtime/kernels/im2col.h"
#include "runtime/kernels/parallel.h"

namespace qzdl {

namespace {

int32_t SaturateToInt32(int64_t v) {
  return static_cast<int32_t>(v < INT32_MIN ? INT32_MIN : v > INT32_MAX ? INT32_MAX : v);
}

void CentreCodes(const uint8_t* x, int64_t n, int32_t zero, float* out) {
  ParallelFor(n, [=](int64_t begin, int64_t end) {
    for (int64_t i = begin; i < end; ++i) out[i] = static_cast<float>(int32_t(x[i]) - zero);
  });
}

// acc (m x n, row stride n) = sum over k of a (m x k, row stride lda) times
// b (k x n, row stride ldb), exactly: chunks of kExactChunk on the float GEMM,
// each converted to integers and summed in int64.
void ExactProducts(int m, int n, int k, const float* a, int lda, const float* b, int ldb,
                   bool trans_b, float* product, int64_t* acc, int ldc) {
  for (int k0 = 0; k0 < k; k0 += kExactChunk) {
    const int kc = std::min(kExactChunk, k - k0);
    const float* bk = trans_b ? b + k0 : b + int64_t(k0) * ldb;
    SgemmTile(false, trans_b, m, n, kc, 1.0f, a + k0, lda, bk, ldb, 0.0f, product, ldc);
    for (int r = 0; r < m; ++r) {
      const float* p = product + int64_t(r) * ldc;
      int64_t* s = acc + int64_t(r) * ldc;
      if (k0 == 0) {
        for (int j = 0; j < n; ++j) s[j] = static_cast<int64_t>(p[j]);
      } else {
        for (int j = 0; j < n; ++j) s[j] += static_cast<int64_t>(p[j]);
      }
    }
  }
  if (k == 0) {
    for (int r = 0; r < m; ++r) std::fill(acc + int64_t(r) * ldc, acc + int64_t(r) * ldc + n, 0);
  }
}

int Threads(size_t slots) { return std::max(1, std::min(int(slots), omp_get_max_threads())); }

}  // namespace

void ConvCodesKernel::Reshape(const ConvGeometry& g) {
  g_ = g;
  const int64_t k = int64_t(g.InPerGroup()) * g.KernelArea();
  depthwise_ = g.InPerGroup() == 1 && g.OutPerGroup() == 1 && g.KernelArea() <= kExactChunk;
  pointwise_ = g.kernel_h == 1 && g.kernel_w == 1 && g.stride_h == 1 && g.stride_w == 1 &&
               g.pad_top == 0 && g.pad_bottom == 0 && g.pad_left == 0 && g.pad_right == 0;
  const int64_t plane = g.OutPlane();
  // A tile of output positions whose patches take about 1 MB.
  int64_t tile = std::max<int64_t>(32, std::min<int64_t>(1024, (int64_t(1) << 18) / std::max<int64_t>(k, 1)));
  tile_ = static_cast<int>(std::max<int64_t>(1, std::min(tile, plane)));
  centred_x_.resize(static_cast<size_t>(int64_t(g.batch) * g.in_c * g.InPlane()));
  slots_.resize(static_cast<size_t>(std::max(1, omp_get_max_threads())));
  for (Slot& s : slots_) {
    if (depthwise_) {
      s.product.resize(static_cast<size_t>(plane));
      s.col.clear();
      s.acc.clear();
      continue;
    }
    s.col.resize(pointwise_ ? 0 : static_cast<size_t>(k * tile_));
    s.product.resize(static_cast<size_t>(int64_t(g.OutPerGroup()) * tile_));
    s.acc.resize(static_cast<size_t>(int64_t(g.OutPerGroup()) * tile_));
  }
}

void ConvCodesKernel::Run(const uint8_t* x, int32_t x_zero, const float* centred,
                          const ChannelQuantization& q, uint8_t* y) {
  const ConvGeometry& g = g_;
  CentreCodes(x, static_cast<int64_t>(centred_x_.size()), x_zero, centred_x_.data());
  if (depthwise_) return RunDepthwise(x, x_zero, centred, q, y);
  const int cin_g = g.InPerGroup(), cout_g = g.OutPerGroup();
  const int k = static_cast<int>(int64_t(cin_g) * g.KernelArea());
  const int64_t plane = g.OutPlane(), in_plane = g.InPlane();
  const int64_t tiles = (plane + tile_ - 1) / tile_;
  const int64_t items = int64_t(g.batch) * g.group * tiles;
#pragma omp parallel num_threads(Threads(slots_.size()))
  {
    Slot& s = slots_[omp_get_thread_num()];
#pragma omp for schedule(dynamic)
    for (int64_t item = 0; item < items; ++item) {
      const int64_t t = item % tiles;
      const int grp = static_cast<int>((item / tiles) % g.group);
      const int n = static_cast<int>(item / tiles / g.group);
      const int64_t p0 = t * tile_;
      const int np = static_cast<int>(std::min<int64_t>(tile_, plane - p0));
      const float* xg = centred_x_.data() + (int64_t(n) * g.in_c + int64_t(grp) * cin_g) * in_plane;
      const float* b;
      int ldb;
      if (pointwise_) {
        b = xg + p0;
        ldb = static_cast<int>(in_plane);
      } else {
        Im2colTile(g, xg, p0, np, s.col.data());
        b = s.col.data();
        ldb = np;
      }
      ExactProducts(cout_g, np, k, centred + int64_t(grp) * cout_g * k, k, b, ldb, false,
                    s.product.data(), s.acc.data(), np);
      for (int m = 0; m < cout_g; ++m) {
        const int o = grp * cout_g + m;
        const int64_t* a = s.acc.data() + int64_t(m) * np;
        uint8_t* out = y + (int64_t(n) * g.out_c + o) * plane + p0;
        for (int p = 0; p < np; ++p)
          out[p] = Requantize(SaturateToInt32(q.bias[o] + a[p]), q.requantizer[o], q.output_zero);
      }
    }
  }
}

// One kernel window per channel: taps added row by row over the centred input
// in float, exact since a window has at most kExactChunk taps.
void ConvCodesKernel::RunDepthwise(const uint8_t*, int32_t, const float* centred,
                                   const ChannelQuantization& q, uint8_t* y) {
  const ConvGeometry& g = g_;
  const int64_t plane = g.OutPlane(), in_plane = g.InPlane();
  const int64_t items = int64_t(g.batch) * g.out_c;
#pragma omp parallel num_threads(Threads(slots_.size()))
  {
    float* acc = slots_[omp_get_thread_num()].product.data();
#pragma omp for schedule(dynamic)
    for (int64_t item = 0; item < items; ++item) {
      const int c = static_cast<int>(item % g.out_c);
      const float* xc = centred_x_.data() + item * in_plane;
      const float* w = centred + int64_t(c) * g.KernelArea();
      std::fill(acc, acc + plane, 0.0f);
      for (int ky = 0; ky < g.kernel_h; ++ky) {
        for (int kx = 0; kx < g.kernel_w; ++kx) {
          const float wv = w[ky * g.kernel_w + kx];
          if (wv == 0.0f) continue;
          const int dx = kx * g.dilation_w - g.pad_left;
          // Output columns whose tap lands inside the row: 0 <= ox * sw + dx < in_w.
          const int ox0 = dx >= 0 ? 0 : (-dx + g.stride_w - 1) / g.stride_w;
          const int ox1 = g.in_w - dx <= 0 ? 0
                                           : std::min(g.out_w, (g.in_w - dx + g.stride_w - 1) / g.stride_w);
          for (int oy = 0; oy < g.out_h; ++oy) {
            const int iy = oy * g.stride_h - g.pad_top + ky * g.dilation_h;
            if (iy < 0 || iy >= g.in_h) continue;
            const float* xr = xc + int64_t(iy) * g.in_w + dx;
            float* ar = acc + int64_t(oy) * g.out_w;
            if (g.stride_w == 1) {
              for (int ox = ox0; ox < ox1; ++ox) ar[ox] += wv * xr[ox];
            } else {
              for (int ox = ox0; ox < ox1; ++ox) ar[ox] += wv * xr[int64_t(ox) * g.stride_w];
            }
          }
        }
      }
      uint8_t* out = y + item * plane;
      for (int64_t p = 0; p < plane; ++p)
        out[p] = Requantize(SaturateToInt32(q.bias[c] + static_cast<int64_t>(acc[p])),
                            q.requantizer[c], q.output_zero);
    }
  }
}

void InnerProductCodesKernel::Reshape(int batch, int k_dim, int out) {
  batch_ = batch;
  k_dim_ = k_dim;
  out_ = out;
  centred_x_.resize(static_cast<size_t>(int64_t(batch) * k_dim));
  product_.resize(static_cast<size_t>(int64_t(batch) * out));
  acc_.resize(static_cast<size_t>(int64_t(batch) * out));
}

void InnerProductCodesKernel::Run(const uint8_t* x, int32_t x_zero, const float* centred,
                                  const ChannelQuantization& q, uint8_t* y) {
  CentreCodes(x, static_cast<int64_t>(centred_x_.size()), x_zero, centred_x_.data());
  constexpr int kBlock = 64;  // output columns per task
  const int blocks = (out_ + kBlock - 1) / kBlock;
#pragma omp parallel for schedule(dynamic)
  for (int blk = 0; blk < blocks; ++blk) {
    const int o0 = blk * kBlock;
    const int nb = std::min(kBlock, out_ - o0);
    ExactProducts(batch_, nb, k_dim_, centred_x_.data(), k_dim_, centred + int64_t(o0) * k_dim_,
                  k_dim_, true, product_.data() + o0, acc_.data() + o0, out_);
    for (int n = 0; n < batch_; ++n) {
      for (int o = o0; o < o0 + nb; ++o) {
        const int64_t a = acc_[int64_t(n) * out_ + o];
        y[int64_t(n) * out_ + o] =
            Requantize(SaturateToInt32(q.bias[o] + a), q.requantizer[o], q.output_zero);
      }
    }
  }
}

}  // namespace qzdl
