// A Loader's shape, its Load dispatch, and its memory and random samples.
// Image and NPY samples are in loader_samples.cpp.
#include "dataloader/loader.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "runtime/log.h"

// The normal generator below is defined operation by operation: only the
// multiply-adds written as std::fmaf are fused. GCC contracts nothing under
// -std=c++17; clang needs to be told.
#if defined(__clang__)
#pragma STDC FP_CONTRACT OFF
#endif

namespace dataLoader {

using qzdl::Data;

namespace {

// The generator of Randn: the multiplicative congruential rule
// x := x * 16807 mod (2^31 - 1), from x = 1, and its uniform values in [0, 1).
class MinimalStandardUniform {
 public:
  float Next() {
    state_ = state_ * 16807u % 2147483647u;
    float u = (static_cast<float>(state_ - 1) + 0.0f) * 4.656612873077392578125e-10f;  // 2^-31
    // Rounding can reach 1.0; the largest float below 1 stands in for it.
    if (!(u < 1.0f)) u = 0.99999994f;
    return u;
  }

 private:
  uint64_t state_ = 1;
};

}  // namespace

Loader::Loader(std::string const& path, void* shared) : file_path(path), shared_ptr(shared) {}

void Loader::Reshape(std::string const& name, std::vector<int> const& dims) {
  if (data == nullptr) data = new Data<float>();
  data->ChangeDataType("float");
  data->SetName(name);
  data->Resize(dims);
}

bool Loader::empty() { return data == nullptr || data->GetCpuData() == nullptr; }

void Loader::Load(float* output, TransformHandle* handle) {
  if (data == nullptr || data->GetDims().empty()) {
    qzdl::throw_exception("please reshape loader first", new qzdl::QZDLInitException());
  }
  Data<float>* scratch = new Data<float>();
  scratch->ChangeDataType("float");
  switch (data_format) {
    case DataFormat::Binary:
      if (data->GetCpuData() != nullptr) {
        // Later loads copy from the storage that the first one took over.
        if (output != data->GetCpuData()) {
          std::memcpy(output, data->GetCpuData(),
                      static_cast<size_t>(data->Count(0)) * sizeof(float));
        }
      } else {
        // The first load makes `output` the sample's storage.
        data->ShareData(output);
      }
      break;
    case DataFormat::Random:
      data->ShareData(output);
      Randn(0.0f, 1.0f);
      break;
    case DataFormat::Image:
      LoadImage(output, handle, scratch);
      break;
    case DataFormat::Npy:
      data->ShareData(output);
      load_npy_to_data(scratch);
      transform(handle, scratch, data);
      break;
    default:
      // Nothing is delivered; `output` stays as it was.
      break;
  }
  scratch->ClearData();
  delete scratch;
}

void Loader::Zeros() {
  std::memset(data->GetCpuData(), 0, static_cast<size_t>(data->Count(0)) * 4);
}

void Loader::Random(float low, float high) {
  float* out = data->GetCpuData();
  const int64_t count = data->Count(0);
  for (int64_t i = 0; i < count; ++i) {
    const float r = static_cast<float>(rand());
    if (low == 0.0f && high == 1.0f) {
      out[i] = r * 4.656612873077392578125e-10f;  // 2^-31
    } else {
      out[i] = static_cast<float>(r / (2147483648.0 / (high - low)) + low);
    }
  }
}

void Loader::Randn(float mean, float stddev) {
  MinimalStandardUniform uniform;
  float* out = data->GetCpuData();
  const int64_t count = data->Count(0);
  // Marsaglia's polar method: each accepted point gives two values, b * f
  // first and a * f second. A value left over at the end is dropped.
  int64_t i = 0;
  while (i < count) {
    float a = 0.0f;
    float b = 0.0f;
    float r = 0.0f;
    do {
      a = std::fmaf(2.0f, uniform.Next(), -1.0f);
      b = std::fmaf(2.0f, uniform.Next(), -1.0f);
      const float aa = a * a;
      const float bb = b * b;
      r = aa + bb;
    } while (r > 1.0f || r == 0.0f);
    const float minus_two_log = -2.0f * std::log(r);
    const float f = std::sqrt(minus_two_log / r);
    out[i++] = std::fmaf(stddev, b * f, mean);
    if (i < count) out[i++] = std::fmaf(stddev, a * f, mean);
  }
}

std::string Loader::vector_int_to_string(std::vector<int> dims) {
  std::ostringstream text;
  text << "[";
  for (size_t i = 0; i < dims.size(); ++i) text << (i == 0 ? "" : ", ") << dims[i];
  text << "]";
  return text.str();
}

}  // namespace dataLoader
