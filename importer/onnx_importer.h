// Importing ONNX models: an ONNX file becomes a net description (JSON) and
// its weight blobs for the float runtime. See docs/onnx-import.md.
#pragma once

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "runtime/weights_file.h"

namespace qzdl {

// Every failure of an import. The message is complete: it names the file, or
// the node, its operator and the attribute or input at fault.
struct OnnxImportError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// A constant computed while importing (ConstantOfShape, Expand, Tile,
// Range...) holds at most this many bytes of its element type by default.
// Real weights computed at import stay below it (VGG's first fully connected
// layer holds 411 MB), and a damaged model cannot ask for unbounded memory.
constexpr int64_t kDefaultMaxConstantBytes = int64_t{1} << 30;

struct OnnxImportOptions {
  // Dims for graph inputs, replacing the declared ones (batch first).
  std::map<std::string, std::vector<int64_t>> input_shapes;
  // Graph inputs that are really constants: name -> a serialized TensorProto.
  // They become initializers before the import.
  std::map<std::string, std::string> constant_inputs;
  // The files those tensors were read from, for messages (optional).
  std::map<std::string, std::string> constant_input_files;
  // The limit on each constant computed while importing, in bytes.
  int64_t max_constant_bytes = kDefaultMaxConstantBytes;
  // ConvertOnnxFile: where to write the preset ranges (empty: nowhere).
  std::string preset_path;
};

struct OnnxImportResult {
  std::string net_json;           // the net description, ready to write
  std::vector<WeightBlob> blobs;  // the weights, in layer order
  int layer_count = 0;
  // The grids a QDQ model gives its activations, as the converter's preset
  // file (-l): {"presetConfig": {"data": [{"dataName", "axis", "min",
  // "max"}...], "weight": []}}; no data entries for other models.
  std::string preset_json;
  int preset_count = 0;
};

// Imports the model in `path`. Throws OnnxImportError.
OnnxImportResult ImportOnnxFile(const std::string& path, const OnnxImportOptions& options = {});

// Imports a model held in memory; `source` names it in messages and
// `base_dir` resolves external initializer data.
OnnxImportResult ImportOnnxBytes(const std::string& bytes, const std::string& source,
                                 const std::string& base_dir,
                                 const OnnxImportOptions& options = {});

// Imports `onnx_path` and writes the net description, the weights file and,
// when `serial_path` is not empty, the serial model file. Nothing is written
// unless the whole import succeeded; then all files are written to temporary
// files beside them and only renamed into place once all are complete
// (WriteFilesAtomically). Throws OnnxImportError, on a write failure with
// `cannot write "<path>": <reason>`.
OnnxImportResult ConvertOnnxFile(const std::string& onnx_path, const std::string& json_path,
                                 const std::string& weights_path, const std::string& serial_path,
                                 const OnnxImportOptions& options = {});

// Parses "name=1,3,224,224" into `options.input_shapes`. Throws
// OnnxImportError on a malformed argument.
void ParseInputShapeArg(const std::string& arg, OnnxImportOptions* options);

}  // namespace qzdl
