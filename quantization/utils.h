// Integer grid arithmetic and small helpers shared by the observers, the
// searchers and the output stage.
//
// A grid is a single-precision `scale` (the size of one integer step) and a
// signed 32-bit `zero` (the integer that stands for the real value 0) over the
// unsigned integers 0 .. qmax, qmax = (1 << bits) - 1 with the shift count
// taken modulo 32. Three roundings live here and are deliberately different:
// scale/zero derivation rounds half away from zero, Quantization adds 0.5 and
// truncates, RoundClip rounds half away from zero and clamps to +-127.
#pragma once

#include <cmath>
#include <string>
#include <vector>

namespace qzdl {
namespace staticQuantization {

// qmax of a `bits`-wide unsigned grid: (1 << (bits & 31)) - 1 as a signed
// 32-bit integer, converted to float (bits 8 -> 255, 31 -> 2^31, 32 -> 0).
float QuantizationMaxValue(int bits);

// scale = (max - min) / qmax and the zero point of the range as given.
void ConfigureScaleZero(float min, float max, int bits, float& scale, int& zero);
// The same after the range has been widened to contain 0.
void ConfigQuantizationParam(float min, float max, int bits, float& scale, int& zero);
// Geometry for merging a symmetric histogram of `bins` bins over
// [cur_min, cur_max] into a wider one that reaches new_max. `new_min` is not
// read. `combined_max` is written before it is read back.
void CalculateCombineMinMax(float cur_min, float cur_max, float new_min, float new_max, int bins,
                            int upsample, float& combined_max, int& downsample, int& start_index);
// Float -> integer buffer (uint8 up to 8 bits, uint16 up to 16, 32-bit up to
// 32; nothing above 32).
void Quantization(const float* src, void* dst, unsigned long count, float scale, int zero,
                  int bits);
// Integer buffer -> float, (q - zero) * scale.
void Dequantization(const void* src, float* dst, unsigned long count, float scale, int zero,
                    int bits);
// Pushes `data` through the grid of [min, max] (widened to contain 0) and back.
void FakeQuantization(float* data, unsigned long count, float min, float max, unsigned int bits);
// Euclidean norm (not averaged) of the error of a fixed 8-bit grid over
// [min, max], with a truncated, wrapping zero point.
float EvaluateL2(std::vector<float>& data, float min, float max);

// Round half away from zero and clamp to [-127, 127] (NaN gives -127).
template <typename T>
T RoundClip(T x);

template <>
inline float RoundClip<float>(float x) {
  float r = std::round(x);
  if (!(r > -127.0f)) return -127.0f;
  return r < 127.0f ? r : 127.0f;
}

template <>
inline int RoundClip<int>(int x) {
  if (x < -127) return -127;
  return x < 127 ? x : 127;
}

// "a/model.bin" -> "a/model_hybrid.bin"; "model" -> "modelhybrid".
std::string AddHybrid(std::string path);
// strtok-style tokenisation: `delimiters` is a set of characters, empty
// tokens never appear.
std::vector<std::string> split(const std::string& text, const std::string& delimiters);
// Puts the last component of `file_path` in place of the last component of
// `target_path`.
std::string SwapPath(const std::string& file_path, const std::string& target_path);
// The elements with |x| >= 1e-6 (in double), in order. A NaN ends the process
// with exit(-1) and no message.
std::vector<float> AssignNonZeroDataToVector(const float* data, unsigned long count);
// `bins` counters of a histogram over [-m, m], m = max(|min|, |max|), of the
// elements inside [min, max].
std::vector<int> AssignDataToBins(const std::vector<float>& data, int bins, float min, float max);

// A copy of the buffer.
template <typename T>
std::vector<T> ToVector(T* data, unsigned long count) {
  return std::vector<T>(data, data + count);
}

extern template std::vector<float> ToVector<float>(float* data, unsigned long count);
extern template std::vector<unsigned char> ToVector<unsigned char>(unsigned char* data,
                                                                   unsigned long count);

}  // namespace staticQuantization
}  // namespace qzdl
