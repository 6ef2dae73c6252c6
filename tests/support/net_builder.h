// Builder for small nets in tests: collects a net description and its
// weights, then creates the net through the normal creation path.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "runtime/create_net.h"
#include "runtime/json11.h"
#include "runtime/weights_file.h"

namespace qzdl::test {

class NetBuilder {
 public:
  NetBuilder& Input(const std::string& name, const std::vector<int>& dims);
  NetBuilder& Layer(const std::string& name, const std::string& type,
                    const std::vector<std::string>& inputs, const std::vector<std::string>& outputs,
                    const json11::Json::object& param = {});
  NetBuilder& Weight(const std::string& layer, const std::string& blob,
                     const std::vector<int>& dims, const std::vector<float>& values);
  // A "Convolution" with random weights and bias from `seed`: kernel x
  // kernel, padded to keep the plane, in `group` groups.
  NetBuilder& Conv(const std::string& name, const std::string& in, const std::string& out, int cin,
                   int cout, int kernel, uint32_t seed, int group = 1);
  // A top-level key of the net description.
  NetBuilder& Top(const std::string& key, const json11::Json& value);

  std::string JsonText() const;
  std::string WeightsBytes() const;
  const std::vector<WeightBlob>& Blobs() const { return blobs_; }

  // Creates the net with CreateNetFromContent; frugal as asked, no optimize.
  std::unique_ptr<Net<float>> Build(bool frugal = false) const;
  // Writes net.json and net.bin under `dir`; returns their paths.
  std::pair<std::string, std::string> WriteFiles(const std::string& dir,
                                                 const std::string& stem = "net") const;

 private:
  json11::Json::array inputs_;
  json11::Json::array layers_;
  json11::Json::object top_;
  std::vector<WeightBlob> blobs_;
};

// Deterministic values in [lo, hi).
std::vector<float> RandomVector(size_t n, uint32_t seed, float lo = -1.0f, float hi = 1.0f);

// Fills input 0 with values in [-2, 2) from `seed`, runs the net and
// returns the values of every net output.
std::vector<std::vector<float>> RunOutputs(Net<float>* net, uint32_t seed = 42);
// The values tensor `name` holds now.
std::vector<float> TensorValues(Net<float>* net, const std::string& name);

// A fresh empty directory under the test temp area.
std::string TempDir(const std::string& name);

// Reads a whole file ("" when it cannot be opened).
std::string ReadFile(const std::string& path);
// Writes `text` with a plain stream (tests' own files).
void WriteFile(const std::string& path, const std::string& text);
// The names in folder `dir`, sorted, without "." and "..".
std::vector<std::string> FolderNames(const std::string& dir);

// Builds `b`, which must fail, and returns the logged message without its
// time stamp and without the log line's own final newline.
std::string BuildError(const NetBuilder& b);

// Runs `fn` and returns what it wrote to standard output.
std::string CaptureStdout(const std::function<void()>& fn);

}  // namespace qzdl::test
