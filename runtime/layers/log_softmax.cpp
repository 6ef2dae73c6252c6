#include "runtime/layers/log_softmax.h"

#include <algorithm>
#include <cmath>

#include "runtime/kernels/parallel.h"

namespace qzdl {

template <>
void LogSoftmaxLayer<float>::Run() {
  const float* x = this->in()->GetCpuData();
  float* y = this->out()->GetCpuData();
  const int64_t dim = dim_, inner = inner_;
  // A task handles up to kBlock neighbouring columns (positions on the inner
  // axes) of one outer index; each column is reduced by one task in a fixed
  // order, with the sum of exponentials kept in double. Every column is read
  // completely before it is written, so x and y may be the same buffer.
  constexpr int64_t kBlock = 64;
  const int64_t blocks = (inner + kBlock - 1) / kBlock;
  ParallelFor(
      outer_ * blocks,
      [=](int64_t begin, int64_t end) {
        float mx[kBlock];
        double sum[kBlock];
        for (int64_t t = begin; t < end; ++t) {
          const int64_t o = t / blocks;
          const int64_t i0 = (t % blocks) * kBlock;
          const int64_t n = std::min(kBlock, inner - i0);
          const float* xo = x + o * dim * inner + i0;
          float* yo = y + o * dim * inner + i0;
          for (int64_t i = 0; i < n; ++i) {
            mx[i] = xo[i];
            sum[i] = 0.0;
          }
          for (int64_t d = 1; d < dim; ++d)
            for (int64_t i = 0; i < n; ++i) mx[i] = std::max(mx[i], xo[d * inner + i]);
          for (int64_t d = 0; d < dim; ++d)
            for (int64_t i = 0; i < n; ++i)
              sum[i] += std::exp(static_cast<double>(xo[d * inner + i]) - mx[i]);
          // The shift max + log(sum), subtracted in double and rounded once.
          double shift[kBlock];
          for (int64_t i = 0; i < n; ++i) shift[i] = mx[i] + std::log(sum[i]);
          for (int64_t d = 0; d < dim; ++d)
            for (int64_t i = 0; i < n; ++i)
              yo[d * inner + i] = static_cast<float>(xo[d * inner + i] - shift[i]);
        }
      },
      std::max<int64_t>(1, kParallelGrain / std::max<int64_t>(1, dim * std::min(kBlock, inner))));
}

}  // namespace qzdl
