#include "runtime/kernels/epilogue.h"

// Vectorized for AVX-512 / AVX2 on x86-64 (picked at load time).
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
#define QZDL_EPILOGUE_CLONES __attribute__((target_clones("avx512f", "avx2", "default")))
#else
#define QZDL_EPILOGUE_CLONES
#endif

namespace qzdl {

namespace {

// One loop per combination, so that each vectorizes without a test per
// element. Without bias nothing is added (adding 0 would turn -0 into +0).
template <bool kBias, bool kAffine, typename Fn>
void Loop(float* y, int64_t n, float bias, float shift, float mult, float add, Fn fn) {
  for (int64_t i = 0; i < n; ++i) {
    float v = y[i];
    if (kBias) v += bias;
    if (kAffine) v = AffineValue(v, shift, mult, add);
    y[i] = fn(v);
  }
}

template <bool kBias, bool kAffine>
void ByKind(const Epilogue& e, float* y, int64_t n, float bias, float shift, float mult,
            float add) {
  switch (e.kind) {
    case Epilogue::Kind::kNone:
      Loop<kBias, kAffine>(y, n, bias, shift, mult, add, [](float x) { return x; });
      return;
    case Epilogue::Kind::kRelu: {
      const float s = e.param;
      Loop<kBias, kAffine>(y, n, bias, shift, mult, add,
                           [s](float x) { return PositiveOrScaled(x, s); });
      return;
    }
    case Epilogue::Kind::kClip: {
      const float t = e.param;
      Loop<kBias, kAffine>(y, n, bias, shift, mult, add, [t](float x) { return ClipZeroTo(x, t); });
      return;
    }
    case Epilogue::Kind::kHardSwish:
      Loop<kBias, kAffine>(y, n, bias, shift, mult, add, [](float x) { return HardSwishValue(x); });
      return;
  }
}

QZDL_EPILOGUE_CLONES
void Row(const Epilogue& e, const float* bias, float* y, int64_t n, int64_t c) {
  const bool affine = e.mult != nullptr;
  const float b = bias != nullptr ? *bias : 0.0f;
  const float sh = affine ? e.shift[c] : 0.0f, mu = affine ? e.mult[c] : 0.0f,
              ad = affine ? e.add[c] : 0.0f;
  if (bias != nullptr) {
    affine ? ByKind<true, true>(e, y, n, b, sh, mu, ad)
           : ByKind<true, false>(e, y, n, b, sh, mu, ad);
  } else {
    affine ? ByKind<false, true>(e, y, n, b, sh, mu, ad)
           : ByKind<false, false>(e, y, n, b, sh, mu, ad);
  }
}

}  // namespace

void ApplyEpilogue(const Epilogue& e, float* y, int64_t n, int64_t channel) {
  if (e.Active()) Row(e, nullptr, y, n, channel);
}

void BiasAndEpilogue(const Epilogue& e, const float* bias, float* y, int64_t ld, int rows, int cols,
                     int64_t first_channel) {
  for (int r = 0; r < rows; ++r)
    Row(e, bias != nullptr ? bias + r : nullptr, y + r * ld, cols, first_channel + r);
}

}  // namespace qzdl
