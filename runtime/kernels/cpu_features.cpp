#include "runtime/kernels/cpu_features.h"

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

namespace qzdl {

bool CpuPathAllowed(const char* path) {
  static const std::vector<std::string> disabled = [] {
    std::vector<std::string> names;
    const char* list = std::getenv("QZDL_CPU_DISABLE");
    if (list == nullptr) return names;
    std::stringstream in(list);
    std::string name;
    while (std::getline(in, name, ',')) {
      if (!name.empty()) names.push_back(name);
    }
    return names;
  }();
  for (const std::string& name : disabled) {
    if (name == path) return false;
  }
  return true;
}

}  // namespace qzdl
