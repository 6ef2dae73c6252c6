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
// Inlined into the cloned callers, so that each instruction set gets its own
// vector loops.
#define QZDL_INLINE inline __attribute__((always_inline))

template <bool kBias, bool kAffine, typename Fn>
QZDL_INLINE void Loop(const float* x, float* y, int64_t n, float bias, float shift, float mult,
                      float add, Fn fn) {
  for (int64_t i = 0; i < n; ++i) {
    float v = x[i];
    if (kBias) v += bias;
    if (kAffine) v = AffineValue(v, shift, mult, add);
    y[i] = fn(v);
  }
}

template <bool kBias, bool kAffine>
QZDL_INLINE void ByKind(const Epilogue& e, const float* x, float* y, int64_t n, float bias,
                        float shift, float mult, float add) {
  switch (e.kind) {
    case Epilogue::Kind::kNone:
      Loop<kBias, kAffine>(x, y, n, bias, shift, mult, add, [](float v) { return v; });
      return;
    case Epilogue::Kind::kRelu: {
      const float s = e.param;
      Loop<kBias, kAffine>(x, y, n, bias, shift, mult, add,
                           [s](float v) { return PositiveOrScaled(v, s); });
      return;
    }
    case Epilogue::Kind::kClip: {
      const float t = e.param;
      Loop<kBias, kAffine>(x, y, n, bias, shift, mult, add,
                           [t](float v) { return ClipZeroTo(v, t); });
      return;
    }
    case Epilogue::Kind::kHardSwish:
      Loop<kBias, kAffine>(x, y, n, bias, shift, mult, add,
                           [](float v) { return HardSwishValue(v); });
      return;
    case Epilogue::Kind::kSigmoid:
      Loop<kBias, kAffine>(x, y, n, bias, shift, mult, add,
                           [](float v) { return SigmoidValue(v); });
      return;
    case Epilogue::Kind::kSwish: {
      const float beta = e.param;
      Loop<kBias, kAffine>(x, y, n, bias, shift, mult, add,
                           [beta](float v) { return SwishValue(v, beta); });
      return;
    }
  }
}

QZDL_EPILOGUE_CLONES
void Row(const Epilogue& e, const float* bias, float* y, int64_t n, int64_t c) {
  const bool affine = e.mult != nullptr;
  const float b = bias != nullptr ? *bias : 0.0f;
  const float sh = affine ? e.shift[c] : 0.0f, mu = affine ? e.mult[c] : 0.0f,
              ad = affine ? e.add[c] : 0.0f;
  if (bias != nullptr) {
    affine ? ByKind<true, true>(e, y, y, n, b, sh, mu, ad)
           : ByKind<true, false>(e, y, y, n, b, sh, mu, ad);
  } else {
    affine ? ByKind<false, true>(e, y, y, n, b, sh, mu, ad)
           : ByKind<false, false>(e, y, y, n, b, sh, mu, ad);
  }
}

QZDL_EPILOGUE_CLONES
void Map(const Epilogue& e, const float* x, float* y, int64_t n) {
  ByKind<false, false>(e, x, y, n, 0.0f, 0.0f, 0.0f, 0.0f);
}

}  // namespace

void MapActivation(const Epilogue& e, const float* x, float* y, int64_t n) { Map(e, x, y, n); }

void ApplyEpilogue(const Epilogue& e, float* y, int64_t n, int64_t channel) {
  if (e.Active()) Row(e, nullptr, y, n, channel);
}

void BiasAndEpilogue(const Epilogue& e, const float* bias, float* y, int64_t ld, int rows, int cols,
                     int64_t first_channel) {
  for (int r = 0; r < rows; ++r)
    Row(e, bias != nullptr ? bias + r : nullptr, y + r * ld, cols, first_channel + r);
}

}  // namespace qzdl
