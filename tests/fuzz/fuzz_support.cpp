#include "fuzz_support.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <vector>

#include "runtime/create_net.h"
#include "small_net.h"

namespace qzdl_fuzz {

namespace {

// Kept for the life of the process (never destroyed), so the exit handler
// that removes the folder can still read its name.
const std::string& Folder() {
  static const std::string* folder = [] {
    // Memory-backed when possible: every input passes through a file.
    const char* base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    std::string pattern = std::string(base) + "/qzdl-fuzz-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
      std::perror("mkdtemp");
      std::abort();
    }
    auto* name = new std::string(pattern);
    std::atexit([] {
      std::error_code ignored;
      std::filesystem::remove_all(Folder(), ignored);
    });
    return name;
  }();
  return *folder;
}

}  // namespace

void QuietStdout() {
  static const bool done = [] {
    if (std::getenv("QZDL_FUZZ_VERBOSE") != nullptr) return true;
    std::fflush(stdout);
    const int null_fd = open("/dev/null", O_WRONLY);
    if (null_fd >= 0) {
      dup2(null_fd, STDOUT_FILENO);
      close(null_fd);
    }
    return true;
  }();
  (void)done;
}

std::string WriteInput(const uint8_t* data, size_t size, const std::string& name) {
  const std::string path = Folder() + "/" + name;
  FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr || (size > 0 && std::fwrite(data, 1, size, file) != size) ||
      std::fclose(file) != 0) {
    std::perror(path.c_str());
    std::abort();
  }
  return path;
}

std::string ScratchFolder() {
  const std::string path = Folder() + "/scratch";
  std::filesystem::create_directories(path);
  return path;
}

qzdl::Net<float>* TryCreateNet(const std::string& text, const std::string& weights, bool frugal) {
  // The creation functions take a writable buffer; keep one spare byte so an
  // empty model still has an address.
  std::vector<char> model(weights.begin(), weights.end());
  model.push_back('\0');
  try {
    return qzdl::CreateNetFromContent<float>(text, model.data(), static_cast<int>(weights.size()),
                                             frugal, false, 0, 1);
  } catch (std::exception* error) {
    delete error;
    return nullptr;
  }
}

qzdl::Net<float>* TwoInputNet() {
  static qzdl::Net<float>* net = [] {
    qzdl::Net<float>* created = TryCreateNet(kTwoInputs, "", false);
    if (created == nullptr) {
      std::fprintf(stderr, "the two-input net of the data-set targets cannot be created\n");
      std::abort();
    }
    return created;
  }();
  return net;
}

}  // namespace qzdl_fuzz
