#include "runtime/kernels/conv_reference.h"

#include <vector>

namespace qzdl {

void ReferenceConvolution(const ConvGeometry& g, const float* x, const float* w, const float* b,
                          float* y) {
  const int cin_g = g.InPerGroup(), cout_g = g.OutPerGroup();
  for (int n = 0; n < g.batch; ++n) {
    for (int o = 0; o < g.out_c; ++o) {
      const int grp = o / cout_g;
      for (int oy = 0; oy < g.out_h; ++oy) {
        for (int ox = 0; ox < g.out_w; ++ox) {
          double sum = 0.0;
          for (int c = 0; c < cin_g; ++c) {
            const int ci = grp * cin_g + c;
            for (int ky = 0; ky < g.kernel_h; ++ky) {
              const int iy = oy * g.stride_h - g.pad_top + ky * g.dilation_h;
              if (iy < 0 || iy >= g.in_h) continue;
              for (int kx = 0; kx < g.kernel_w; ++kx) {
                const int ix = ox * g.stride_w - g.pad_left + kx * g.dilation_w;
                if (ix < 0 || ix >= g.in_w) continue;
                const double xv = x[((int64_t(n) * g.in_c + ci) * g.in_h + iy) * g.in_w + ix];
                const double wv = w[((int64_t(o) * cin_g + c) * g.kernel_h + ky) * g.kernel_w + kx];
                sum += xv * wv;
              }
            }
          }
          if (b != nullptr) sum += b[o];
          y[((int64_t(n) * g.out_c + o) * g.out_h + oy) * g.out_w + ox] = static_cast<float>(sum);
        }
      }
    }
  }
}

void ReferenceDeconvolution(const ConvGeometry& g, const float* x, const float* w, const float* b,
                            float* y) {
  const int cin_g = g.InPerGroup(), cout_g = g.OutPerGroup();
  const int64_t out_count = int64_t(g.batch) * g.out_c * g.OutPlane();
  std::vector<double> acc(out_count, 0.0);
  for (int n = 0; n < g.batch; ++n) {
    for (int ci = 0; ci < g.in_c; ++ci) {
      const int grp = ci / cin_g, c = ci % cin_g;
      for (int iy = 0; iy < g.in_h; ++iy) {
        for (int ix = 0; ix < g.in_w; ++ix) {
          const double xv = x[((int64_t(n) * g.in_c + ci) * g.in_h + iy) * g.in_w + ix];
          for (int oc = 0; oc < cout_g; ++oc) {
            const int o = grp * cout_g + oc;
            for (int ky = 0; ky < g.kernel_h; ++ky) {
              const int oy = iy * g.stride_h - g.pad_top + ky * g.dilation_h;
              if (oy < 0 || oy >= g.out_h) continue;
              for (int kx = 0; kx < g.kernel_w; ++kx) {
                const int ox = ix * g.stride_w - g.pad_left + kx * g.dilation_w;
                if (ox < 0 || ox >= g.out_w) continue;
                const double wv = w[((int64_t(o) * cin_g + c) * g.kernel_h + ky) * g.kernel_w + kx];
                acc[((int64_t(n) * g.out_c + o) * g.out_h + oy) * g.out_w + ox] += xv * wv;
              }
            }
          }
        }
      }
    }
  }
  for (int64_t i = 0; i < out_count; ++i) {
    const int o = static_cast<int>((i / g.OutPlane()) % g.out_c);
    y[i] = static_cast<float>(acc[i] + (b != nullptr ? b[o] : 0.0));
  }
}

void ReferenceInnerProduct(int batch, int k_dim, int out, bool transpose, const float* x,
                           const float* w, const float* b, float* y) {
  for (int n = 0; n < batch; ++n) {
    for (int o = 0; o < out; ++o) {
      double sum = 0.0;
      for (int k = 0; k < k_dim; ++k) {
        const float wv = transpose ? w[int64_t(k) * out + o] : w[int64_t(o) * k_dim + k];
        sum += double(x[int64_t(n) * k_dim + k]) * wv;
      }
      if (b != nullptr) sum += b[o];
      y[int64_t(n) * out + o] = static_cast<float>(sum);
    }
  }
}

}  // namespace qzdl
