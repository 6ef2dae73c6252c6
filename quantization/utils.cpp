// Integer grid arithmetic (see utils.h and docs/quantization.md).
#include "quantization/utils.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "quantization/float_convert.h"
#include "quantization/simd_kernels.h"
#include "runtime/int8/grid.h"

namespace qzdl {
namespace staticQuantization {

float QuantizationMaxValue(int bits) {
  const uint32_t shifted = 1u << (static_cast<uint32_t>(bits) & 31u);
  return static_cast<float>(static_cast<int32_t>(shifted - 1u));
}

namespace {

// One element of Quantization up to the integer: v = x / scale + zf + 0.5,
// each step rounded, clamped to qmax (NaN too) and truncated if positive.
inline uint32_t QuantizeOne(float x, float scale, float zf, float qmax) {
  float v = x / scale;
  v = v + zf;
  v = v + 0.5f;
  const float c = (qmax > v) ? v : qmax;
  return c > 0.0f ? static_cast<uint32_t>(TruncToInt32(c)) : 0u;
}

// Widths up to 16 bits, and zero or negative `bits`, whose qmax follows the
// shift modulo 32 and reaches 2^31 for -1. So c lies in [0, 2^31], and only
// 2^31 itself is out of int32 range: it saturates to 2147483647. The clamp
// before the conversion keeps it in range, so that the loop vectorises.
template <typename T>
void QuantizeNarrow(const float* src, T* dst, unsigned long count, float scale, float zf,
                    float qmax) {
  constexpr float kBelow2To31 = 2147483520.0f;  // the largest float below 2^31
  for (unsigned long i = 0; i < count; ++i) {
    float v = src[i] / scale;
    v = v + zf;
    v = v + 0.5f;
    float c = (qmax > v) ? v : qmax;
    c = (c > 0.0f) ? c : 0.0f;
    const int32_t t = static_cast<int32_t>(c < kBelow2To31 ? c : kBelow2To31);
    const int32_t q = (c >= 2147483648.0f) ? INT32_MAX : t;
    dst[i] = static_cast<T>(q);
  }
}

}  // namespace

// The grid rule is the runtime's, so that calibration scores ranges on the
// grids the 8-bit net computes with.
void ConfigureScaleZero(float min, float max, int bits, float& scale, int& zero) {
  GridOfRange(min, max, QuantizationMaxValue(bits), scale, zero);
}

void ConfigQuantizationParam(float min, float max, int bits, float& scale, int& zero) {
  GridOfRangeWithZero(min, max, QuantizationMaxValue(bits), scale, zero);
}

void CalculateCombineMinMax(float cur_min, float cur_max, float new_min, float new_max, int bins,
                            int upsample, float& combined_max, int& downsample, int& start_index) {
  (void)new_min;
  const int32_t fine_bins =
      static_cast<int32_t>(static_cast<uint32_t>(bins) * static_cast<uint32_t>(upsample));
  const float bin_width = (cur_max - cur_min) / static_cast<float>(fine_bins);
  const float reach = cur_max < new_max ? new_max : cur_max;
  const float span = reach + reach;
  const float group = static_cast<float>(bins) * bin_width;
  downsample = TruncToInt32(std::ceil(span / group));
  const float excess = std::fma(group, static_cast<float>(downsample), -span);
  combined_max = std::fma(excess, 0.5f, reach);
  start_index = TruncToInt32(std::round((combined_max + cur_min) / bin_width));
}

void Quantization(const float* src, void* dst, unsigned long count, float scale, int zero,
                  int bits) {
  if (bits > 32) return;
  const float qmax = QuantizationMaxValue(bits);
  const float zf = static_cast<float>(zero);
  if (bits <= 8) {
    QuantizeNarrow(src, static_cast<uint8_t*>(dst), count, scale, zf, qmax);
  } else if (bits <= 16) {
    QuantizeNarrow(src, static_cast<uint16_t*>(dst), count, scale, zf, qmax);
  } else {
    uint32_t* out = static_cast<uint32_t*>(dst);
    for (unsigned long i = 0; i < count; ++i) out[i] = QuantizeOne(src[i], scale, zf, qmax);
  }
}

void Dequantization(const void* src, float* dst, unsigned long count, float scale, int zero,
                    int bits) {
  if (bits > 32) return;
  const uint32_t uzero = static_cast<uint32_t>(zero);
  if (bits <= 8) {
    const uint8_t* in = static_cast<const uint8_t*>(src);
    for (unsigned long i = 0; i < count; ++i) {
      const int32_t d = static_cast<int32_t>(static_cast<uint32_t>(in[i]) - uzero);
      dst[i] = static_cast<float>(d) * scale;
    }
  } else if (bits <= 16) {
    const uint16_t* in = static_cast<const uint16_t*>(src);
    for (unsigned long i = 0; i < count; ++i) {
      const int32_t d = static_cast<int32_t>(static_cast<uint32_t>(in[i]) - uzero);
      dst[i] = static_cast<float>(d) * scale;
    }
  } else {
    // Wider grids take the difference as unsigned: below `zero` it wraps.
    const uint32_t* in = static_cast<const uint32_t*>(src);
    for (unsigned long i = 0; i < count; ++i) {
      dst[i] = static_cast<float>(in[i] - uzero) * scale;
    }
  }
}

namespace {

template <typename T>
void FakeQuantizeWith(float* data, unsigned long count, float scale, int zero, int bits) {
  std::unique_ptr<T[]> buffer(new T[count]);
  Quantization(data, buffer.get(), count, scale, zero, bits);
  Dequantization(buffer.get(), data, count, scale, zero, bits);
}

}  // namespace

void FakeQuantization(float* data, unsigned long count, float min, float max, unsigned int bits) {
  float scale;
  int zero;
  const int ibits = static_cast<int>(bits);
  ConfigQuantizationParam(min, max, ibits, scale, zero);
  if (bits <= 8) {
    FakeQuantizeWith<uint8_t>(data, count, scale, zero, ibits);
  } else if (bits <= 16) {
    FakeQuantizeWith<uint16_t>(data, count, scale, zero, ibits);
  } else if (bits <= 32) {
    FakeQuantizeWith<uint32_t>(data, count, scale, zero, ibits);
  }
}

float EvaluateL2(std::vector<float>& data, float min, float max) {
  const float step = (max - min) / 255.0f;
  const float zf = 0.0f - min / step;
  if (data.empty()) return 0.0f;
  const uint32_t z = TruncToUint32(zf) & 0xFFu;
  const float fz = static_cast<float>(z);
  float sum = 0.0f;
  for (const float x : data) {
    const float t = x / step + fz;
    const double d = static_cast<double>(t) + 0.5;
    float q;
    if (d < 0.0) {
      q = 0.0f;
    } else if (d < 255.0) {
      q = static_cast<float>(static_cast<uint32_t>(d) & 0xFFu);
    } else {
      q = 255.0f;
    }
    const float e = std::fma(-step, q - fz, x);
    sum = std::fma(e, e, sum);
  }
  return std::sqrt(sum);
}

std::string AddHybrid(std::string path) {
  const std::string::size_type dot = path.rfind('.');
  if (dot == std::string::npos) return path + "hybrid";
  return path.substr(0, dot) + "_hybrid" + path.substr(dot);
}

std::vector<std::string> split(const std::string& text, const std::string& delimiters) {
  // strtok semantics without its hidden state: both strings end at their
  // first NUL, runs of delimiter characters separate tokens, no empty token.
  const char* s = text.c_str();
  const char* delims = delimiters.c_str();
  std::vector<std::string> tokens;
  const size_t n = std::strlen(s);
  size_t i = 0;
  while (i < n) {
    i += std::strspn(s + i, delims);
    if (i >= n) break;
    const size_t len = std::strcspn(s + i, delims);
    tokens.emplace_back(s + i, len);
    i += len;
  }
  return tokens;
}

std::string SwapPath(const std::string& file_path, const std::string& target_path) {
  const std::vector<std::string> file_parts = split(file_path, "/");
  std::vector<std::string> target_parts = split(target_path, "/");
  // Paths without any component are outside the contract; keep them harmless.
  const std::string file_name = file_parts.empty() ? std::string() : file_parts.back();
  if (target_parts.empty()) {
    target_parts.push_back(file_name);
  } else {
    target_parts.back() = file_name;
  }
  std::string result;
  if (!target_path.empty() && target_path[0] == '/') result = "/";
  const std::string& last = target_parts.back();
  for (const std::string& part : target_parts) {
    result += part;
    // A test on the text, not on the position: a directory named like the
    // file gets no separator behind it.
    if (part != last) result += "/";
  }
  return result;
}

std::vector<float> AssignNonZeroDataToVector(const float* data, unsigned long count) {
  std::vector<float> kept;
  kept.reserve(count);
  for (unsigned long i = 0; i < count; ++i) {
    const float x = data[i];
    if (std::isnan(x)) std::exit(-1);
    if (static_cast<double>(std::fabs(x)) < 1e-6) continue;
    kept.push_back(x);
  }
  return kept;
}

namespace {

// Bins of the symmetric histogram over [-m, m], m = max(|min|, |max|), of
// the elements inside [min, max].
std::vector<int> SymmetricBins(const float* data, unsigned long count, int bins, float min,
                               float max, bool skip_small) {
  std::vector<int> counts(bins > 0 ? bins : 0, 0);
  if (bins <= 0) return counts;
  const float amin = std::fabs(min);
  const float amax = std::fabs(max);
  const float m = amin < amax ? amax : amin;
  const double factor = (static_cast<double>(bins) / static_cast<double>(m)) * 0.5;
  kernels::BinElements(data, count, bins, min, max, m, factor, skip_small, counts.data());
  return counts;
}

}  // namespace

std::vector<int> AssignDataToBins(const std::vector<float>& data, int bins, float min, float max) {
  return SymmetricBins(data.data(), data.size(), bins, min, max, false);
}

namespace kernels {

std::vector<int> NonZeroBins(const float* data, unsigned long count, int bins, float min,
                             float max) {
  return SymmetricBins(data, count, bins, min, max, true);
}

}  // namespace kernels

template std::vector<float> ToVector<float>(float* data, unsigned long count);
template std::vector<unsigned char> ToVector<unsigned char>(unsigned char* data,
                                                            unsigned long count);

}  // namespace staticQuantization
}  // namespace qzdl
