#include "runtime/log.h"

#include <cstdio>
#include <ctime>
#include <string>

namespace qzdl {

QLOG qlogInstance;

void QLOG::QZLOG(std::string message) {
  time_t now = time(nullptr);
  std::string stamp = asctime(gmtime(&now));
  if (!stamp.empty()) stamp.back() = ' ';
  printf("[%s]: %s\n", stamp.c_str(), message.c_str());
  fflush(stdout);
}

}  // namespace qzdl
