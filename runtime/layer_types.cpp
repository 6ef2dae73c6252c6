#include "runtime/layer_types.h"

#include <sys/stat.h>

namespace qzdl {

bool IsFileExist(char const* path) {
  struct stat st;
  return path != nullptr && stat(path, &st) == 0;
}

}  // namespace qzdl
