// Times every convolution algorithm that applies to a shape (the direct
// depthwise kernel, the 1x1 GEMM, im2col + GEMM, the convolution library's
// primitive) on real and odd shapes, and prints each one's time and its
// ratio to the best one for the shape, with the algorithm the runtime picks
// marked: the picked one should never be far behind the best. With
// --blocked, kernels that can read or write 16-channel blocks (the direct
// depthwise and 1x1 kernels, the library's primitive) are timed a second
// time in that layout, as they run between such kernels in a net.
//
//   conv_shapes_bench [--batch N] [--min-ms M] [--cpu-time] [--blocked]
//
// Threads: OMP_NUM_THREADS. Each time is the median of 5 rounds of at least
// M ms (default 100) of back-to-back runs. --cpu-time measures the process's
// CPU time instead of wall time (steadier on a busy machine; use it with
// OMP_NUM_THREADS=1).
#include <omp.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "runtime/data.h"
#include "runtime/kernels/conv_kernels.h"

namespace {

using qzdl::ConvAlgorithm;
using qzdl::ConvGeometry;

struct Shape {
  const char* what;
  int c, h, w, m, k, stride, pad, group;
};

// Real layers (ResNet-18, MobileNetV2, SqueezeNet, ShuffleNet-V2, SSDlite)
// and odd ones.
const Shape kShapes[] = {
    {"resnet stem 7x7/2", 3, 224, 224, 64, 7, 2, 3, 1},
    {"resnet 3x3 64", 64, 56, 56, 64, 3, 1, 1, 1},
    {"resnet 3x3/2 64->128", 64, 56, 56, 128, 3, 2, 1, 1},
    {"resnet 1x1/2 64->128", 64, 56, 56, 128, 1, 2, 0, 1},
    {"resnet 3x3 128", 128, 28, 28, 128, 3, 1, 1, 1},
    {"resnet 3x3 256", 256, 14, 14, 256, 3, 1, 1, 1},
    {"resnet 3x3 512", 512, 7, 7, 512, 3, 1, 1, 1},
    {"mnv2 stem 3x3/2", 3, 224, 224, 32, 3, 2, 1, 1},
    {"mnv2 1x1 32->16", 32, 112, 112, 16, 1, 1, 0, 1},
    {"mnv2 1x1 16->96", 16, 112, 112, 96, 1, 1, 0, 1},
    {"mnv2 dw 3x3/2 96", 96, 112, 112, 96, 3, 2, 1, 96},
    {"mnv2 1x1 96->24", 96, 56, 56, 24, 1, 1, 0, 1},
    {"mnv2 1x1 24->144", 24, 56, 56, 144, 1, 1, 0, 1},
    {"mnv2 dw 3x3 144", 144, 56, 56, 144, 3, 1, 1, 144},
    {"mnv2 1x1 144->24", 144, 56, 56, 24, 1, 1, 0, 1},
    {"mnv2 1x1 192->32", 192, 28, 28, 32, 1, 1, 0, 1},
    {"mnv2 1x1 64->384", 64, 14, 14, 384, 1, 1, 0, 1},
    {"mnv2 1x1 384->64", 384, 14, 14, 64, 1, 1, 0, 1},
    {"mnv2 1x1 576->96", 576, 14, 14, 96, 1, 1, 0, 1},
    {"mnv2 1x1 160->960", 160, 7, 7, 960, 1, 1, 0, 1},
    {"mnv2 1x1 960->160", 960, 7, 7, 160, 1, 1, 0, 1},
    {"mnv2 1x1 320->1280", 320, 7, 7, 1280, 1, 1, 0, 1},
    {"squeeze stem 3x3/2", 3, 224, 224, 64, 3, 2, 0, 1},
    {"squeeze 1x1 64->16", 64, 55, 55, 16, 1, 1, 0, 1},
    {"squeeze 3x3 16->64", 16, 55, 55, 64, 3, 1, 1, 1},
    {"squeeze 1x1 512->1000", 512, 13, 13, 1000, 1, 1, 0, 1},
    {"shuffle 1x1 58", 58, 28, 28, 58, 1, 1, 0, 1},
    {"shuffle dw 3x3/2 116", 116, 28, 28, 116, 3, 2, 1, 116},
    {"ssd dw 5x5 240", 240, 20, 20, 240, 5, 1, 2, 240},
    {"ssd SE 1x1 on 1x1 72->24", 72, 1, 1, 24, 1, 1, 0, 1},
    {"ssd SE 1x1 on 1x1 24->72", 24, 1, 1, 72, 1, 1, 0, 1},
    {"yolo stem 3x3/2 3->32 @320", 3, 320, 320, 32, 3, 2, 1, 1},
    {"yolo 3x3/2 32->64 @160", 32, 160, 160, 64, 3, 2, 1, 1},
    {"yolo 3x3 128 @40", 128, 40, 40, 128, 3, 1, 1, 1},
    {"odd 1x1 spatial 512->1000", 512, 1, 1, 1000, 1, 1, 0, 1},
    {"odd 3x3 on 3x3 -> 6x1x1", 96, 3, 3, 6, 3, 1, 0, 1},
    {"odd 3x3 24 on 10x10", 24, 10, 10, 24, 3, 1, 1, 1},
    {"odd few ch 3x3 8->8", 8, 64, 64, 8, 3, 1, 1, 1},
    {"odd few ch 3x3 4->16 /2", 4, 128, 128, 16, 3, 2, 1, 1},
    {"odd grouped 3x3 g4 128", 128, 28, 28, 128, 3, 1, 1, 4},
    {"odd grouped 1x1 g3 240", 240, 28, 28, 240, 1, 1, 0, 3},
    {"odd dw 5x5/2 96", 96, 56, 56, 96, 5, 2, 2, 96},
    {"odd dw 7x7 64", 64, 28, 28, 64, 7, 1, 3, 64},
    {"odd 5x5 32->32", 32, 28, 28, 32, 5, 1, 2, 1},
};

double Now(bool cpu) {
  if (cpu) {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return t.tv_sec + t.tv_nsec * 1e-9;
  }
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// Median over 5 rounds of the time per run, in ms. Weights are prepared at
// the first run and used again, as in an inference-mode net.
double TimeRuns(qzdl::ConvKernel& k, const float* x, const float* w, const float* b, float* y,
                double min_ms, bool cpu) {
  k.Run(x, w, b, y);
  std::vector<double> rounds;
  for (int r = 0; r < 5; ++r) {
    int runs = 0;
    const double t0 = Now(cpu);
    double t = t0;
    do {
      k.Run(x, w, b, y, {}, true);
      ++runs;
      t = Now(cpu);
    } while ((t - t0) * 1e3 < min_ms);
    rounds.push_back((t - t0) * 1e3 / runs);
  }
  std::sort(rounds.begin(), rounds.end());
  return rounds[2];
}

// The vector instruction sets of /proc/cpuinfo's first "flags" (x86-64) or
// "Features" (Arm) line that the kernels care about.
std::string InstructionSets() {
  std::ifstream in("/proc/cpuinfo");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("flags", 0) != 0 && line.rfind("Features", 0) != 0) continue;
    std::istringstream words(line.substr(line.find(':') + 1));
    std::string f, out;
    const char* wanted[] = {"avx2",       "fma",      "avx512f", "avx512bw", "avx512_vnni",
                            "avx512vbmi", "avx_vnni", "asimd",   "asimddp"};
    while (words >> f)
      for (const char* w : wanted)
        if (f == w) out += (out.empty() ? "" : " ") + f;
    return out.empty() ? "none of the listed" : out;
  }
  return "unknown";
}

