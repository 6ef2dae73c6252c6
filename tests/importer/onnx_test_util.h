// Helpers of the ONNX importer tests: file checks, running an imported net,
// running the qzdl_onnx2net executable.
#pragma once

#include <onnx/onnx_pb.h>

#include <memory>
#include <string>
#include <vector>

#include "importer/onnx_importer.h"
#include "runtime/json11.h"
#include "runtime/net.h"

namespace qzdl::test {

bool FileExists(const std::string& path);
// The path of a committed ONNX fixture, tests/fixtures/onnx/<name>.
std::string Fixture(const std::string& name);
// The "layers" array of an import result's net description.
json11::Json Layers(const OnnxImportResult& r);
// The layer types of the imported net in order, each followed by a space.
std::string Types(const OnnxImportResult& r);

// An empty model of IR version 7 that imports operator set `opset`.
onnx::ModelProto EmptyModel(int opset = 13);
// Declares the float graph input `name` with fixed `dims`.
void AddFloatInput(onnx::GraphProto* g, const std::string& name, const std::vector<int64_t>& dims);
// Adds a float initializer `name` of `dims` holding `values`.
void AddFloatInit(onnx::GraphProto* g, const std::string& name, const std::vector<int64_t>& dims,
                  const std::vector<float>& values);
// The message of the OnnxImportError that importing `m` throws, or
// "no error".
std::string ImportErrorOf(const onnx::ModelProto& m, const OnnxImportOptions& options = {});
// Declares the float graph output `name` (shape left to inference).
void AddOutput(onnx::ModelProto* m, const std::string& name);
// Appends node `name` of operator `op`.
onnx::NodeProto* AddNode(onnx::ModelProto* m, const std::string& op, const std::string& name,
                         const std::vector<std::string>& inputs,
                         const std::vector<std::string>& outputs);

// Creates a float net from an import result (no frugal mode, no rewrites).
std::unique_ptr<Net<float>> BuildNet(const OnnxImportResult& result);

// Sets the net inputs in order, runs the whole net and returns its outputs.
std::vector<std::vector<float>> RunNet(Net<float>* net,
                                       const std::vector<std::vector<float>>& inputs);

struct ToolRun {
  int status = -1;  // exit status
  std::string out, err;
};
// Runs qzdl_onnx2net with `args` (already quoted as needed).
ToolRun RunOnnx2Net(const std::string& args);

// Cosine similarity and largest relative error (|a-b| / max|b|).
double Cosine(const std::vector<float>& a, const std::vector<float>& b);
double MaxRelError(const std::vector<float>& got, const std::vector<float>& want);

}  // namespace qzdl::test
