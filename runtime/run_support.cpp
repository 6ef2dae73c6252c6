#include "runtime/run_support.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>

#include "runtime/file_read.h"

namespace qzdl {

std::string TensorFileName(const std::string& name, const std::string& extension) {
  std::string s = name;
  for (char& ch : s) {
    const bool keep =
        std::isalnum(static_cast<unsigned char>(ch)) || ch == '_' || ch == '.' || ch == '-';
    if (!keep) ch = '_';
  }
  return s + extension;
}

bool ReadFloatFile(const std::string& path, std::vector<float>* values) {
  std::string bytes;
  if (!ReadWholeFile(path, &bytes) || bytes.size() % sizeof(float) != 0) return false;
  values->resize(bytes.size() / sizeof(float));
  if (!bytes.empty()) std::memcpy(values->data(), bytes.data(), bytes.size());
  return true;
}

std::string NpyFloatBytes(const float* values, const std::vector<int>& dims) {
  std::string shape;
  size_t count = 1;
  for (int d : dims) {
    shape += std::to_string(d) + ", ";
    count *= static_cast<size_t>(std::max(d, 0));
  }
  // A one-element tuple keeps its comma ("(3,)"); others lose the last one.
  if (dims.size() != 1 && !shape.empty()) shape.resize(shape.size() - 2);
  if (dims.size() == 1) shape.resize(shape.size() - 1);
  std::string header = "{'descr': '<f4', 'fortran_order': False, 'shape': (" + shape + "), }";
  // Magic (6) + version (2) + length (2) + header + '\n', padded with blanks
  // to a multiple of 64 bytes, as NumPy writes it.
  const size_t unpadded = 10 + header.size() + 1;
  header.append((64 - unpadded % 64) % 64, ' ');
  header += '\n';
  std::string out("\x93NUMPY\x01\x00", 8);
  out += static_cast<char>(header.size() & 0xff);
  out += static_cast<char>(header.size() >> 8);
  out += header;
  out.append(reinterpret_cast<const char*>(values), count * sizeof(float));
  return out;
}

bool ReadNpyFloats(const std::string& path, std::vector<float>* values, std::string* error) {
  std::string bytes;
  if (!ReadWholeFile(path, &bytes, error)) return false;
  auto fail = [&](const std::string& why) {
    *error = why;
    return false;
  };
  if (bytes.size() < 10 || bytes.compare(0, 6, "\x93NUMPY") != 0) return fail("not an .npy file");
  size_t header_len = 0, start = 0;
  if (bytes[6] == 1) {
    header_len = static_cast<unsigned char>(bytes[8]) | static_cast<unsigned char>(bytes[9]) << 8;
    start = 10;
  } else if (bytes.size() >= 12 && (bytes[6] == 2 || bytes[6] == 3)) {
    for (int k = 3; k >= 0; --k)
      header_len = header_len << 8 | static_cast<unsigned char>(bytes[8 + k]);
    start = 12;
  } else {
    return fail("an .npy version this reader does not know");
  }
  if (header_len > bytes.size() - start) return fail("its header runs past the end of the file");
  const std::string header = bytes.substr(start, header_len);
  if (header.find("'<f4'") == std::string::npos) return fail("its values are not float32 ('<f4')");
  if (header.find("'fortran_order': False") == std::string::npos)
    return fail("its values are not in C order");
  const size_t data = start + header_len;
  if ((bytes.size() - data) % sizeof(float) != 0)
    return fail("its data is not whole float32 values");
  values->resize((bytes.size() - data) / sizeof(float));
  if (!values->empty())
    std::memcpy(values->data(), bytes.data() + data, values->size() * sizeof(float));
  return true;
}

Comparison Compare(const float* got, const float* want, int64_t count) {
  Comparison c;
  double scale = 0, ab = 0, aa = 0, bb = 0;
  for (int64_t k = 0; k < count; ++k) {
    const double g = got[k], w = want[k];
    c.max_abs = std::max(c.max_abs, std::fabs(g - w));
    scale = std::max(scale, std::fabs(w));
    ab += g * w, aa += g * g, bb += w * w;
  }
  c.max_rel = scale > 0 ? c.max_abs / scale : c.max_abs;
  c.cosine = aa > 0 && bb > 0 ? ab / std::sqrt(aa * bb) : (aa == bb ? 1.0 : 0.0);
  return c;
}

namespace {

double Seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

}  // namespace

template <typename T>
void PrintProfile(Net<T>* net, int repeat) {
  std::vector<Layer<T>*>& layers = net->GetLayers();
  const int n = static_cast<int>(layers.size());
  std::vector<double> per_layer(n, 0.0);
  for (int r = 0; r < repeat; ++r) {
    for (int i = 0; i < n; ++i) {
      const auto start = std::chrono::steady_clock::now();
      net->ForwardFromTo(i, i + 1, false);
      per_layer[i] += Seconds(start);
    }
  }
  double total = 0;
  std::map<std::string, std::pair<double, int>> per_type;
  for (int i = 0; i < n; ++i) {
    total += per_layer[i];
    auto& t = per_type[layers[i]->GetTypeDetail()];
    t.first += per_layer[i];
    ++t.second;
  }
  std::vector<std::pair<double, std::string>> types;
  for (const auto& kv : per_type) types.push_back({kv.second.first, kv.first});
  std::sort(types.rbegin(), types.rend());
  printf("profile: %.3f ms per pass layer by layer\n", total * 1000 / repeat);
  if (net->GetInferenceMode())
    printf("profile: %d tensors handed between layers in channel blocks\n", net->BlockedHandoffs());
  for (const auto& t : types) {
    printf("profile: %-22s %4d layers %9.3f ms %5.1f%%\n", t.second.c_str(),
           per_type[t.second].second, t.first * 1000 / repeat, 100 * t.first / total);
  }
  std::vector<int> order(n);
  for (int i = 0; i < n; ++i) order[i] = i;
  std::sort(order.begin(), order.end(), [&](int a, int b) { return per_layer[a] > per_layer[b]; });
  for (int k = 0; k < std::min(n, 10); ++k) {
    const int i = order[k];
    printf("profile: slow %-40s %-14s %s %8.3f ms\n", layers[i]->GetName().c_str(),
           layers[i]->GetType().c_str(),
           DimsToString(layers[i]->GetOutputs()[0]->GetDims()).c_str(),
           per_layer[i] * 1000 / repeat);
  }
}

template void PrintProfile<float>(Net<float>*, int);
template void PrintProfile<unsigned char>(Net<unsigned char>*, int);

}  // namespace qzdl
