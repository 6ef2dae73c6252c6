#include "support/net_builder.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>

namespace qzdl::test {

NetBuilder& NetBuilder::Input(const std::string& name, const std::vector<int>& dims) {
  json11::Json::array d(dims.begin(), dims.end());
  inputs_.push_back(json11::Json::object{{"name", name}, {"dims", d}});
  return *this;
}

NetBuilder& NetBuilder::Layer(const std::string& name, const std::string& type,
                              const std::vector<std::string>& inputs,
                              const std::vector<std::string>& outputs,
                              const json11::Json::object& param) {
  json11::Json::array in(inputs.begin(), inputs.end());
  json11::Json::array out(outputs.begin(), outputs.end());
  layers_.push_back(json11::Json::object{
      {"name", name}, {"type", type}, {"inputs", in}, {"outputs", out}, {"param", param}});
  return *this;
}

NetBuilder& NetBuilder::Weight(const std::string& layer, const std::string& blob,
                               const std::vector<int>& dims, const std::vector<float>& values) {
  blobs_.push_back(WeightBlob{layer, blob, dims, values});
  return *this;
}

NetBuilder& NetBuilder::Top(const std::string& key, const json11::Json& value) {
  top_[key] = value;
  return *this;
}

std::string NetBuilder::JsonText() const {
  json11::Json::object net = top_;
  net["inputs"] = inputs_;
  net["layers"] = layers_;
  return json11::Json(net).dump();
}

std::string NetBuilder::WeightsBytes() const { return SerializeWeights(blobs_); }

std::unique_ptr<Net<float>> NetBuilder::Build(bool frugal) const {
  std::string weights = WeightsBytes();
  return std::unique_ptr<Net<float>>(CreateNetFromContent<float>(
      JsonText(), weights.data(), static_cast<int>(weights.size()), frugal, false, 0, 1));
}

std::pair<std::string, std::string> NetBuilder::WriteFiles(const std::string& dir,
                                                           const std::string& stem) const {
  const std::string json = dir + "/" + stem + ".json";
  const std::string bin = dir + "/" + stem + ".bin";
  std::ofstream(json) << JsonText();
  std::ofstream(bin, std::ios::binary) << WeightsBytes();
  return {json, bin};
}

NetBuilder& NetBuilder::Conv(const std::string& name, const std::string& in, const std::string& out,
                             int cin, int cout, int kernel, uint32_t seed, int group) {
  const json11::Json::object param{
      {"num_output", cout}, {"kernel_size", kernel}, {"pad", kernel / 2}, {"group", group}};
  return Layer(name, "Convolution", {in}, {out}, param)
      .Weight(name, "weight", {cout, cin / group, kernel, kernel},
              RandomVector(size_t(cout) * cin / group * kernel * kernel, seed))
      .Weight(name, "bias", {cout}, RandomVector(cout, seed + 1));
}

std::vector<std::vector<float>> RunOutputs(Net<float>* net, uint32_t seed) {
  std::vector<float> x = RandomVector(net->GetInputData(0)->Count(0), seed, -2.0f, 2.0f);
  net->SetFloatInputData(x.data(), 0);
  net->ForwardAll();
  std::vector<std::vector<float>> outs;
  for (int k = 0; k < net->GetOutCount(); ++k)
    outs.push_back(TensorValues(net, net->GetOutputDataName(k)));
  return outs;
}

std::vector<float> TensorValues(Net<float>* net, const std::string& name) {
  const Data<float>* d = net->GetData(name);
  return std::vector<float>(d->GetCpuData(), d->GetCpuData() + d->Count(0));
}

std::vector<float> RandomVector(size_t n, uint32_t seed, float lo, float hi) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<float> dist(lo, hi);
  std::vector<float> v(n);
  for (float& x : v) x = dist(gen);
  return v;
}

namespace {

// The folders TempDir made, removed when the test program ends (not in a
// forked child, whose exit must leave its parent's folders alone), unless
// QZDL_KEEP_TEST_DIRS is set for a look at them.
std::vector<std::string>& MadeDirs() {
  // Never destroyed: the exit handler reads it after static destructors ran.
  static auto* dirs = new std::vector<std::string>;
  return *dirs;
}
pid_t dirs_owner = 0;

void RemoveMadeDirs() {
  if (getpid() != dirs_owner || getenv("QZDL_KEEP_TEST_DIRS") != nullptr) return;
  for (const std::string& dir : MadeDirs()) {
    const std::string cmd = "rm -rf '" + dir + "'";
    if (system(cmd.c_str()) != 0) fprintf(stderr, "cannot remove %s\n", dir.c_str());
  }
}

}  // namespace

std::string TempDir(const std::string& name) {
  const char* base = getenv("TEST_TMPDIR");
  std::string root = base ? base : "/tmp";
  std::string dir = root + "/qzdl_test_" + std::to_string(getpid()) + "_" + name;
  std::string cmd = "rm -rf '" + dir + "' && mkdir -p '" + dir + "'";
  if (system(cmd.c_str()) != 0) ADD_FAILURE() << "cannot make " << dir;
  if (dirs_owner == 0) {
    dirs_owner = getpid();
    atexit(RemoveMadeDirs);
  }
  if (dirs_owner == getpid()) MadeDirs().push_back(dir);
  return dir;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

std::vector<std::string> FolderNames(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      const std::string name = e->d_name;
      if (name != "." && name != "..") names.push_back(name);
    }
    closedir(d);
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string BuildError(const NetBuilder& b) {
  bool threw = false;
  const std::string log = CaptureStdout([&] {
    try {
      b.Build();
    } catch (std::exception* e) {
      threw = true;
      delete e;
    }
  });
  EXPECT_TRUE(threw) << "the build did not fail";
  const size_t start = log.find("]: ");
  if (start == std::string::npos || log.back() != '\n') return "log line: " + log;
  return log.substr(start + 3, log.size() - start - 4);
}

std::string CaptureStdout(const std::function<void()>& fn) {
  testing::internal::CaptureStdout();
  // The capture ends when `fn` throws too, so that later captures work.
  try {
    fn();
  } catch (...) {
    testing::internal::GetCapturedStdout();
    throw;
  }
  return testing::internal::GetCapturedStdout();
}

}  // namespace qzdl::test
