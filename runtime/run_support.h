// Pieces of running a net from the command line (qzdl_run): tensor files
// named after tensors, NumPy output files, comparison figures and a per-layer
// profile.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "runtime/net.h"

namespace qzdl {

// `name` with every character other than [A-Za-z0-9_.-] written as "_",
// then `extension` (".f32", ".npy").
std::string TensorFileName(const std::string& name, const std::string& extension);

// A file of raw little-endian float32 values; false when it cannot be read.
bool ReadFloatFile(const std::string& path, std::vector<float>* values);

// A NumPy .npy file (format 1.0, '<f4', C order) of `values` in `dims`.
std::string NpyFloatBytes(const float* values, const std::vector<int>& dims);

// The float32 values of an .npy file of dtype '<f4' in C order; false with
// the reason in `error` otherwise.
bool ReadNpyFloats(const std::string& path, std::vector<float>* values, std::string* error);

struct Comparison {
  double max_abs = 0;  // largest |got - want|
  double max_rel = 0;  // max_abs over the largest |want| (max_abs when that is 0)
  double cosine = 0;   // 1 when both are all zero
};
Comparison Compare(const float* got, const float* want, int64_t count);

// Runs `repeat` passes layer by layer and prints, after a "profile:" header
// line, the time per layer type and the ten slowest layers.
template <typename T>
void PrintProfile(Net<T>* net, int repeat);

}  // namespace qzdl
