// Errors that the runtime finds in a net description or a weights file.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace qzdl {

// Carries a complete, user-facing message such as
//   Net file "net.json": layer "conv1" (Convolution): param "kernel_h" must be >= 1
// Net creation turns it into the logged QZDLInitException path.
class NetFormatError : public std::runtime_error {
 public:
  explicit NetFormatError(const std::string& message) : std::runtime_error(message) {}
};

// Names of the files being loaded on this thread, used to prefix messages.
// Net creation sets them for the duration of one creation call.
class SourceNames {
 public:
  SourceNames(const std::string& net_file, const std::string& model_file);
  ~SourceNames();
  SourceNames(const SourceNames&) = delete;
  SourceNames& operator=(const SourceNames&) = delete;

  // "Net file \"x.json\"" or "net description" when no file is known.
  static std::string Net();
  // "Model file \"x.bin\"" or "weights" when no file is known.
  static std::string Model();
  // The paths themselves ("" when none is set).
  static std::string NetPath();
  static std::string ModelPath();

 private:
  std::string saved_net_;
  std::string saved_model_;
};

// An error about one file: the tools' terminate handler prints
// FileLine(file()) on a line of its own after the error's text.
class FileNamedError {
 public:
  explicit FileNamedError(std::string path) : path_(std::move(path)) {}
  virtual ~FileNamedError() = default;
  const std::string& file() const { return path_; }

 private:
  std::string path_;
};

// `file "<path>"`: how messages name a file on a line of their own.
std::string FileLine(const std::string& path);

// "[1, 3, 224, 224]"
std::string DimsToString(const std::vector<int>& dims);

}  // namespace qzdl