void Fill(float* p, size_t n, unsigned seed) {
  for (size_t i = 0; i < n; ++i) {
    seed = seed * 1664525u + 1013904223u;
    p[i] = static_cast<float>(seed >> 8) / 16777216.0f - 0.5f;
  }
}

}  // namespace

int main(int argc, char** argv) {
  int batch = 1;
  double min_ms = 100;
  bool cpu = false, blocked = false;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--batch" && i + 1 < argc) {
      batch = std::atoi(argv[++i]);
    } else if (a == "--min-ms" && i + 1 < argc) {
      min_ms = std::atof(argv[++i]);
    } else if (a == "--cpu-time") {
      cpu = true;
    } else if (a == "--blocked") {
      blocked = true;
    } else {
      fprintf(stderr,
              "usage: conv_shapes_bench [--batch N] [--min-ms M] [--cpu-time] [--blocked]\n");
      return 2;
    }
  }
  printf("instruction sets: %s; threads %d; batch %d; %s time\n", InstructionSets().c_str(),
         omp_get_max_threads(), batch, cpu ? "CPU" : "wall");
  const ConvAlgorithm algs[] = {ConvAlgorithm::kDepthwise,  ConvAlgorithm::kGemm1x1,
                                ConvAlgorithm::kPointwise,  ConvAlgorithm::kDirect,
                                ConvAlgorithm::kIm2colGemm, ConvAlgorithm::kDnnl};
  printf("%-28s %-16s %10s %8s %s\n", "shape", "algorithm", "ms", "/best", "");
  for (const Shape& s : kShapes) {
    ConvGeometry g;
    g.batch = batch;
    g.in_c = s.c, g.in_h = s.h, g.in_w = s.w, g.out_c = s.m;
    g.kernel_h = g.kernel_w = s.k;
    g.stride_h = g.stride_w = s.stride;
    g.pad_top = g.pad_bottom = g.pad_left = g.pad_right = s.pad;
    g.group = s.group;
    g.out_h = g.ConvOutH(), g.out_w = g.ConvOutW();
    std::vector<float> x(size_t(batch) * s.c * s.h * s.w);
    std::vector<float> w(size_t(s.m) * (s.c / s.group) * s.k * s.k), b(s.m);
    std::vector<float> y(size_t(batch) * s.m * g.OutPlane());
    Fill(x.data(), x.size(), 1), Fill(w.data(), w.size(), 2), Fill(b.data(), b.size(), 3);
    qzdl::ConvKernel picked;
    picked.Configure(g, true);
    struct Row {
      std::string name;
      double ms;
    };
    std::vector<Row> rows;
    for (ConvAlgorithm a : algs) {
      if (!qzdl::ConvKernel::Applies(a, g)) continue;
      qzdl::ConvKernel k;
      if (!k.Configure(g, true, a) || k.algorithm() != a) continue;
      rows.push_back({qzdl::ConvAlgorithmName(a),
                      TimeRuns(k, x.data(), w.data(), b.data(), y.data(), min_ms, cpu)});
      if (blocked && (k.SrcBlock() != 0 || k.DstBlock() != 0)) {
        k.SetBlocked(true, true);
        rows.push_back({std::string(qzdl::ConvAlgorithmName(a)) + " blocked",
                        TimeRuns(k, x.data(), w.data(), b.data(), y.data(), min_ms, cpu)});
      }
    }
    double best = 1e30;
    for (const Row& r : rows) best = std::min(best, r.ms);
    for (const Row& r : rows) {
      const bool is_picked = r.name == qzdl::ConvAlgorithmName(picked.algorithm());
      printf("%-28s %-18s %10.4f %8.2f %s\n", s.what, r.name.c_str(), r.ms, r.ms / best,
             is_picked ? "<- picked" : "");
    }
  }
  return 0;
}
