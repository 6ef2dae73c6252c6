#include "runtime/errors.h"

namespace qzdl {

namespace {
thread_local std::string g_net_file;
thread_local std::string g_model_file;
}  // namespace

SourceNames::SourceNames(const std::string& net_file, const std::string& model_file)
    : saved_net_(g_net_file), saved_model_(g_model_file) {
  g_net_file = net_file;
  g_model_file = model_file;
}

SourceNames::~SourceNames() {
  g_net_file = saved_net_;
  g_model_file = saved_model_;
}

std::string SourceNames::Net() {
  return g_net_file.empty() ? "net description" : "Net file \"" + g_net_file + "\"";
}

std::string SourceNames::Model() {
  return g_model_file.empty() ? "weights" : "Model file \"" + g_model_file + "\"";
}

std::string SourceNames::NetPath() { return g_net_file; }

std::string SourceNames::ModelPath() { return g_model_file; }

std::string FileLine(const std::string& path) { return "file \"" + path + "\""; }

std::string DimsToString(const std::vector<int>& dims) {
  std::string s = "[";
  for (size_t i = 0; i < dims.size(); ++i) {
    if (i) s += ", ";
    s += std::to_string(dims[i]);
  }
  return s + "]";
}

}  // namespace qzdl
