// qzdl_run: runs a net on the float runtime and prints its outputs.
//
//   qzdl_run net.json weights.bin [--batch N] [--input NAME=FILE.f32]... [--repeat N]
//
// Inputs without a file get a fixed pseudo-random pattern, so two runs print
// the same numbers. FILE.f32 holds raw little-endian float32 values for the
// whole batch.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "runtime/create_net.h"

namespace {

int Usage() {
  fprintf(stderr,
          "usage: qzdl_run net.json weights.bin [--batch N] [--input NAME=FILE.f32]... "
          "[--repeat N]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return Usage();
  const std::string json = argv[1];
  const std::string model = argv[2];
  int batch = 0;
  int repeat = 1;
  std::map<std::string, std::string> input_files;
  for (int i = 3; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--batch" && i + 1 < argc) {
      batch = std::atoi(argv[++i]);
    } else if (arg == "--repeat" && i + 1 < argc) {
      repeat = std::max(1, std::atoi(argv[++i]));
    } else if (arg == "--input" && i + 1 < argc) {
      const std::string spec = argv[++i];
      const size_t eq = spec.find('=');
      if (eq == std::string::npos) return Usage();
      input_files[spec.substr(0, eq)] = spec.substr(eq + 1);
    } else {
      return Usage();
    }
  }

  qzdl::Net<float>* net = qzdl::CreateNet<float>(json, model, false, false, 0, 1);
  if (batch > 0) net->ReshapeBatchNum(batch, 0);

  for (int i = 0; i < net->GetInputCount(); ++i) {
    qzdl::Data<float>* input = net->GetInputData(i);
    std::vector<float> values(input->Count(0));
    auto it = input_files.find(net->GetInputDataName(i));
    if (it != input_files.end()) {
      std::ifstream f(it->second, std::ios::binary);
      f.read(reinterpret_cast<char*>(values.data()), values.size() * sizeof(float));
      if (!f || f.gcount() != static_cast<std::streamsize>(values.size() * sizeof(float))) {
        fprintf(stderr, "qzdl_run: input file \"%s\" does not hold %zu floats for input \"%s\"\n",
                it->second.c_str(), values.size(), it->first.c_str());
        return 1;
      }
    } else {
      for (size_t k = 0; k < values.size(); ++k) values[k] = std::sin(0.37f * k) * 0.5f + 0.5f;
    }
    net->SetFloatInputData(values.data(), i);
  }

  const auto start = std::chrono::steady_clock::now();
  for (int r = 0; r < repeat; ++r) net->ForwardAll();
  const double ms =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();

  for (int o = 0; o < net->GetOutCount(); ++o) {
    qzdl::Data<float>* out = net->GetOutputData(o);
    const float* v = out->GetCpuData();
    const int64_t n = out->Count(0);
    double sum = 0.0;
    for (int64_t k = 0; k < n; ++k) sum += v[k];
    printf("output \"%s\" %s sum %.6f first:", net->GetOutputDataName(o).c_str(),
           qzdl::DimsToString(out->GetDims()).c_str(), sum);
    for (int64_t k = 0; k < std::min<int64_t>(n, 6); ++k) printf(" %.6f", v[k]);
    printf("\n");
  }
  printf("%d forward pass(es) at batch %d: %.3f ms each\n", repeat,
         net->GetInputData(0)->GetDim(0), ms / repeat);
  return 0;
}
