// Writes the seed corpora of the fuzz targets (scripts/fuzz_seeds.sh):
//   make_seeds <source dir> <onnx test data dir> <corpus dir>
// Seeds come from the repository's example net and fixtures, a few literal
// inputs, and small ONNX node test models with the nets imported from them.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <string>

#include "runtime/int8/grid.h"
#include "runtime/int8/quantized_model.h"
#include "runtime/int8/quantized_weights.h"
#include "runtime/serial_weights.h"
#include "runtime/weights_file.h"
#include "small_net.h"
#include "importer/onnx_importer.h"

namespace fs = std::filesystem;

namespace {

std::string Read(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path.string());
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void Write(const fs::path& path, const std::string& bytes) {
  fs::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << bytes;
  if (!out) throw std::runtime_error("cannot write " + path.string());
}

void CopyAll(const fs::path& from, const fs::path& to, const std::string& extension) {
  for (const auto& entry : fs::directory_iterator(from)) {
    if (entry.path().extension() == extension) {
      Write(to / entry.path().filename(), Read(entry.path()));
    }
  }
}

// The op of a node test: "test_averagepool_2d_pads" -> "averagepool".
std::string OpOf(const std::string& test) {
  const std::string rest = test.substr(5);
  return rest.substr(0, rest.find('_'));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s <source dir> <onnx test data dir> <corpus dir>\n", argv[0]);
    return 2;
  }
  const fs::path src(argv[1]), onnx_tests(argv[2]), out(argv[3]);
  try {
    const std::string net_json = Read(src / "examples/small_cnn/net.json");
    const std::string net_bin = Read(src / "examples/small_cnn/net.bin");

    // Net descriptions: the example net with and without its weights, the
    // small fuzzing nets, and the nets imported from ONNX node tests below.
    Write(out / "net_json/small_cnn", net_json + std::string(1, '\0') + net_bin);
    Write(out / "net_json/small_cnn_no_weights", net_json);
    Write(out / "net_json/two_inputs", qzdl_fuzz::kTwoInputs);

    // Weights: whole, cut short, and an empty container.
    Write(out / "weights/small_cnn.bin", net_bin);
    Write(out / "weights/small_cnn_cut.bin", net_bin.substr(0, net_bin.size() / 2));
    Write(out / "weights/empty.bin", qzdl::SerializeWeights({}));

    const auto blobs =
        qzdl::ParseWeights(net_bin.data(), static_cast<int64_t>(net_bin.size()), "net.bin");
    Write(out / "serial_model/small_cnn.fb", qzdl::SerializeSerialWeights(blobs));
    Write(out / "serial_model/empty.fb", qzdl::SerializeSerialWeights({}));

    // Quantized weights: the example net's blobs as 8-bit codes with one
    // grid per channel, the first bias also as int32, and an empty file.
    std::vector<qzdl::QuantizedBlob> quantized;
    for (const qzdl::WeightBlob& b : blobs) {
      qzdl::QuantizedBlob q;
      q.layer = b.layer;
      q.name = b.name;
      q.dims = b.dims;
      const size_t channels = b.dims.empty() ? 1 : static_cast<size_t>(b.dims[0]);
      const size_t per = channels ? b.values.size() / channels : 0;
      for (size_t c = 0; c < channels; ++c) {
        qzdl::ChannelGrid g;
        g.min = g.max = per ? b.values[c * per] : 0.0f;
        for (size_t k = 0; k < per; ++k) {
          g.min = std::min(g.min, b.values[c * per + k]);
          g.max = std::max(g.max, b.values[c * per + k]);
        }
        int zero = 0;
        qzdl::GridOfRangeWithZero(g.min, g.max, 255.0f, g.scale, zero);
        g.zero = zero;
        q.grids.push_back(g);
        for (size_t k = 0; k < per; ++k) {
          const float v = g.scale > 0 ? b.values[c * per + k] / g.scale + zero + 0.5f : 0.0f;
          q.bytes.push_back(static_cast<char>(std::min(255.0f, std::max(0.0f, v))));
        }
      }
      quantized.push_back(q);
      if (q.name == "bias" && quantized.size() < 4) {
        q.name = "bias_int32";
        q.type = qzdl::BlobType::kInt32;
        q.bytes.clear();
        for (float v : b.values) {
          const int32_t i = static_cast<int32_t>(v * 1000.0f);
          q.bytes.append(reinterpret_cast<const char*>(&i), 4);
        }
        q.grids.resize(1);
        quantized.push_back(q);
      }
    }
    Write(out / "quantized_weights/small_cnn.bin", qzdl::SerializeQuantizedWeights(quantized));
    Write(out / "quantized_weights/empty.bin", qzdl::SerializeQuantizedWeights({}));
    Write(out / "quantized_weights/float_file.bin", net_bin.substr(0, 64));

    // What an 8-bit net saves: the small net with its quantization section
    // (conv2 in float), from the example weights, in both forms.
    {
      std::string text = qzdl_fuzz::kSmallNet;
      text.insert(text.size() - 1, std::string(", ") + qzdl_fuzz::kSmallQuantizedSection);
      const fs::path json = fs::temp_directory_path() / "qzdl_seeds_net_hybrid.json";
      Write(json, text);
      std::unique_ptr<qzdl::Net<unsigned char>> net(
          qzdl::CreateQuantizedNet(json.string(), (src / "examples/small_cnn/net.bin").string()));
      net->SaveWeights((out / "quantized_weights/saved_small_net.bin").string(), false);
      net->SaveSerialWeights((out / "serial_model/saved_small_net.fb").string());
      fs::remove(json);
    }

    CopyAll(src / "tests/fixtures/npy", out / "npy", ".npy");
    CopyAll(src / "tests/fixtures/npy", out / "npz", ".npz");
    for (const char* ext : {".png", ".bmp", ".jpg"}) {
      CopyAll(src / "tests/fixtures/images", out / "image", ext);
    }

    Write(out / "list_set/two_lines", "a.png\nb.png\n");
    Write(out / "list_set/crlf_blank", "a.png\r\n\r\nc.npy");
    Write(out / "text_set/six_values", "1 2.5 -3e2 4\n5 6\n");
    Write(out / "text_set/short_bad", "1 x 3");

    // One small passing ONNX node test per op, and its imported net.
    std::ifstream list(src / "tests/importer/conformance_pass.txt");
    std::set<std::string> ops;
    std::string line;
    int models = 0, nets = 0;
    while (std::getline(list, line)) {
      if (line.rfind("node/test_", 0) != 0) continue;
      const std::string test = line.substr(5);
      if (!ops.insert(OpOf(test)).second) continue;
      const fs::path model = onnx_tests / line / "model.onnx";
      if (!fs::exists(model) || fs::file_size(model) > 4096) continue;
      const std::string bytes = Read(model);
      Write(out / "onnx_import" / (test + ".onnx"), bytes);
      ++models;
      try {
        const auto result = qzdl::ImportOnnxBytes(bytes, model.string(), model.parent_path());
        const std::string weights = qzdl::SerializeWeights(result.blobs);
        if (result.net_json.size() + weights.size() <= 8192) {
          Write(out / "net_json" / test, result.net_json + std::string(1, '\0') + weights);
          ++nets;
        }
      } catch (const std::exception&) {
      }
    }
    std::printf("%d ONNX seeds, %d imported nets\n", models, nets);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return 1;
  }
  return 0;
}
