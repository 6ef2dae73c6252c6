// qzdl_forward: runs a net on the float runtime with inputs from files, times
// the forward passes, writes the outputs and compares them with reference
// outputs (scripts/check_real_models.sh, bench/compare_ort.sh).
//
//   qzdl_forward net.json weights.bin [--batch N] [--inputs-dir DIR]
//                [--outputs-dir DIR] [--compare-dir DIR] [--warmup N] [--repeat N]
//                [--profile]
//
// Tensor files are DIR/<name>.f32: raw little-endian float32 values for the
// whole batch, the tensor name with characters other than [A-Za-z0-9_.-]
// written as "_". Inputs without a file are an error when --inputs-dir is
// given, otherwise they get a fixed pattern. With --compare-dir every output
// is compared with the file of the same name there: largest absolute
// difference, largest difference relative to the largest |reference| value,
// and cosine similarity. Prints one "forward:" line with the time per pass and
// images per second (batch * passes / time), one "compare:" line per output.
// --profile also runs the passes layer by layer and prints the time spent per
// layer type and in the slowest layers. Output files are replaced atomically
// (runtime/atomic_file.h); one that cannot be written is reported as
// `qzdl_forward: cannot write "<file>": <reason>` and gives exit status 1.
#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "runtime/atomic_file.h"
#include "runtime/create_net.h"

namespace {

int Usage() {
  fprintf(stderr,
          "usage: qzdl_forward net.json weights.bin [--batch N] [--inputs-dir DIR] "
          "[--outputs-dir DIR] [--compare-dir DIR] [--warmup N] [--repeat N] [--profile]\n");
  return 2;
}

std::string FileName(const std::string& name) {
  std::string s = name;
  for (char& ch : s) {
    const bool keep =
        std::isalnum(static_cast<unsigned char>(ch)) || ch == '_' || ch == '.' || ch == '-';
    if (!keep) ch = '_';
  }
  return s + ".f32";
}

bool ReadFloats(const std::string& path, std::vector<float>* values) {
  std::ifstream f(path, std::ios::binary | std::ios::ate);
  if (!f) return false;
  const std::streamsize bytes = f.tellg();
  f.seekg(0);
  values->resize(static_cast<size_t>(bytes) / sizeof(float));
  f.read(reinterpret_cast<char*>(values->data()), values->size() * sizeof(float));
  return static_cast<bool>(f);
}

double Seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

// Runs `repeat` passes layer by layer and prints the time per layer type and
// the ten slowest layers.
void Profile(qzdl::Net<float>* net, int repeat) {
  std::vector<qzdl::Layer<float>*>& layers = net->GetLayers();
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
           qzdl::DimsToString(layers[i]->GetOutputs()[0]->GetDims()).c_str(),
           per_layer[i] * 1000 / repeat);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return Usage();
  int batch = 0, warmup = 1, repeat = 1;
  bool profile = false;
  std::string inputs_dir, outputs_dir, compare_dir;
  for (int i = 3; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--profile") {
      profile = true;
      continue;
    }
    if (i + 1 >= argc) return Usage();
    const std::string value = argv[++i];
    if (arg == "--batch") {
      batch = std::atoi(value.c_str());
    } else if (arg == "--warmup") {
      warmup = std::max(0, std::atoi(value.c_str()));
    } else if (arg == "--repeat") {
      repeat = std::max(1, std::atoi(value.c_str()));
    } else if (arg == "--inputs-dir") {
      inputs_dir = value;
    } else if (arg == "--outputs-dir") {
      outputs_dir = value;
    } else if (arg == "--compare-dir") {
      compare_dir = value;
    } else {
      return Usage();
    }
  }

  qzdl::Net<float>* net = nullptr;
  try {
    net = qzdl::CreateNet<float>(argv[1], argv[2], false, false, 0, 1);
  } catch (std::exception* e) {  // net creation logs its message and throws a pointer
    delete e;
    return 1;
  }
  if (batch > 0) net->ReshapeBatchNum(batch, 0);

  for (int i = 0; i < net->GetInputCount(); ++i) {
    const int64_t count = net->GetInputData(i)->Count(0);
    std::vector<float> values(count);
    if (!inputs_dir.empty()) {
      const std::string path = inputs_dir + "/" + FileName(net->GetInputDataName(i));
      if (!ReadFloats(path, &values) || static_cast<int64_t>(values.size()) != count) {
        fprintf(stderr, "qzdl_forward: \"%s\" does not hold %lld floats for input \"%s\"\n",
                path.c_str(), static_cast<long long>(count), net->GetInputDataName(i).c_str());
        return 1;
      }
    } else {
      for (int64_t k = 0; k < count; ++k) values[k] = std::sin(0.37f * k) * 0.5f + 0.5f;
    }
    net->SetFloatInputData(values.data(), i);
  }

  for (int r = 0; r < warmup; ++r) net->ForwardAll();
  const auto start = std::chrono::steady_clock::now();
  for (int r = 0; r < repeat; ++r) net->ForwardAll();
  const double ms =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count() /
      repeat;
  const int n = net->GetInputData(0)->GetDim(0);
  printf("forward: batch %d, %.3f ms per pass, %.2f images/s\n", n, ms, n * 1000.0 / ms);
  if (profile) Profile(net, repeat);

  int status = 0;
  for (int o = 0; o < net->GetOutCount(); ++o) {
    const std::string& name = net->GetOutputDataName(o);
    const float* got = net->GetFloatOutputData(o);
    const int64_t count = net->GetOutputData(o)->Count(0);
    if (!outputs_dir.empty()) {
      std::string error;
      const std::string bytes(reinterpret_cast<const char*>(got), count * sizeof(float));
      if (!qzdl::WriteFileAtomically(outputs_dir + "/" + FileName(name), bytes, &error)) {
        fprintf(stderr, "qzdl_forward: %s\n", error.c_str());
        status = 1;
      }
    }
    if (compare_dir.empty()) continue;
    std::vector<float> want;
    if (!ReadFloats(compare_dir + "/" + FileName(name), &want) ||
        static_cast<int64_t>(want.size()) != count) {
      fprintf(stderr, "qzdl_forward: no reference of %lld floats for output \"%s\" in \"%s\"\n",
              static_cast<long long>(count), name.c_str(), compare_dir.c_str());
      status = 1;
      continue;
    }
    double max_abs = 0, scale = 0, ab = 0, aa = 0, bb = 0;
    for (int64_t k = 0; k < count; ++k) {
      const double g = got[k], w = want[k];
      max_abs = std::max(max_abs, std::fabs(g - w));
      scale = std::max(scale, std::fabs(w));
      ab += g * w, aa += g * g, bb += w * w;
    }
    const double cosine = aa > 0 && bb > 0 ? ab / std::sqrt(aa * bb) : (aa == bb ? 1.0 : 0.0);
    printf("compare: output \"%s\" %s max_abs %.3g max_rel %.3g cosine %.9f\n", name.c_str(),
           qzdl::DimsToString(net->GetOutputData(o)->GetDims()).c_str(), max_abs,
           scale > 0 ? max_abs / scale : max_abs, cosine);
  }
  delete net;
  return status;
}
