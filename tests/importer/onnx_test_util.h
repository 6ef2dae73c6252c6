// Helpers of the ONNX importer tests: file checks, running an imported net,
// running the qzdl_onnx2net executable.
#pragma once

#include <onnx/onnx_pb.h>

#include <memory>
#include <string>
#include <vector>

#include "runtime/net.h"
#include "importer/onnx_importer.h"

namespace qzdl::test {

bool FileExists(const std::string& path);

// An empty model of IR version 7 that imports operator set `opset`.
onnx::ModelProto EmptyModel(int opset = 13);
// Declares the float graph input `name` with fixed `dims`.
void AddFloatInput(onnx::GraphProto* g, const std::string& name, const std::vector<int64_t>& dims);

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
