// qzdl_onnx2net: converts an ONNX model into a net description and weights.
//
//   qzdl_onnx2net model.onnx out.json out.bin [--input-shape NAME=D0,D1,...]...
//                 [--serial out.fb] [--constant-input NAME=TENSOR.pb]...
//                 [--max-constant-mib N] [--preset-ranges out_preset.json]
//
// --preset-ranges: writes the ranges that a QDQ model's QuantizeLinear and
// DequantizeLinear nodes give its activations, as a preset file for the
// converter's -l (docs/onnx-import.md).
// --max-constant-mib: the most memory (MiB) one constant computed while
// importing may take (default 1024): weights that a model computes from
// ConstantOfShape, Expand, Tile and the like.
// Nothing is written unless the whole conversion succeeds, and then each
// output is replaced whole, never left half-written (docs/atomic-writes.md).
// Errors go to standard error as one line and give exit status 1 (2 for a bad
// command line).
#include <cstdio>
#include <cstdlib>
#include <string>

#include "importer/onnx_importer.h"
#include "runtime/file_read.h"
#include "runtime/terminate_handler.h"

namespace {

int Usage() {
  fprintf(stderr,
          "usage: qzdl_onnx2net model.onnx out.json out.bin [--input-shape NAME=D0,D1,...]... "
          "[--serial out.fb] [--constant-input NAME=TENSOR.pb]... [--max-constant-mib N] "
          "[--preset-ranges out_preset.json]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  qzdl::InstallTerminateHandler();
  std::string positional[3];
  int count = 0;
  std::string serial;
  qzdl::OnnxImportOptions options;
  try {
    for (int i = 1; i < argc; ++i) {
      const std::string arg = argv[i];
      if (arg == "--input-shape" && i + 1 < argc) {
        qzdl::ParseInputShapeArg(argv[++i], &options);
      } else if (arg == "--serial" && i + 1 < argc) {
        serial = argv[++i];
      } else if (arg == "--constant-input" && i + 1 < argc) {
        const std::string item = argv[++i];
        const size_t eq = item.find('=');
        if (eq == std::string::npos || eq == 0) return Usage();
        const std::string path = item.substr(eq + 1);
        std::string bytes, error;
        if (!qzdl::ReadWholeFile(path, &bytes, &error)) {
          throw qzdl::OnnxImportError("cannot read \"" + path + "\": " + error);
        }
        options.constant_inputs[item.substr(0, eq)] = bytes;
        options.constant_input_files[item.substr(0, eq)] = path;
      } else if (arg == "--preset-ranges" && i + 1 < argc) {
        options.preset_path = argv[++i];
      } else if (arg == "--max-constant-mib" && i + 1 < argc) {
        const std::string value = argv[++i];
        char* end = nullptr;
        const long long mib = strtoll(value.c_str(), &end, 10);
        // Up to 2^32 MiB keeps the byte count far inside int64.
        if (value.empty() || *end != '\0' || mib < 1 || mib > (1LL << 32)) {
          throw qzdl::OnnxImportError("--max-constant-mib \"" + value +
                                      "\" is not a whole number from 1 to 4294967296");
        }
        options.max_constant_bytes = static_cast<int64_t>(mib) << 20;
      } else if (!arg.empty() && arg[0] == '-') {
        return Usage();
      } else if (count < 3) {
        positional[count++] = arg;
      } else {
        return Usage();
      }
    }
    if (count != 3) return Usage();
    const qzdl::OnnxImportResult result =
        qzdl::ConvertOnnxFile(positional[0], positional[1], positional[2], serial, options);
    printf("qzdl_onnx2net: %s -> %s (%d layers), %s (%zu blobs)%s%s", positional[0].c_str(),
           positional[1].c_str(), result.layer_count, positional[2].c_str(), result.blobs.size(),
           serial.empty() ? "" : ", ", serial.c_str());
    if (!options.preset_path.empty())
      printf(", %s (%d ranges)", options.preset_path.c_str(), result.preset_count);
    printf("\n");
    return 0;
  } catch (const qzdl::OnnxImportError& e) {
    fprintf(stderr, "qzdl_onnx2net: %s\n", e.what());
    return 1;
  } catch (const std::exception& e) {
    fprintf(stderr, "qzdl_onnx2net: %s\n", e.what());
    return 1;
  }
}
