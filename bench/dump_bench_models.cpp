// Writes the bench nets to files so that other frameworks can run the very
// same nets and weights:
//
//   dump_bench_models DIR [NAME...]
//
// For each net NAME (all of them by default) it writes
//   DIR/NAME.json     the net description
//   DIR/NAME.bin      the weights file
//   DIR/NAME.io.bin   reference data, in the weights-file format: blob
//                     "input" (a batch of 2) and the outputs this runtime
//                     computes for it: every net output, and "fc" (the
//                     logits) when the net has that tensor.
// The reference data needs every layer type of the net; when some are not
// registered it is left out with a message, and the exit status is 3.
#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "bench/bench_models.h"
#include "runtime/weights_file.h"

namespace {

constexpr int kCheckBatch = 2;

qzdl::WeightBlob TensorBlob(qzdl::Net<float>* net, const std::string& name) {
  qzdl::Data<float>* data = net->GetData(name);
  qzdl::WeightBlob blob{"", name, data->GetDims(), {}};
  const float* p = data->GetCpuData();
  blob.values.assign(p, p + data->Count(0));
  return blob;
}

// Runs the net on a fixed input and returns the blobs of NAME.io.bin.
std::vector<qzdl::WeightBlob> ReferenceData(const qzdl::bench::BenchModel& model) {
  std::unique_ptr<qzdl::Net<float>> net = qzdl::bench::CreateBenchNet(model, kCheckBatch);
  const std::vector<int> dims = net->GetInputData(0)->GetDims();
  std::vector<float> input =
      qzdl::bench::BenchInput(static_cast<size_t>(net->GetInputData(0)->Count(0)), 7);
  net->SetFloatInputData(input.data(), 0);
  net->ForwardAll();

  std::vector<qzdl::WeightBlob> blobs{{"", "input", dims, input}};
  std::vector<std::string> names;
  for (int i = 0; i < net->GetOutCount(); ++i) names.push_back(net->GetOutputDataName(i));
  bool has_fc = false;
  for (const std::string& n : names) has_fc |= n == "fc";
  for (qzdl::Layer<float>* layer : net->GetLayers())
    for (qzdl::Data<float>* out : layer->GetOutputs())
      if (!has_fc && out->GetName() == "fc") names.push_back("fc"), has_fc = true;
  for (const std::string& n : names) blobs.push_back(TensorBlob(net.get(), n));
  return blobs;
}

bool Write(const std::string& path, const std::string& contents) {
  if (qzdl::WriteFileAtomically(path, contents)) return true;
  std::fprintf(stderr, "cannot write %s\n", path.c_str());
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || std::string(argv[1]) == "-h" || std::string(argv[1]) == "--help") {
    std::fprintf(stderr, "usage: %s DIR [NAME...]\nnets:", argv[0]);
    for (const std::string& n : qzdl::bench::BenchModelNames())
      std::fprintf(stderr, " %s", n.c_str());
    std::fprintf(stderr, "\n");
    return 2;
  }
  const std::string dir = argv[1];
  std::vector<std::string> names(argv + 2, argv + argc);
  if (names.empty()) names = qzdl::bench::BenchModelNames();

  int status = 0;
  for (const std::string& name : names) {
    qzdl::bench::BenchModel model;
    try {
      model = qzdl::bench::MakeBenchModel(name);
    } catch (const std::exception& e) {
      std::fprintf(stderr, "%s\n", e.what());
      return 2;
    }
    const std::string stem = dir + "/" + name;
    if (!Write(stem + ".json", model.JsonText()) || !Write(stem + ".bin", model.WeightsBytes()))
      return 1;
    std::printf("%s: wrote %s.json and %s.bin\n", name.c_str(), stem.c_str(), stem.c_str());

    std::string missing;
    for (const std::string& type : model.MissingLayerTypes())
      missing += (missing.empty() ? "" : ", ") + type;
    if (!missing.empty()) {
      std::printf("%s: no reference data, layer types not registered: %s\n", name.c_str(),
                  missing.c_str());
      status = 3;
      continue;
    }
    try {
      if (!Write(stem + ".io.bin", qzdl::SerializeWeights(ReferenceData(model)))) return 1;
      std::printf("%s: wrote %s.io.bin\n", name.c_str(), stem.c_str());
    } catch (const std::exception& e) {
      std::printf("%s: no reference data, the net failed: %s\n", name.c_str(), e.what());
      status = 3;
    }
  }
  return status;
}
