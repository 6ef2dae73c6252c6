#include "runtime/kernels/epilogue.h"

// Vectorized for AVX-512 / AVX2 on x86-64 (picked at load time).
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
#define QZDL_EPILOGUE_CLONES __attribute__((target_clones("avx512f", "avx2", "default")))
#else
#define QZDL_EPILOGUE_CLONES
#endif

namespace qzdl {

namespace {

// One loop per kind, so that each vectorizes without a test per element.
template <typename Fn>
void Map(float* y, int64_t n, float add, Fn fn) {
  for (int64_t i = 0; i < n; ++i) y[i] = fn(y[i] + add);
}

template <typename Fn>
void MapRow(const Epilogue& e, float* y, int64_t n, float add, Fn plain) {
  switch (e.kind) {
    case Epilogue::Kind::kNone:
      plain(y, n, add);
      return;
    case Epilogue::Kind::kRelu: {
      const float s = e.param;
      Map(y, n, add, [s](float x) { return PositiveOrScaled(x, s); });
      return;
    }
    case Epilogue::Kind::kClip: {
      const float t = e.param;
      Map(y, n, add, [t](float x) { return ClipZeroTo(x, t); });
      return;
    }
    case Epilogue::Kind::kHardSwish:
      Map(y, n, add, [](float x) { return HardSwishValue(x); });
      return;
  }
}

void AddOnly(float* y, int64_t n, float add) {
  for (int64_t i = 0; i < n; ++i) y[i] += add;
}

}  // namespace

QZDL_EPILOGUE_CLONES void ApplyEpilogue(const Epilogue& e, float* y, int64_t n) {
  // Adding 0.0f would turn -0 into +0; the activations alone see x as it is.
  switch (e.kind) {
    case Epilogue::Kind::kNone:
      return;
    case Epilogue::Kind::kRelu: {
      const float s = e.param;
      for (int64_t i = 0; i < n; ++i) y[i] = PositiveOrScaled(y[i], s);
      return;
    }
    case Epilogue::Kind::kClip: {
      const float t = e.param;
      for (int64_t i = 0; i < n; ++i) y[i] = ClipZeroTo(y[i], t);
      return;
    }
    case Epilogue::Kind::kHardSwish:
      for (int64_t i = 0; i < n; ++i) y[i] = HardSwishValue(y[i]);
      return;
  }
}

QZDL_EPILOGUE_CLONES void BiasAndEpilogue(const Epilogue& e, const float* bias, float* y,
                                          int64_t ld, int rows, int cols) {
  for (int r = 0; r < rows; ++r) {
    float* row = y + r * ld;
    if (bias == nullptr) {
      ApplyEpilogue(e, row, cols);
    } else {
      MapRow(e, row, cols, bias[r], AddOnly);
    }
  }
}

}  // namespace qzdl
